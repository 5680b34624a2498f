#!/usr/bin/python3
"""The extension box behind ttyACM0, and an upgrade asked for once the service has it in service.

    box.py ROOT BIN

pm-boxsim runs BOX-MCU-V1.00 and turns into BOX-MCU-V2.00 after a good upgrade; pm-upgrade asks
the service for it as soon as the service has broadcast the box's version, so that the trigger
does not depend on how fast the service starts (the recorder's answer to the file request,
which carries the whole file, is the recording's). Prints "ready" once the box's line is open
and the bus is watched, and a line per step."""
import os
import re
import signal
import subprocess
import sys
import threading

ROOT, BIN = sys.argv[1], sys.argv[2]
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


def start(args, **kw):
    child = subprocess.Popen([os.path.join(BIN, args[0])] + args[1:], text=True, bufsize=1, **kw)
    children.append(child)
    return child


monitor = start(["pm-bus", "monitor", "--ids", "extend-version"],
                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
box = start(["pm-boxsim", "--tty", ROOT + "/dev/ttyACM0.peer", "--subports", "0",
             "--version", "BOX-MCU-V1.00", "--new-version", "BOX-MCU-V2.00"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


def first_line(stream, pattern, what):
    for line in stream:
        if re.search(pattern, line):
            return True
    print("box.py: %s ended before it was ready" % what, flush=True)
    return False


if not (first_line(monitor.stderr, r"monitoring", "pm-bus monitor") and
        first_line(box.stdout, r"^line: ", "pm-boxsim")):
    stop()
print("ready", flush=True)


def drain(stream, prefix):
    for line in stream:
        print(prefix + line.rstrip("\n"), flush=True)


# What the children say later must not fill their pipes.
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
    print("box.py: nothing matched '%s' within %.0f s" % (pattern, STEP_BOUND), flush=True)
    return False


# The service has read the box's version: the box is in service.
if wait_for(r'extend-version .*version "BOX-MCU-V1\.00"'):
    upgrade = start(["pm-upgrade", "--timeout", "20"],
                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    print("box.py: pm-upgrade started", flush=True)
    threading.Thread(target=drain, args=(upgrade.stdout, "pm-upgrade: "), daemon=True).start()
    # After a good upgrade the service reads the version again.
    if wait_for(r'extend-version .*version "BOX-MCU-V2\.00"'):
        print("box.py: the box runs the new version", flush=True)
# The box stays as it is until the session ends.
while True:
    signal.pause()
