#!/usr/bin/env bash
# Builds the libFuzzer targets (clang; the whole build instrumented with
# ASan + UBSan + coverage) in build-fuzz and runs each for a while from its
# committed seed corpus. Any crash, leak, sanitizer report or broken
# property fails the run; the input that did it is kept in build-fuzz/.
#
#   scripts/ci-fuzz.sh               build, run every target FUZZ_SECONDS (30)
#   scripts/ci-fuzz.sh fuzz_records  only the named targets
#   BUILD_DIR=... JOBS=... FUZZ_SECONDS=... scripts/ci-fuzz.sh
#
# Needs the packages of .ci/run plus clang and libclang-rt-dev (libFuzzer).
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build-fuzz}
JOBS=${JOBS:-2}
FUZZ_SECONDS=${FUZZ_SECONDS:-30}
CORPUS=$ROOT/tests/fuzz/corpus

log() { printf '== %s\n' "$*"; }

# The project's -Werror is checked with GCC; warnings only clang knows stay
# warnings here, so fuzzing is never blocked by them (they still show).
CLANG_ONLY_WARNINGS="-Wno-error=unused-private-field"

install_deps() {
  local need=() p
  for p in clang libclang-rt-dev; do
    dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
  done
  [ ${#need[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages and not root: ${need[*]}" >&2
    exit 1
  fi
  log "installing: ${need[*]}"
  apt-get update -q
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${need[@]}"
}

configure_and_build() {
  log "configure $BUILD_DIR (clang, libFuzzer, ASan + UBSan)"
  cmake -S "$ROOT" -B "$BUILD_DIR" \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DCMAKE_C_FLAGS_DEBUG="-O1 -g" \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link $CLANG_ONLY_WARNINGS" \
    -DCMAKE_C_FLAGS="-fsanitize=fuzzer-no-link" \
    -DROUTEMGR_FUZZ=ON -DROUTEMGR_ASAN=ON -DROUTEMGR_UBSAN=ON \
    -DROUTEMGR_TESTS=OFF -DROUTEMGR_TOOLS=ON
  log "build (-j$JOBS)"
  cmake --build "$BUILD_DIR" -j"$JOBS" --target fuzz_all "$@"
}

install_deps

configure_and_build
mapfile -t targets < <(grep -v '^$' "$BUILD_DIR/fuzz-targets.txt")
if [ $# -gt 0 ]; then
  targets=("$@")
fi
if [ ${#targets[@]} -eq 0 ]; then
  echo "no fuzz targets were built" >&2
  exit 1
fi

# Reports go to the log of each run; a finding stops the run at once.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}

OUT=$BUILD_DIR/fuzz-out
mkdir -p "$OUT"
failed=()
for t in "${targets[@]}"; do
  name=${t#fuzz_}
  bin=$BUILD_DIR/tests/fuzz/fuzz_$name
  seeds=$CORPUS/$name
  work=$OUT/$name/corpus  # what this run found, seeds untouched
  mkdir -p "$work" "$OUT/$name/artifacts"
  if [ ! -x "$bin" ]; then
    echo "fuzz_$name: not built" >&2
    failed+=("$name")
    continue
  fi
  dirs=("$work")
  if [ -d "$seeds" ]; then
    dirs+=("$seeds")
  else
    echo "fuzz_$name: no seed corpus in $seeds" >&2
  fi
  log "fuzz_$name for ${FUZZ_SECONDS}s"
  # -rss_limit_mb: the decoders bound what they allocate; 512 MiB catches
  # one that does not long before the machine suffers.
  if "$bin" -max_total_time="$FUZZ_SECONDS" -timeout=10 -rss_limit_mb=512 \
      -max_len=8192 -print_final_stats=1 \
      -artifact_prefix="$OUT/$name/artifacts/" "${dirs[@]}" >"$OUT/$name/log" 2>&1; then
    grep -E '^stat::number_of_executed_units|^#[0-9]+ *DONE' "$OUT/$name/log" | tail -n 2
  else
    echo "fuzz_$name FAILED; last lines of $OUT/$name/log:" >&2
    tail -n 40 "$OUT/$name/log" >&2
    ls "$OUT/$name/artifacts" >&2 || true
    failed+=("$name")
  fi
done

echo "fuzz: $((${#targets[@]} - ${#failed[@]})) passed, ${#failed[@]} failed"
[ ${#failed[@]} -eq 0 ]
