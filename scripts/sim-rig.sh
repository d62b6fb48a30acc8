#!/usr/bin/env bash
# A rig of simulated boards on this machine: each board a zelisp-sim-run
# with its own clock (offset and drift) in a network namespace of its own,
# every board's cameras on one shared trigger line, a PTP grandmaster
# (linuxptp's ptp4l, software time stamps) in another namespace, all joined
# by veth pairs to a bridge in a switch namespace. Every board serves its
# cameras as one group with zelisp-rtsp; zelisp-rig records them all from a
# namespace of its own. Nothing leaves the namespaces the script makes, and
# it removes them, their links and its processes however it ends.
#
#   scripts/sim-rig.sh --out DIR [--build DIR] [--boards N] [--cameras N]
#       [--size WxH] [--fps N] [--codec jpeg|h264] [--seconds N]
#       [--clock ptp|system] [--offsets MS,MS..] [--drifts PPM,PPM..]
#       [--delays US,US..] [--kill-board K --kill-after SECONDS]
#       [--recorder-clock CLOCK] [--recorder-sync-timeout SECONDS]
#
# DIR receives the boards' configurations and logs, ptp4l's log, the
# recorder's standard error and exit status (recorder.status), each server's
# exit status after SIGTERM at the end (boardN.status), the recording
# (DIR/recording) and rig.env: the trigger line's period and phase and the
# host's real-time minus monotonic clock, from which a pulse's host time is
# known. Needs root (namespaces), ip and ptp4l. Exit status 0 when the rig
# ran (whatever the recorder's status), 77 when it cannot run here (with the
# reason on standard error), 1 when it broke.
set -euo pipefail

build=build out="" boards=2 cameras=4 size=640x360 fps=30 codec=jpeg seconds=15 clock=ptp
offsets="37,-120,80" drifts="50,-50,20" delays="0,0,0" kill_board=0 kill_after=5
recorder_clock="" recorder_sync_timeout=30
while [ $# -gt 0 ]; do
  case "$1" in
    --out) out=$2 ;;
    --build) build=$2 ;;
    --boards) boards=$2 ;;
    --cameras) cameras=$2 ;;
    --size) size=$2 ;;
    --fps) fps=$2 ;;
    --codec) codec=$2 ;;
    --seconds) seconds=$2 ;;
    --clock) clock=$2 ;;
    --offsets) offsets=$2 ;;
    --drifts) drifts=$2 ;;
    --delays) delays=$2 ;;
    --kill-board) kill_board=$2 ;;
    --kill-after) kill_after=$2 ;;
    --recorder-clock) recorder_clock=$2 ;;
    --recorder-sync-timeout) recorder_sync_timeout=$2 ;;
    *) echo "sim-rig: unknown option $1" >&2; exit 1 ;;
  esac
  shift 2
done
[ -n "$out" ] || { echo "sim-rig: --out DIR is missing" >&2; exit 1; }
build=$(cd "$build" && pwd)
for program in sim/zelisp-sim-run tools/zelisp-rtsp/zelisp-rtsp tools/zelisp-rig/zelisp-rig gst/libgstzelisp.so; do
  [ -e "$build/$program" ] || { echo "sim-rig: $build/$program is not built" >&2; exit 1; }
done

skip() { echo "sim-rig: skipped: $*" >&2; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "network namespaces need root"
command -v ip >/dev/null || skip "ip (iproute2) is not installed"
[ "$clock" != ptp ] || command -v ptp4l >/dev/null || skip "ptp4l (linuxptp) is not installed"

# GStreamer's PTP client stamps each PTP message in user space, when its
# thread reads it: a thread kept waiting by the machine's other work (a
# build beside the test) stamps late and misjudges the offset. The rig's
# programs run ahead of that work, as a board runs its camera service.
urgent="nice -n -10"

# Names unique to this run, so that runs side by side never meet.
tag="zr$$"
namespaces=()
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for _ in $(seq 30); do
    local alive=0
    for pid in "${pids[@]}"; do kill -0 "$pid" 2>/dev/null && alive=1; done
    [ $alive -eq 0 ] && break
    sleep 0.1
  done
  for pid in "${pids[@]}"; do kill -KILL "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  # Deleting a namespace deletes the links in it, and their peers.
  local ns
  for ns in "${namespaces[@]}"; do ip netns delete "$ns" 2>/dev/null || true; done
}
trap cleanup EXIT
trap 'exit 1' INT TERM

