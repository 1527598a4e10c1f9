#!/usr/bin/env bash
# Unpacks the Debian packages of the build machine's architecture into a
# scratch root (dpkg -x, nothing is installed) and builds the example service
# against them twice, with find_package and with pkg-config, and runs both.
#   check_debian_packages.sh DEB_FOLDER SOURCE_DIR
# Exits 77 (skipped) when the folder holds no packages: scripts/package.sh
# makes them and runs this check itself.
set -euo pipefail
debs=$1
source_dir=$2
arch=$(dpkg --print-architecture)
triplet=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)

packages=(libvela-api0 libvela-powerhandler0 libvela-power-dev vela-power-tools)
for package in "${packages[@]}"; do
  if ! compgen -G "$debs/${package}_*_$arch.deb" >/dev/null; then
    echo "no ${package} package for $arch in $debs: run scripts/package.sh to make them"
    exit 77
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
for package in "${packages[@]}"; do
  dpkg -x "$debs/${package}"_*_"$arch".deb "$root"
done
libdir=$root/usr/lib/$triplet

# The runtime packages hold the libraries under their SONAME, the tools
# package the host program and the example graph.
for library in libvela_api.so.0 libvela_powerHandler.so.0; do
  objdump -p "$libdir/$library" | grep -q "SONAME *$library" || { echo "$library: wrong SONAME" >&2; exit 1; }
done
compgen -G "$root/usr/bin/vela-power*" >/dev/null || { echo "no host program in vela-power-tools" >&2; exit 1; }
[ -f "$root/usr/share/vela-power/examples/handheld.json" ] || { echo "no example graph in vela-power-tools" >&2; exit 1; }

# The service package: the program, its unit, its activation and policy
# files, the interface and the manual page, and the graph it runs as a
# conffile; its maintainer script makes the group that may switch targets.
check_service_package() {
  local deb files
  deb=$(compgen -G "$debs/vela-powerd_*_$arch.deb") || { echo "no vela-powerd package for $arch" >&2; exit 1; }
  files=$(dpkg-deb -c "$deb" | awk '{print $6}' | grep -v '/$' | grep -v '^./usr/share/doc/' | sort)
  local expected
  expected=$(printf '%s\n' ./etc/vela-power/graph.json ./lib/systemd/system/vela-powerd.service \
    ./usr/sbin/vela-powerd ./usr/share/dbus-1/interfaces/org.vela.Power1.Manager.xml \
    ./usr/share/dbus-1/interfaces/org.vela.Power1.Monitor.xml \
    ./usr/share/dbus-1/system-services/org.vela.Power1.service ./usr/share/dbus-1/system.d/org.vela.Power1.conf \
    ./usr/share/man/man8/vela-powerd.8.gz | sort)
  [ "$files" = "$expected" ] || { printf 'vela-powerd holds:\n%s\nexpected:\n%s\n' "$files" "$expected" >&2; exit 1; }
  dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | grep -qx /etc/vela-power/graph.json ||
    { echo "vela-powerd: /etc/vela-power/graph.json is not a conffile" >&2; exit 1; }
  dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./postinst | grep -q 'addgroup --system --quiet vela-power' ||
    { echo "vela-powerd: its postinst does not make the group vela-power" >&2; exit 1; }
}
check_service_package

run_service() {
  LD_LIBRARY_PATH=$libdir "$1" | grep -q '"isEnabled": true' || { echo "$1 did not enable its nodes" >&2; exit 1; }
}

cmake -S "$source_dir/examples/standalone" -B "$work/with-cmake" -DCMAKE_PREFIX_PATH="$root/usr" \
  -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/with-cmake" >/dev/null
run_service "$work/with-cmake/example_service"

# pkg-config must find the package's files only, not a build tree's.
export PKG_CONFIG_PATH=$libdir/pkgconfig
includedir=$(realpath -m "$(pkg-config --variable=includedir vela_powerHandler)")
[ "$includedir" = "$root/usr/include/vela" ] || { echo "pkg-config points outside the package: $includedir" >&2; exit 1; }
flags=$(pkg-config --cflags --libs vela_powerHandler)
# shellcheck disable=SC2086 # the flags are separate words
g++ -std=c++17 -fPIC "$source_dir/examples/example_service.cpp" -o "$work/with-pkg-config" $flags
run_service "$work/with-pkg-config"
echo "Debian packages ($arch): find_package and pkg-config builds of the example service passed"
