#!/usr/bin/env bash
# Cross-builds the libraries, tests, tools and benchmarks for AArch64 and runs
# the test programs on an emulated AArch64 machine (qemu-system-aarch64, virt
# board, Cortex-A57, two CPUs) booting Debian's arm64 kernel. The programs, the
# libraries they load and a small init travel in an initramfs; the init runs
# them, prints their results on the serial console and powers the machine off.
#
# qemu-user is no option: under it every pthread_create spins forever, and
# every program that loads log4cplus starts threads.
#
# Usage: bash scripts/test-aarch64.sh [--labels api,graph,...] [--gtest-filter PATTERN] [--no-build]
#   --labels        run only these test programs (default: all of them); a
#                   subset builds only its programs and the libraries
#   --gtest-filter  passed to every test program as --gtest_filter
#   --no-build      use the programs already in the build folder
# Environment:
#   BUILD_DIR            cross-build folder (default: build-aarch64)
#   DEVICE_SEEDS         seeds of the handler's property run on the device
#                        (default: 3; the host runs 100)
#   DEVICE_GRAPHS        random graphs of the graph differential test on the
#                        device (default: 1000; the host runs 10,000)
#   DEVICE_TIMEOUT_S     time limit of the whole emulated run (default: 3600)
#   DEVICE_SLOW_MS       tests that take at least this long on the device are
#                        listed with their time (default: 2000)
#   VELA_WERROR          ON to turn warnings into errors
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir=$(pwd)

all_labels=(api graph switching requests handler powergraph powersim tools lifetime)
labels=("${all_labels[@]}")
build=1
gtest_filter=
while [ $# -gt 0 ]; do
  case $1 in
    --labels) IFS=, read -r -a labels <<<"$2"; shift 2 ;;
    --labels=*) IFS=, read -r -a labels <<<"${1#--labels=}"; shift ;;
    --gtest-filter) gtest_filter=$2; shift 2 ;;
    --gtest-filter=*) gtest_filter=${1#--gtest-filter=}; shift ;;
    --no-build) build=0; shift ;;
    *) echo "unknown argument: $1" >&2; exit 2 ;;
  esac
done
runs_label() { [[ " ${labels[*]} " =~ \ $1\  ]]; }
whole_suite=1
for label in "${all_labels[@]}"; do
  runs_label "$label" || whole_suite=0
done
for label in "${labels[@]}"; do
  if [[ ! " ${all_labels[*]} " =~ \ $label\  ]]; then
    echo "unknown label: $label (known: ${all_labels[*]})" >&2
    exit 2
  fi
done

build_dir=$(realpath -m "${BUILD_DIR:-build-aarch64}")
device_dir=$build_dir/device
device_seeds=${DEVICE_SEEDS:-3}
device_graphs=${DEVICE_GRAPHS:-1000}
timeout_s=${DEVICE_TIMEOUT_S:-3600}
slow_ms=${DEVICE_SLOW_MS:-2000}
triplet=aarch64-linux-gnu

log() { echo "== $*"; }

host_packages=(crossbuild-essential-arm64 qemu-system-arm cmake pkg-config qtbase5-dev-tools rapidjson-dev file cpio)
device_packages=(qtbase5-dev:arm64 liblog4cplus-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64)
# Only the whole build has the benchmarks.
[ "$whole_suite" -eq 1 ] && device_packages+=(libbenchmark-dev:arm64)

missing_packages() {
  local package
  for package in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
      echo "$package"
    fi
  done
}

# As root: add the arm64 architecture and install whatever is missing. Anyone
# else is told the exact commands and the script stops.
setup_packages() {
  local missing=()
  dpkg --print-foreign-architectures | grep -qx arm64 || missing+=(arm64-architecture)
  mapfile -t -O "${#missing[@]}" missing < <(missing_packages "${host_packages[@]}" "${device_packages[@]}")
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "Missing: ${missing[*]}" >&2
    echo "Run as root: dpkg --add-architecture arm64 && apt-get update &&" \
      "apt-get install -y --no-install-recommends ${host_packages[*]} ${device_packages[*]}" >&2
    exit 1
  fi
  log "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  dpkg --add-architecture arm64
  apt-get update
  apt-get install -y --no-install-recommends "${host_packages[@]}" "${device_packages[@]}"
}

