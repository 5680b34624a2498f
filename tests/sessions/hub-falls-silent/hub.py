#!/usr/bin/python3
"""The hub behind ttyACM0 and what happens to it: it comes up, falls silent until the service
reports its line lost, speaks again, and once the service has it back sends an I/O report.

    hub.py ROOT BIN

Each step waits for the service's own broadcast of the previous one, so that the scene does not
depend on how fast the service runs."""
import os
import sys

sys.dont_write_bytecode = True  # no __pycache__ among the session folders
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from scene import Scene  # noqa: E402

scene = Scene("hub.py", sys.argv[1], sys.argv[2],
              "serial-config-status,extend-version,extend-io-state", ["--hub", "--subports", "0"])
scene.ready()
STEPS = [
    # The service has read the hub's version: the hub is in service.
    (r'extend-version .*version "BOX-MCU-V1\.00"', "silent on"),
    # Line lost (status 5).
    (r"serial-config-status .*\| 03 95 00 00 00 05", "silent off"),
    # The hub answered again (status 7): an I/O report only a hub in service passes on.
    (r"serial-config-status .*\| 03 95 00 00 00 07", "io 1"),
]
for pattern, command in STEPS:
    if not scene.wait_for(pattern):
        break
    scene.tell_box(command)
else:
    if scene.wait_for(r"extend-io-state .*\| 95 00 01 00"):
        scene.say("the I/O report went out")
# The hub stays as it is until the session ends.
scene.hold()
