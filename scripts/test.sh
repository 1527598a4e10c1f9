#!/usr/bin/env bash
# Builds everything and runs the whole CTest suite.
#   BUILD_DIR      build folder (default: build)
#   BUILD_TYPE     CMake build type (default: RelWithDebInfo)
#   VELA_SANITIZE  "address;undefined" or "thread" for a sanitizer build
#   VELA_WERROR    ON to turn warnings into errors (CI does)
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup-deps.sh

build_dir=${BUILD_DIR:-build}
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B "$build_dir" \
  -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
  -DVELA_SANITIZE="${VELA_SANITIZE:-}" \
  -DVELA_WERROR="${VELA_WERROR:-OFF}"
cmake --build "$build_dir" -j "$jobs"
ctest --test-dir "$build_dir" --output-on-failure -j "$jobs" --timeout 600
