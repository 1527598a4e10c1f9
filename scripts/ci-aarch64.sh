#!/usr/bin/env bash
# CI stage for the device: sets up the cross toolchain and the emulator (as
# root on a fresh Debian 12 machine), cross-builds the two libraries and the
# test programs of the reply model, graph, switching and requests, and runs
# them on the emulated AArch64 machine. Fails when any test fails.
#
# Left out on the device: the tests that switch or walk chains of 200,000
# links (DeepChain, DeepReachability). They check that a walk does not grow
# the stack with the graph, which is the same algorithm on every platform;
# under the emulator they alone take longer than the rest of the run put
# together. Every host stage of CI runs them, and
#   bash scripts/test-aarch64.sh
# runs everything, them included, on the emulated machine.
#
#   bash scripts/ci-aarch64.sh [extra test-aarch64.sh arguments]
#   BUILD_DIR   cross-build folder (default: build-aarch64-ci)
set -euo pipefail
cd "$(dirname "$0")/.."

labels=api,graph,switching,requests
device_filter='-*DeepChain.*:DeepReachability.*'

echo "== AArch64 CI subset: test programs of $labels"
echo "== left out on the device (gtest filter): $device_filter"
BUILD_DIR=${BUILD_DIR:-build-aarch64-ci} exec bash scripts/test-aarch64.sh \
  --labels "$labels" --gtest-filter "$device_filter" "$@"