# Fetches a package's .deb and unpacks it into a folder of its own; nothing is
# installed. Kept across runs under the package's exact name.
unpack_package() {
  local package=$1 target=$2
  if [ -f "$target/.unpacked" ] && [ "$(cat "$target/.unpacked")" = "$package" ]; then
    return 0
  fi
  rm -rf "$target" && mkdir -p "$target"
  (cd "$target" && apt-get download "$package" 2>&1 | grep -v "unsandboxed" || true)
  dpkg -x "$target"/*.deb "$target/root"
  rm -f "$target"/*.deb
  echo "$package" >"$target/.unpacked"
}

# Debian's arm64 kernel: the versioned image that linux-image-arm64 points to.
# It has the PL011 serial console, initramfs and virtio-mmio built in, which is
# all this run needs, so no module is loaded.
fetch_kernel() {
  local image
  image=$(apt-cache depends linux-image-arm64:arm64 | awk '/Depends: linux-image-[0-9]/ { print $2; exit }')
  [ -n "$image" ] || { echo "no versioned kernel image behind linux-image-arm64:arm64" >&2; exit 1; }
  unpack_package "$image" "$device_dir/kernel"
  kernel=$(ls "$device_dir"/kernel/root/boot/vmlinuz-*)
  log "kernel: $image ($(basename "$kernel"))"
}

# The init's shell and tools: one statically linked arm64 busybox.
fetch_busybox() {
  unpack_package busybox-static:arm64 "$device_dir/busybox"
  busybox=$device_dir/busybox/root/bin/busybox
}

# The whole suite builds everything; a subset builds its test programs (and
# with them the two libraries), plus the host program for the tools label.
cross_build() {
  local targets=() label benchmarks=ON
  if [ "$whole_suite" -eq 0 ]; then
    benchmarks=OFF
    for label in "${labels[@]}"; do
      targets+=(--target "test_$label")
    done
    runs_label tools && targets+=(--target vela-power)
  fi
  log "cross-building into $build_dir${targets:+ (${targets[*]})}"
  cmake -S "$source_dir" -B "$build_dir" -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/toolchain-aarch64.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELA_WERROR="${VELA_WERROR:-OFF}" -DVELA_BUILD_BENCHMARKS=$benchmarks
  cmake --build "$build_dir" -j "$(nproc 2>/dev/null || echo 2)" "${targets[@]}"
}

# Resolves the shared libraries a program needs, the way the target's loader
# would: the build's own libraries first, then the multiarch folders.
library_paths=()
resolve_needed() {
  local file=$1 needed path dir
  for needed in $("$triplet-readelf" -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    [ -n "${resolved[$needed]:-}" ] && continue
    for dir in "${library_paths[@]}" /lib/$triplet /usr/lib/$triplet; do
      path=$dir/$needed
      if [ -e "$path" ]; then
        resolved[$needed]=$path
        resolve_needed "$(realpath "$path")"
        break
      fi
    done
    [ -n "${resolved[$needed]:-}" ] || { echo "$file needs $needed, which is nowhere" >&2; exit 1; }
  done
}

# Copies a file into the image under the same absolute path (symbolic links
# are followed: the image holds plain files).
add_to_image() {
  local file=$1
  mkdir -p "$image_root$(dirname "$file")"
  cp -L "$file" "$image_root$file"
}

test_programs=()
make_initramfs() {
  local label program library
  image_root=$device_dir/image
  rm -rf "$image_root"
  mkdir -p "$image_root"/{bin,proc,sys,dev,tmp,scratch}
  cp "$busybox" "$image_root/bin/busybox"

  mapfile -t library_paths < <(find "$build_dir" -path "$device_dir" -prune -o -name 'libvela_*.so*' -printf '%h\n' |
    sort -u)
  declare -gA resolved=()
  local host_program='' image_programs
  runs_label tools && host_program=$(host_program_path)
  for label in "${labels[@]}"; do
    program=$build_dir/tests/test_$label
    [ -x "$program" ] || { echo "missing test program $program" >&2; exit 1; }
    test_programs+=("$program")
  done
  image_programs=("${test_programs[@]}")
  [ -n "$host_program" ] && image_programs+=("$host_program")
  for program in "${image_programs[@]}"; do
    mkdir -p "$image_root$(dirname "$program")"
    "$triplet-strip" --strip-debug -o "$image_root$program" "$program"
    resolve_needed "$program"
  done
  add_to_image /lib/ld-linux-aarch64.so.1
  for library in "${resolved[@]}"; do
    add_to_image "$library"
  done
  # The tests compare log records with the source lines that wrote them, and
  # the tool tests read graph files: the source folders go along, same path.
  (cd "$source_dir" && find api modules lib tests tools examples docs -type f -print0 |
    cpio --null -pdm --quiet "$image_root$source_dir")

  write_init "$host_program" >"$image_root/init"
  chmod +x "$image_root/init"
  (cd "$image_root" && find . -print0 | cpio --null -o -H newc --quiet) >"$device_dir/initramfs.cpio"
  log "initramfs: $(du -h "$device_dir/initramfs.cpio" | cut -f1), ${#resolved[@]} libraries"
}

host_program_path() {
  local program=$build_dir/tools/vela-power
  [ -x "$program" ] || { echo "no host program $program" >&2; exit 1; }
  echo "$program"
}

# The device's init: runs each program with its output in a file, prints the
# summary lines and the slow tests (all of its output when it fails) between
# markers the host reads, then powers off.
# The --gtest_filter argument of every test program.
filter_argument() {
  [ -n "$gtest_filter" ] && echo " --gtest_filter='$gtest_filter'"
  return 0
}

write_init() {
  local host_program=$1 program
  cat <<EOF
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
# Scratch space of its own: the programs and the source tree sit in the image
# under their host paths, which may well be below /tmp.
mount -t tmpfs tmpfs /scratch
export HOME=/scratch TMPDIR=/scratch QT_QPA_PLATFORM=offscreen LANG=C.UTF-8
export LD_LIBRARY_PATH=/lib/$triplet:/usr/lib/$triplet
# Graphviz and rsvg-convert are workstation programs: the tests that draw
# with them skip themselves on the device.
export VELA_PROPERTY_SEEDS=$device_seeds VELA_GRAPH_COUNT=$device_graphs VELA_NO_DRAWING_PROGRAMS=1
slow_ms=$slow_ms
cd /scratch
echo "@@ device \$(uname -m), \$(nproc) CPUs, kernel \$(uname -r)"
# Hundredths of a second since boot (the 1 in front keeps a leading zero from
# reading as octal).
uptime_cs() { read up rest </proc/uptime; echo \$((\${up%.*} * 100 + 1\${up#*.} - 100)); }
EOF
  cat <<'EOF'
# "slow Suite.Test (N ms)" for each passed test of at least slow_ms.
slow_tests() {
  awk -v ms="$slow_ms" '/^\[       OK \] .* \([0-9]+ ms\)$/ {
    time = $0; sub(/.*\(/, "", time); sub(/ ms\)$/, "", time)
    if (time + 0 >= ms) { name = $0; sub(/^\[       OK \] /, "", name); print "slow " name }
  }' "$1"
}
EOF
  cat <<EOF
run() {
  name=\$1; shift
  start=\$(uptime_cs)
  "\$@" >/scratch/\$name.log 2>&1
  rc=\$?
  end=\$(uptime_cs)
  if [ \$rc -ne 0 ]; then
    sed "s/^/@@ \$name | /" /scratch/\$name.log
  else
    grep -E '^\[==========\]|^\[  (PASSED|FAILED|SKIPPED) |requests answered' /scratch/\$name.log | sed "s/^/@@ \$name | /"
    slow_tests /scratch/\$name.log | sed "s/^/@@ \$name | /"
  fi
  echo "@@ result \$name \$rc \$((end - start))"
}
EOF
  for program in "${test_programs[@]}"; do
    echo "run $(basename "$program") $program$(filter_argument)"
  done
  expected_programs=${#test_programs[@]}
  if [ -n "$host_program" ]; then
    expected_programs=$((expected_programs + 1))
    echo "run $(basename "$host_program") $host_program run --timeout-ms 60000 $source_dir/examples/graphs/handheld.json"
  fi
  echo 'echo "@@ done"'
  echo 'poweroff -f'
}

run_device() {
  local console=$device_dir/console.log
  log "booting the emulated AArch64 machine (${labels[*]}; $device_seeds property seeds, $device_graphs random graphs); console: $console"
  local start=$SECONDS
  set +e
  # The serial console goes straight to a file, so a run can be followed
  # while it goes (tail -f).
  rm -f "$console"
  timeout "$timeout_s" qemu-system-aarch64 -M virt -cpu cortex-a57 -smp 2 -m 2048 \
    -display none -monitor none -serial "file:$console" -nic none -no-reboot \
    -kernel "$kernel" -initrd "$device_dir/initramfs.cpio" \
    -append "console=ttyAMA0 rdinit=/init panic=-1 loglevel=4" </dev/null
  local qemu_status=$?
  set -e
  sed -i 's/\r$//' "$console"
  device_seconds=$((SECONDS - start))
  grep '^@@' "$console" | sed 's/^@@ //' || true
  [ "$qemu_status" -eq 0 ] || { echo "emulator ended with status $qemu_status; console in $console" >&2; }
  grep -q '^@@ done' "$console" || { echo "the device run did not finish; console in $console" >&2; return 1; }
}

# The number on a program's "[  PASSED  ] N tests." or "[  FAILED  ] N
# tests, listed below:" line; 0 without one.
count_of() {
  local found
  found=$(sed -n "s/^@@ $1 | \[  $2  \] \([0-9]*\) tests\?[.,].*/\1/p" "$device_dir/console.log" | head -1)
  echo "${found:-0}"
}

