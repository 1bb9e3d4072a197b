#!/usr/bin/env bash
# Cross build for the router (32-bit ARM926EJ-S, soft float, Debian armel)
# in the build type that is flashed (MinSizeRel), every test under user-mode
# emulation of that very core, unit and end-to-end, and the size of what
# would be flashed.
#
#   scripts/ci-armel.sh            install what is missing, build, test, strip
#   scripts/ci-armel.sh -L unit    extra arguments go to ctest
#   BUILD_DIR=... JOBS=... scripts/ci-armel.sh
#
# Tests that start the programs (end-to-end, halproxy and datamgr as
# processes, halproxy's netlink backend in a network namespace) exec ARM
# programs from an emulated ARM program, which qemu-arm cannot do by itself:
# run as root, the script has the kernel hand every ARM executable to
# qemu-arm (binfmt_misc) for as long as it runs. Without that they skip
# themselves and say why.
#
# Installs (as root, Debian multiarch): g++-arm-linux-gnueabi qemu-user
# libmnl-dev:armel libgtest-dev:armel libgmock-dev:armel, and the host's
# libxml2-dev nlohmann-json3-dev googletest iproute2.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build-armel}
JOBS=${JOBS:-2}
TRIPLET=arm-linux-gnueabi
GTEST_FROM_SOURCE=OFF

log() { printf '== %s\n' "$*"; }

missing_pkgs() {
  local p
  for p in "$@"; do
    dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
  done
}

apt_install() {
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "$@"
}

install_deps() {
  local host_pkgs=(cmake pkg-config g++-arm-linux-gnueabi qemu-user libxml2-dev
                   nlohmann-json3-dev googletest iproute2)
  local target_pkgs=(libmnl-dev:armel)
  local gtest_pkgs=(libgtest-dev:armel libgmock-dev:armel)
  local need
  need=$(missing_pkgs "${host_pkgs[@]}" "${target_pkgs[@]}" "${gtest_pkgs[@]}")
  if [ -z "$need" ]; then
    return
  fi
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages and not root: $need" >&2
    exit 1
  fi
  log "installing: ${need//$'\n'/ }"
  if ! dpkg --print-foreign-architectures | grep -qx armel; then
    dpkg --add-architecture armel
  fi
  apt-get update -q
  apt_install "${host_pkgs[@]}" "${target_pkgs[@]}"
  # The armel GoogleTest packages share headers with the host ones; should
  # they ever refuse to sit beside them, GoogleTest is built from its source.
  if ! apt_install "${gtest_pkgs[@]}"; then
    log "libgtest-dev:armel not installable, building GoogleTest from /usr/src/googletest"
    GTEST_FROM_SOURCE=ON
  fi
}

# Proof that what was built is for the target core and float ABI, not
# merely "some ARM": the EABI attributes name the architecture the compiler
# was told to use, and a hard-float object would say so in the ELF header.
check_target_abi() {
  local bin=$1 attrs
  attrs=$("$TRIPLET-readelf" -A "$bin")
  if ! grep -q 'Tag_CPU_arch: v5TEJ' <<<"$attrs"; then
    echo "$bin: not built for ARMv5TEJ:" >&2
    echo "$attrs" >&2
    return 1
  fi
  if ! "$TRIPLET-readelf" -h "$bin" | grep -q 'soft-float ABI'; then
    echo "$bin: not a soft-float binary" >&2
    return 1
  fi
}

# The daemon links nothing but the C and C++ run-time (libxml2 only lends it
# a type); a new dependency would have to be on the device first.
check_daemon_needs() {
  local bin=$1 extra
  extra=$("$TRIPLET-readelf" -d "$bin" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' |
          grep -vE '^(libc|libm|libstdc\+\+|libgcc_s)\.so' || true)
  if [ -n "$extra" ]; then
    echo "$bin links more than the C and C++ run-time: $extra" >&2
    return 1
  fi
}

# binfmt_misc: a 32-bit little-endian ARM ELF executable (e_machine 40) goes
# to qemu-arm, with the magic and mask Debian's qemu-user-binfmt uses. F: the
# kernel opens qemu-arm now, so it is found from inside network namespaces
# and other mount namespaces too; P: the program keeps its own argv[0].
# Core, loader and libraries come from the environment the tests pass on
# (QEMU_CPU, QEMU_LD_PREFIX: see cmake/toolchain-armel.cmake).
BINFMT=/proc/sys/fs/binfmt_misc
BINFMT_NAME=routemgr-qemu-arm
ARM_MAGIC='7f454c4601010100000000000000000002002800'
binfmt_mounted=no binfmt_registered=no

arm_handler() {  # the enabled entry that already runs ARM programs, if any
  local f
  for f in "$BINFMT"/*; do
    case ${f##*/} in register|status) continue ;; esac
    if [ "$(head -n 1 "$f")" = enabled ] && grep -qx "magic $ARM_MAGIC" "$f"; then
      echo "$f"
      return
    fi
  done
}

