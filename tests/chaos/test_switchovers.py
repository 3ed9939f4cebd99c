"""Fifty switchovers in a row, under traffic, in every way in which a control unit can fail.

Takes five to ten minutes. `scripts/test chaos` runs it and prints the gaps in the export.

SFLOW_SWITCHOVERS   how many in all (default 50)
SFLOW_SEED          order of the faults and traffic (default: another one each time; it is printed)
SFLOW_GAP_LIMIT_S   fails when an export gap is longer; without it gaps are only reported, for a busy machine stretches them
"""
import os
import random

import pytest

from harness import cluster as clusters
from harness.pair import Pair
from harness.switchovers import CUT, END, FORCE, KILL, KILL_COROSYNC, STOP, STOP_COROSYNC, Course

SWITCHOVERS = int(os.environ.get("SFLOW_SWITCHOVERS", 50))
SEED = int(os.environ.get("SFLOW_SEED", random.randrange(1 << 32)))
GAP_LIMIT_S = float(os.environ.get("SFLOW_GAP_LIMIT_S", "inf"))
SPLITS = max(1, SWITCHOVERS // 10)
REST = max(2, SWITCHOVERS - SPLITS)


@pytest.fixture
def make_course():
    made = []

    def make(third_vote):
        reason = clusters.available(third_vote)
        if reason:
            pytest.skip(reason)
        print(f"\nSFLOW_SEED={SEED}")
        made.append(Pair(third_vote, prompt=True))
        made.append(Course(made[-1], random.Random(SEED)))
        return made[-1]

    yield make
    for each in made:
        each.close()


def run(course, faults, count):
    plan = [faults[number % len(faults)] for number in range(count)]
    course.random.shuffle(plan)
    for fault in plan:
        course.switch(fault)
    print(f"\nGaps in the export; {course.roles.looks} looks at the roles\n{course.report()}")
    course.judge()
    worst = max(sum(course.gaps.values(), []))
    assert worst <= GAP_LIMIT_S, f"a gap of {worst:.2f} s"


def test_switchovers_of_a_pair_without_a_third_vote(make_course):
    run(make_course(False), (KILL, STOP, FORCE, KILL_COROSYNC, END, STOP_COROSYNC), (REST + 1) // 2)


def test_switchovers_of_a_pair_with_a_third_vote(make_course):
    run(make_course(True), (CUT, KILL, STOP, CUT, KILL_COROSYNC, FORCE), REST // 2)


def test_splits_and_merges_of_a_pair_without_a_third_vote(make_course):
    course = make_course(False)
    for _ in range(SPLITS):
        course.split_and_merge()
    course.judge()
