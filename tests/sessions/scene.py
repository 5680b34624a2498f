"""What the sessions' device drivers share: a box simulator on the root's ttyACM0, a bus monitor
of the ids the scene steps on, and waits bounded so that a step that never comes ends the scene
(the comparison then shows what is missing) instead of hanging it.

A driver makes a Scene, calls ready() once its devices are up (it prints "ready", which the
regress script waits for), steps with wait_for() and the box's stdin, then hold()s until the
session ends it with SIGTERM."""
import os
import re
import signal
import subprocess
import sys
import threading

# The longest a step may take: a hub counts as lost after five unanswered keep-alives three
# seconds apart.
STEP_BOUND = 30.0


class Scene:
    def __init__(self, name, root, bin_dir, watched_ids, box_args):
        self.name, self.bin = name, bin_dir
        self.children = []
        signal.signal(signal.SIGTERM, self.stop)
        signal.signal(signal.SIGINT, self.stop)
        self.monitor = self.start(["pm-bus", "monitor", "--ids", watched_ids],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.box = self.start(["pm-boxsim", "--tty", root + "/dev/ttyACM0.peer"] + box_args,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)

    def start(self, args, **kw):
        child = subprocess.Popen([os.path.join(self.bin, args[0])] + args[1:], text=True,
                                 bufsize=1, **kw)
        self.children.append(child)
        return child

    def say(self, text):
        print("%s: %s" % (self.name, text), flush=True)

    def stop(self, *_):
        for child in self.children:
            if child.poll() is None:
                child.terminate()
        for child in self.children:
            try:
                child.wait(timeout=5)
            except subprocess.TimeoutExpired:
                child.kill()
        sys.exit(0)

    def ready(self):
        if not (self._first_line(self.monitor.stderr, r"monitoring", "pm-bus monitor") and
                self._first_line(self.box.stdout, r"^line: ", "pm-boxsim")):
            self.stop()
        print("ready", flush=True)
        # What the children say later must not fill their pipes.
        self.drain(self.monitor.stderr, "pm-bus: ")
        self.drain(self.box.stdout, "pm-boxsim: ")

    def drain(self, stream, prefix):
        def run():
            for line in stream:
                print(prefix + line.rstrip("\n"), flush=True)
        threading.Thread(target=run, daemon=True).start()

    def tell_box(self, command):
        self.box.stdin.write(command + "\n")
        self.box.stdin.flush()
        self.say(command)

    def wait_for(self, pattern):
        """True once the monitor printed a line matching `pattern`, within STEP_BOUND."""
        def timed_out(*_):
            raise TimeoutError()
        signal.signal(signal.SIGALRM, timed_out)
        signal.setitimer(signal.ITIMER_REAL, STEP_BOUND)  # readline() blocks; the alarm bounds it
        try:
            for line in self.monitor.stdout:
                if re.search(pattern, line):
                    return True
        except TimeoutError:
            pass
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)
        self.say("nothing matched '%s' within %.0f s" % (pattern, STEP_BOUND))
        return False

    def hold(self):
        while True:
            signal.pause()

    def _first_line(self, stream, pattern, what):
        for line in stream:
            if re.search(pattern, line):
                return True
        self.say("%s ended before it was ready" % what)
        return False
