"""Interfaces that change faster than they can be read, and in no foreseeable order: in the end the daemon's view of
them is the kernel's, and its configuration is what follows from the changes."""
import os
import random
import re
import signal

import pytest

from harness.addresses import COLLECTOR4, COLLECTOR4_B
from harness.interfaces import daemon_view, kernel_links, kernel_view, preferred
from harness.wait import halted, wait_for

#: Further seeds, for a longer run: "7 8 9".
SEEDS = [int(seed) for seed in os.environ.get("SFLOW_TEST_SEEDS", "1 2 3").split()]


def wait_equal(actual, wanted, what):
    """Waits for two functions to return the same; both are asked again each time."""
    try:
        wait_for(lambda: actual() == wanted(), what)
    except AssertionError:
        raise AssertionError(f"{what}:\n{actual()}\nwanted\n{wanted()}") from None


class Model:
    """The configuration by the rules: an interface that is removed takes its settings with it, all others stay."""

    def __init__(self, stage):
        self.stage = stage
        self.namespace = stage.namespace
        self.ports = {}         # index → lines
        self.agent = None       # (index, "inet" or "inet6")
        self.source = None      # (index, set of families)
        self.own_source = None  # index: source of collector 2

    def links(self):
        return kernel_links(self.namespace)

    def forget_the_gone(self, links):
        self.ports = {index: lines for index, lines in self.ports.items() if index in links}
        self.agent = self.agent if self.agent and self.agent[0] in links else None
        self.source = self.source if self.source and self.source[0] in links else None
        self.own_source = self.own_source if self.own_source in links else None

    def wanted(self):
        links = self.links()
        self.forget_the_gone(links)
        words = {"inet": "", "inet6": "ipv6 "}
        lines = {f"sflow collector 1 destination {COLLECTOR4} 6343"}
        own = f" source interface {links[self.own_source]['ifname']}" if self.own_source else ""
        lines.add(f"sflow collector 2 destination {COLLECTOR4_B} 6343{own}")
        if self.agent:
            lines.add(f"sflow agent interface {words[self.agent[1]]}{links[self.agent[0]]['ifname']}")
        if self.source:
            lines |= {f"sflow source interface {words[family]}{links[self.source[0]]['ifname']}"
                      for family in self.source[1]}
        return {"": sorted(lines),
                **{links[index]["ifname"]: sorted(settings) for index, settings in self.ports.items()}}

    def wanted_addresses(self):
        """What `show sflow` says of agent and sources: the first addresses of the interfaces."""
        links = self.links()
        self.forget_the_gone(links)

        def first(index, family):
            return next(iter(preferred(links[index], family)), {"inet": "0.0.0.0", "inet6": "::"}[family])

        wanted = {"Agent IP": first(*self.agent) if self.agent else "NULL"}
        if self.source:
            wanted["Source IP[1]"] = first(self.source[0], "inet") if "inet" in self.source[1] else "-"
        if self.own_source:
            wanted["Source IP[2]"] = first(self.own_source, "inet")
        return wanted

    def shown_addresses(self):
        shown = dict(re.findall(r"^(Agent IP|Source IP\[[12]\]): ([^\s(]+)", self.stage.cli("show sflow").output,
                                flags=re.MULTILINE))
        # A collector without a source repeats the line before it.
        if not self.source:
            shown.pop("Source IP[1]", None)
        if not self.own_source:
            shown.pop("Source IP[2]", None)
        return shown

    def check(self):
        wait_equal(lambda: daemon_view(self.stage.sandbox), lambda: kernel_view(self.namespace), "the interfaces")
        wait_equal(self.stage.sandbox.config_sections, self.wanted, "the configuration")
        wait_equal(self.shown_addresses, self.wanted_addresses, "the addresses learnt from interfaces")


