#!/usr/bin/env bash
# Builds the HTML reference of the exported headers with Debian's doxygen;
# any doxygen warning fails the build.
#   bash scripts/build-docs.sh [output folder]   (default: build/doc)
set -euo pipefail
cd "$(dirname "$0")/.."

if ! command -v doxygen >/dev/null; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "Run as root: apt-get update && apt-get install -y --no-install-recommends doxygen" >&2
    exit 1
  fi
  apt-get update && DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends doxygen
fi

output=$(realpath -m "${1:-build/doc}")
mkdir -p "$output"
VELA_DOC_DIR=$output doxygen Doxyfile
echo "API reference: $output/html/index.html"
