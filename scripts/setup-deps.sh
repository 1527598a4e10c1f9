#!/usr/bin/env bash
# Makes sure the Debian 12 packages the build needs are installed. As root it
# installs what is missing (after apt-get update); otherwise it prints the
# exact command to run and fails.
set -euo pipefail

packages=(g++ make cmake pkg-config qtbase5-dev liblog4cplus-dev libgtest-dev libgmock-dev libbenchmark-dev
  rapidjson-dev graphviz librsvg2-bin libxml2-utils clang libclang-rt-14-dev valgrind
  clang-format doxygen dbus-daemon libglib2.0-bin util-linux systemd libdbus-1-dev)
missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages: ${missing[*]}" >&2
  echo "Run as root: apt-get update && apt-get install -y ${missing[*]}" >&2
  exit 1
fi

echo "Installing missing packages: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
