#!/usr/bin/env bash
# Fuzzing stage: builds the libFuzzer targets of fuzz/ with clang
# (AddressSanitizer + UndefinedBehaviorSanitizer) in build-fuzz and runs each
# for a while, printing its executions per second and its corpus size. A
# crash, leak, hang or failed check stops the stage; the input that caused
# it is left in build-fuzz/fuzz/artifacts/<fuzzer>/.
#   bash scripts/ci-fuzz.sh [seconds per fuzzer, default 60]
#   BUILD_DIR     build folder (default: build-fuzz)
#   VELA_WERROR   warnings as errors (default: ON)
# The corpus each fuzzer grows is kept in build-fuzz/fuzz/corpus/<fuzzer>/
# and reused by the next run; the seeds in fuzz/corpus/ are only read.
set -euo pipefail
cd "$(dirname "$0")/.."
start=$SECONDS

bash scripts/setup-deps.sh

seconds=${1:-60}
build_dir=${BUILD_DIR:-build-fuzz}
jobs=$(nproc 2>/dev/null || echo 2)
fuzzers=(fuzz_requests fuzz_graphfile fuzz_manager)

CC=clang CXX=clang++ cmake -S . -B "$build_dir" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DVELA_BUILD_FUZZERS=ON \
  -DVELA_BUILD_TESTS=OFF \
  -DVELA_BUILD_BENCHMARKS=OFF \
  -DVELA_WERROR="${VELA_WERROR:-ON}" >/dev/null
cmake --build "$build_dir" -j "$jobs" --target "${fuzzers[@]}"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# Runs one fuzzer and prints its figures from libFuzzer's final statistics.
run_fuzzer() {
  local fuzzer=$1
  local corpus="$build_dir/fuzz/corpus/$fuzzer"
  local artifacts="$build_dir/fuzz/artifacts/$fuzzer"
  local log="$build_dir/fuzz/$fuzzer.log"
  local options=()
  if [ -f "fuzz/$fuzzer.dict" ]; then
    options+=("-dict=fuzz/$fuzzer.dict")
  fi
  mkdir -p "$corpus" "$artifacts"
  echo "--- $fuzzer: ${seconds} s ---"
  if ! "$build_dir/fuzz/$fuzzer" -max_total_time="$seconds" -timeout=30 -print_final_stats=1 \
    -artifact_prefix="$artifacts/" "${options[@]}" "$corpus" "fuzz/corpus/$fuzzer" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "$fuzzer FAILED; reproducer in $artifacts/ (full log: $log)"
    return 1
  fi
  local runs exec_per_second corpus_in_use saved
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  exec_per_second=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  # "corp: <inputs>/<size>" of libFuzzer's last status line: the corpus it works with.
  corpus_in_use=$(grep -o 'corp: [0-9]*/[0-9]*[a-zA-Z]*' "$log" | tail -n 1 | cut -d' ' -f2)
  saved=$(find "$corpus" -type f | wc -l)
  echo "$fuzzer: $runs runs in ${seconds} s, $exec_per_second exec/s," \
    "corpus ${corpus_in_use:-?} (inputs/size), $saved inputs saved in $corpus"
}

status=0
for fuzzer in "${fuzzers[@]}"; do
  run_fuzzer "$fuzzer" || status=1
done
echo "Fuzzing stage: $((SECONDS - start)) s"
exit $status
