"""Two control units on two real corosync nodes: roles, checkpoints, configuration, and what goes wrong."""
import pathlib
import signal
import struct
import subprocess
import sys

import pytest

from harness import cluster as clusters
from harness.pair import PATIENCE_S, Pair
from harness.wait import wait_for

INTRUDER = pathlib.Path(__file__).parents[1] / "harness/intruder.py"
REFUSAL = "% This unit is the standby: configure the active unit, this one follows it\n"


@pytest.fixture
def make_pair():
    made = []

    def make(**options):
        reason = clusters.available(options.get("third_vote", False))
        if reason:
            pytest.skip(reason)
        made.append(Pair(**options))
        return made[-1]

    yield make
    for pair in made:
        pair.close()


@pytest.fixture
def pair(make_pair):
    """Unit 1 is master, unit 2 its standby and up to date."""
    return make_pair().start()


def exported_by(watch, unit):
    """Waits for counters that this unit exports from now on."""
    known = len(watch.octets())
    wait_for(lambda: any(number == unit.number for _, number, _, _ in watch.octets()[known:]),
             f"counters of unit {unit.number}", PATIENCE_S, 0.2)


def test_the_oldest_is_master_and_one_that_returns_is_standby(pair):
    one, two = pair.units
    shown = two.show()
    assert shown["Mode"] == "corosync, group sflow" and shown["Quorum"] == "yes"
    assert shown["This unit"].startswith("node 2 ") and shown["Peer"].startswith("node 1 ")
    assert shown["Last switchover"] == "none"
    one.kill()
    two.wait_for("master", "alone")
    assert "the agent of node 1" in two.show()["Last switchover"]
    one.ended()
    one.started()
    one.wait_for("standby", "realtime")
    two.wait_for("master", "realtime")


def test_the_configuration_follows_and_the_standby_takes_no_commands(pair):
    one, two = pair.units
    pair.configure()
    for commands in (("configure terminal",), ("write memory",)):
        result = two.cli(*commands)
        assert result.status == 1 and result.output == REFUSAL, result
    one.sandbox.configure("sflow sampling-rate 5000", "no sflow counter interval", "interface port3", "no sflow enable",
                          "no sflow flow collector")
    wait_for(lambda: two.sandbox.running_config() == one.sandbox.running_config()
             and "sampling-rate 5000" in two.sandbox.running_config(), "the changes", PATIENCE_S, 0.2)
    # What is shown is also in force: the sampling service of the standby has got it.
    wait_for(lambda: [rate for rate in two.service.of(0x102) if (rate.ifx, rate.rate) == (two.index["port3"], 0)],
             "the end of port3's sampling at the standby's service")
    assert one.cli("write memory").status == 0
    path = two.sandbox.config / "startup-config"
    wait_for(lambda: path.exists() and "sampling-rate 5000" in path.read_text(), "the standby's startup configuration", PATIENCE_S, 0.2)


def test_a_new_master_exports_without_a_hand_on_it_and_goes_on_with_the_counters(pair):
    one, two = pair.units
    watch = pair.collect()
    pair.configure()
    port = one.index["port1"]
    pair.plane.count(port, 1000)
    one.update("port1", 5_000_000)
    exported_by(watch, one)
    wait_for(lambda: one.cached().get(port) == 5_000_000, "the update in the cache")
    wait_for(lambda: two.show()["Checkpoints of SFLOW_RDND"].split()[2] != "0", "the update at the standby")
    assert not watch.datagrams_of(2), "a standby exports nothing"
    one.kill()
    exported_by(watch, two)
    pair.plane.count(port, 10)
    wait_for(lambda: [o for _, u, i, o in watch.octets() if (u, i) == (2, port) and o >= 5_001_010],
             "the counts that go on", PATIENCE_S, 0.2)
    assert watch.steps_back() == []
    wait_for(lambda: two.cached().get(port) == 5_000_000, "the cache, which is saved when a switch-over ends")


def test_samples_that_a_standby_takes_go_nowhere(pair):
    one, two = pair.units
    watch = pair.collect()
    pair.configure()
    two.send_flows("port1", 100)
    one.send_flows("port1", 100)
    wait_for(lambda: watch.datagrams_of(1), "the master's samples")
    exported_by(watch, one)
    assert not watch.datagrams_of(2)


