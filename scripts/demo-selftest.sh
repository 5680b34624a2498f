# The factory self-test, sourced by demo.sh --selftest (its helpers and variables are set):
# a recorder of product type 6 with an extension box on ttyAMA2 (port 4), pm-boxsim as the
# box with an echo behind both sub-ports, then a USB disk whose AutoTest/AUTO_TEST_CFG enables
# the test. The service puts the loopback testers (main ids 34 and 36) behind the box; they
# report; the disk is unplugged and the recorder's own setting comes back.

say "Recorder simulator (pm-recorder) with examples/scenario-selftest.json"
"$BIN/pm-recorder" --make-root "$ROOT" --template "$SRC/examples/root" \
  "$SRC/examples/scenario-selftest.json" </dev/null >/dev/null 2>"$DEMO/recorder.log" &
pids+=($!)
wait_path "$ROOT/dev/ttyAMA2.peer" || exit 1
grep PRODUCT_TYPE "$ROOT/usr/local/cfg/SYSTEM_CONFIG" | sed 's/^ */  /'

mkfifo "$DEMO/boxsim.ctl"
exec 9<>"$DEMO/boxsim.ctl"
"$BIN/pm-boxsim" --tty "$ROOT/dev/ttyAMA2.peer" --subports 2 \
  <"$DEMO/boxsim.ctl" >"$DEMO/boxsim.log" 2>&1 &
pids+=($!)
wait_for "$DEMO/boxsim.log" 10 "^sub 2: " || exit 1
# The factory's loopback plugs: whatever a sub-port sends comes back.
"$PY" - "$(sed -n 's/^sub 1: //p' "$DEMO/boxsim.log")" \
  "$(sed -n 's/^sub 2: //p' "$DEMO/boxsim.log")" <<'PYEOF' &
import os, select, sys, tty
fds = []
for path in sys.argv[1:]:
    fd = os.open(path, os.O_RDWR | os.O_NOCTTY)
    tty.setraw(fd); fds.append(fd)
try:
    while True:
        for fd in select.select(fds, [], [], 1.0)[0]:
            os.write(fd, os.read(fd, 1024))
except OSError:
    pass  # the box went away: the demo is ending
PYEOF
pids+=($!)
"$BIN/pm-bus" monitor >"$DEMO/monitor.log" 2>/dev/null &
pids+=($!)

say "Service (pm-host with libBasicService.so)"
RECORDER_ROOT="$ROOT" PM_LOG_FILE="$DEMO/service.log" stdbuf -oL "$BIN/pm-host" \
  >"$DEMO/service-stdout.log" 2>"$DEMO/host.log" &
host=$!
pids+=($host)
wait_for "$DEMO/service.log" 30 "S1_EXTEND_BOX: Add extend instance, id = 0, mainId = 3" || exit 1
echo "  the box on ttyAMA2 is in service with the GPS receiver behind sub-port 1"

say "USB disk with AutoTest/AUTO_TEST_CFG plugged in (pm-recorder ctl usb plug)"
# The disk record carries its mount directory in 39 characters: a short folder of its own,
# whatever TMPDIR is (demo.sh removes it at the end).
USB=$(mktemp -d /tmp/pmusb.XXXXXX)
mkdir -p "$USB/AutoTest"
# The service reads the file from its second byte on.
printf '#TEST_ENABLE=true\n' >"$USB/AutoTest/AUTO_TEST_CFG"
"$BIN/pm-recorder" ctl usb plug "$USB" | sed 's/^/  /'
echo "  the service asks for the disk's details on its disk poll, every fourth second once a"
echo "  disk is in: expect the test to start about 5 s after the plug"
wait_for "$DEMO/service.log" 15 "Auto test file opened" || true
grep -m1 "Auto test file opened" "$DEMO/service.log" | sed 's/^.*S_MANAGE: /  /'
wait_for "$DEMO/service.log" 15 "LOOPBACK: summary, mainId = 34, subId = 0, .*ok = [1-9]" || true
wait_for "$DEMO/service.log" 15 "LOOPBACK: summary, mainId = 36, subId = 0, .*ok = [1-9]" || true
grep -E "LOOPBACK: summary, mainId = 3[46]" "$DEMO/service.log" | tail -n 2 | sed 's/^.*LOOPBACK: /  running: /'

say "USB disk unplugged (pm-recorder ctl usb unplug): the recorder's setting comes back"
before_unplug=$(wc -l <"$DEMO/service.log")
"$BIN/pm-recorder" ctl usb unplug | sed 's/^/  /'
wait_for "$DEMO/service.log" 15 "Release Peripheral Instance success, type = 0, mainID = 36" || true
sleep 1
tail -n +"$((before_unplug + 1))" "$DEMO/service.log" >"$DEMO/service-unplug.log"
grep -E "Usb plug out|Release Peripheral Instance success|Begin create serial|Add extend instance" \
  "$DEMO/service-unplug.log" | head -n 8 | sed 's/^/  /'
say "Verdict: each tester's counts when it was released"
grep -E "LOOPBACK: summary, mainId = 3[46]" "$DEMO/service-unplug.log" | tail -n 2 |
  sed 's/^.*LOOPBACK: summary, /  /'

say "Stopping the service (SIGTERM)"
kill -TERM "$host"
wait "$host"
host_status=$?

failed=0
check() {
  if grep -qE "$2" "$3"; then printf '  ok    %s\n' "$1"; else printf '  FAIL  %s\n' "$1"; failed=1; fi
}
say "Checks"
check "box in service before the test" "S1_EXTEND_BOX: Add extend instance, id = 0, mainId = 3, subId = 3" "$DEMO/service.log"
check "test file read from the disk" "Auto test file opened, path = $USB/AutoTest/AUTO_TEST_CFG" "$DEMO/service.log"
check "test layout sent as a serial change" "serial-param-changed from=10 " "$DEMO/monitor.log"
check "tester 34 behind the box reports" "LOOPBACK: summary, mainId = 34, subId = 0, .*ok = [1-9]" "$DEMO/service.log"
check "tester 36 behind the box reports" "LOOPBACK: summary, mainId = 36, subId = 0, .*ok = [1-9]" "$DEMO/service.log"
check "unplug asks for the real setting" " Usb plug out" "$DEMO/service-unplug.log"
check "testers removed" "Release Peripheral Instance success, type = 0, mainID = 34" "$DEMO/service-unplug.log"
check "tester 34's verdict at release" "LOOPBACK: summary, mainId = 34, subId = 0, .*ok = [1-9]" "$DEMO/service-unplug.log"
check "GPS receiver back behind the box" "Begin create serial instance, mainId = 3, subId = 3" "$DEMO/service-unplug.log"
if [ "$host_status" = 0 ]; then echo "  ok    pm-host stopped cleanly"; else echo "  FAIL  pm-host exit $host_status"; failed=1; fi
return $failed 2>/dev/null || exit $failed