class Changes:
    """Random changes of interfaces and of the configuration that refers to them."""

    def __init__(self, stage, seed):
        self.random = random.Random(seed)
        self.stage = stage
        self.namespace = stage.namespace
        self.model = Model(stage)
        self.serial = 0
        self.done = []

    def ip(self, *words):
        self.done.append("ip " + " ".join(map(str, words)))
        self.namespace.ip(*words)

    def configure(self, *lines):
        self.done.append("; ".join(lines))
        self.stage.configure(*lines)

    def number(self):
        self.serial += 1
        return self.serial

    def mine(self, links=None):
        """Interfaces of this test, those that may be removed: their descriptions."""
        return [link for link in (links or self.model.links()).values() if link["ifname"][0] in "wm"]

    def pick(self):
        mine = self.mine()
        return self.random.choice(mine) if mine else None

    # ---- The kernel's side

    def add_pair(self):
        number = self.number()
        self.ip("link", "add", f"w{number}", "type", "veth", "peer", "name", f"x{number}")
        for end in "xw":
            self.ip("link", "set", f"{end}{number}", self.random.choice(["up", "up", "down"]))

    def add_macvlan(self):
        if lower := self.pick():
            if lower["linkinfo"]["info_kind"] == "veth" and lower.get("master") is None:
                self.ip("link", "add", "link", lower["ifname"], "name", f"m{self.number()}", "type", "macvlan", "mode",
                        "bridge")

    def remove(self):
        if len(self.mine()) > 3:
            self.ip("link", "del", self.pick()["ifname"])

    def rename(self):
        if link := self.pick():
            self.ip("link", "set", link["ifname"], "down")
            self.ip("link", "set", link["ifname"], "name", f"{link['ifname'][0]}{self.number()}")

    def up_or_down(self):
        if link := self.pick():
            self.ip("link", "set", link["ifname"], self.random.choice(["up", "up", "down"]))

    def resize(self):
        if link := self.pick():
            if link["linkinfo"]["info_kind"] == "veth":
                self.ip("link", "set", link["ifname"], "mtu", self.random.randrange(1300, 1500))

    def bridge(self):
        if link := self.pick():
            if link.get("master"):
                self.ip("link", "set", link["ifname"], "nomaster")
            elif not any(other.get("link") == link["ifname"] for other in self.mine()):
                self.ip("link", "set", link["ifname"], "master", "br0")

    def add_address(self):
        if link := self.pick():
            low, high = self.random.randrange(1, 4), self.random.randrange(1, 250)
            given = {address["local"] for address in link["addr_info"]}
            address = self.random.choice([f"10.{low}.0.{high}", f"2001:db8:{low}::{high:x}"])
            if address not in given and link["mtu"] >= 1280:
                self.ip("addr", "add", f"{address}/{64 if ':' in address else 24}", "dev", link["ifname"],
                        *(["nodad"] if ":" in address else []))

    def remove_address(self):
        if link := self.pick():
            addresses = [address for address in link["addr_info"] if address["scope"] == "global"]
            if addresses:
                address = self.random.choice(addresses)
                self.ip("addr", "del", f"{address['local']}/{address['prefixlen']}", "dev", link["ifname"])

    # ---- The operator's side

    def known(self):
        """An interface that the daemon knows too."""
        self.model.check()
        return self.pick()

    def set_port(self):
        if link := self.known():
            lines = self.random.choice([["sflow enable"], ["sflow enable ingress"], ["sflow enable egress"]])
            lines = [*lines, *self.random.sample(["sflow flow collector 1", "sflow counter collector 2"],
                                                 self.random.randrange(3))]
            if link["ifindex"] not in self.model.ports:
                self.configure(f"interface {link['ifname']}", *lines)
                self.model.ports[link["ifindex"]] = lines

    def default_port(self):
        if link := self.known():
            self.configure(f"default interface {link['ifname']}")
            self.model.ports.pop(link["ifindex"], None)

    def set_agent(self):
        if link := self.known():
            family = self.random.choice(["inet", "inet6"])
            self.configure(f"sflow agent interface {'ipv6 ' if family == 'inet6' else ''}{link['ifname']}")
            self.model.agent = (link["ifindex"], family)

    def set_source(self):
        if link := self.known():
            family = self.random.choice(["inet", "inet6"])
            self.configure(f"sflow source interface {'ipv6 ' if family == 'inet6' else ''}{link['ifname']}")
            kept = self.model.source[1] if self.model.source and self.model.source[0] == link["ifindex"] else set()
            self.model.source = (link["ifindex"], kept | {family})

    def set_own_source(self):
        if link := self.known():
            self.configure(f"sflow collector 2 destination {COLLECTOR4_B} 6343 source interface {link['ifname']}")
            self.model.own_source = link["ifindex"]

    KERNEL = [(add_pair, 3), (add_macvlan, 2), (remove, 3), (rename, 2), (up_or_down, 4), (resize, 1), (bridge, 2),
              (add_address, 6), (remove_address, 4)]
    OPERATOR = [(set_port, 4), (default_port, 1), (set_agent, 2), (set_source, 2), (set_own_source, 1)]

    def step(self, choices):
        steps, weights = zip(*choices)
        self.random.choices(steps, weights)[0](self)


