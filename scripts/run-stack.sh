#!/usr/bin/env bash
# Runs the whole system in the foreground: halproxy, datamgr (with the
# example device configuration) and routemgr on loopback, their logs
# interleaved and labelled. Builds what is missing first. Ctrl-C stops all.
#
#   scripts/run-stack.sh [--netns NAME] [--port-base N] [--config FILE] [--no-build]
# shellcheck disable=SC2317 # functions run from traps look unreachable to it
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
BUILD_DIR="${BUILD_DIR:-$ROOT/build}"
CONFIG="$ROOT/tools/datamgr/example-device.json"
PORT_BASE=3710  # the programs' default ports, so routectl and datactl need no --server
NETNS=""
BUILD=1
# How long a program may take to start listening before we give up on it.
START_TIMEOUT_S=10
STOP_TIMEOUT_S=5

usage() {
  cat <<EOF
Usage: scripts/run-stack.sh [OPTIONS]

Starts halproxy (in-memory route table), datamgr (example configuration) and
routemgr on 127.0.0.1, in the foreground, with their logs labelled. Ctrl-C
stops all three.

  --netns NAME     halproxy programs a real kernel table instead: it runs with
                   its netlink backend in a new network namespace NAME (root
                   needed) with veth pairs for the wired WAN (eth1,
                   192.168.1.20/24, gateway 192.168.1.254) and the wireless WAN
                   (wwan0, 10.64.0.20/24, gateway 10.64.0.1). Removed on exit.
  --port-base N    halproxy on N, datamgr on N+1, routemgr on N+2 (default 3710)
  --config FILE    device configuration for datamgr (default: the example)
  --no-build       use build/ as it is
  -h, --help       this text

BUILD_DIR (default build/) says where to build.
EOF
}

say() { printf '[run-stack] %s\n' "$*"; }
die() { printf '[run-stack] error: %s\n' "$*" >&2; exit 1; }

while [ $# -gt 0 ]; do
  case "$1" in
    --netns) [ $# -ge 2 ] || die "--netns needs a name"; NETNS="$2"; shift 2 ;;
    --netns=*) NETNS="${1#*=}"; shift ;;
    --port-base) [ $# -ge 2 ] || die "--port-base needs a number"; PORT_BASE="$2"; shift 2 ;;
    --port-base=*) PORT_BASE="${1#*=}"; shift ;;
    --config) [ $# -ge 2 ] || die "--config needs a file"; CONFIG="$2"; shift 2 ;;
    --config=*) CONFIG="${1#*=}"; shift ;;
    --no-build) BUILD=0; shift ;;
    -h|--help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
  esac
done
case "$PORT_BASE" in
  ''|*[!0-9]*) die "--port-base takes a number" ;;
esac
if [ "$PORT_BASE" -lt 1 ] || [ "$PORT_BASE" -gt 65533 ]; then die "--port-base out of range"; fi
[ -r "$CONFIG" ] || die "cannot read the configuration $CONFIG"
CONFIG="$(cd "$(dirname "$CONFIG")" && pwd)/$(basename "$CONFIG")"

# --- build -----------------------------------------------------------------

# Debian package for every missing build dependency (the list of .ci/run).
missing_packages() {
  local pkgs=()
  command -v cmake >/dev/null || pkgs+=(cmake)
  { command -v c++ >/dev/null && command -v make >/dev/null; } || pkgs+=(build-essential)
  command -v pkg-config >/dev/null || pkgs+=(pkg-config)
  [ -f /usr/include/libxml2/libxml/tree.h ] || pkgs+=(libxml2-dev)
  { command -v pkg-config >/dev/null && pkg-config --exists libmnl; } || pkgs+=(libmnl-dev)
  [ -f /usr/include/nlohmann/json.hpp ] || pkgs+=(nlohmann-json3-dev)
  [ -f /usr/include/gtest/gtest.h ] || pkgs+=(libgtest-dev)
  [ -f /usr/include/gmock/gmock.h ] || pkgs+=(libgmock-dev)
  if [ -n "$NETNS" ]; then command -v ip >/dev/null || pkgs+=(iproute2); fi
  echo "${pkgs[@]}"
}

install_packages() {
  local pkgs
  pkgs="$(missing_packages)"
  [ -z "$pkgs" ] && return 0
  if [ "$(id -u)" -eq 0 ] && command -v apt-get >/dev/null; then
    say "installing: $pkgs"
    apt-get update
    # shellcheck disable=SC2086 # one word per package
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $pkgs
  else
    die "missing build dependencies; install them with: sudo apt-get install $pkgs"
  fi
}

