#!/usr/bin/env bash
# One run of the whole system with routemgr under valgrind memcheck: halproxy
# (memory backend) and datamgr (example configuration) on free loopback
# ports, routemgr started under valgrind, then route clients and data-store
# changes, a refresh, a SIGUSR1 dump and a SIGTERM. Fails on any memcheck
# error and on any definite or indirect leak, and when routemgr does not
# come up, does not dump or does not stop cleanly.
#
#   scripts/ci-valgrind.sh
#   BUILD_DIR=... scripts/ci-valgrind.sh       (default build/, as scripts/test.sh)
#   VALGRIND_ALL=1 scripts/ci-valgrind.sh      halproxy and datamgr under valgrind too
#
# Needs the packages of .ci/run plus valgrind.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD_DIR=${BUILD_DIR:-$ROOT/build}
JOBS=${JOBS:-2}
CONFIG=$ROOT/tools/datamgr/example-device.json
# valgrind slows start-up about twentyfold.
START_TIMEOUT_S=60
STOP_TIMEOUT_S=30
# One refresh period (5 s) and a little: the refresh path runs at least once.
REFRESH_WAIT_S=6
DUMP_FILE=/tmp/routemgr.dmp

say() { printf '[valgrind] %s\n' "$*"; }
die() { printf '[valgrind] FAILED: %s\n' "$*" >&2; exit 1; }

if ! command -v valgrind >/dev/null; then
  if [ "$(id -u)" -eq 0 ]; then
    apt-get update -q
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends valgrind
  else
    die "valgrind is not installed (apt-get install valgrind)"
  fi
fi

if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
if grep -qE '^ROUTEMGR_(ASAN|UBSAN):BOOL=ON' "$BUILD_DIR/CMakeCache.txt"; then
  die "$BUILD_DIR is a sanitizer build; valgrind needs a plain one"
fi
say "building in $BUILD_DIR"
cmake --build "$BUILD_DIR" -j"$JOBS" --target routemgr halproxy datamgr datactl routectl

ROUTEMGR=$BUILD_DIR/src/routemgr
HALPROXY=$BUILD_DIR/tools/halproxy/halproxy
DATAMGR=$BUILD_DIR/tools/datamgr/datamgr
DATACTL=$BUILD_DIR/tools/datamgr/datactl
ROUTECTL=$BUILD_DIR/tools/routectl/routectl

RUN_DIR=$(mktemp -d "${TMPDIR:-/tmp}/ci-valgrind.XXXXXX")
VG_LOG=$RUN_DIR/routemgr.valgrind
# shellcheck disable=SC2054 # the commas belong to the option values
VALGRIND=(valgrind --tool=memcheck --error-exitcode=1 --leak-check=full
          --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect
          --track-origins=yes --child-silent-after-fork=yes)
HAL_PID="" DATA_PID="" ROUTE_PID=""

cleanup() {
  local pid
  for pid in "$ROUTE_PID" "$DATA_PID" "$HAL_PID"; do
    if [ -n "$pid" ]; then kill -KILL "$pid" 2>/dev/null || true; fi
  done
  wait 2>/dev/null || true
  if [ "${KEEP_RUN_DIR:-0}" = 1 ]; then
    say "logs kept in $RUN_DIR"
  else
    rm -rf "$RUN_DIR"
  fi
}
trap cleanup EXIT

accepts() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }

