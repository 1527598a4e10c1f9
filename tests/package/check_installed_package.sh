#!/usr/bin/env bash
# Installs the build into a scratch prefix, builds the example service
# against the installed package (find_package and pkg-config) and runs it.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir/examples/standalone" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/$(uname -m)-linux-gnu" "$work/consumer/example_service" \
  | grep -q '"isEnabled": true'
PKG_CONFIG_PATH="$(dirname "$(find "$work/prefix" -name vela_powerHandler.pc)")" \
  pkg-config --cflags --libs vela_powerHandler | grep -q -- "-lvela_powerHandler"
objdump -p "$(find "$work/prefix" -name 'libvela_powerHandler.so.*' | head -1)" | grep -q 'SONAME *libvela_powerHandler.so.0'
echo "installed package: find_package, pkg-config and SONAME check passed"
