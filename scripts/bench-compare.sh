#!/usr/bin/env bash
# The speed of this checkout against a reference revision, measured in one
# run: both builds' benchmarks run in turn, ROUNDS times each, so that the
# load of a shared machine falls on both alike. Prints, per benchmark, the
# median CPU time of each side and the ratio current / reference (below 1 is
# faster), and the ratio of the two sides' fastest rounds: the machine's slow
# spells last minutes and only ever add time, so when they hit some rounds and
# not others, the fastest rounds are the steadier comparison.
#
#   scripts/bench-compare.sh [REFERENCE] [FILTER]
#     REFERENCE  a revision (default: HEAD~1), built in its own worktree
#     FILTER     a --benchmark_filter regular expression (default: all)
#   BENCHES      the benchmark programs (default: bench_reply bench_handler
#                bench_switching)
#   ROUNDS       runs per side (default: 3)
#   BUILD_DIR    this checkout's build folder (default: build)
#   BENCH_CPU    the CPU both sides run on (default: 0; empty: not pinned).
#                The two virtual CPUs of the development machine differ: a
#                request took 3.2 us on CPU 0 and 5.0 us on CPU 1, so an
#                unpinned run compares whichever CPU each process landed on.
#
# Exit codes: 0 compared, 2 bad arguments or a build that failed.
set -euo pipefail
cd "$(dirname "$0")/.."

reference=${1:-HEAD~1}
filter=${2:-.}
benches=${BENCHES:-bench_reply bench_handler bench_switching}
rounds=${ROUNDS:-3}
build_dir=${BUILD_DIR:-build}
bench_cpu=${BENCH_CPU-0}
pin=()
if [ -n "$bench_cpu" ] && command -v taskset >/dev/null 2>&1; then
  pin=(taskset -c "$bench_cpu")
fi
reference_tree="build-bench-reference/tree"

if ! commit=$(git rev-parse --verify --quiet "$reference^{commit}"); then
  echo "bench-compare: no such revision: $reference" >&2
  exit 2
fi

build_benches() {
  local source=$1 build=$2
  cmake -S "$source" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELA_BUILD_BENCHMARKS=ON >/dev/null
  # shellcheck disable=SC2086
  cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target $benches >/dev/null
}

git worktree remove --force "$reference_tree" 2>/dev/null || rm -rf "$reference_tree"
git worktree prune
git worktree add --detach --force "$reference_tree" "$commit" >/dev/null
trap 'git worktree remove --force "$reference_tree" 2>/dev/null || true' EXIT

echo "Building the reference $(git rev-parse --short "$commit") and this checkout..."
build_benches "$reference_tree" build-bench-reference/build || exit 2
build_benches . "$build_dir" || exit 2

results=$(mktemp -d)
for round in $(seq "$rounds"); do
  for side in reference current; do
    build=$build_dir
    [ "$side" = reference ] && build="build-bench-reference/build"
    for bench in $benches; do
      "${pin[@]}" "$build/bench/$bench" --benchmark_filter="$filter" --benchmark_color=false \
        >"$results/$side.$bench.$round.txt" 2>/dev/null
    done
  done
done

# One line per benchmark and side: name, CPU time in ns, from the console
# table (name, time, unit, CPU time, unit, iterations, counters).
collect() {
  cat "$results"/"$1".*.txt | awk '
    NF >= 6 && $3 ~ /^(ns|us|ms|s)$/ && $5 ~ /^(ns|us|ms|s)$/ && $6 ~ /^[0-9]+$/ {
      scale = ($5 == "ms") ? 1e6 : ($5 == "us") ? 1e3 : ($5 == "s") ? 1e9 : 1
      print $1, $4 * scale
    }'
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
least() { sort -n | head -n 1; }

reference_times=$(collect reference)
current_times=$(collect current)
printf '%-52s %14s %14s %8s %10s\n' benchmark "reference ns" "current ns" ratio "best ratio"
echo "$reference_times" | awk '{ print $1 }' | sort -u | while read -r name; do
  ref_all=$(echo "$reference_times" | awk -v n="$name" '$1 == n { print $2 }')
  cur_all=$(echo "$current_times" | awk -v n="$name" '$1 == n { print $2 }')
  [ -n "$cur_all" ] || continue
  ref=$(echo "$ref_all" | median)
  cur=$(echo "$cur_all" | median)
  ref_best=$(echo "$ref_all" | least)
  cur_best=$(echo "$cur_all" | least)
  awk -v n="$name" -v r="$ref" -v c="$cur" -v rb="$ref_best" -v cb="$cur_best" \
    'BEGIN { printf "%-52s %14.0f %14.0f %8.3f %10.3f\n", n, r, c, c / r, cb / rb }'
done
rm -rf "$results"