# Three ports nobody listens on, from the ephemeral-free range.
free_ports() {
  local ports=() p tries=0
  while [ ${#ports[@]} -lt 3 ]; do
    p=$((20000 + RANDOM % 30000))
    tries=$((tries + 1))
    [ $tries -lt 1000 ] || die "no free port found"
    accepts "$p" && continue
    [[ " ${ports[*]} " == *" $p "* ]] && continue
    ports+=("$p")
  done
  echo "${ports[@]}"
}

wait_ready() {  # wait_ready NAME PID PORT LOG
  local i
  for ((i = 0; i < START_TIMEOUT_S * 10; i++)); do
    accepts "$3" && return 0
    if ! kill -0 "$2" 2>/dev/null; then
      tail -n 40 "$4" >&2
      die "$1 exited during start"
    fi
    sleep 0.1
  done
  tail -n 40 "$4" >&2
  die "$1 is not listening on $3 after ${START_TIMEOUT_S}s"
}

show_logs() {
  local f
  for f in "$RUN_DIR"/*.log; do
    echo "---- $(basename "$f") (last lines)" >&2
    tail -n 30 "$f" >&2
  done
}

read -r HAL_PORT DATA_PORT ROUTE_PORT < <(free_ports)
HAL_SAP=127.0.0.1:$HAL_PORT
DATA_SAP=127.0.0.1:$DATA_PORT
ROUTE_SAP=127.0.0.1:$ROUTE_PORT
PEER_PREFIX=()
if [ "${VALGRIND_ALL:-0}" = 1 ]; then
  PEER_PREFIX=("${VALGRIND[@]}" --log-file="$RUN_DIR/peer-%p.valgrind")
fi

say "halproxy on $HAL_SAP, datamgr on $DATA_SAP, routemgr on $ROUTE_SAP"
"${PEER_PREFIX[@]}" "$HALPROXY" --backend=memory --listen "$HAL_SAP" --log-level=debug \
  >"$RUN_DIR/halproxy.log" 2>&1 &
HAL_PID=$!
wait_ready halproxy "$HAL_PID" "$HAL_PORT" "$RUN_DIR/halproxy.log"

"${PEER_PREFIX[@]}" "$DATAMGR" --config "$CONFIG" --listen "$DATA_SAP" \
  >"$RUN_DIR/datamgr.log" 2>&1 &
DATA_PID=$!
wait_ready datamgr "$DATA_PID" "$DATA_PORT" "$RUN_DIR/datamgr.log"

rm -f "$DUMP_FILE"
"${VALGRIND[@]}" --log-file="$VG_LOG" "$ROUTEMGR" \
  --prop "system.customHalProxSap=$HAL_SAP" \
  --prop "system.customDataMgrSap=$DATA_SAP" \
  --prop "system.routeMgrSap=$ROUTE_SAP" >"$RUN_DIR/routemgr.log" 2>&1 &
ROUTE_PID=$!
# routemgr serves route clients once it has reached both of its peers.
wait_ready routemgr "$ROUTE_PID" "$ROUTE_PORT" "$RUN_DIR/routemgr.log"
say "routemgr is up under valgrind (pid $ROUTE_PID)"

run() {  # run CMD...: a client step that must succeed
  if ! "$@" >>"$RUN_DIR/clients.log" 2>&1; then
    show_logs
    die "step failed: $*"
  fi
}

# Route clients: gateways for every WAN kind, custom routes set, replaced and
# deleted; the connection's close removes what is left.
run "$ROUTECTL" --server "$ROUTE_SAP" -b - <<'EOF'
gateway set wired 192.168.1.254 dev eth1 type default metric 5
gateway set wireless 10.64.0.1 dev wwan0 metric 10
gateway set vpn 10.8.0.1 dev tun0
route set backup 10.20.0.0/16 via 192.168.1.1 dev eth1 metric 3
route set backup 10.21.0.0/16 via 192.168.1.1 dev eth1 src 192.168.1.20
route set host 10.9.9.9 via 192.168.1.1
route del host
EOF
# An unknown tag is answered, not fatal.
if "$ROUTECTL" --server "$ROUTE_SAP" route del nosuchtag >"$RUN_DIR/unknown.out" 2>&1; then
  die "deleting an unknown route succeeded"
fi
grep -q 'rc=-100' "$RUN_DIR/unknown.out" || { cat "$RUN_DIR/unknown.out" >&2; die "unknown tag: no rc=-100"; }
# The data store: another WAN setup, an entry changed, back again.
run "$DATACTL" --server "$DATA_SAP" set-wan-setup lte
run "$DATACTL" --server "$DATA_SAP" route-set dsl extra 10.30.0.0/16 via wired desc "added at run time"
run "$DATACTL" --server "$DATA_SAP" set-wan-setup dsl
run "$DATACTL" --server "$DATA_SAP" route-del dsl extra
run "$ROUTECTL" --server "$ROUTE_SAP" gateway del vpn
sleep "$REFRESH_WAIT_S"
run "$ROUTECTL" --hal "$HAL_SAP" --hal-table

say "SIGUSR1: state dump"
kill -USR1 "$ROUTE_PID"
for ((i = 0; i < 100; i++)); do
  [ -s "$DUMP_FILE" ] && break
  sleep 0.1
done
[ -s "$DUMP_FILE" ] || { show_logs; die "no state dump in $DUMP_FILE after SIGUSR1"; }
cp "$DUMP_FILE" "$RUN_DIR/routemgr.dmp"

say "SIGTERM"
kill -TERM "$ROUTE_PID"
for ((i = 0; i < STOP_TIMEOUT_S * 10; i++)); do
  kill -0 "$ROUTE_PID" 2>/dev/null || break
  sleep 0.1
done
if kill -0 "$ROUTE_PID" 2>/dev/null; then
  show_logs
  die "routemgr did not stop within ${STOP_TIMEOUT_S}s of SIGTERM"
fi
status=0
wait "$ROUTE_PID" || status=$?
ROUTE_PID=""

for pid in "$DATA_PID" "$HAL_PID"; do
  kill -TERM "$pid" 2>/dev/null || true
done
peer_status=0
wait "$DATA_PID" || peer_status=$?
wait "$HAL_PID" || peer_status=$?
DATA_PID="" HAL_PID=""

grep -E 'ERROR SUMMARY|definitely lost|indirectly lost|possibly lost|All heap blocks' "$VG_LOG" |
  sed 's/^==[0-9]*== /  /' || true
if [ "$status" -ne 0 ]; then
  cat "$VG_LOG" >&2
  show_logs
  die "routemgr under valgrind ended with status $status"
fi
if ! grep -q 'ERROR SUMMARY: 0 errors' "$VG_LOG"; then
  cat "$VG_LOG" >&2
  die "memcheck reported errors"
fi
if [ "${VALGRIND_ALL:-0}" = 1 ] && [ "$peer_status" -ne 0 ]; then
  cat "$RUN_DIR"/peer-*.valgrind >&2
  die "halproxy or datamgr under valgrind ended with status $peer_status"
fi
say "routemgr: no memcheck error, no leak"
