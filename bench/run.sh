#!/usr/bin/env bash
# The route manager's benchmarks, end to end on a real kernel table.
#
#   sudo bench/run.sh [--quick] [--no-build] [--out FILE]
#
# Builds what it needs (BUILD_DIR, default build-bench, Release when it
# configures it), makes a private network namespace with a veth interface,
# runs halproxy (netlink backend), datamgr and routemgr inside it on the
# namespace's own loopback, and measures the time per command against its
# floor, throughput, refresh, how long a bystander waits behind big work,
# latency, memory and start-up. Every time is set against a reference
# measured in the same run (`ip -batch` doing the same kernel work, a bare
# request/answer ping-pong, or halproxy starting), repeated and reduced to
# medians, because the machines are shared and noisy.
# Prints a table and writes bench/results/<date>.json (or --out FILE).
# --quick: small N, one repeat; a few seconds (CI smoke).
set -euo pipefail

ROOT="$(cd "$(dirname "$0")/.." && pwd)"
BUILD_DIR="${BUILD_DIR:-$ROOT/build-bench}"
case "$BUILD_DIR" in /*) ;; *) BUILD_DIR="$PWD/$BUILD_DIR" ;; esac
QUICK=0
BUILD=1
OUT=""

usage() { sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'; }
die() { printf 'bench: error: %s\n' "$*" >&2; exit 1; }
say() { printf 'bench: %s\n' "$*" >&2; }

while [ $# -gt 0 ]; do
  case "$1" in
    --quick) QUICK=1; shift ;;
    --no-build) BUILD=0; shift ;;
    --out) [ $# -ge 2 ] || die "--out needs a file"; OUT="$2"; shift 2 ;;
    --out=*) OUT="${1#*=}"; shift ;;
    -h|--help) usage; exit 0 ;;
    *) usage >&2; exit 2 ;;
  esac
done

[ "$(id -u)" -eq 0 ] || die "needs root: it creates a network namespace (try: sudo $0)"
IP="$(command -v ip || true)"
[ -n "$IP" ] || die "needs the ip tool (iproute2)"

# --- sizes -------------------------------------------------------------------
M=1000                      # configured routes of the WAN setup in force
if [ "$QUICK" = 1 ]; then
  THROUGHPUT_N="1000"; REPEATS=1; REPEATS_100K=1
  REFRESH_N="1000"; REFRESH_REPEATS=2
  LAT_1=300; LAT_16=30; LAT_REPEATS=1
  START_REPEATS=1; PROBED=2; M=50
  PINGPONG_N=1000; CLOSE_N=2000; WIRED_N=1200; BYSTANDER_REPEATS=1
else
  THROUGHPUT_N="1000 10000 100000"; REPEATS=5; REPEATS_100K=3
  REFRESH_N="1000 10000 100000"; REFRESH_REPEATS=5
  LAT_1=2000; LAT_16=250; LAT_REPEATS=3
  START_REPEATS=5; PROBED=3
  PINGPONG_N=10000; CLOSE_N=20000; WIRED_N=12000; BYSTANDER_REPEATS=3
fi
REFRESH_PERIOD_S=5          # the daemon's refresh period

# --- build -------------------------------------------------------------------
TARGETS="routemgr halproxy datamgr datactl routectl rmbench rmbench-refresh rmbench-pingpong"
if [ "$BUILD" = 1 ]; then
  if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
    cmake -S "$ROOT" -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release >&2
  fi
  # shellcheck disable=SC2086
  cmake --build "$BUILD_DIR" --target $TARGETS -j2 >&2
fi
BT="$(sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$BUILD_DIR/CMakeCache.txt" 2>/dev/null || true)"
[ "$BT" = Release ] || say "note: $BUILD_DIR is a '${BT:-?}' build, not Release"
ROUTEMGR="$BUILD_DIR/src/routemgr"
HALPROXY="$BUILD_DIR/tools/halproxy/halproxy"
DATAMGR="$BUILD_DIR/tools/datamgr/datamgr"
RMBENCH="$BUILD_DIR/bench/rmbench"
RMREFRESH="$BUILD_DIR/bench/rmbench-refresh"
PINGPONG="$BUILD_DIR/bench/rmbench-pingpong"
DATACTL="$BUILD_DIR/tools/datamgr/datactl"
ROUTECTL="$BUILD_DIR/tools/routectl/routectl"
for b in "$ROUTEMGR" "$HALPROXY" "$DATAMGR" "$RMBENCH" "$RMREFRESH" "$PINGPONG" "$DATACTL" "$ROUTECTL"; do
  [ -x "$b" ] || die "missing $b (build it, or drop --no-build)"
done

# --- namespace and peers -------------------------------------------------------
NS="rmbench-$$"
WORK="$(mktemp -d /tmp/rmbench.XXXXXX)"
PIDS=()
cleanup() {
  local p
  for p in "${PIDS[@]}"; do kill "$p" 2>/dev/null || true; done
  for p in "${PIDS[@]}"; do wait "$p" 2>/dev/null || true; done
  "$IP" netns del "$NS" 2>/dev/null || true
  rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# Not for "&": a function would run in a subshell, and $! would name the
# subshell instead of the program (ip netns exec replaces itself by it).
inns() { "$IP" netns exec "$NS" "$@"; }
now_ns() { date +%s%N; }

"$IP" netns add "$NS" || die "cannot create a network namespace"
"$IP" -n "$NS" link set lo up
# A veth pair (dummy interfaces need a module that is not everywhere); its
# address puts the gateway on the link.
"$IP" -n "$NS" link add bench0 type veth peer name bench0-peer
"$IP" -n "$NS" addr add 192.0.2.1/24 dev bench0
"$IP" -n "$NS" link set bench0-peer up
"$IP" -n "$NS" link set bench0 up

# Everything talks over the namespace's own loopback: no port of the host is
# taken, and the addresses are the programs' defaults.
HAL=127.0.0.1:3710
DATA=127.0.0.1:3711
ROUTE=127.0.0.1:3712
START_ROUTE=127.0.0.1:3720   # routemgr instances started only to time their start
START_REF=127.0.0.1:3721     # halproxy instances started as the start reference
PINGPONG_TCP=127.0.0.1:3730  # the bare round trip, on the HAL link's two transports
RM_PROPS=(--prop kest.trace=off --prop "system.customHalProxSap=$HAL"
          --prop "system.customDataMgrSap=$DATA")

"$IP" netns exec "$NS" "$HALPROXY" --listen "$HAL" --backend=netlink --log-level=warning \
  >"$WORK/halproxy.out" 2>"$WORK/halproxy.log" &
HAL_PID=$!; PIDS+=("$HAL_PID")
"$RMBENCH" config -m "$M" --wired "$WIRED_N" >"$WORK/device.json"
"$IP" netns exec "$NS" "$DATAMGR" --config "$WORK/device.json" --listen "$DATA" \
  >"$WORK/datamgr.out" 2>"$WORK/datamgr.log" &
PIDS+=("$!")
inns "$RMBENCH" wait -s "$HAL" >/dev/null || die "halproxy did not start: $(cat "$WORK/halproxy.log")"
inns "$RMBENCH" wait -s "$DATA" >/dev/null || die "datamgr did not start: $(cat "$WORK/datamgr.log")"

# key=value output of a bench program: the values of one key, one a line.
values() { sed -n "s/^$1=//p" "$2"; }
median() {
  sort -g | awk '{a[NR]=$1} END {
    if (NR == 0) print "null"; else if (NR % 2) print a[(NR + 1) / 2];
    else printf "%.6g\n", (a[NR / 2] + a[NR / 2 + 1]) / 2 }'
}
calc() { awk "BEGIN { x = $1; printf \"%.6g\", x }"; }
jlist() { paste -sd, - | sed 's/^/[/; s/$/]/'; }   # lines -> JSON array
rss_kb() { awk -v k="$1:" '$1 == k { print $2 }' "/proc/$2/status"; }
count_custom() { "$IP" -n "$NS" route show root 10.0.0.0/8 | wc -l; }
# Waits until the daemon has dealt with everything before (a closed client's
# routes deleted) and the kernel holds no custom route.
settle() {
  inns "$RMBENCH" settle -s "$1" >/dev/null || die "routemgr does not answer"
  local i
  for i in $(seq 1 600); do
    [ "$(count_custom)" -eq 0 ] && return 0
    sleep 0.2
  done
  die "custom routes still in the kernel table"
}

first_n() { set -- $1; echo "$1"; }
pick() { local want=$1 list=$2 n; for n in $list; do [ "$n" = "$want" ] && { echo "$n"; return; }; done; first_n "$list"; }
NT=$(pick 10000 "$THROUGHPUT_N")     # the N the bars are judged at (quick: its only N)
NR=$(pick 10000 "$REFRESH_N")

# --- start-up ----------------------------------------------------------------
say "start-up: $START_REPEATS x routemgr (peers up) against halproxy alone"
: >"$WORK/start.txt"; : >"$WORK/start-ref.txt"
for _ in $(seq 1 "$START_REPEATS"); do
  inns "$RMBENCH" start -s "$START_REF" -- "$HALPROXY" --listen "$START_REF" --log-level=error \
    | values start_us /dev/stdin >>"$WORK/start-ref.txt"
  inns "$RMBENCH" start -s "$START_ROUTE" -- "$ROUTEMGR" "${RM_PROPS[@]}" \
    --prop "system.routeMgrSap=$START_ROUTE" | values start_us /dev/stdin >>"$WORK/start.txt"
done
START_US=$(median <"$WORK/start.txt")
START_REF_US=$(median <"$WORK/start-ref.txt")

# --- refresh, timed inside the service -----------------------------------------
# The reference replaces the same routes (custom and configured, same
# attributes and protocol as the proxy's) with one `ip -batch`; it runs
# before each refresh, so both see the same table and the same moment's load.
# At N=$NR a few more refreshes run from the loop while a route client
# probes, to see how long its commands wait behind one.
declare -A REFRESH_MS REFRESH_REF_MS REFRESH_RATIO REFRESH_CPU_MS REFRESH_PROXY_MS
for n in $REFRESH_N; do
  reps=$REFRESH_REPEATS; [ "$n" -ge 100000 ] && reps=3
  [ "$QUICK" = 1 ] && reps=$REFRESH_REPEATS
  say "refresh: N=$n custom + M=$M configured routes, $reps x against ip -batch replace"
  "$RMBENCH" ipbatch -n "$n" --configured "$M" --op replace --proto 200 >"$WORK/replace-$n.batch"
  out="$WORK/refresh-$n.out"
  probed=0; [ "$n" = "$NR" ] && probed=$PROBED
  inns "$RMREFRESH" "${RM_PROPS[@]}" --prop "bench.routes=$n" --prop "bench.repeats=$reps" \
    --prop "bench.probed=$probed" \
    --prop "bench.halproxyPid=$HAL_PID" \
    --prop "bench.between=$IP -batch $WORK/replace-$n.batch" >"$out" \
    || die "rmbench-refresh failed"
  [ "$(values set_failed "$out")" = 0 ] || die "refresh bench: SetRoute failed"
  "$IP" -n "$NS" route flush root 10.0.0.0/8
  REFRESH_MS[$n]=$(values refresh_ms "$out" | median)
  REFRESH_REF_MS[$n]=$(values reference_ms "$out" | median)
  REFRESH_CPU_MS[$n]=$(values refresh_cpu_ms "$out" | median)
  REFRESH_PROXY_MS[$n]=$(values halproxy_cpu_ms "$out" | median)
  REFRESH_RATIO[$n]=$(paste -d' ' <(values refresh_ms "$out") <(values reference_ms "$out") \
    | awk '{ printf "%.6g\n", $1 / $2 }' | median)
done

# The same at N=$NR with the HAL proxy on a Unix socket instead of the
# default TCP loopback address: what the transport alone costs.
say "refresh: N=$NR again with the HAL proxy on a Unix socket"
HAL_UNIX="unix:$WORK/hal.sock"
"$IP" netns exec "$NS" "$HALPROXY" --listen "$HAL_UNIX" --backend=netlink --log-level=warning \
  >"$WORK/halproxy-unix.out" 2>"$WORK/halproxy-unix.log" &
HAL_UNIX_PID=$!; PIDS+=("$HAL_UNIX_PID")
inns "$RMBENCH" wait -s "$HAL_UNIX" >/dev/null || die "halproxy (Unix socket) did not start"
out="$WORK/refresh-unix.out"
inns "$RMREFRESH" --prop kest.trace=off --prop "system.customHalProxSap=$HAL_UNIX" \
  --prop "system.customDataMgrSap=$DATA" --prop "bench.routes=$NR" \
  --prop "bench.repeats=$REFRESH_REPEATS" --prop bench.probed=0 \
  --prop "bench.halproxyPid=$HAL_UNIX_PID" \
  --prop "bench.between=$IP -batch $WORK/replace-$NR.batch" >"$out" || die "rmbench-refresh failed"
"$IP" -n "$NS" route flush root 10.0.0.0/8
UNIX_MS=$(values refresh_ms "$out" | median)
UNIX_REF_MS=$(values reference_ms "$out" | median)
UNIX_RATIO=$(paste -d' ' <(values refresh_ms "$out") <(values reference_ms "$out") \
  | awk '{ printf "%.6g\n", $1 / $2 }' | median)

# --- the daemon ------------------------------------------------------------------
"$IP" netns exec "$NS" "$ROUTEMGR" "${RM_PROPS[@]}" --prop "system.routeMgrSap=$ROUTE" \
  >"$WORK/routemgr.out" 2>"$WORK/routemgr.log" &
RM_PID=$!; PIDS+=("$RM_PID")
inns "$RMBENCH" wait -s "$ROUTE" >/dev/null || die "routemgr did not start"
settle "$ROUTE"
sleep 0.5  # the configured routes are applied just after the route server opens
RSS_IDLE_KB=$(rss_kb VmRSS "$RM_PID")
HWM_IDLE_KB=$(rss_kb VmHWM "$RM_PID")

# --- throughput, and the time per command against its floor ----------------------
# One client sets N routes, pipelined; `ip -batch` adds the same N routes
# (protocol 201, flushed after). The client holds its routes while the
# daemon's memory is read, then goes, and the daemon deletes them.
# At N=$NT each repeat also times a bare request/answer ping-pong between two
# processes on the HAL link's transports (TCP loopback and Unix socket): a
# command cannot cost less than one such round trip plus the kernel's work
# for one route (`ip -batch`'s time per route), the floor it is set against.
# throughput_runs N REPS SAP PID TAG: files $WORK/{tp,tp-ref,rss,hwm}-TAG.txt
# (and $WORK/pp-{tcp,unix}-TAG.txt, the mean round trips in us, at N=$NT)
throughput_runs() {
  local n=$1 reps=$2 sap=$3 pid=$4 tag=$5 t0 t1 setpid
  [ -f "$WORK/add-$n.batch" ] || "$RMBENCH" ipbatch -n "$n" --op add >"$WORK/add-$n.batch"
  : >"$WORK/tp-$tag.txt"; : >"$WORK/tp-ref-$tag.txt"; : >"$WORK/rss-$tag.txt"; : >"$WORK/hwm-$tag.txt"
  : >"$WORK/pp-tcp-$tag.txt"; : >"$WORK/pp-unix-$tag.txt"
  for _ in $(seq 1 "$reps"); do
    if [ "$n" = "$NT" ]; then
      inns "$PINGPONG" -s "$PINGPONG_TCP" -n "$PINGPONG_N" | values mean_us /dev/stdin >>"$WORK/pp-tcp-$tag.txt" \
        || die "ping-pong (TCP) failed"
      inns "$PINGPONG" -s "unix:$WORK/pingpong.sock" -n "$PINGPONG_N" \
        | values mean_us /dev/stdin >>"$WORK/pp-unix-$tag.txt" || die "ping-pong (Unix socket) failed"
    fi
    t0=$(now_ns)
    "$IP" -n "$NS" -batch "$WORK/add-$n.batch"
    t1=$(now_ns)
    "$IP" -n "$NS" route flush proto 201
    echo $(( (t1 - t0) / 1000 )) >>"$WORK/tp-ref-$tag.txt"

    rm -f "$WORK/set.out" "$WORK/release"
    "$IP" netns exec "$NS" "$RMBENCH" set -s "$sap" -n "$n" --out "$WORK/set.out" --hold-until "$WORK/release" &
    setpid=$!
    while [ ! -f "$WORK/set.out" ]; do
      kill -0 "$setpid" 2>/dev/null || die "rmbench set died"
      sleep 0.01
    done
    rss_kb VmRSS "$pid" >>"$WORK/rss-$tag.txt"
    rss_kb VmHWM "$pid" >>"$WORK/hwm-$tag.txt"
    touch "$WORK/release"
    wait "$setpid" || die "routes failed: $(cat "$WORK/set.out")"
    values elapsed_us "$WORK/set.out" >>"$WORK/tp-$tag.txt"
    settle "$sap"
  done
}
rate() { awk -v n="$1" '{ printf "%.6g\n", n * 1e6 / $1 }' "$2" | median; }
ratio_of() { paste -d' ' "$1" "$2" | awk '{ printf "%.6g\n", $1 / $2 }' | median; }
per_item() { awk -v n="$1" '{ printf "%.6g\n", $1 / n }' "$2"; }   # us per route, one a run
# floor_runs N TAG TRANSPORT: per run, routemgr's us per command, the floor
# (round trip + ip's us per route) and their ratio, in $WORK/{cmd,floor,cmd-ratio}-TAG.txt
floor_runs() {
  local n=$1 tag=$2 tr=$3
  per_item "$n" "$WORK/tp-$tag.txt" >"$WORK/cmd-$tag.txt"
  paste -d' ' "$WORK/pp-$tr-$tag.txt" <(per_item "$n" "$WORK/tp-ref-$tag.txt") \
    | awk '{ printf "%.6g\n", $1 + $2 }' >"$WORK/floor-$tag.txt"
  paste -d' ' "$WORK/cmd-$tag.txt" "$WORK/floor-$tag.txt" \
    | awk '{ printf "%.6g\n", $1 / $2 }' >"$WORK/cmd-ratio-$tag.txt"
}

declare -A TP_RATE TP_REF_RATE TP_RATIO RSS_KB HWM_KB
for n in $THROUGHPUT_N; do
  reps=$REPEATS; [ "$n" -ge 100000 ] && reps=$REPEATS_100K
  say "throughput: N=$n, $reps x routemgr against ip -batch add"
  throughput_runs "$n" "$reps" "$ROUTE" "$RM_PID" "$n"
  TP_RATE[$n]=$(rate "$n" "$WORK/tp-$n.txt")
  TP_REF_RATE[$n]=$(rate "$n" "$WORK/tp-ref-$n.txt")
  TP_RATIO[$n]=$(ratio_of "$WORK/tp-ref-$n.txt" "$WORK/tp-$n.txt")
  RSS_KB[$n]=$(median <"$WORK/rss-$n.txt")
  HWM_KB[$n]=$(median <"$WORK/hwm-$n.txt")
done
floor_runs "$NT" "$NT" tcp
PP_TCP_US=$(median <"$WORK/pp-tcp-$NT.txt"); PP_UNIX_US=$(median <"$WORK/pp-unix-$NT.txt")
IP_PER_ROUTE_US=$(per_item "$NT" "$WORK/tp-ref-$NT.txt" | median)
CMD_US=$(median <"$WORK/cmd-$NT.txt"); FLOOR_US=$(median <"$WORK/floor-$NT.txt")
CMD_RATIO=$(median <"$WORK/cmd-ratio-$NT.txt")

# --- latency -----------------------------------------------------------------------
# 16 clients twice: a thread each, as 16 processes would be, and one thread
# polling all 16 connections. On a machine with fewer cores than clients the
# threads' tail is mostly each client waiting for a core after its answer
# came; the polling driver measures the service's fairness and tail alone.
say "latency: SetRoute round trips, 1 and 16 clients (threads, one poller), $LAT_REPEATS x"
for f in lat1 lat16 lat16p; do : >"$WORK/$f-p50"; : >"$WORK/$f-p99"; : >"$WORK/$f-ratio"; done
latency_run() {  # FIGURE ARGS...
  local fig="$1"; shift
  inns "$RMBENCH" latency -s "$ROUTE" "$@" >"$WORK/lat.out" || die "latency run failed"
  values p50_us "$WORK/lat.out" >>"$WORK/$fig-p50"; values p99_us "$WORK/lat.out" >>"$WORK/$fig-p99"
  paste -d' ' <(values p99_us "$WORK/lat.out") <(values p50_us "$WORK/lat.out") \
    | awk '{ printf "%.6g\n", $1 / $2 }' >>"$WORK/$fig-ratio"
  settle "$ROUTE"
}
for _ in $(seq 1 "$LAT_REPEATS"); do
  latency_run lat1 -c 1 -n "$LAT_1"
  latency_run lat16 -c 16 -n "$LAT_16"
  latency_run lat16p -c 16 -n "$LAT_16" --poll 1
done
LAT1_P50=$(median <"$WORK/lat1-p50"); LAT1_P99=$(median <"$WORK/lat1-p99")
LAT16_P50=$(median <"$WORK/lat16-p50"); LAT16_P99=$(median <"$WORK/lat16-p99")
LAT16_RATIO=$(median <"$WORK/lat16-ratio")
LAT16P_P50=$(median <"$WORK/lat16p-p50"); LAT16P_P99=$(median <"$WORK/lat16p-p99")
LAT16P_RATIO=$(median <"$WORK/lat16p-ratio")

# --- restoration --------------------------------------------------------------------
# A client holds NX routes through bench0; they are taken from the kernel
# behind the proxy's back, by `ip route flush proto 200` and by taking the
# link down and up, and the time until all are back is measured. Before
# halproxy listened to the kernel's notifications they came back with the
# next refresh: on average half a period plus the refresh itself (the
# reference).
NX=${REFRESH_N%% *}
say "restoration: N=$NX, $REPEATS x after a flush and after a link flap"
# restore_run TAG COMMAND...: the milliseconds until the routes are back, appended to restore-TAG.txt
restore_run() {
  local tag=$1 want t0; shift
  want=$(count_custom)
  t0=$(now_ns)
  "$@"
  while [ "$(count_custom)" -lt "$want" ]; do
    [ $(( $(now_ns) - t0 )) -lt 20000000000 ] || die "restoration after $tag: not within 20 s"
  done
  echo $(( ($(now_ns) - t0) / 1000 )) >>"$WORK/restore-$tag.txt"
}
: >"$WORK/restore-flush.txt"; : >"$WORK/restore-flap.txt"
rm -f "$WORK/set.out" "$WORK/release"
"$IP" netns exec "$NS" "$RMBENCH" set -s "$ROUTE" -n "$NX" --out "$WORK/set.out" --hold-until "$WORK/release" &
SETPID=$!
while [ ! -f "$WORK/set.out" ]; do kill -0 "$SETPID" 2>/dev/null || die "rmbench set died"; sleep 0.01; done
for _ in $(seq 1 "$REPEATS"); do
  restore_run flush "$IP" -n "$NS" route flush proto 200
  restore_run flap sh -c "'$IP' -n '$NS' link set bench0 down && '$IP' -n '$NS' link set bench0 up"
done
touch "$WORK/release"
wait "$SETPID" || die "routes failed: $(cat "$WORK/set.out")"
settle "$ROUTE"
RESTORE_FLUSH_MS=$(awk '{ print $1 / 1000 }' "$WORK/restore-flush.txt" | median)
RESTORE_FLAP_MS=$(awk '{ print $1 / 1000 }' "$WORK/restore-flap.txt" | median)
RESTORE_REF_MS=$(calc "$REFRESH_PERIOD_S * 1000 / 2 + ${REFRESH_MS[$NX]}")

# --- a bystander behind big work -----------------------------------------------------
# The daemon serves one command at a time, each to its end, so a client's
# single command may wait behind another's big one. A bystander (`rmbench
# probe`) keeps sending a command that needs no HAL request while the daemon
# deals with: a client's close (its CLOSE_N routes deleted); a change of the
# WAN setup in force (datactl set-wan-setup, to the setup of WIRED_N routes
# through the wired gateway and back); a change of that gateway's address
# (routectl gateway set wired, re-routing all of them, and back). A run's
# figure is the bystander's longest wait; it also catches the daemon's own
# refresh if one falls in the run, which is a wait the bystander has too.
BENCH_GW=192.0.2.254   # the benchmark's gateway (route_set.h)
GW_OTHER=192.0.2.253   # another on the link, for the gateway change
count_in() { "$IP" -n "$NS" route show root "$1" "${@:2}" | wc -l; }
wait_count() {  # wait_count WANT PREFIX [SELECTOR...]: until the kernel holds WANT such routes
  local want=$1 i; shift
  for i in $(seq 1 600); do
    [ "$(count_in "$@")" -eq "$want" ] && return 0
    sleep 0.1
  done
  die "the kernel does not hold $want routes in $* (it holds $(count_in "$@"))"
}
# bystander TAG COMMAND...: runs COMMAND (which returns once its work is
# done) while the bystander probes; appends the longest wait (ms) to by-TAG.txt
bystander() {
  local tag=$1 probepid; shift
  rm -f "$WORK/probe-stop"
  "$IP" netns exec "$NS" "$RMBENCH" probe -s "$ROUTE" -t 120 --until "$WORK/probe-stop" \
    >"$WORK/probe.out" &
  probepid=$!
  sleep 0.3
  "$@"
  sleep 0.2
  touch "$WORK/probe-stop"
  wait "$probepid" || die "the bystander failed: $(cat "$WORK/probe.out")"
  awk '{ print $1 / 1000 }' <(values max_us "$WORK/probe.out") >>"$WORK/by-$tag.txt"
}
close_routes() {
  touch "$WORK/release"
  wait "$SETPID" || die "routes failed: $(cat "$WORK/set.out")"
  settle "$ROUTE"
}
set_wan_setup() {
  inns "$DATACTL" --server "$DATA" set-wan-setup "$1" >/dev/null || die "datactl set-wan-setup $1 failed"
  if [ "$1" = wired ]; then wait_count "$WIRED_N" 100.64.0.0/10; wait_count 0 198.18.0.0/15
  else wait_count 0 100.64.0.0/10; wait_count "$M" 198.18.0.0/15; fi
}
announce_wired() {
  inns "$ROUTECTL" -s "$ROUTE" gateway set wired "$1" dev bench0 >/dev/null \
    || die "routectl gateway set wired $1 failed"
}
set_wired_gateway() { announce_wired "$1"; wait_count "$WIRED_N" 100.64.0.0/10 via "$1"; }

# The kernel's share, as a reference: `ip -batch` doing the same kernel work
# right before (deleting CLOSE_N routes; adding WIRED_N; deleting and adding
# WIRED_N), on custom prefixes of protocol 201 while the daemon holds none.
"$RMBENCH" ipbatch -n "$CLOSE_N" --op add >"$WORK/by-add-close.batch"
"$RMBENCH" ipbatch -n "$CLOSE_N" --op del >"$WORK/by-del-close.batch"
"$RMBENCH" ipbatch -n "$WIRED_N" --op add >"$WORK/by-add-wired.batch"
"$RMBENCH" ipbatch -n "$WIRED_N" --op del >"$WORK/by-del-wired.batch"
ipbatch_ms() {
  local t0 t1
  t0=$(now_ns)
  "$IP" -n "$NS" -batch "$1" || die "ip -batch $1 failed"
  t1=$(now_ns)
  echo "$(calc "($t1 - $t0) / 1000000")"
}
say "bystander: behind a close of $CLOSE_N routes, a WAN setup change and a gateway change" \
  "of $WIRED_N routes, $BYSTANDER_REPEATS x"
: >"$WORK/by-close.txt"; : >"$WORK/by-setup.txt"; : >"$WORK/by-gateway.txt"
: >"$WORK/by-ref-close.txt"; : >"$WORK/by-ref-setup.txt"; : >"$WORK/by-ref-gateway.txt"
announce_wired "$BENCH_GW"
for _ in $(seq 1 "$BYSTANDER_REPEATS"); do
  "$IP" -n "$NS" -batch "$WORK/by-add-close.batch" || die "ip -batch failed"
  ipbatch_ms "$WORK/by-del-close.batch" >>"$WORK/by-ref-close.txt"
  add_ms=$(ipbatch_ms "$WORK/by-add-wired.batch")
  del_ms=$(ipbatch_ms "$WORK/by-del-wired.batch")
  echo "$add_ms" >>"$WORK/by-ref-setup.txt"
  echo "$(calc "$add_ms + $del_ms")" >>"$WORK/by-ref-gateway.txt"
  rm -f "$WORK/set.out" "$WORK/release"
  "$IP" netns exec "$NS" "$RMBENCH" set -s "$ROUTE" -n "$CLOSE_N" --out "$WORK/set.out" \
    --hold-until "$WORK/release" &
  SETPID=$!
  while [ ! -f "$WORK/set.out" ]; do
    kill -0 "$SETPID" 2>/dev/null || die "rmbench set died"
    sleep 0.01
  done
  bystander close close_routes
  bystander setup set_wan_setup wired
  bystander gateway set_wired_gateway "$GW_OTHER"
  bystander gateway set_wired_gateway "$BENCH_GW"
  bystander setup set_wan_setup bench
done
# A run's figure: the longest of its waits (two per repeat for a setup or a
# gateway change: there and back); the median of the runs is reported.
cp "$WORK/by-close.txt" "$WORK/by-close-runs.txt"
for k in setup gateway; do
  paste -d' ' - - <"$WORK/by-$k.txt" | awk '{ print ($1 > $2) ? $1 : $2 }' >"$WORK/by-$k-runs.txt"
done
BY_CLOSE_MS=$(median <"$WORK/by-close-runs.txt")
BY_SETUP_MS=$(median <"$WORK/by-setup-runs.txt")
BY_GATEWAY_MS=$(median <"$WORK/by-gateway-runs.txt")
BY_CLOSE_REF_MS=$(median <"$WORK/by-ref-close.txt")
BY_SETUP_REF_MS=$(median <"$WORK/by-ref-setup.txt")
BY_GATEWAY_REF_MS=$(median <"$WORK/by-ref-gateway.txt")

# --- throughput with the HAL proxy on a Unix socket ---------------------------------
# A second daemon whose HAL client goes to the Unix-socket proxy; the first
# one is stopped so that its refreshes do not interfere.
say "throughput: N=$NT, $REPEATS x with the HAL proxy on a Unix socket"
kill "$RM_PID"; wait "$RM_PID" 2>/dev/null || true
ROUTE_UNIX=127.0.0.1:3713
"$IP" netns exec "$NS" "$ROUTEMGR" --prop kest.trace=off --prop "system.customHalProxSap=$HAL_UNIX" \
  --prop "system.customDataMgrSap=$DATA" --prop "system.routeMgrSap=$ROUTE_UNIX" \
  >"$WORK/routemgr-unix.out" 2>"$WORK/routemgr-unix.log" &
RM_UNIX_PID=$!; PIDS+=("$RM_UNIX_PID")
inns "$RMBENCH" wait -s "$ROUTE_UNIX" >/dev/null || die "routemgr (Unix-socket HAL) did not start"
settle "$ROUTE_UNIX"
throughput_runs "$NT" "$REPEATS" "$ROUTE_UNIX" "$RM_UNIX_PID" unix
TPU_RATE=$(rate "$NT" "$WORK/tp-unix.txt")
TPU_REF_RATE=$(rate "$NT" "$WORK/tp-ref-unix.txt")
TPU_RATIO=$(ratio_of "$WORK/tp-ref-unix.txt" "$WORK/tp-unix.txt")
floor_runs "$NT" unix unix
CMDU_US=$(median <"$WORK/cmd-unix.txt"); FLOORU_US=$(median <"$WORK/floor-unix.txt")
CMDU_RATIO=$(median <"$WORK/cmd-ratio-unix.txt")

# --- derived figures ----------------------------------------------------------------
SHARE_RM=$(calc "${REFRESH_CPU_MS[$NR]} / ($REFRESH_PERIOD_S * 1000) * 100")
SHARE_ALL=$(calc "(${REFRESH_CPU_MS[$NR]} + ${REFRESH_PROXY_MS[$NR]}) / ($REFRESH_PERIOD_S * 1000) * 100")
START_RATIO=$(calc "$START_US / $START_REF_US")
BIGGEST=""; for n in $THROUGHPUT_N; do BIGGEST=$n; done
BPR=$(calc "(${RSS_KB[$BIGGEST]} - $RSS_IDLE_KB) * 1024 / $BIGGEST")
WAIT_MAX_MS=$(values wait_max_ms "$WORK/refresh-$NR.out")
WAIT_REFRESH_MS=$(values wait_refresh_ms "$WORK/refresh-$NR.out")
WAIT_RATIO=$(values wait_ratio "$WORK/refresh-$NR.out")
WAIT_OUTSIDE_MS=$(values wait_outside_refresh_max_ms "$WORK/refresh-$NR.out")
WAIT_BEHIND_TWO=$(values wait_behind_two "$WORK/refresh-$NR.out")
# A command that meets a refresh waits for the rest of it and then for its
# own turn, which takes as long as any command's outside a refresh.
WAIT_BOUND_MS=$(calc "$WAIT_REFRESH_MS + $WAIT_OUTSIDE_MS")
WAIT_OVER_BOUND=$(calc "$WAIT_MAX_MS / $WAIT_BOUND_MS")
verdict() { awk "BEGIN { exit !($1) }" && echo met || echo MISSED; }

# --- report -----------------------------------------------------------------------
CPU_MODEL=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)
NPROC=$(nproc)
KERNEL=$(uname -r)
GIT=$(git -C "$ROOT" describe --always --dirty --tags 2>/dev/null || echo unknown)
CXX_PATH=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$BUILD_DIR/CMakeCache.txt")
CXX_VERSION=$("${CXX_PATH:-c++}" --version 2>/dev/null | head -1)
DATE=$(date -u +%Y-%m-%dT%H:%M:%SZ)
MODE=full; COMMAND="sudo bench/run.sh"
if [ "$QUICK" = 1 ]; then MODE=quick; COMMAND="sudo bench/run.sh --quick"; fi

{
  printf 'routemgr benchmarks (%s), %s\n' "$MODE" "$DATE"
  printf '%s, %s cores, kernel %s, %s, %s build, %s\n\n' "$CPU_MODEL" "$NPROC" "$KERNEL" \
    "$CXX_VERSION" "${BT:-?}" "$GIT"
  printf '%-44s %14s %14s %8s  %s\n' "figure" "routemgr" "reference" "ratio" "bar"
  printf '%-44s %14.1f %14.1f %8s  %s\n' "ping-pong round trip, TCP / Unix socket (us)" \
    "$PP_TCP_US" "$PP_UNIX_US" "-" ""
  printf '%-44s %14.1f %14s %8s  %s\n' "ip -batch add, per route (us)" "$IP_PER_ROUTE_US" "-" "-" ""
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "per command N=$NT (us; ref floor *)" \
    "$CMD_US" "$FLOOR_US" "$CMD_RATIO" "<= 1.15: $(verdict "$CMD_RATIO <= 1.15")"
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "per command N=$NT, HAL on a Unix socket (us)" \
    "$CMDU_US" "$FLOORU_US" "$CMDU_RATIO" "<= 1.15: $(verdict "$CMDU_RATIO <= 1.15")"
  for n in $THROUGHPUT_N; do
    printf '%-44s %14.0f %14.0f %8.3f  %s\n' "throughput N=$n (routes/s; ref ip -batch add)" \
      "${TP_RATE[$n]}" "${TP_REF_RATE[$n]}" "${TP_RATIO[$n]}" ""
  done
  printf '%-44s %14.0f %14.0f %8.3f  %s\n' "throughput N=$NT, HAL on a Unix socket" \
    "$TPU_RATE" "$TPU_REF_RATE" "$TPU_RATIO" ""
  for n in $REFRESH_N; do
    bar=""; [ "$n" = "$NR" ] && bar="<= 0.25: $(verdict "${REFRESH_RATIO[$n]} <= 0.25")"
    printf '%-44s %14.1f %14.1f %8.3f  %s\n' "refresh N=$n M=$M (ms; ref ip -batch replace)" \
      "${REFRESH_MS[$n]}" "${REFRESH_REF_MS[$n]}" "${REFRESH_RATIO[$n]}" "$bar"
  done
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "restored after flush proto 200, N=$NX (ms; ref *)" \
    "$RESTORE_FLUSH_MS" "$RESTORE_REF_MS" "$(calc "$RESTORE_FLUSH_MS / $RESTORE_REF_MS")" ""
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "restored after a link flap, N=$NX (ms; ref *)" \
    "$RESTORE_FLAP_MS" "$RESTORE_REF_MS" "$(calc "$RESTORE_FLAP_MS / $RESTORE_REF_MS")" ""
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "refresh N=$NR, HAL on a Unix socket (ms)" \
    "$UNIX_MS" "$UNIX_REF_MS" "$UNIX_RATIO" ""
  printf '%-44s %13.2f%% %13.2f%% %8s  %s\n' "refresh N=$NR every ${REFRESH_PERIOD_S} s: core share (+halproxy)" \
    "$SHARE_RM" "$SHARE_ALL" "-" ""
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "longest wait behind a refresh, N=$NR (ms; ref *)" \
    "$WAIT_MAX_MS" "$WAIT_BOUND_MS" "$WAIT_OVER_BOUND" \
    "<= 1.0: $(verdict "$WAIT_OVER_BOUND <= 1.0 && $WAIT_BEHIND_TWO == 0")"
  printf '%-44s %14.1f %14.1f %8s  %s\n' "SetRoute round trip, 1 client p50/p99 (us)" "$LAT1_P50" "$LAT1_P99" "-" ""
  printf '%-44s %14.1f %14.1f %8s  %s\n' "SetRoute round trip, 16 clients p50/p99 (us)" "$LAT16_P50" "$LAT16_P99" "-" ""
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "p99 / p50, 16 clients, a thread each (us)" "$LAT16_P99" "$LAT16_P50" \
    "$LAT16_RATIO" ""
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "p99 / p50, 16 clients, one poller (us)" "$LAT16P_P99" "$LAT16P_P50" \
    "$LAT16P_RATIO" "<= 1.5: $(verdict "$LAT16P_RATIO <= 1.5")"
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "bystander wait, a close of $CLOSE_N routes (ms; ref *)" \
    "$BY_CLOSE_MS" "$BY_CLOSE_REF_MS" "$(calc "$BY_CLOSE_MS / $BY_CLOSE_REF_MS")" \
    "<= 100: $(verdict "$BY_CLOSE_MS <= 100")"
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "bystander wait, WAN setup change $WIRED_N (ms; ref *)" \
    "$BY_SETUP_MS" "$BY_SETUP_REF_MS" "$(calc "$BY_SETUP_MS / $BY_SETUP_REF_MS")" \
    "<= 100: $(verdict "$BY_SETUP_MS <= 100")"
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "bystander wait, gateway change $WIRED_N (ms; ref *)" \
    "$BY_GATEWAY_MS" "$BY_GATEWAY_REF_MS" "$(calc "$BY_GATEWAY_MS / $BY_GATEWAY_REF_MS")" \
    "<= 100: $(verdict "$BY_GATEWAY_MS <= 100")"
  printf '%-44s %14s %14s %8s  %s\n' "RSS idle (KiB; VmRSS / VmHWM)" "$RSS_IDLE_KB" "$HWM_IDLE_KB" "-" ""
  for n in $THROUGHPUT_N; do
    printf '%-44s %14s %14s %8s  %s\n' "RSS holding $n custom routes (KiB; VmRSS / VmHWM)" "${RSS_KB[$n]}" "${HWM_KB[$n]}" "-" ""
  done
  printf '%-44s %14.0f %14s %8s  %s\n' "bytes per custom route (N=$BIGGEST)" "$BPR" "-" "-" \
    "<= 320: $(verdict "$BPR <= 320")"
  printf '%-44s %14.1f %14.1f %8.3f  %s\n' "start to route server ready (ms; ref halproxy)" \
    "$(calc "$START_US / 1000")" "$(calc "$START_REF_US / 1000")" "$START_RATIO" ""
  printf '\n* per command: the floor is a bare request/answer round trip between two processes on\n'
  printf '  the HAL link'"'"'s transport plus ip -batch'"'"'s time per route\n'
  printf '\n* restoration: half a refresh period plus the refresh, the mean wait before halproxy\n'
  printf '  put lost routes back itself\n'
  printf '\n* the refresh it waited behind (%.1f ms) plus the longest wait of a command outside\n' "$WAIT_REFRESH_MS"
  printf '  refreshes (%.1f ms, its own turn); commands that waited across two refreshes: %s\n' \
    "$WAIT_OUTSIDE_MS" "$WAIT_BEHIND_TWO"
  printf '\n* bystander: ip -batch doing the same kernel work one route at a time (deleting the\n'
  printf '  routes of the close; adding those of the setup; deleting and adding them again)\n'
} >"$WORK/table.txt"
cat "$WORK/table.txt"

# --- JSON ---------------------------------------------------------------------------
jstr() { printf '"%s"' "$(printf '%s' "$1" | sed 's/\\/\\\\/g; s/"/\\"/g')"; }
{
  printf '{\n  "date": %s,\n  "mode": %s,\n' "$(jstr "$DATE")" "$(jstr "$MODE")"
  printf '  "command": %s,\n' "$(jstr "$COMMAND")"
  printf '  "machine": {"nproc": %s, "cpu": %s, "kernel": %s},\n' "$NPROC" "$(jstr "$CPU_MODEL")" "$(jstr "$KERNEL")"
  printf '  "versions": {"git": %s, "compiler": %s, "build_type": %s},\n' "$(jstr "$GIT")" \
    "$(jstr "$CXX_VERSION")" "$(jstr "${BT:-}")"
  printf '  "configured_routes": %s,\n' "$M"
  printf '  "throughput": [\n'
  sep=""
  for n in $THROUGHPUT_N; do
    printf '%s    {"n": %s, "routemgr_routes_per_s": %s, "ip_batch_routes_per_s": %s, "ratio": %s,\n' \
      "$sep" "$n" "${TP_RATE[$n]}" "${TP_REF_RATE[$n]}" "${TP_RATIO[$n]}"
    printf '     "routemgr_us": %s, "ip_batch_us": %s}' "$(jlist <"$WORK/tp-$n.txt")" "$(jlist <"$WORK/tp-ref-$n.txt")"
    sep=$',\n'
  done
  printf '\n  ],\n  "refresh": [\n'
  sep=""
  for n in $REFRESH_N; do
    out="$WORK/refresh-$n.out"
    printf '%s    {"n": %s, "m": %s, "refresh_ms": %s, "ip_batch_replace_ms": %s, "ratio": %s,\n' \
      "$sep" "$n" "$M" "${REFRESH_MS[$n]}" "${REFRESH_REF_MS[$n]}" "${REFRESH_RATIO[$n]}"
    printf '     "routemgr_cpu_ms": %s, "halproxy_cpu_ms": %s,\n' "${REFRESH_CPU_MS[$n]}" "${REFRESH_PROXY_MS[$n]}"
    printf '     "runs_ms": %s, "reference_runs_ms": %s}' "$(values refresh_ms "$out" | jlist)" \
      "$(values reference_ms "$out" | jlist)"
    sep=$',\n'
  done
  printf '\n  ],\n'
  printf '  "per_command": {"n": %s, "ping_pong_tcp_us": %s, "ping_pong_unix_us": %s, "ip_batch_per_route_us": %s,\n' \
    "$NT" "$PP_TCP_US" "$PP_UNIX_US" "$IP_PER_ROUTE_US"
  printf '     "routemgr_us": %s, "floor_us": %s, "over_floor": %s,\n' "$CMD_US" "$FLOOR_US" "$CMD_RATIO"
  printf '     "hal_unix_socket": {"routemgr_us": %s, "floor_us": %s, "over_floor": %s},\n' \
    "$CMDU_US" "$FLOORU_US" "$CMDU_RATIO"
  printf '     "ping_pong_tcp_runs_us": %s, "ping_pong_unix_runs_us": %s, "over_floor_runs": %s},\n' \
    "$(jlist <"$WORK/pp-tcp-$NT.txt")" "$(jlist <"$WORK/pp-unix-$NT.txt")" "$(jlist <"$WORK/cmd-ratio-$NT.txt")"
  printf '  "bystander_wait_ms": {"close_routes": %s, "configured_routes": %s, "close": %s, "wan_setup_change": %s, "gateway_change": %s,\n' \
    "$CLOSE_N" "$WIRED_N" "$BY_CLOSE_MS" "$BY_SETUP_MS" "$BY_GATEWAY_MS"
  printf '     "ip_batch_ms": {"close": %s, "wan_setup_change": %s, "gateway_change": %s},\n' \
    "$BY_CLOSE_REF_MS" "$BY_SETUP_REF_MS" "$BY_GATEWAY_REF_MS"
  printf '     "close_runs": %s, "wan_setup_change_runs": %s, "gateway_change_runs": %s},\n' \
    "$(jlist <"$WORK/by-close-runs.txt")" "$(jlist <"$WORK/by-setup-runs.txt")" "$(jlist <"$WORK/by-gateway-runs.txt")"
  printf '  "throughput_hal_unix_socket": {"n": %s, "routemgr_routes_per_s": %s, "ip_batch_routes_per_s": %s, "ratio": %s},\n' \
    "$NT" "$TPU_RATE" "$TPU_REF_RATE" "$TPU_RATIO"
  printf '  "refresh_hal_unix_socket": {"n": %s, "refresh_ms": %s, "ip_batch_replace_ms": %s, "ratio": %s},\n' \
    "$NR" "$UNIX_MS" "$UNIX_REF_MS" "$UNIX_RATIO"
  printf '  "refresh_core_share_percent": {"n": %s, "period_s": %s, "routemgr": %s, "routemgr_and_halproxy": %s},\n' \
    "$NR" "$REFRESH_PERIOD_S" "$SHARE_RM" "$SHARE_ALL"
  printf '  "refresh_wait": {"n": %s, "probed_refreshes": %s, "max_wait_ms": %s, "that_refresh_ms": %s, "max_wait_over_refresh": %s,\n' \
    "$NR" "$PROBED" "$WAIT_MAX_MS" "$WAIT_REFRESH_MS" "$WAIT_RATIO"
  printf '     "max_wait_outside_refresh_ms": %s, "bound_ms": %s, "max_wait_over_bound": %s, "commands_behind_two_refreshes": %s},\n' \
    "$WAIT_OUTSIDE_MS" "$WAIT_BOUND_MS" "$WAIT_OVER_BOUND" "$WAIT_BEHIND_TWO"
  printf '  "restoration_ms": {"n": %s, "after_flush": %s, "after_link_flap": %s, "refresh_bound_reference": %s,\n' \
    "$NX" "$RESTORE_FLUSH_MS" "$RESTORE_FLAP_MS" "$RESTORE_REF_MS"
  printf '     "flush_runs_us": %s, "flap_runs_us": %s},\n' "$(jlist <"$WORK/restore-flush.txt")" \
    "$(jlist <"$WORK/restore-flap.txt")"
  printf '  "latency_us": {"one_client": {"p50": %s, "p99": %s}, "sixteen_clients": {"p50": %s, "p99": %s}, "p99_over_p50_16": %s,\n' \
    "$LAT1_P50" "$LAT1_P99" "$LAT16_P50" "$LAT16_P99" "$LAT16_RATIO"
  printf '     "sixteen_clients_one_poller": {"p50": %s, "p99": %s}, "p99_over_p50_16_one_poller": %s},\n' \
    "$LAT16P_P50" "$LAT16P_P99" "$LAT16P_RATIO"
  printf '  "memory_kib": {"idle_rss": %s, "idle_hwm": %s' "$RSS_IDLE_KB" "$HWM_IDLE_KB"
  for n in $THROUGHPUT_N; do printf ', "rss_%s": %s, "hwm_%s": %s' "$n" "${RSS_KB[$n]}" "$n" "${HWM_KB[$n]}"; done
  printf ', "bytes_per_route": %s},\n' "$BPR"
  printf '  "start_ms": {"routemgr": %s, "halproxy_reference": %s, "ratio": %s,\n' \
    "$(calc "$START_US / 1000")" "$(calc "$START_REF_US / 1000")" "$START_RATIO"
  printf '     "routemgr_runs_us": %s, "reference_runs_us": %s}\n}\n' "$(jlist <"$WORK/start.txt")" \
    "$(jlist <"$WORK/start-ref.txt")"
} >"$WORK/result.json"

if [ -z "$OUT" ]; then
  mkdir -p "$ROOT/bench/results"
  OUT="$ROOT/bench/results/$(date -u +%Y-%m-%dT%H%M%SZ).json"
fi
cp "$WORK/result.json" "$OUT"
cp "$WORK/table.txt" "${OUT%.json}.txt"
say "results written to $OUT"