binfmt_cleanup() {
  if [ "$binfmt_registered" = yes ]; then echo -1 > "$BINFMT/$BINFMT_NAME" || true; fi
  if [ "$binfmt_mounted" = yes ]; then umount "$BINFMT" || true; fi
}

binfmt_register() {
  local qemu handler
  if [ "$(id -u)" -ne 0 ]; then
    log "not root: ARM executables are not handed to qemu-arm, tests that start programs skip"
    return
  fi
  if ! mountpoint -q "$BINFMT"; then
    mount -t binfmt_misc binfmt_misc "$BINFMT"
    binfmt_mounted=yes
  fi
  trap binfmt_cleanup EXIT
  trap 'exit 1' INT TERM HUP
  if [ "$(cat "$BINFMT/status")" != enabled ]; then
    echo "binfmt_misc is disabled on this machine ($BINFMT/status)" >&2
    exit 1
  fi
  handler=$(arm_handler)
  if [ -n "$handler" ]; then
    log "ARM executables already go to $(sed -n 's/^interpreter //p' "$handler") ($handler)"
    return
  fi
  qemu=$(command -v qemu-arm)
  printf ':%s:M::%s:%s:%s:PF' "$BINFMT_NAME" \
    '\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00' \
    '\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff' \
    "$qemu" > "$BINFMT/register"
  binfmt_registered=yes
  log "ARM executables go to $qemu through $BINFMT/$BINFMT_NAME until this script ends"
}

install_deps
if [ "$GTEST_FROM_SOURCE" = OFF ] && [ -n "$(missing_pkgs libgtest-dev:armel libgmock-dev:armel)" ]; then
  GTEST_FROM_SOURCE=ON
fi

log "configure $BUILD_DIR"
cmake -S "$ROOT" -B "$BUILD_DIR" \
  -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-armel.cmake" \
  -DCMAKE_BUILD_TYPE=MinSizeRel \
  -DROUTEMGR_LIBXML2_INCLUDE=/usr/include/libxml2 \
  -DROUTEMGR_GTEST_FROM_SOURCE="$GTEST_FROM_SOURCE"

log "build (-j$JOBS)"
cmake --build "$BUILD_DIR" -j"$JOBS"

# Every test runs on an emulated ARM926 (the toolchain's emulator line), and
# so does every program a test starts.
binfmt_register
log "unit and end-to-end tests under qemu-arm"
(cd "$BUILD_DIR" && ctest --output-on-failure -j"$JOBS" --timeout 120 "$@")

# What the tests started, as each test process printed it once: proof that
# the end-to-end tests ran the ARM programs, not the host's.
log "programs the tests started"
test_log="$BUILD_DIR/Testing/Temporary/LastTest.log"
sed -n 's/^program started: //p' "$test_log" | sort -u
if [ -n "$(arm_handler 2>/dev/null)" ] && [ $# -eq 0 ]; then
  for prog in routemgr halproxy datamgr datactl routectl; do
    if ! grep -q "^program started: .*/$prog: ELF 32-bit ARM" "$test_log"; then
      echo "the end-to-end tests did not start the ARM $prog" >&2
      exit 1
    fi
  done
fi
# Nothing skips without a word: each skipped test with its reason.
if grep -q '^\[  SKIPPED \]' "$test_log"; then
  log "skipped tests and why"
  grep -h -A1 ': Skipped$' "$test_log" | grep -v -e '^--$' -e ': Skipped$' | sort | uniq -c
fi

# What the router's flash has room for, stripped. The file grows in steps
# of a page: the read-only-after-relocation data ends on a page boundary.
declare -A budget=([routemgr]=204800 [halproxy]=114688)

log "stripped sizes"
mkdir -p "$BUILD_DIR/stripped"
status=0
for prog in src/routemgr tools/halproxy/halproxy; do
  bin="$BUILD_DIR/$prog"
  if [ ! -x "$bin" ]; then
    echo "$prog: not built"
    status=1
    continue
  fi
  out="$BUILD_DIR/stripped/$(basename "$prog")"
  "$TRIPLET-strip" -o "$out" "$bin"
  check_target_abi "$out" || status=1
  if [ "$(basename "$prog")" = routemgr ]; then
    check_daemon_needs "$out" || status=1
  fi
  size=$(stat -c %s "$out")
  printf '%-10s %8d bytes stripped (budget %d)\n' "$(basename "$prog")" "$size" \
    "${budget[$(basename "$prog")]}"
  if [ "$size" -gt "${budget[$(basename "$prog")]}" ]; then
    echo "$prog: over its flash budget" >&2
    status=1
  fi
  "$TRIPLET-size" "$out" | tail -n 1
done
exit $status
