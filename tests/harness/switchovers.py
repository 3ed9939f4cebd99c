"""Switchovers of a pair under traffic, in every way in which a control unit can fail, and what must hold in each.

Waits are for states that last; nothing is judged by how long it took. How long the export paused is reported.
"""
import collections
import contextlib
import signal
import socket
import statistics
import threading
import time

from harness.pair import PATIENCE_S, PORTS
from harness.wait import wait_for


class Traffic:
    """Packets and counters on the plane of both units, without pause."""

    def __init__(self, pair, random):
        self._pair = pair
        self._random = random
        self._closed = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._closed.wait(0.02):
            for unit in self._pair.units:
                for port in PORTS:
                    self._pair.plane.count(unit.index[port], self._random.randrange(1500))
                    unit.send_flows(port, 3, socket.MSG_DONTWAIT)

    def close(self):
        self._closed.set()
        self._thread.join()


class Roles:
    """Looks at both units again and again: never two masters that both have quorum, unless the cluster is split."""

    def __init__(self, pair):
        self._pair = pair
        self.violations = []
        self.looks = 0
        self.split = False    # two nodes without a third vote that do not see each other: both have quorum
        self._closed = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._closed.wait(0.1):
            split = self.split
            one, two = self._pair.units
            # Unit 1 before and after unit 2: what it is both times it was in between.
            shown = one.show(), two.show(), one.show()
            self.looks += 1
            if split or self.split:
                continue
            if all(each.get("Role") == "master" and each["Quorum"] == "yes" for each in shown):
                self.violations.append(shown)

    def close(self):
        self._closed.set()
        self._thread.join()


class Fault:
    """What happens to the master, and how it is repaired; `splits`: for a while both units may have quorum."""

    def __init__(self, name, strike, repair, splits=False):
        self.name, self.strike, self.repair, self.splits = name, strike, repair, splits


def restart(pair, unit):
    unit.ended()
    unit.started()


def force(pair, unit):
    assert unit.cli("redundancy force-switchover").status == 0


KILL = Fault("kill -9", lambda pair, unit: unit.kill(), restart)
END = Fault("graceful end", lambda pair, unit: unit.kill(signal.SIGTERM), restart)
STOP = Fault("SIGSTOP", lambda pair, unit: unit.kill(signal.SIGSTOP), lambda pair, unit: unit.kill(signal.SIGCONT))
FORCE = Fault("forced", force, lambda pair, unit: None)
KILL_COROSYNC = Fault("corosync killed", lambda pair, unit: unit.node.corosync.stop(),
                      lambda pair, unit: pair.cluster.restart_corosync(unit.node))
# One that wakes up first is a cluster of its own, which two nodes without a third vote let it be.
STOP_COROSYNC = Fault("corosync SIGSTOP", lambda pair, unit: unit.node.corosync.send(signal.SIGSTOP),
                      lambda pair, unit: unit.node.corosync.send(signal.SIGCONT), splits=True)
CUT = Fault("link cut, third vote", lambda pair, unit: unit.node.cut_ring(), lambda pair, unit: unit.node.mend_ring())
TIE_BREAKER = 1    # the node that keeps quorum when the link is cut