mkdir -p "$out"
ip netns add "$tag-sw" 2>/dev/null || skip "cannot create a network namespace (no CAP_SYS_ADMIN, or no netns support)"
namespaces+=("$tag-sw")
ip -n "$tag-sw" link add br0 type bridge
ip -n "$tag-sw" link set br0 up

# A namespace on the switch: veth0 inside it, with one address of the
# rig's own subnet and the multicast route PTP needs.
join() {
  local name=$1 address=$2 ns="$tag-$1"
  ip netns add "$ns"
  namespaces+=("$ns")
  ip link add veth0 netns "$ns" type veth peer name "p-$name" netns "$tag-sw"
  ip -n "$tag-sw" link set "p-$name" master br0 up
  ip -n "$ns" addr add "$address/24" dev veth0
  ip -n "$ns" link set veth0 up
  ip -n "$ns" link set lo up
  ip -n "$ns" route add 224.0.0.0/4 dev veth0
}

# Waits up to $3 seconds for a line matching $2 in file $1.
wait_for_line() {
  local file=$1 pattern=$2 limit=$3 waited=0
  until grep -q -- "$pattern" "$file" 2>/dev/null; do
    [ $waited -lt $((limit * 10)) ] || return 1
    sleep 0.1
    waited=$((waited + 1))
  done
}

period_ns=$((1000000000 / fps))
{
  echo "period_ns=$period_ns"
  echo "phase_ns=0"
  # The line pulses on the host's monotonic clock; PTP's time here is the
  # host's real-time clock (ptp4l runs on it, outside any board).
  python3 -c 'import time; print("realtime_minus_monotonic_ns=%d" % (time.clock_gettime_ns(time.CLOCK_REALTIME) - time.clock_gettime_ns(time.CLOCK_MONOTONIC)))'
} >"$out/rig.env"

if [ "$clock" = ptp ]; then
  join gm 10.88.0.1
  # Announces four times a second and syncs eight times: the boards find the
  # grandmaster sooner than at the default once a second, and their clocks,
  # which fit rate and path delay to the syncs they hear, settle in seconds
  # rather than the minute a loaded machine took at one sync a second.
  ip netns exec "$tag-gm" $urgent ptp4l -i veth0 -S -m --logAnnounceInterval -2 --logSyncInterval -3 --logMinDelayReqInterval -3 \
    --announceReceiptTimeout 2 >"$out/ptp4l.log" 2>&1 &
  pids+=($!)
fi

IFS=, read -r -a offset_list <<<"$offsets"
IFS=, read -r -a drift_list <<<"$drifts"
IFS=, read -r -a delay_list <<<"$delays"
member_list=$(seq -s, 0 $((cameras - 1)))
server_clock=system
[ "$clock" = ptp ] && server_clock="ptp:0 --interface veth0"
urls=()
board_pids=()
for board in $(seq 1 "$boards"); do
  i=$((board - 1))
  join "b$board" "10.88.0.$((10 + board))"
  {
    echo "[cameras]"
    echo "present = $member_list"
    for camera in $(seq 0 $((cameras - 1))); do
      printf '[camera %d]\nview0 = NV12 %s\nfps = %d\n' "$camera" "$size" "$fps"
    done
    echo "[board]"
    echo "clock_offset_ms = ${offset_list[$i]:-0}"
    echo "clock_drift_ppm = ${drift_list[$i]:-0}"
    echo "trigger_line = rig"
    echo "trigger_delay_us = ${delay_list[$i]:-0}"
    echo "[trigger_line rig]"
    echo "fps = $fps"
    echo "phase_us = 0"
  } >"$out/board$board.ini"
  # shellcheck disable=SC2086
  GST_PLUGIN_PATH="$build/gst" ip netns exec "$tag-b$board" $urgent "$build/sim/zelisp-sim-run" --config "$out/board$board.ini" -- \
    "$build/tools/zelisp-rtsp/zelisp-rtsp" --group "$member_list" --trigger external --codec "$codec" --buffers 8 \
    --clock $server_clock --sync-timeout 60 --clock-status "$out/board$board.clock.json" \
    >"$out/board$board.out" 2>"$out/board$board.err" &
  pids+=($!)
  board_pids+=($!)
  urls+=("rtsp://10.88.0.$((10 + board)):8554/group")
