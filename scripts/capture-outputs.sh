#!/usr/bin/env bash
# Writes everything vela-power prints and writes for the shipped example, every
# test graph and a set of random graphs into one folder, so that two
# revisions can be compared byte for byte:
#   bash scripts/capture-outputs.sh build/tools/vela-power /tmp/before
#   ... change, rebuild ...
#   bash scripts/capture-outputs.sh build/tools/vela-power /tmp/after
#   diff -r /tmp/before /tmp/after
set -uo pipefail
cd "$(dirname "$0")/.."
program=$(realpath "$1")
out=$2
# The random graphs live at one relative path, so that messages naming them
# are the same in every capture.
graphs_dir=build/capture-graphs
mkdir -p "$out" "$graphs_dir"
for seed in $(seq 1 ${RANDOM_GRAPHS:-30}); do
  python3 scripts/random-graph.py "$seed" $((8 + seed % 20)) >"$graphs_dir/random$seed.json"
done
graphs=(examples/graphs/handheld.json tests/tools/data/*.json tests/tools/data/*/*.json "$graphs_dir"/*.json)
for graph in "${graphs[@]}"; do
  name=$(echo "$graph" | tr '/' '_')
  dir="$out/$name"
  mkdir -p "$dir"
  for force in "" --force; do
    "$program" run "$graph" $force --timeout-ms 20000 --events "$dir/events$force" --trace "$dir/trace$force" \
      --plot "$dir/plot$force" --snapshot "$dir/snapshot$force" >"$dir/run$force.out" 2>"$dir/run$force.err"
    echo "exit $?" >>"$dir/run$force.err"
  done
  "$program" run "$graph" --force --verbose --timeout-ms 20000 >"$dir/run-verbose.out" 2>&1
  "$program" verify --format json "$graph" >"$dir/verify.json" 2>&1; echo "exit $?" >>"$dir/verify.json"
  "$program" verify "$graph" >"$dir/verify.txt" 2>&1; echo "exit $?" >>"$dir/verify.txt"
  "$program" dot "$graph" -o "$dir/graph.dot" >"$dir/dot.out" 2>&1; echo "exit $?" >>"$dir/dot.out"
  if [ -s "$dir/snapshot" ]; then
    "$program" dot "$graph" --snapshot "$dir/snapshot" -o "$dir/graph-snapshot.dot" >>"$dir/dot.out" 2>&1
  fi
  targets=$(python3 -c 'import json,sys
try: print(" ".join(t["name"] for t in json.load(open(sys.argv[1])).get("targets", [])))
except Exception: pass' "$graph")
  for target in $targets; do
    "$program" explain "$graph" --to "$target" --format json >"$dir/explain-$target.json" 2>&1
    echo "exit $?" >>"$dir/explain-$target.json"
    "$program" explain "$graph" --to "$target" >"$dir/explain-$target.txt" 2>&1
  done
  printf 'target %s\nsnapshot\nquit\n' "${targets%% *}" | "$program" run "$graph" --interactive --force \
    >"$dir/interactive.out" 2>&1
  echo "exit $?" >>"$dir/interactive.out"
done
