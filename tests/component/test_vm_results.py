"""What the vm tier makes of a guest's end: no result of a test is lost, and no hang of one is hidden."""
import json
import os
import subprocess
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
             ("failed", "failed", "call: 1 < 0"), ("failed", "ended", ""), ("skipped", "begun", ""),
             ("skipped", "skipped", "no such device"), ("skipped", "ended", ""), ("under way", "begun", "")]
    (tmp_path / progress.PROGRESS).write_text("".join(json.dumps(step) + "\n" for step in steps) + '["under way", "en')
    return progress.read(tmp_path)


def outcomes(told, status, reason=None):
    cases = tier.outcomes(TESTS, told, status, reason)
    assert {name: cases[name][0] for name in ("passed", "failed", "skipped", "not begun")} == \
        {"passed": "passed", "failed": "failure", "skipped": "skipped", "not begun": "skipped"}
    return cases["under way"][0], cases["guest"][0]


@pytest.mark.parametrize("status, under_way, whole", [
    (guest.LATE, "failure", "skipped"), (guest.SLOW, "skipped", "skipped"), (guest.DOWN, "skipped", "skipped"),
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


class Running:
    """A guest that does not end, and says at each look how long it has been up."""

    def __init__(self, exchange, uptimes):
        self.pulse = exchange / "pulse"
        self.uptimes = iter(uptimes)

    def wait(self, seconds):
        self.pulse.write_text(next(self.uptimes))
        raise subprocess.TimeoutExpired("qemu", seconds)


ENDLESS = 1e9


def test_a_command_that_has_had_its_time_by_the_guests_own_clock_is_late(tmp_path):
    (tmp_path / "begun").touch()
    running = Running(tmp_path, ["50.00", "", "109.00", "150.50"])
    status, reason = guest.wait_for_end(running, guest.Limits(0, ENDLESS, 100), tmp_path)
    assert (status, list(running.uptimes)) == (guest.LATE, [])
    assert "did not end" in reason
    assert (tmp_path / "over").exists()


def test_a_command_in_a_guest_whose_clock_hardly_moves_is_not_late_but_slow(tmp_path):
    (tmp_path / "begun").touch()
    assert guest.wait_for_end(Running(tmp_path, ["50.00"]), guest.Limits(0, 0, 100), tmp_path)[0] == guest.SLOW


def test_a_guest_without_a_sign_of_life_stands_still(tmp_path):
    (tmp_path / "begun").touch()
    (tmp_path / "pulse").write_text("50.00")
    os.utime(tmp_path / "pulse", (0, 0))

    class Still:
        @staticmethod
        def wait(seconds):
            raise subprocess.TimeoutExpired("qemu", seconds)

    assert guest.wait_for_end(Still, guest.Limits(ENDLESS, ENDLESS, 100), tmp_path)[0] == guest.SLOW
    assert not (tmp_path / "over").exists()


def test_a_guest_that_does_not_come_up_is_given_up(tmp_path, monkeypatch):
    monkeypatch.setattr(guest, "BOOT_SECONDS", 0)
    assert guest.wait_for_end(Running(tmp_path, [""]), guest.Limits(ENDLESS, ENDLESS, 100), tmp_path)[0] == guest.DOWN
