"""Waiting for a condition instead of sleeping."""
import contextlib
import os
import pathlib
import signal
import time

#: Seconds after which a test gives up. A loaded machine may hold up any process for a long while, and only a test that
#: fails waits so long.
PATIENCE = int(os.environ.get("SFLOW_TEST_PATIENCE", "120"))


def wait_for(condition, what, seconds=PATIENCE, pause=0.02):
    """Calls `condition` until its result is true and returns that; fails with `what` after `seconds`.

    Wait for what lasts: between two calls anything may have come and gone.
    """
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"after {seconds} s still waiting for {what() if callable(what) else what}")
        time.sleep(pause)


def _halted(pid):
    """Whether every thread of a process stands still; the signal alone takes a while."""
    try:
        states = {path.read_text().rpartition(")")[2].split()[0]
                  for path in pathlib.Path(f"/proc/{pid}/task").glob("*/stat")}
    except (FileNotFoundError, ProcessLookupError):
        return False    # one has just ended
    return states == {"T"}


@contextlib.contextmanager
def halted(pid):
    """Inside, the process stands still."""
    os.kill(pid, signal.SIGSTOP)
    try:
        wait_for(lambda: _halted(pid), "the process to stop")
        yield
    finally:
        os.kill(pid, signal.SIGCONT)
