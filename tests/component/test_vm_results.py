"""What the vm tier makes of a guest's end: no result of a test is lost, and no hang of one is hidden."""
import json
import xml.etree.ElementTree as ElementTree

import guest
import progress
import pytest
import tier

TESTS = ["passed", "failed", "skipped", "under way", "not begun"]


@pytest.fixture
def told(tmp_path):
    """The states of TESTS, as read from what a guest left that was cut off while it wrote."""
    steps = [("passed", "begun", ""), ("failed", "begun", ""), ("passed", "ended", ""),
             ("failed", "failed", "call: 1 < 0"), ("failed", "ended", ""), ("skipped", "begun", ""), ("skipped", "skipped", "no such device"),
             ("skipped", "ended", ""), ("under way", "begun", "")]
    (tmp_path / progress.PROGRESS).write_text("".join(json.dumps(step) + "\n" for step in steps) + '["under way", "en')
    return progress.read(tmp_path)


def outcomes(told, status, reason=None):
    cases = tier.outcomes(TESTS, told, status, reason)
    assert {name: cases[name][0] for name in ("passed", "failed", "skipped", "not begun")} == \
        {"passed": "passed", "failed": "failure", "skipped": "skipped", "not begun": "skipped"}
    return cases["under way"][0], cases["guest"][0]


@pytest.mark.parametrize("status, under_way, whole", [
    (guest.LATE, "failure", "skipped"), (guest.STILL, "skipped", "skipped"), (guest.DOWN, "skipped", "skipped"),
    (guest.DEAD, "skipped", "failure"), (3, "skipped", "failure")])
def test_a_test_that_does_not_end_is_a_failure_and_so_is_a_guest_that_dies(told, status, under_way, whole):
    assert outcomes(told, status, "the reason") == (under_way, whole)


def test_a_teardown_that_fails_after_the_test_is_a_failure(tmp_path):
    steps = [("one", "begun", ""), ("one", "skipped", "why"), ("one", "failed", "teardown: no"), ("one", "ended", "")]
    (tmp_path / progress.PROGRESS).write_text("".join(json.dumps(step) + "\n" for step in steps))
    assert progress.read(tmp_path) == {"one": ("failed", "teardown: no")}


def test_a_guest_that_says_nothing_leaves_every_test_as_not_begun(tmp_path):
    cases = tier.outcomes(TESTS, progress.read(tmp_path), guest.DOWN, "not up")
    assert {outcome for outcome, _ in cases.values()} == {"skipped"}


def test_results_can_be_read_whatever_a_test_said(tmp_path):
    tier.write_results(tmp_path / "6.1-devices.xml", {"a[<&\">]": ("failure", "\x1b[1m <>&\x00\nlast \"line\""),
                                                      "b": ("passed", "")})
    cases = list(ElementTree.parse(tmp_path / "6.1-devices.xml").getroot().iter("testcase"))
    assert [case.get("name") for case in cases] == ['a[<&">]', "b"]
    assert cases[0].find("failure").text == '[1m <>&\nlast "line"'
    assert cases[0].find("failure").get("message") == 'last "line"'
    assert len(cases[1]) == 0
