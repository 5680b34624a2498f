#!/usr/bin/env bash
# The main job: the service in its host, the recorder simulator around it, real captures fed
# to the sample plug-ins, and a parameter change in the middle. Prints what happened and
# exits 0 when every step was seen.
#
#   scripts/demo.sh [BUILD_DIR] [--forever | --selftest]
#
# --forever keeps everything running until Ctrl-C (feeding the captures in a loop).
# --selftest runs the factory self-test from a (simulated) USB disk instead.
set -uo pipefail

BUILD_DIR=build
FOREVER=0
SELFTEST=0
for arg in "$@"; do
  case "$arg" in
    --forever) FOREVER=1 ;;
    --selftest) SELFTEST=1 ;;
    -h|--help) sed -n '2,10p' "$0"; exit 0 ;;
    *) BUILD_DIR="$arg" ;;
  esac
done

SRC=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "$SRC" && cd "$BUILD_DIR" && pwd)
BIN="$BUILD/bin"
PY=/usr/bin/python3
DEMO=$(mktemp -d "${TMPDIR:-/tmp}/pm-demo.XXXXXX")
ROOT="$DEMO/root"
export RECORDER_BUS="$DEMO/bus"
export PM_LOG_LEVEL=${PM_LOG_LEVEL:-2}

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null; done
  wait 2>/dev/null
  if [ "${KEEP_DEMO:-0}" = 1 ]; then echo "demo files kept in $DEMO"; else rm -rf "$DEMO"; fi
  if [ -n "${USB:-}" ]; then rm -rf "$USB"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
# Waits up to $2 seconds for a line matching $3 in file $1.
wait_for() {
  local file=$1 secs=$2 pattern=$3 i
  for ((i = 0; i < secs * 20; i++)); do
    grep -qE "$pattern" "$file" 2>/dev/null && return 0
    sleep 0.05
  done
  echo "demo: timed out waiting for '$pattern' in $(basename "$file")" >&2
  return 1
}
wait_path() {
  local i
  for ((i = 0; i < 200; i++)); do [ -e "$1" ] && return 0; sleep 0.05; done
  echo "demo: $1 did not appear" >&2
  return 1
}

if [ "$SELFTEST" = 1 ]; then
  # shellcheck source=scripts/demo-selftest.sh
  . "$SRC/scripts/demo-selftest.sh"
  exit $?
fi

# New firmware for the extension box, as the recorder would find it on a USB disk.
head -c 16384 /dev/urandom >"$DEMO/box-firmware.bin"
(cd "$DEMO" && "$BIN/pm-fwpack" box-firmware.bin BOX-MCU-V2.00 >/dev/null) || exit 1

say "Recorder simulator (pm-recorder) with the example scenario"
"$BIN/pm-recorder" --make-root "$ROOT" --template "$SRC/examples/root" \
  --upgrade-file "$DEMO/BOX-MCU-V2.00.CRC" \
  "$SRC/examples/scenario.json" </dev/null >"$DEMO/can-sent.log" 2>"$DEMO/recorder.log" &
pids+=($!)
wait_path "$ROOT/dev/ttyAMA4.peer" || exit 1
wait_for "$DEMO/recorder.log" 10 "running|ready|listening|serving" || true
echo "recorder root $ROOT, bus $RECORDER_BUS"

# The extension box on ttyACM0: pm-boxsim on the peer side of that tty, taking its faults
# from a FIFO that this script holds open.
wait_path "$ROOT/dev/ttyACM0.peer" || exit 1
mkfifo "$DEMO/boxsim.ctl"
exec 9<>"$DEMO/boxsim.ctl"
"$BIN/pm-boxsim" --tty "$ROOT/dev/ttyACM0.peer" --subports 2 --version BOX-MCU-V1.00 \
  --new-version BOX-MCU-V2.00 --image-out "$DEMO/box-received.bin" \
  <"$DEMO/boxsim.ctl" >"$DEMO/boxsim.log" 2>&1 &