# Adds up the test programs' counts and fails if any program failed.
report() {
  local console=$device_dir/console.log failed=0 programs=0 tests=0 passed=0 tests_passed=0 tests_failed=0
  local name rc centis count
  echo
  echo "AArch64 results (emulated: qemu-system-aarch64 -M virt -cpu cortex-a57 -smp 2):"
  while read -r _ _ name rc centis; do
    programs=$((programs + 1))
    count=$(sed -n "s/^@@ $name | \[==========\] \([0-9]*\) tests\? from .* ran\..*/\1/p" "$console")
    printf '  %-16s %-6s %5s tests  %7.1f s\n' "$name" "$([ "$rc" -eq 0 ] && echo passed || echo FAILED)" \
      "${count:--}" "$(echo "$centis" | awk '{ print $1 / 100 }')"
    tests=$((tests + ${count:-0}))
    if [ "$rc" -eq 0 ]; then
      passed=$((passed + 1))
    else
      failed=$((failed + 1))
    fi
    tests_passed=$((tests_passed + $(count_of "$name" PASSED)))
    # A program that died before its summary counts as one failed test.
    count=$(count_of "$name" FAILED)
    [ "$rc" -ne 0 ] && [ "$count" -eq 0 ] && count=1
    tests_failed=$((tests_failed + count))
  done < <(grep '^@@ result ' "$console")
  echo "  total: $programs programs, $tests tests; $passed programs passed, $failed failed;" \
    "device run ${device_seconds} s"
  file -L "$(find "$build_dir/api" -maxdepth 1 -name 'libvela_api.so')" \
    "$(find "$build_dir/modules" -name 'libvela_powerHandler.so')"
  echo "$tests_passed passed, $tests_failed failed"
  [ "$programs" -eq "$expected_programs" ] ||
    { echo "$programs of $expected_programs programs reported" >&2; return 1; }
  [ "$failed" -eq 0 ]
}

# Each step's time, printed as it ends and once more before the results. A
# failing step ends the script (set -e), after the times of the steps before.
step_times=()
timed() {
  local name=$1 start=$SECONDS
  shift
  "$@"
  step_times+=("$name $((SECONDS - start)) s")
  log "$name: $((SECONDS - start)) s"
}

fetch_device_files() {
  fetch_kernel
  fetch_busybox
}

[ -n "$gtest_filter" ] && log "gtest filter on the device: $gtest_filter"
timed set-up setup_packages
timed "kernel and busybox" fetch_device_files
[ "$build" -eq 1 ] && timed cross-build cross_build
timed initramfs make_initramfs
timed "emulated run" run_device
log "times: $(printf '%s, ' "${step_times[@]}" | sed 's/, $//')"
report