done
for board in $(seq 1 "$boards"); do
  wait_for_line "$out/board$board.out" "serving rtsp://.*/group" 90 ||
    { echo "sim-rig: board $board did not start serving:" >&2; cat "$out/board$board.err" >&2; exit 1; }
done
# Right after its first sync a board's clock still learns the path delay
# and can be off by milliseconds: the recording starts once every board's
# clock has settled (or after a minute, as it is).
if [ "$clock" = ptp ]; then
  for board in $(seq 1 "$boards"); do
    wait_for_line "$out/board$board.clock.json" '"settled": true' 60 ||
      echo "sim-rig: board $board's clock did not settle within 60 s" >&2
  done
fi
started=$(date +%s)

join rec 10.88.0.100
# The recorder on the rig's clock, unless told otherwise (a clock no one
# serves, to see it give up).
if [ -z "$recorder_clock" ]; then
  recorder_clock=system
  [ "$clock" = ptp ] && recorder_clock=ptp:0
fi
recorder_interface=()
case "$recorder_clock" in ptp*) recorder_interface=(--interface veth0) ;; esac
ip netns exec "$tag-rec" $urgent "$build/tools/zelisp-rig/zelisp-rig" record --clock "$recorder_clock" \
  "${recorder_interface[@]}" --sync-timeout "$recorder_sync_timeout" --seconds "$seconds" \
  --out "$out/recording" "${urls[@]}" 2>"$out/recorder.err" &
recorder=$!
pids+=($recorder)

if [ "$kill_board" -gt 0 ]; then
  wait_for_line "$out/recorder.err" "zelisp-rig: recording" 90 ||
    { echo "sim-rig: the recorder did not start recording" >&2; cat "$out/recorder.err" >&2; exit 1; }
  sleep "$kill_after"
  kill -KILL "${board_pids[$((kill_board - 1))]}"
  echo "board $kill_board killed $(($(date +%s) - started)) s after the boards served" >"$out/killed"
fi

# The recorder ends by itself: its seconds, plus the clock, the receive
# buffer and closing its files.
status=""
for _ in $(seq $(((seconds + 150) * 10))); do
  if ! kill -0 "$recorder" 2>/dev/null; then
    wait "$recorder" && status=0 || status=$?
    break
  fi
  sleep 0.1
done
[ -n "$status" ] || { echo "sim-rig: the recorder did not end" >&2; exit 1; }
echo "$status" >"$out/recorder.status"

# Each server's processor time until now, for the cost per stream.
ticks=$(getconf CLK_TCK)
for board in $(seq 1 "$boards"); do
  pid=${board_pids[$((board - 1))]}
  if [ -r "/proc/$pid/stat" ]; then
    awk -v ticks="$ticks" -v streams="$cameras" -v wall=$(($(date +%s) - started)) \
      '{ sub(/^.*\) /, ""); print "cpu_seconds=" ($12 + $13) / ticks, "wall_seconds=" wall, "streams=" streams }' \
      "/proc/$pid/stat" >"$out/board$board.cpu"
  fi
done

# Each server stopped as its user stops it, SIGTERM, and its exit status
# kept (boardN.status): a server must end cleanly, not crash on the way out.
for board in $(seq 1 "$boards"); do
  pid=${board_pids[$((board - 1))]}
  kill -TERM "$pid" 2>/dev/null || continue
  for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  kill -0 "$pid" 2>/dev/null && { echo "sim-rig: board $board did not stop within 10 s of SIGTERM" >&2; exit 1; }
  wait "$pid" && echo 0 >"$out/board$board.status" || echo $? >"$out/board$board.status"
done
exit 0