def test_a_forced_switchover_goes_there_and_back(pair):
    one, two = pair.units
    result = two.cli("redundancy force-switchover")
    assert result.status == 1 and result.output == "% No switchover: this unit is not the active one\n"
    for old, new in ((one, two), (two, one)):
        assert old.cli("redundancy force-switchover").status == 0
        new.wait_for("master", "realtime")
        old.wait_for("standby", "realtime")
        assert "an operator's command" in new.show()["Last switchover"]
    events = (one.sandbox.path / "sflow/app_debug").read_text()
    assert [line.split("rdnd ")[1] for line in events.splitlines() if "SWITCHOVER" in line] == [
        "RDND_E_WILL_SWITCHOVER", "RDND_E_SWITCHOVER", "RDND_E_SWITCHOVER_END"] * 2


def test_a_master_that_stands_still_is_replaced_and_wakes_up_as_standby(pair):
    one, two = pair.units
    watch = pair.collect()
    pair.configure()
    exported_by(watch, one)
    one.kill(signal.SIGSTOP)
    two.wait_for("master")
    exported_by(watch, two)
    one.kill(signal.SIGCONT)
    one.wait_for("standby", "realtime")
    exported_by(watch, two)
    assert two.is_("master") and watch.steps_back() == []


def test_a_unit_whose_corosync_ends_is_not_active_until_it_is_back(pair):
    one, two = pair.units
    one.node.corosync.stop()
    one.wait_for("candidate")
    wait_for(lambda: one.show()["This unit"] == "not in the group", "the end of the connection")
    two.wait_for("master")
    wait_for(lambda: "%RDND-3-GROUP: corosync" in one.log(), "a line in the log")
    pair.cluster.restart_corosync(one.node)
    one.wait_for("standby", "realtime")
    two.wait_for("master", "realtime")


def test_without_corosync_a_unit_says_so_and_is_not_active(make_pair):
    pair = make_pair()
    one = pair.unit(1).started()
    assert one.is_("candidate")
    wait_for(lambda: "%RDND-3-GROUP: corosync does not answer: is it running, and is its corosync.conf in order?; this unit "
             "is not the active one until that works" in one.log(), "a line in the log")
    assert "corosync does not answer" in one.show()["Trouble"]
    result = one.cli("configure terminal")
    assert result.status == 1 and "not the active one" in result.output
    pair.cluster.start()
    one.wait_for("master")
    assert one.cli("configure terminal").status == 0 and "Trouble" not in one.show()


def test_a_cluster_without_a_quorum_provider_makes_no_active_unit(make_pair):
    pair = make_pair()
    one = pair.unit(1)
    one.node.config.write_text(one.node.config.read_text().replace("provider: corosync_votequorum", "")
                               .replace("two_node: 1", ""))
    one.node.start_corosync()
    one.started()
    wait_for(lambda: "corosync.conf names no quorum provider" in one.log(), "a line in the log", PATIENCE_S, 0.2)
    assert one.is_("candidate")


def test_a_broken_platform_file_never_means_standalone(make_pair):
    pair = make_pair()
    one = pair.unit(1)
    one.settings('[redundancy]\nmode = "corosnyc"\n')
    daemon = one.sandbox.start("sflowd")
    assert daemon.wait(PATIENCE_S) == 0
    assert 'accepted: "standalone" or "corosync"' in daemon.log()
    assert "the role of this unit is not known" in daemon.log()


def test_a_cut_link_with_two_nodes_makes_two_masters_and_the_merge_one_with_the_higher_counters(pair):
    one, two = pair.units
    watch = pair.collect()
    pair.configure()
    ports = one.index["port1"], one.index["port2"]
    one.update("port1", 1000)
    exported_by(watch, one)
    one.node.cut_ring()
    two.wait_for("master")
    one.wait_for("master")    # it goes on
    one.update("port1", 1)
    two.update("port2", 2_000)
    wait_for(lambda: one.cached().get(ports[0]) == 1001 and two.cached().get(ports[1]) == 2000, "both updates")
    exported_by(watch, one)
    exported_by(watch, two)
    one.node.mend_ring()
    two.wait_for("standby", "realtime")
    one.wait_for("master", "realtime")    # it has been master for longer
    watch.forget()    # while each counted for itself the collector saw two agents
    assert one.cli("redundancy force-switchover").status == 0
    two.wait_for("master")
    wait_for(lambda: two.cached() == {ports[0]: 1001, ports[1]: 2000}, f"the higher counters, not {two.cached()}", PATIENCE_S, 0.2)
    exported_by(watch, two)
    assert watch.steps_back() == []


