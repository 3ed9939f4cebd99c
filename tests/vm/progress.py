"""pytest plugin of the guest: tells the host how each test does as soon as that is known, and begins no test any more
once the host says that the time is over.

$EXCHANGE/progress gets a line of JSON for each step: the test, one of STATES and a text. A guest that is given up
leaves what it has found. Under xdist only the controller writes.
"""
import json
import os
import pathlib

import pytest

STATES = BEGUN, FAILED, SKIPPED, ENDED = "begun", "failed", "skipped", "ended"
PROGRESS, OVER = "progress", "over"


def _tell(test, state, text=""):
    if "PYTEST_XDIST_WORKER" in os.environ:
        return
    with open(pathlib.Path(os.environ["EXCHANGE"]) / PROGRESS, "a") as file:
        file.write(json.dumps([test, state, text]) + "\n")


def pytest_runtest_setup():
    if (pathlib.Path(os.environ["EXCHANGE"]) / OVER).exists():
        pytest.skip("the time that was given to the tests is over")


def pytest_runtest_logstart(nodeid):
    _tell(nodeid, BEGUN)


def pytest_runtest_logreport(report):
    if report.failed:
        _tell(report.nodeid, FAILED, f"{report.when}:\n{report.longreprtext}")
    elif report.skipped:
        _tell(report.nodeid, SKIPPED, report.longrepr[2] if isinstance(report.longrepr, tuple) else "")


def pytest_runtest_logfinish(nodeid):
    _tell(nodeid, ENDED)


def pytest_collectreport(report):
    if report.failed:
        _tell(report.nodeid or "collection", FAILED, report.longreprtext)


def read(exchange):
    """What the tests told in the folder `exchange`: test → its last state but ENDED, or ENDED alone for one that
    passed; and the texts, in the order of the tests' beginnings. A test that is left at BEGUN has not ended."""
    tests = {}
    path = pathlib.Path(exchange) / PROGRESS
    for line in path.read_text().splitlines() if path.exists() else []:
        try:
            test, state, text = json.loads(line)
        except ValueError:
            continue    # cut off in the middle
        before, said = tests.get(test, (BEGUN, ""))
        if before in (BEGUN, state):
            tests[test] = (state, "\n".join(filter(None, (said, text))))
        elif state == FAILED:
            tests[test] = (FAILED, text)
    return tests
