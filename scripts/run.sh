#!/usr/bin/env bash
# Builds vela-power and runs a power graph with its scenario against the
# simulated platform (default: the shipped example), printing the timeline of
# what happened and the final state of every node.
#   bash scripts/run.sh [graph.json] [vela-power run options]
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup-deps.sh

build_dir=${BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" >/dev/null
cmake --build "$build_dir" -j "$jobs" --target vela-power example_service >/dev/null

graph=${1:-examples/graphs/handheld.json}
shift || true
"$build_dir/tools/vela-power" run "$@" "$graph"
