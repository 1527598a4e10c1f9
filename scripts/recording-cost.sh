#!/usr/bin/env bash
# What recording costs, in figures:
#  1. bench_recording: a chain of 200,000 links switched on and off, with no
#     recorder attached and as `vela-power run` records it (ratio of CPU
#     times, measured in one process);
#  2. `vela-power run` itself, timed whole, on that chain (one claim on its
#     head, then its release) and on 100,000 queued requests on five
#     resources.
#   bash scripts/recording-cost.sh             # builds what it needs
#   LINKS=20000 REQUESTS=10000 bash scripts/recording-cost.sh
set -euo pipefail
cd "$(dirname "$0")/.."

build_dir=${BUILD_DIR:-build}
links=${LINKS:-200000}
requests=${REQUESTS:-100000}
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" >/dev/null
cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)" --target vela-power bench_recording >/dev/null
program="$build_dir/tools/vela-power"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

awk -v n="$links" 'BEGIN {
  print "{ \"modules\": [ { \"name\": \"app\" } ], \"resources\": ["
  for (i = 0; i < n; i++) {
    line = "{ \"name\": \"r" i "\", \"enable\": { \"path\": \"/hw/r" i "\", \"key\": \"on\", \"value\": true }, " \
           "\"disable\": { \"path\": \"/hw/r" i "\", \"key\": \"on\", \"value\": false }"
    if (i + 1 < n) line = line ", \"requires\": [\"r" (i + 1) "\"]"
    print line (i + 1 < n ? " }," : " }")
  }
  print "], \"requests\": [ { \"resource\": \"r0\", \"module\": \"app\", \"action\": \"use\" },"
  print "  { \"resource\": \"r0\", \"module\": \"app\", \"action\": \"release\" } ] }"
}' >"$work/chain.json"

awk -v n="$requests" 'BEGIN {
  print "{ \"modules\": [ { \"name\": \"app\" } ], \"resources\": ["
  for (i = 0; i < 5; i++)
    print "{ \"name\": \"r" i "\", \"enable\": { \"path\": \"/hw/r" i "\", \"key\": \"on\", \"value\": true }, " \
          "\"disable\": { \"path\": \"/hw/r" i "\", \"key\": \"on\", \"value\": false } }" (i < 4 ? "," : "")
  print "], \"requests\": ["
  for (i = 0; i < n; i++)
    print "{ \"resource\": \"r" (i % 5) "\", \"module\": \"app\", \"action\": \"" (i % 10 < 5 ? "use" : "release") "\" }" (i + 1 < n ? "," : "")
  print "] }"
}' >"$work/queue.json"

"$build_dir/bench/bench_recording" "$links" "${ROUNDS:-3}"
seconds() {
  local start end
  start=$(date +%s.%N)
  "$@" >/dev/null
  end=$(date +%s.%N)
  echo "$end - $start" | bc
}
echo "vela-power run, wall-clock seconds (timeline to /dev/null):"
echo "  chain of $links links switched on and off  $(seconds "$program" run "$work/chain.json")"
echo "  $requests queued requests on five resources  $(seconds "$program" run "$work/queue.json")"
