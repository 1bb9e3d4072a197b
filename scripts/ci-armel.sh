#!/usr/bin/env bash
# Cross build for the router (32-bit ARM926EJ-S, soft float, Debian armel),
# unit tests under user-mode emulation of that very core, and the size of
# what would be flashed.
#
#   scripts/ci-armel.sh            install what is missing, build, test, strip
#   scripts/ci-armel.sh -E REGEX   extra arguments go to ctest
#   BUILD_DIR=... JOBS=... scripts/ci-armel.sh
#
# Tests that exec another target program or need network namespaces cannot
# run under user-mode emulation; they skip themselves when the environment
# has ROUTEMGR_EMULATED (set by the toolchain's emulator line).
#
# Installs (as root, Debian multiarch): g++-arm-linux-gnueabi qemu-user
# libmnl-dev:armel libgtest-dev:armel libgmock-dev:armel, and the host's
# libxml2-dev nlohmann-json3-dev googletest.
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
                   nlohmann-json3-dev googletest)
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

install_deps
if [ "$GTEST_FROM_SOURCE" = OFF ] && [ -n "$(missing_pkgs libgtest-dev:armel libgmock-dev:armel)" ]; then
  GTEST_FROM_SOURCE=ON
fi

log "configure $BUILD_DIR"
cmake -S "$ROOT" -B "$BUILD_DIR" \
  -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-armel.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DROUTEMGR_LIBXML2_INCLUDE=/usr/include/libxml2 \
  -DROUTEMGR_GTEST_FROM_SOURCE="$GTEST_FROM_SOURCE"

log "build (-j$JOBS)"
cmake --build "$BUILD_DIR" -j"$JOBS"

# The unit tests run on an emulated ARM926 (the toolchain's emulator line);
# end-to-end tests stay on the host.
log "unit tests under qemu-arm"
(cd "$BUILD_DIR" && ctest -L unit --output-on-failure -j"$JOBS" --timeout 120 "$@")

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
  printf '%-10s %8d bytes stripped\n' "$(basename "$prog")" "$(stat -c %s "$out")"
  "$TRIPLET-size" "$out" | tail -n 1
done
exit $status