pids+=($!)
wait_for "$DEMO/boxsim.log" 10 "^sub 2: " || exit 1
BOX_SUB1=$(sed -n 's/^sub 1: //p' "$DEMO/boxsim.log")
BOX_SUB2=$(sed -n 's/^sub 2: //p' "$DEMO/boxsim.log")
echo "extension box: line $ROOT/dev/ttyACM0, sub-ports $BOX_SUB1 $BOX_SUB2"

# The bus as the monitor sees it; the simulator already runs the broker.
"$BIN/pm-bus" monitor >"$DEMO/monitor.log" 2>/dev/null &
pids+=($!)

# Devices: a TCP peer for the Ethernet plug-in, and an echo on the loopback testers' ttys.
"$PY" - "$DEMO/tcp-peer.log" 5020 5021 <<'EOF' &
import select, socket, sys
log = open(sys.argv[1], "a", buffering=1)
servers = []
for port in sys.argv[2:]:
    s = socket.socket(); s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("127.0.0.1", int(port))); s.listen(4); servers.append(s)
peers = []
while True:
    ready, _, _ = select.select(servers + peers, [], [], 1.0)
    for s in ready:
        if s in servers:
            c, addr = s.accept(); peers.append(c)
            log.write("tcp peer: connection on port %d\n" % s.getsockname()[1])
        else:
            data = s.recv(4096)
            if not data:
                peers.remove(s); s.close(); continue
            for line in data.decode(errors="replace").splitlines():
                log.write("tcp peer: received %s\n" % line)
EOF
pids+=($!)
"$PY" - "$ROOT/dev/ttyAMA2.peer" "$ROOT/dev/ttyAMA3.peer" "$ROOT/dev/mcu-port1" "$BOX_SUB2" <<'EOF' &
import os, select, sys, termios, tty
fds = []
for path in sys.argv[1:]:
    fd = os.open(path, os.O_RDWR | os.O_NOCTTY)
    tty.setraw(fd); fds.append(fd)
while True:
    for fd in select.select(fds, [], [], 1.0)[0]:
        os.write(fd, os.read(fd, 1024))
EOF
pids+=($!)

say "Service (pm-host with libBasicService.so), log level $PM_LOG_LEVEL"
# Line-buffered, so that the parameter dumps on its standard output keep their place in time.
RECORDER_ROOT="$ROOT" PM_LOG_FILE="$DEMO/service.log" stdbuf -oL "$BIN/pm-host" \
  >"$DEMO/service-stdout.log" 2>"$DEMO/host.log" &
host=$!
pids+=($host)
wait_for "$DEMO/service.log" 20 "Begin create serial instance" || exit 1
grep -m3 -E "====|Built time" "$DEMO/service-stdout.log"
wait_for "$DEMO/service.log" 10 "GPS_NMEA: created, mainId = 3, subId = 2" || exit 1

# A real capture (an MTK receiver with a fix) fed to two receivers: one on a main-chip tty, one
# behind the MCU relay.
feed() {  # feed FILE TARGET: one sentence every 20 ms, as a receiver would deliver them
  local file=$1 target=$2 line
  while :; do
    while IFS= read -r line; do
      case "$line" in \$*) printf '%s\r\n' "$line"; sleep 0.02 ;; esac
    done <"$file"
    [ "$FOREVER" = 1 ] || break
  done >"$target"
}
feed "$SRC/tests/data/nmea/bt-q818.log" "$ROOT/dev/ttyAMA4.peer" &
pids+=($!)
feed "$SRC/tests/data/nmea/bt-q818.log" "$ROOT/dev/mcu-port0" &
pids+=($!)
feed "$SRC/tests/data/nmea/bt-q818.log" "$BOX_SUB1" &  # the receiver behind the box
pids+=($!)

wait_for "$DEMO/service.log" 15 "GPS_NMEA: fix, mainId = 3" || true
wait_for "$DEMO/service.log" 15 "J1939: .* engine speed" || true
wait_for "$DEMO/service.log" 15 "LOOPBACK: summary" || true
wait_for "$DEMO/service.log" 15 "GPS_NMEA: fix, mainId = 3, subId = 3" || true