if [ "$BUILD" -eq 1 ]; then
  install_packages
  if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
    say "configuring $BUILD_DIR"
    cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
  fi
  # make decides what is stale; an up-to-date tree costs a second.
  say "building"
  cmake --build "$BUILD_DIR" -j2 --target routemgr halproxy datamgr datactl routectl
elif [ -n "$NETNS" ] && ! command -v ip >/dev/null; then
  die "--netns needs the ip tool (apt-get install iproute2)"
fi

ROUTEMGR="$BUILD_DIR/src/routemgr"
HALPROXY="$BUILD_DIR/tools/halproxy/halproxy"
DATAMGR="$BUILD_DIR/tools/datamgr/datamgr"
DATACTL="$BUILD_DIR/tools/datamgr/datactl"
ROUTECTL="$BUILD_DIR/tools/routectl/routectl"
for b in "$ROUTEMGR" "$HALPROXY" "$DATAMGR" "$DATACTL" "$ROUTECTL"; do
  [ -x "$b" ] || die "$b is missing (build without --no-build)"
done

# --- start -----------------------------------------------------------------

HAL_PORT=$PORT_BASE
DATA_PORT=$((PORT_BASE + 1))
ROUTE_PORT=$((PORT_BASE + 2))
RUN_DIR="$(mktemp -d "${TMPDIR:-/tmp}/run-stack.XXXXXX")"
HAL_SAP="127.0.0.1:$HAL_PORT"
DATA_SAP="127.0.0.1:$DATA_PORT"
ROUTE_SAP="127.0.0.1:$ROUTE_PORT"
HAL_PID="" DATA_PID="" ROUTE_PID="" NS_MADE=""

accepts() {  # accepts ADDR PORT | accepts unix:PATH
  if [ "${1#unix:}" != "$1" ]; then
    [ -S "${1#unix:}" ]
  else
    (exec 3<>"/dev/tcp/$1/$2") 2>/dev/null
  fi
}

wait_ready() {  # wait_ready NAME PID ADDR [PORT]
  local name=$1 pid=$2 i
  for ((i = 0; i < START_TIMEOUT_S * 10; i++)); do
    accepts "$3" "${4:-}" && return 0
    kill -0 "$pid" 2>/dev/null || die "$name exited during start"
    sleep 0.1
  done
  die "$name is not listening after ${START_TIMEOUT_S}s"
}

stop() {  # stop NAME PID: SIGTERM, SIGKILL if it lingers
  local name=$1 pid=$2 i status=0
  [ -n "$pid" ] || return 0
  if kill -0 "$pid" 2>/dev/null; then
    kill -TERM "$pid" 2>/dev/null || true
    for ((i = 0; i < STOP_TIMEOUT_S * 10; i++)); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    if kill -0 "$pid" 2>/dev/null; then
      say "$name did not stop, killing it"
      kill -KILL "$pid" 2>/dev/null || true
    fi
  fi
  wait "$pid" 2>/dev/null || status=$?
  [ "$status" -eq 0 ] || say "$name ended with status $status"
}

cleanup() {
  trap - INT TERM EXIT
  # The daemon first, its peers after it, so it never logs them vanishing.
  stop routemgr "$ROUTE_PID"
  stop datamgr "$DATA_PID"
  stop halproxy "$HAL_PID"
  if [ -n "$NS_MADE" ]; then
    ip netns del "$NETNS" 2>/dev/null || true
    ip netns del "$NETNS-wan" 2>/dev/null || true
    say "removed network namespaces $NETNS and $NETNS-wan"
  fi
  rm -rf "$RUN_DIR"
  sleep 0.2  # let the labellers print the last lines
}
trap 'cleanup; exit 1' EXIT
trap 'say "stopping"; cleanup; exit 0' INT TERM

# Every line of a program's output, prefixed with its name. Ignores SIGINT
# so Ctrl-C cannot cut the last lines of a stopping program.
label() {
  trap '' INT
  exec sed -u "s/^/[$1] /"
}

# Started in their own process groups (set -m), so Ctrl-C reaches only this
# script, which stops them in order.
start() {  # start NAME CMD...
  local name=$1
  shift
  set -m
  "$@" > >(label "$name") 2>&1 &
  set +m
}

