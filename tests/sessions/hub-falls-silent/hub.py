#!/usr/bin/python3
"""The hub behind ttyACM0 and what happens to it: it comes up, falls silent until the service
reports its line lost, speaks again, and once the service has it back sends an I/O report.

    hub.py ROOT BIN

Each step waits for the service's own broadcast of the previous one, so that the scene does not
depend on how fast the service runs; a step that does not come within its bound ends the scene
(the comparison then shows what is missing). Prints "ready" once the hub's line is open and the
bus is watched, and a line per step."""
import os
import re
import signal
import subprocess
import sys
import threading

ROOT, BIN = sys.argv[1], sys.argv[2]
# The service gives up on a hub after five unanswered keep-alives three seconds apart.
STEP_BOUND = 30.0

children = []


def stop(*_):
    for child in children:
        if child.poll() is None:
            child.terminate()
    for child in children:
        try:
            child.wait(timeout=5)
        except subprocess.TimeoutExpired:
            child.kill()
    sys.exit(0)


signal.signal(signal.SIGTERM, stop)
signal.signal(signal.SIGINT, stop)

monitor = subprocess.Popen(
    [os.path.join(BIN, "pm-bus"), "monitor", "--ids",
     "serial-config-status,extend-version,extend-io-state"],
    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, bufsize=1)
children.append(monitor)
box = subprocess.Popen(
    [os.path.join(BIN, "pm-boxsim"), "--hub", "--tty", ROOT + "/dev/ttyACM0.peer",
     "--subports", "0"],
    stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, bufsize=1)
children.append(box)


def first_line(stream, pattern, what):
    for line in stream:
        if re.search(pattern, line):
            return True
    print("hub.py: %s ended before it was ready" % what, flush=True)
    return False


if not (first_line(monitor.stderr, r"monitoring", "pm-bus monitor") and
        first_line(box.stdout, r"^line: ", "pm-boxsim")):
    stop()
print("ready", flush=True)


def drain(stream, prefix):
    for line in stream:
        print(prefix + line.rstrip("\n"), flush=True)


# What the monitor and the box say later must not fill their pipes.
threading.Thread(target=drain, args=(monitor.stderr, "pm-bus: "), daemon=True).start()
threading.Thread(target=drain, args=(box.stdout, "pm-boxsim: "), daemon=True).start()


def timed_out(*_):
    raise TimeoutError()


def wait_for(pattern):
    signal.signal(signal.SIGALRM, timed_out)
    signal.setitimer(signal.ITIMER_REAL, STEP_BOUND)  # readline() blocks; the alarm bounds it
    try:
        for line in monitor.stdout:
            if re.search(pattern, line):
                return True
    except TimeoutError:
        pass
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
    print("hub.py: nothing matched '%s' within %.0f s" % (pattern, STEP_BOUND), flush=True)
    return False


def tell_box(command):
    box.stdin.write(command + "\n")
    box.stdin.flush()
    print("hub.py: " + command, flush=True)


STEPS = [
    # The service has read the hub's version: the hub is in service.
    (r'extend-version .*version "BOX-MCU-V1\.00"', "silent on"),
    # Line lost (status 5).
    (r"serial-config-status .*\| 03 95 00 00 00 05", "silent off"),
    # The hub answered again (status 7): an I/O report only a hub in service passes on.
    (r"serial-config-status .*\| 03 95 00 00 00 07", "io 1"),
]
for pattern, command in STEPS:
    if not wait_for(pattern):
        break
    tell_box(command)
else:
    if wait_for(r"extend-io-state .*\| 95 00 01 00"):
        print("hub.py: the I/O report went out", flush=True)
# The hub stays as it is until the session ends.
while True:
    signal.pause()