def test_a_cut_link_with_a_third_vote_leaves_one_master(make_pair):
    pair = make_pair(third_vote=True).start()
    one, two = pair.units
    assert one.cli("redundancy force-switchover").status == 0
    two.wait_for("master", "realtime")
    two.node.cut_ring()    # the tie breaker votes for node 1
    one.wait_for("master")
    two.wait_for("candidate")
    wait_for(lambda: two.show()["Quorum"] == "no", "a unit that knows that it has no quorum", PATIENCE_S, 0.2)
    two.node.mend_ring()
    two.wait_for("standby", "realtime")
    assert one.is_("master")


def test_strangers_in_the_group_change_nothing(pair):
    one, two = pair.units
    with subprocess.Popen(two.node.command(sys.executable, INTRUDER, "sflow"), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as intruder:
        try:
            assert intruder.stdout.readline() == "joined\n"
            record = struct.pack("=iI16xII", 1, 0, one.index["port1"], 0) + bytes(24) + struct.pack("=Q", 1 << 60)
            record = record.ljust(176, b"\0")
            name = bytes([len("SFLOW_RDND")]) + b"SFLOW_RDND"

            def frame(kind, payload):
                return b"sfR1" + bytes([kind, 0, 0, 0]) + struct.pack("!I", len(payload)) + payload

            messages = [b"x", b"sfR1", b"\0" * 12, b"junk" * 10000, frame(6, b"\0" + name + record),
                        frame(6, b"\0" + name + record[:175]), frame(6, b"\0" + name + record + b"\0"),
                        frame(6, b"\0" + name + record)[:-1], frame(99, b""), frame(3, struct.pack("!II", 2, 1)),
                        frame(0, b"\xff" * 50), frame(5, b"\0" + bytes(4) + name)]
            for message in messages:
                intruder.stdin.write(message.hex() + "\n")
                intruder.stdin.flush()
                assert intruder.stdout.readline() == "sent\n"
            for unit in (one, two):
                wait_for(lambda unit=unit: int(unit.show()["Messages refused"]) >= len(messages) - 1, "the refusals")
            one.wait_for("master", "realtime")
            two.wait_for("standby", "realtime")
            wait_for(lambda: "%RDND-4-MESSAGE: a message of node 2, process " in two.log(), "a line in the log")
            assert one.cached() == {}
        finally:
            intruder.kill()
    one.update("port1", 77)
    assert one.cli("redundancy force-switchover").status == 0
    two.wait_for("master")
    wait_for(lambda: two.cached() == {one.index["port1"]: 77}, "the only entry of the cache")


def test_a_unit_of_another_checkpoint_version_is_told_and_kept_as_standby(make_pair):
    pair = make_pair()
    pair.cluster.start()
    one = pair.unit(1).started()
    one.wait_for("master", "alone")
    name = bytes([len("SFLOW_RDND")]) + b"SFLOW_RDND"
    state = (struct.pack("!QQ", 4711, 0) + bytes([1, 0, 3, 1]) + struct.pack("!QQ", 1, 0) + b"\x05later" + b"\x01" + name
             + struct.pack("!Q", 2))
    with subprocess.Popen(pair.unit(2).node.command(sys.executable, INTRUDER, "sflow"), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True) as intruder:
        try:
            assert intruder.stdout.readline() == "joined\n"
            intruder.stdin.write((b"sfR1" + bytes(4) + struct.pack("!I", len(state)) + state).hex() + "\n")
            intruder.stdin.flush()
            wait_for(lambda: "%RDND-4-VERSION: node 2 (later) sends checkpoint messages of version 2 under SFLOW_RDND, "
                     "this unit of version 1" in one.log(), f"a line in the log\n{one.log()}", PATIENCE_S, 0.2)
            one.wait_for("master", "alone")
        finally:
            intruder.kill()


def test_standalone_units_have_nobody_to_hand_over_to(ready):
    result = ready.cli("redundancy force-switchover")
    assert result.status == 1 and result.output == "% No switchover: this unit has no partner\n"
    assert "Mode:                           standalone\n" in ready.cli("show redundancy").output
