"""Waiting for a condition instead of sleeping."""
import time


def wait_for(condition, what, seconds=15.0, pause=0.02):
    """Calls `condition` until its result is true and returns that; fails with `what` after `seconds`."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"after {seconds} s still waiting for {what}")
        time.sleep(pause)
