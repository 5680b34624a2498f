#!/usr/bin/python3
"""The extension box behind ttyACM0, and an upgrade asked for once the service has it in service.

    box.py ROOT BIN

pm-boxsim runs BOX-MCU-V1.00 and turns into BOX-MCU-V2.00 after a good upgrade; pm-upgrade asks
the service for it as soon as the service has broadcast the box's version, so that the trigger
does not depend on how fast the service starts (the recorder's answer to the file request,
which carries the whole file, is the recording's)."""
import os
import subprocess
import sys

sys.dont_write_bytecode = True  # no __pycache__ among the session folders
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
from scene import Scene  # noqa: E402

scene = Scene("box.py", sys.argv[1], sys.argv[2], "extend-version",
              ["--subports", "0", "--version", "BOX-MCU-V1.00", "--new-version", "BOX-MCU-V2.00"])
scene.ready()
# The service has read the box's version: the box is in service.
if scene.wait_for(r'extend-version .*version "BOX-MCU-V1\.00"'):
    upgrade = scene.start(["pm-upgrade", "--timeout", "20"], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    scene.say("pm-upgrade started")
    scene.drain(upgrade.stdout, "pm-upgrade: ")
    # After a good upgrade the service reads the version again.
    if scene.wait_for(r'extend-version .*version "BOX-MCU-V2\.00"'):
        scene.say("the box runs the new version")
scene.hold()