make_netns() {
  [ "$(id -u)" -eq 0 ] || die "--netns needs root (network namespaces, netlink)"
  local existing
  existing="$(ip netns list | awk '{print $1}')"
  for ns in "$NETNS" "$NETNS-wan"; do
    ! grep -qxF -- "$ns" <<<"$existing" || die "network namespace $ns exists already"
  done
  NS_MADE=1
  local r="$NETNS" w="$NETNS-wan"
  ip netns add "$r"
  ip netns add "$w"
  ip -n "$r" link set lo up
  # The WAN side holds the gateways, so routes via them are valid nexthops.
  ip -n "$r" link add eth1 type veth peer name wan-wired netns "$w"
  ip -n "$r" link add wwan0 type veth peer name wan-wireless netns "$w"
  ip -n "$r" addr add 192.168.1.20/24 dev eth1
  ip -n "$r" addr add 10.64.0.20/24 dev wwan0
  ip -n "$w" addr add 192.168.1.254/24 dev wan-wired
  ip -n "$w" addr add 10.64.0.1/24 dev wan-wireless
  ip -n "$r" link set eth1 up
  ip -n "$r" link set wwan0 up
  ip -n "$w" link set wan-wired up
  ip -n "$w" link set wan-wireless up
  say "network namespace $r: eth1 192.168.1.20/24 (gateway 192.168.1.254), wwan0 10.64.0.20/24 (gateway 10.64.0.1)"
}

ports=("$DATA_PORT" "$ROUTE_PORT")
[ -n "$NETNS" ] || ports+=("$HAL_PORT")
for port in "${ports[@]}"; do
  if accepts 127.0.0.1 "$port"; then
    die "port $port is in use (another stack running?); try --port-base"
  fi
done

if [ -n "$NETNS" ]; then
  make_netns
  # A Unix socket reaches across network namespaces; routemgr stays outside.
  HAL_SAP="unix:$RUN_DIR/hal.sock"
  start halproxy ip netns exec "$NETNS" "$HALPROXY" --backend=netlink --listen "$HAL_SAP" \
    --log-level=debug
  HAL_PID=$!
  wait_ready halproxy "$HAL_PID" "$HAL_SAP"
else
  start halproxy "$HALPROXY" --backend=memory --listen "$HAL_SAP" --log-level=debug
  HAL_PID=$!
  wait_ready halproxy "$HAL_PID" 127.0.0.1 "$HAL_PORT"
fi

start datamgr "$DATAMGR" --config "$CONFIG" --listen "$DATA_SAP"
DATA_PID=$!
wait_ready datamgr "$DATA_PID" 127.0.0.1 "$DATA_PORT"

start routemgr "$ROUTEMGR" --prop "system.customHalProxSap=$HAL_SAP" \
  --prop "system.customDataMgrSap=$DATA_SAP" --prop "system.routeMgrSap=$ROUTE_SAP"
ROUTE_PID=$!
# routemgr serves route clients once it has reached both peers.
wait_ready routemgr "$ROUTE_PID" 127.0.0.1 "$ROUTE_PORT"

rel() { printf '%s' "${1#"$PWD"/}"; }
RC="$(rel "$ROUTECTL")"
DC="$(rel "$DATACTL")"
[ "$ROUTE_PORT" -eq 3712 ] || RC="$RC --server $ROUTE_SAP"
[ "$DATA_PORT" -eq 3711 ] || DC="$DC --server $DATA_SAP"
HT="$(rel "$ROUTECTL")"
[ "$HAL_SAP" = "127.0.0.1:3710" ] || HT="$HT --hal $HAL_SAP"

cat <<EOF
[run-stack] ---------------------------------------------------------------
[run-stack] running: halproxy pid $HAL_PID, datamgr pid $DATA_PID, routemgr pid $ROUTE_PID
[run-stack] In another terminal:
[run-stack]   announce the wired WAN's gateway (also the default gateway):
[run-stack]     $RC gateway set wired 192.168.1.254 dev eth1 type default metric 5
[run-stack]   custom routes live as long as routectl's connection; keep one open:
[run-stack]     echo 'route set backup 10.20.0.0/16 via 192.168.1.1 dev eth1' | $RC -b - --hold
[run-stack]   the HAL proxy's table:
[run-stack]     $HT --hal-table
EOF
if [ -n "$NETNS" ]; then
  say "  the kernel's table in the namespace:"
  say "    ip -n $NETNS route"
fi
cat <<EOF
[run-stack]   routemgr's state dump:
[run-stack]     kill -USR1 $ROUTE_PID && cat /tmp/routemgr.dmp
[run-stack]   switch the WAN setup (dsl, lte or fibre in the example):
[run-stack]     $DC set-wan-setup fibre
[run-stack] Ctrl-C here stops all three.
[run-stack] ---------------------------------------------------------------
EOF

# Until Ctrl-C (the trap exits 0) or until one of them ends by itself.
ended=""
wait -n -p ended "$HAL_PID" "$DATA_PID" "$ROUTE_PID" || true
case "$ended" in
  "$HAL_PID") say "halproxy ended unexpectedly; stopping the others" ;;
  "$DATA_PID") say "datamgr ended unexpectedly; stopping the others" ;;
  "$ROUTE_PID") say "routemgr ended unexpectedly; stopping the others" ;;
esac
exit 1
