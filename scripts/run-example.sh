#!/usr/bin/env bash
# Builds the libraries and runs the example service: a small power graph
# built in code, run against the stand-alone root worker, with a target and
# a resource requested and the node snapshot printed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup-deps.sh

build_dir=${BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}"
cmake --build "$build_dir" -j "$jobs" --target example_service
"$build_dir/examples/example_service"
