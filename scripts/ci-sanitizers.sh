#!/usr/bin/env bash
# The whole test suite (unit and end-to-end) on a host build with
# AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer, stopping at
# the first report: a sanitizer finding fails the run even when the test
# itself would have passed.
#
#   scripts/ci-sanitizers.sh [extra ctest arguments, e.g. -L unit]
#   BUILD_DIR=... JOBS=... scripts/ci-sanitizers.sh
#
# Needs the packages of .ci/run (build-essential cmake pkg-config libxml2-dev
# libmnl-dev nlohmann-json3-dev libgtest-dev libgmock-dev iproute2); GCC's
# sanitizer run-time libraries come with build-essential.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build-asan}
JOBS=${JOBS:-2}

# Programs started by the tests (routemgr, halproxy, datamgr, ...) inherit
# these, so a report in a child process fails the test that started it.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:abort_on_error=0:detect_stack_use_after_return=1:check_initialization_order=1:strict_init_order=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-}

echo "== configure $BUILD_DIR (ASan + UBSan)"
# -O1 keeps the suite fast while sanitizer stack traces stay readable;
# assertions stay on (no NDEBUG).
cmake -S "$ROOT" -B "$BUILD_DIR" \
  -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" \
  -DCMAKE_C_FLAGS_DEBUG="-O1 -g" \
  -DROUTEMGR_ASAN=ON -DROUTEMGR_UBSAN=ON

echo "== build (-j$JOBS)"
cmake --build "$BUILD_DIR" -j"$JOBS"

echo "== tests"
cd "$BUILD_DIR"
ctest --output-on-failure -j"$JOBS" "$@"
