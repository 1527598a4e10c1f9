#!/usr/bin/env bash
# Builds the Debian packages for the build machine's architecture and, with the
# cross toolchain, for AArch64, then collects every .deb in one folder:
#   libvela-api0, libvela-powerhandler0, libvela-power-dev, vela-power-tools
#   (one of each per architecture) and libvela-power-doc (architecture all).
# Then lintian checks them (no errors allowed) and the example service is
# built against the unpacked packages of the build machine.
#   bash scripts/package.sh [folder]        (default: build-packages)
#   VELA_PACKAGE_PROFILES=nodoc  extra build profiles for both builds (nodoc
#                                leaves out the documentation package)
# The packages are built from a copy of the source tree in folder/work, so
# the tree itself stays clean.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$(pwd)
out=$(realpath -m "${1:-build-packages}")

tools=(dpkg-dev debhelper lintian crossbuild-essential-arm64 file)

# As root: the arm64 architecture, the packaging tools and the build
# dependencies of both builds; anyone else is told the commands to run.
setup() {
  local missing=() package
  for package in "${tools[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
  done
  dpkg --print-foreign-architectures | grep -qx arm64 || missing+=(arm64-architecture)
  if [ ${#missing[@]} -eq 0 ] && dpkg-checkbuilddeps && dpkg-checkbuilddeps -a arm64 -Pcross,nocheck; then
    return 0
  fi
  if [ "$(id -u)" -ne 0 ]; then
    echo "Run as root: dpkg --add-architecture arm64 && apt-get update &&" \
      "apt-get install -y --no-install-recommends ${tools[*]} &&" \
      "apt-get build-dep -y ./ && apt-get build-dep -y -a arm64 -Pcross,nocheck ./" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  dpkg --add-architecture arm64
  apt-get update
  apt-get install -y --no-install-recommends "${tools[@]}"
  apt-get build-dep -y --no-install-recommends ./
  apt-get build-dep -y --no-install-recommends -a arm64 -Pcross,nocheck ./
}

# Tracked files and new ones not ignored: what a commit of this tree would hold.
copy_source() {
  local tree=$1
  rm -rf "$tree"
  mkdir -p "$tree"
  git ls-files -z --cached --others --exclude-standard | cpio --null -pdm --quiet "$tree"
}

build() {
  local name=$1
  shift
  local start=$SECONDS
  echo "== dpkg-buildpackage $* ($name)"
  if ! (cd "$work/vela-power" && dpkg-buildpackage "$@") >"$out/build-$name.log" 2>&1; then
    tail -40 "$out/build-$name.log"
    echo "package build ($name) failed; log: $out/build-$name.log" >&2
    exit 1
  fi
  echo "   $((SECONDS - start)) s"
}

setup
rm -rf "$out"
work=$out/work
copy_source "$work/vela-power"
# No -dbgsym packages: the folder holds what the device and developers install.
export DEB_BUILD_OPTIONS="parallel=$(nproc 2>/dev/null || echo 2) noddebs ${DEB_BUILD_OPTIONS:-}"
extra=${VELA_PACKAGE_PROFILES:-}
build "$(dpkg --print-architecture)" ${extra:+-P$extra} -us -uc -b
build arm64 -a arm64 -Pcross,nocheck${extra:+,$extra} -us -uc -b
# lintian reads the .changes files, which name the .deb files beside them.
echo "== lintian"
lintian --fail-on error "$work"/*.changes
mv "$work"/*.deb "$out"/
echo "== packages in $out"
(cd "$out" && ls -1 ./*.deb)
bash tests/package/check_debian_packages.sh "$out" "$source_dir"