say "The extension box falls silent (pm-boxsim: silent on), then speaks again"
echo "silent on" >&9
wait_for "$DEMO/service.log" 20 "S1_EXTEND_BOX: Extend box offline" || true
grep -m1 "S1_EXTEND_BOX: Extend box offline" "$DEMO/service.log" | sed 's/^/  /'
echo "silent off" >&9
wait_for "$DEMO/service.log" 10 "S1_EXTEND_BOX: Extend box online again" || true
grep -m1 "S1_EXTEND_BOX: Extend box online again" "$DEMO/service.log" | sed 's/^/  /'

say "Parameter change: pm-recorder apply examples/scenario-changed.json"
before_change=$(wc -l <"$DEMO/service.log")
"$BIN/pm-recorder" apply "$SRC/examples/scenario-changed.json" 2>&1 | sed 's/^/  /'
wait_for "$DEMO/service.log" 10 "Update Serial Instance Finished" || true
wait_for "$DEMO/service.log" 10 "LOOPBACK: created, mainId = 36, subId = 0, link = 0" || true

say "Language switch to German (pm-recorder ctl language de): the alarm speech texts follow"
"$BIN/pm-recorder" ctl language de | sed 's/^/  /'
wait_for "$DEMO/service.log" 10 "Analy TTS alarm config, mainId = 3, .*content = GPS-Antenne" || true
grep -E "Analy TTS alarm config" "$DEMO/service.log" | tail -n 2 | sed 's/^/  /'

say "Firmware upgrade of the box: pm-fwpack made BOX-MCU-V2.00.CRC, pm-upgrade asks for it"
"$BIN/pm-fwpack" --inspect "$DEMO/BOX-MCU-V2.00.CRC" | sed 's/^/  /'
"$BIN/pm-upgrade" --file "$DEMO/BOX-MCU-V2.00.CRC" --timeout 20 | sed 's/^/  /'
upgrade_status=${PIPESTATUS[0]}
echo "  pm-upgrade exit status $upgrade_status"
wait_for "$DEMO/monitor.log" 15 'extend-version .*"BOX-MCU-V2.00"' || true

if [ "$FOREVER" = 1 ]; then
  say "Running until Ctrl-C; logs in $DEMO"
  KEEP_DEMO=1
  tail -f "$DEMO/service.log" &
  pids+=($!)
  wait "$host"
  exit 0
fi
sleep 2  # let the changed set-up run a few cycles before the summary

say "Stopping the service (SIGTERM)"
kill -TERM "$host"
wait "$host"
host_status=$?
echo "pm-host exit status $host_status"

show() {  # show TITLE FILE PATTERN [MAX]
  echo "-- $1"
  grep -E "$3" "$2" | head -n "${4:-12}" | sed 's/^/   /'
}
say "What the bus carried (pm-bus monitor, first lines)"
grep -vE 'watchdog|mcu-serial|can-recv' "$DEMO/monitor.log" | head -n 25 | sed 's/^/   /'
echo "   ... $(wc -l <"$DEMO/monitor.log") messages in all"

say "What the service logged"
head -n "$before_change" "$DEMO/service.log" >"$DEMO/service-start.log"
tail -n +"$((before_change + 1))" "$DEMO/service.log" >"$DEMO/service-change.log"
show "readiness and parameters" "$DEMO/service-start.log" \
  "DeviceManage module|Get system param|param has changed" 8
show "instances created" "$DEMO/service-start.log" \
  "Begin create (serial|can|Ethernet) instance|GPS_NMEA: created|LOOPBACK: created|J1939: .* listening" 14
show "GPS fixes on the main-chip tty (sub 2)" "$DEMO/service.log" "GPS_NMEA: fix, mainId = 3, subId = 2" 3
show "GPS fixes through the MCU relay (sub 0, after the change sub 1)" "$DEMO/service.log" \
  "GPS_NMEA: fix, mainId = 3, subId = [01]" 3
show "extension box on ttyACM0" "$DEMO/service.log" \
  "S1_EXTEND_BOX: (Set extend box data transform type success|Response version|Add extend instance|Response set baud|Extend box (offline|online))" 10
