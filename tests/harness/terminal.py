"""sflow-cli at a terminal of its own: a pseudo-terminal, keys in, screen text out."""
import fcntl
import os
import pathlib
import re
import signal
import struct
import subprocess
import termios
import threading

from harness.daemon import BIN
from harness.wait import PATIENCE, wait_for

SUPPRESSIONS = pathlib.Path(__file__).parents[1] / "lsan.supp"
ESCAPES = re.compile(r"\x1b(\[[0-?]*[ -/]*[@-~]|[()][0-9A-B]|[=>78])")


class Terminal:
    """Starts sflow-cli on a pseudo-terminal; a thread keeps what it prints.

    `TERM` is dumb, so that what is printed is text and carriage returns. The editor may print a line anew, prompt and
    all, after keys that move or complete. Texts are awaited from a mark on: behind what the last wait has found.
    """

    def __init__(self, sandbox, *arguments, rows=24, columns=80, environment=None):
        self._master, slave = os.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        env = {**sandbox.environment, "TERM": "dumb", "LC_ALL": "C.UTF-8", "HOME": str(sandbox.path),
               "LSAN_OPTIONS": f"suppressions={SUPPRESSIONS}:print_suppressions=0",
               **(environment or {})}
        self.popen = subprocess.Popen([str(BIN / "sflow-cli"), *arguments], env=env, stdin=slave, stdout=slave,
                                      stderr=slave, start_new_session=True,
                                      preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        self._slave = slave
        self._raw = bytearray()
        self._mark = 0
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        while True:
            try:
                data = os.read(self._master, 65536)
            except OSError:
                return
            if not data:
                return
            self._raw += data

    def text(self):
        """Everything printed so far, without escape sequences."""
        return ESCAPES.sub("", self._raw.decode(errors="replace"))

    def new_text(self):
        return self.text()[self._mark:]

    def expect(self, wanted, seconds=PATIENCE):
        """Waits until `wanted` has been printed behind the mark; returns the text up to it and moves the mark."""
        def found():
            return wanted in self.new_text()
        wait_for(found, lambda: f"{wanted!r} on the terminal; there is {self.new_text()!r}", seconds)
        at = self.text().index(wanted, self._mark) + len(wanted)
        before, self._mark = self.text()[self._mark:at], at
        return before

    def type(self, keys):
        """Presses keys once the shell takes them one by one: at its prompt or between pages."""
        wait_for(lambda: not self.local_modes() & termios.ICANON, "a shell that reads keys")
        self.press(keys)

    def press(self, keys):
        """Presses keys whatever the shell does."""
        os.write(self._master, keys.encode() if isinstance(keys, str) else keys)

    def local_modes(self):
        return termios.tcgetattr(self._slave)[3]

    def wait(self, seconds=PATIENCE):
        return self.popen.wait(seconds)

    def close(self):
        if self.popen.poll() is None:
            self.popen.send_signal(signal.SIGKILL)
            self.popen.wait()
        os.close(self._slave)
        self._thread.join(PATIENCE)
        os.close(self._master)
