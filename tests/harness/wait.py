"""Waiting for a condition instead of sleeping."""
import contextlib
import os
import pathlib
import signal
import time


def wait_for(condition, what, seconds=60.0, pause=0.02):
    """Calls `condition` until its result is true and returns that; fails with `what` after `seconds`."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"after {seconds} s still waiting for {what}")
        time.sleep(pause)


def _halted(pid):
    """Whether every thread of a process stands still; the signal alone takes a while."""
    states = [path.read_text().rpartition(")")[2].split()[0] for path in pathlib.Path(f"/proc/{pid}/task").glob("*/stat")]
    return set(states) == {"T"}


@contextlib.contextmanager
def halted(pid):
    """Inside, the process stands still."""
    os.kill(pid, signal.SIGSTOP)
    try:
        wait_for(lambda: _halted(pid), "the process to stop")
        yield
    finally:
        os.kill(pid, signal.SIGCONT)
