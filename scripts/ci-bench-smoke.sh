#!/usr/bin/env bash
# CI smoke of the benchmarks: bench/run.sh --quick (small N, one repeat, a
# few seconds) on the build CI already made, checking only that every
# figure is produced. Performance is judged by people reading the full
# run's table, never here. Skips (status 0) where it cannot run: not root,
# or no network namespaces in this environment.
set -euo pipefail
cd "$(dirname "$0")/.."

BUILD_DIR="${BUILD_DIR:-build}"
export BUILD_DIR

if [ "$(id -u)" -ne 0 ]; then
  echo "ci-bench-smoke: skipped (needs root for a network namespace)"
  exit 0
fi
if ! command -v ip >/dev/null; then
  echo "ci-bench-smoke: skipped (no ip tool)"
  exit 0
fi
probe="rmbench-probe-$$"
if ! ip netns add "$probe" 2>/dev/null; then
  echo "ci-bench-smoke: skipped (network namespaces are not available here)"
  exit 0
fi
ip netns del "$probe"

# Configured as scripts/test.sh does (which may run later on the same
# directory), so that neither step rebuilds what the other built.
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi

out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
bench/run.sh --quick --out "$out/smoke.json"

# Every figure must be there and be a number (a failed step leaves "null"
# or an empty field, which makes the JSON invalid or the check below fail).
for key in routemgr_routes_per_s ip_batch_routes_per_s refresh_ms ip_batch_replace_ms \
           ping_pong_tcp_us ping_pong_unix_us floor_us over_floor close wan_setup_change \
           gateway_change p99_over_p50_16 max_wait_over_bound bytes_per_route idle_rss \
           halproxy_reference; do
  grep -Eq "\"$key\": [0-9.e+-]+" "$out/smoke.json" || {
    echo "ci-bench-smoke: figure $key missing from the result" >&2
    cat "$out/smoke.json" >&2
    exit 1
  }
done
if command -v python3 >/dev/null; then
  python3 -m json.tool "$out/smoke.json" >/dev/null || { echo "ci-bench-smoke: invalid JSON" >&2; exit 1; }
fi
echo "ci-bench-smoke: ok"