show "GPS fixes behind the box (sub-port 1)" "$DEMO/service.log" "GPS_NMEA: fix, mainId = 3, subId = 3" 3
show "the box's version on the bus" "$DEMO/monitor.log" "extend-version" 3
show "the upgrade's states on the bus" "$DEMO/monitor.log" "extend-upgrade-state" 4
show "J1939 over CAN" "$DEMO/service.log" "J1939: \[" 6
show "loopback testers" "$DEMO/service.log" "LOOPBACK: summary" 6
show "Ethernet peer" "$DEMO/service.log" "ETH_TCP: .*(connected|disconnected|peer is)" 6
show "reconciliation after the change" "$DEMO/service-change.log" \
  "param has changed|Remove (serial|can|Ethernet) instance, mainId = [1-9]|Release Peripheral Instance success|Begin create|created, mainId|mainId = [0-9]+, subId = [0-9]+$|Reset serial property|Instance Finished" 20
echo "-- frames the service sent on CAN (candump log)"
head -n 4 "$DEMO/can-sent.log" | sed 's/^/   /'

# The demo passes only when every step was seen.
failed=0
check() {
  if grep -qE "$2" "$3"; then printf '  ok    %s\n' "$1"; else printf '  FAIL  %s\n' "$1"; failed=1; fi
}
say "Checks"
check "device-management module ready" "DeviceManage module init state = 0x1" "$DEMO/service.log"
check "GPS fix from the main-chip tty" "GPS_NMEA: fix, mainId = 3, subId = 2" "$DEMO/service.log"
check "GPS fix through the MCU relay" "GPS_NMEA: fix, mainId = 3, subId = [01]" "$DEMO/service.log"
check "extension box brought into service" "S1_EXTEND_BOX: Response version, version = BOX-MCU-V1.00" "$DEMO/service.log"
check "box version broadcast" "extend-version .*version \"BOX-MCU-V1.00\"" "$DEMO/monitor.log"
check "GPS fix behind the box" "GPS_NMEA: fix, mainId = 3, subId = 3" "$DEMO/service.log"
check "loopback echoes behind the box" "LOOPBACK: summary, mainId = 36, subId = 1, .*ok = [1-9]" "$DEMO/service.log"
check "silent box reported offline" "S1_EXTEND_BOX: Extend box offline" "$DEMO/service.log"
check "box back online" "S1_EXTEND_BOX: Extend box online again" "$DEMO/service.log"
if [ "$upgrade_status" = 0 ]; then
  echo "  ok    box upgraded (pm-upgrade saw state 10)"
else
  echo "  FAIL  pm-upgrade exit $upgrade_status"; failed=1
fi
if cmp -s "$DEMO/box-firmware.bin" "$DEMO/box-received.bin"; then
  echo "  ok    the box received the image byte for byte"
else
  echo "  FAIL  the box's image differs from the firmware"; failed=1
fi
check "new version broadcast after the upgrade" 'extend-version .*version "BOX-MCU-V2.00"' "$DEMO/monitor.log"
check "alarm speech in English at start" "Analy TTS alarm config, mainId = 3, .*content = GPS antenna disconnected" "$DEMO/service.log"
check "alarm speech in German after the switch" "Analy TTS alarm config, mainId = 3, .*content = GPS-Antenne getrennt" "$DEMO/service.log"
check "J1939 engine speed decoded" "J1939: .*engine speed" "$DEMO/service.log"
check "loopback echoes counted" "LOOPBACK: summary, .*ok = [1-9]" "$DEMO/service.log"
check "serial instance replaced on change" "Remove serial instance, mainId = 3, subId = 0" "$DEMO/service-change.log"
check "serial reconciliation finished" "Update Serial Instance Finished" "$DEMO/service-change.log"
check "CAN frames sent by the service" "#" "$DEMO/can-sent.log"
if [ "$host_status" = 0 ]; then echo "  ok    pm-host stopped cleanly"; else echo "  FAIL  pm-host exit $host_status"; failed=1; fi
exit $failed