class Course:
    """One switchover after another on a pair that this starts and configures."""

    def __init__(self, pair, random):
        self.pair = pair
        self.random = random
        self.gaps = collections.defaultdict(list)    # fault's name → seconds
        self._splits = []                            # [from, to], times
        pair.start()
        self.watch = pair.collect()
        pair.configure()
        self.traffic = Traffic(pair, type(random)(random.getrandbits(32)))
        self.roles = Roles(pair)

    def close(self):
        """The pair is closed before, unless all goes well: nobody answers while a unit stands still."""
        self.traffic.close()
        self.roles.close()

    def settle(self):
        """A master and a standby that is its copy; returns both."""
        def settled():
            shown = {unit: unit.show() for unit in self.pair.units}
            roles = sorted(each.get("Role", "") for each in shown.values())
            return roles == ["master", "standby"] and all(each["State"] == "realtime" for each in shown.values())
        wait_for(settled, "a master and its copy", PATIENCE_S, 0.2)
        master = self.pair.master()
        return master, self.pair.other(master)

    def exports(self, unit, since):
        """Waits for the first datagram of a unit that is later than `since`; returns its time."""
        def first():
            return next((when for when, number, _ in self.watch.seen() if number == unit.number and when > since), None)
        return wait_for(first, f"an export of unit {unit.number}", PATIENCE_S)

    def acknowledged_update(self, master):
        """Has the plane report an update that the master takes into its cache; what its standby has to have then.

        The standby's count of received messages says that the update is there: one that is on its way when the master
        is lost may be lost as well.
        """
        received = self._received(self.pair.other(master))
        port = self.random.choice(PORTS)
        expected = master.cached().get(master.index[port], 0) + 1_000_000
        master.update(port, 1_000_000)
        wait_for(lambda: master.cached().get(master.index[port]) == expected, "the update in the cache", PATIENCE_S)
        wait_for(lambda: self._received(self.pair.other(master)) > received, "the update at the standby", PATIENCE_S)
        return master.cached()

    @staticmethod
    def _received(unit):
        return int(unit.show()["Checkpoints of SFLOW_RDND"].split()[2])

    def switch(self, fault):
        """Strikes the master; the other one must go on, and stay master when the first one is back."""
        master, standby = self.settle()
        if fault is CUT and master.number == TIE_BREAKER:
            force(self.pair, master)
            wait_for(lambda: self.settle()[0] is standby, f"unit {standby.number} as master", PATIENCE_S)
            master, standby = standby, master
        acknowledged = self.acknowledged_update(master)
        self.exports(master, 0)
        with self._split(fault.splits):
            struck = time.time()
            fault.strike(self.pair, master)
            first = self.exports(standby, struck)
            last = max(when for when, number, _ in self.watch.seen() if number == master.number and when < first)
            self.gaps[fault.name].append(first - last)
            fault.repair(self.pair, master)
            new, _ = self.settle()
        assert new is standby, "\n".join([f"{fault.name}: unit {new.number} is master after the repair",
                                          *(unit.story() for unit in self.pair.units)])
        if fault is CUT:    # the one fault that leaves the old master running on its own
            assert not self.watch.datagrams_of(master.number, first), "both exported"
        self._check_cache(fault.name, standby, acknowledged)

    def split_and_merge(self):
        """Without a third vote both sides of a cut link go on; one of them yields when it is mended."""
        master, standby = self.settle()
        acknowledged = self.acknowledged_update(master)
        with self._split():
            standby.node.cut_ring()
            standby.wait_for("master")
            cut = time.time()
            for unit in self.pair.units:
                self.exports(unit, cut)
            standby.node.mend_ring()
            standby.wait_for("standby")
            assert self.settle() == (master, standby), "the one that has been master for longer stays"
        self._check_cache("link cut, two nodes", master, acknowledged)

    @contextlib.contextmanager
    def _split(self, splits=True):
        """Inside, both units may have quorum, and both export: their streams are in no order."""
        if not splits:
            yield
            return
        self.roles.split = True
        self._splits.append([time.time(), float("inf")])
        yield
        self._splits[-1][1] = time.time()
        self.roles.split = False

    @staticmethod
    def _check_cache(name, unit, acknowledged):
        def complete():
            cached = unit.cached()
            return all(cached.get(ifx, 0) >= octets for ifx, octets in acknowledged.items())
        wait_for(complete, f"{name}: {acknowledged} in the cache of unit {unit.number}, not {unit.cached()}")

    def report(self):
        lines = [f"{'':24}  times  median s  worst s"]
        for name, gaps in [*self.gaps.items(), ("all", sum(self.gaps.values(), []))]:
            if gaps:
                lines.append(f"{name:24}  {len(gaps):5}  {statistics.median(gaps):8.2f}  {max(gaps):7.2f}")
        return "\n".join(lines)

    def judge(self):
        """After the last switchover."""
        wait_for(lambda: self.roles.looks > 0, "a look at the roles")
        self.close()
        assert self.roles.violations == []
        assert self.watch.steps_back(by_unit=True) == []
        ends = [0.0, *(moment for split in self._splits for moment in split), float("inf")]
        for since, until in zip(ends[::2], ends[1::2]):
            assert self.watch.steps_back(since, until) == []