@pytest.fixture
def prepared(ready):
    ready.namespace.ip("link", "add", "br0", "type", "bridge")
    ready.configure(f"sflow collector 1 destination {COLLECTOR4} 6343",
                    f"sflow collector 2 destination {COLLECTOR4_B} 6343")
    return ready


@pytest.mark.parametrize("seed", SEEDS)
def test_random_changes_end_in_the_kernels_view_and_the_configuration_that_the_rules_give(prepared, seed):
    changes = Changes(prepared, seed)
    for _ in range(3):
        changes.add_pair()
    try:
        for _ in range(8):
            for _ in range(changes.random.randrange(2, 10)):
                changes.step(Changes.KERNEL)
            changes.step(Changes.OPERATOR)
        changes.model.check()
    except AssertionError as error:
        raise AssertionError(f"seed {seed}: {error}\nafter\n" + "\n".join(changes.done)) from None
    assert prepared.daemon.running()


def test_changes_that_are_lost_are_made_good(prepared, tmp_path):
    """A flood while the daemon stands still overruns its socket; afterwards all interfaces are read again."""
    namespace = prepared.namespace
    for number in range(1, 7):
        namespace.add_veth(f"w{number}", f"x{number}")
        namespace.ip("addr", "add", f"10.{number}.0.1/24", "dev", f"w{number}")
    model = Model(prepared)
    prepared.configure("sflow agent interface w1", "sflow source interface w2",
                       f"sflow collector 2 destination {COLLECTOR4_B} 6343 source interface w3",
                       *(line for number in range(1, 7) for line in (f"interface w{number}", "sflow enable")))
    index = {number: namespace.ifindex(f"w{number}") for number in range(1, 7)}
    model.agent, model.source, model.own_source = (index[1], "inet"), (index[2], {"inet"}), index[3]
    model.ports = {i: ["sflow enable"] for i in index.values()}
    model.check()

    batch = tmp_path / "batch"
    flood = [f"link set x1 mtu {1300 + i % 100}" for i in range(6000)]
    changes = ["addr add 10.77.0.1/24 dev w1", "addr del 10.1.0.1/24 dev w1",      # the agent's interface
               "link set w2 down", "link set w2 name renamed2",                    # the source's
               "link del w3",                                                      # the collector's
               "link del w4", "link add w4 type veth peer name x4",                # another under the old name
               "link set w5 master br0", "link set w6 down"]
    batch.write_text("".join(line + "\n" for line in flood + changes + flood))
    with halted(prepared.daemon.pid):
        namespace.run("ip", "-batch", batch)
    model.check()
    wait_for(lambda: "LSM-5-RESYNC" in prepared.daemon.log(), "a line about the loss, without which the test shows nothing")
    assert set(prepared.sandbox.config_sections()) == {"", "w1", "renamed2", "w5", "w6"}
    # From here on changes are followed again.
    namespace.ip("addr", "add", "10.88.0.1/24", "dev", "w1")
    namespace.ip("addr", "del", "10.77.0.1/24", "dev", "w1")
    namespace.ip("link", "del", "w6")
    model.check()
    assert "Agent IP: 10.88.0.1\n" in prepared.cli("show sflow").output


def test_a_flood_does_not_keep_the_command_line_from_answering(prepared, tmp_path):
    namespace = prepared.namespace
    namespace.add_veth("w1", "x1")
    batch = tmp_path / "batch"
    batch.write_text("".join(f"link set x1 mtu {1300 + i % 100}\n" for i in range(20000)))
    flood = namespace.popen("sh", "-c", f"while ip -batch {batch}; do :; done", start_new_session=True)
    try:
        for _ in range(5):
            assert prepared.cli("show sflow status").status == 0
        assert flood.poll() is None
    finally:
        os.killpg(flood.pid, signal.SIGKILL)
        flood.wait()
    namespace.ip("link", "set", "x1", "mtu", "1400")
    wait_equal(lambda: daemon_view(prepared.sandbox), lambda: kernel_view(namespace), "the interfaces")
