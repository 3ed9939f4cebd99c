"""A short share of the switchovers that tests/chaos plays: one of each kind that needs no third vote."""
import random

import pytest

from harness import cluster as clusters
from harness.pair import Pair
from harness.switchovers import FORCE, KILL, KILL_COROSYNC, STOP, Course

SEED = 20


def test_the_standby_goes_on_whatever_happens_to_the_master():
    reason = clusters.available()
    if reason:
        pytest.skip(reason)
    pair = Pair()
    course = None
    try:
        course = Course(pair, random.Random(SEED))
        for fault in course.random.sample((KILL, FORCE, STOP, KILL_COROSYNC), 4):
            course.switch(fault)
        print(course.report())
        course.judge()
    finally:
        pair.close()
        if course:
            course.close()
