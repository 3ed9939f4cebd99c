"""The interface manager against a real kernel: what it tells its client when interfaces change."""
import os
import signal
import subprocess
import threading

import pytest

from harness.daemon import BIN
from harness.devices import add_device
from harness.wait import PATIENCE, halted, wait_for


class Probe:
    """One lsm_probe in a namespace; what it printed, and questions to it."""

    def __init__(self, namespace):
        self.lines = []
        self._process = namespace.popen(BIN / "lsm_probe", stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            self.lines.append(line.rstrip("\n"))

    def say(self, line):
        self._process.stdin.write(line + "\n")
        self._process.stdin.flush()

    def wait(self, line, after=0):
        """Waits for `line`; returns the number of lines up to it."""
        wait_for(lambda: line in self.lines[after:], lambda: f"{line!r}, got {self.lines[after:]}")
        return self.lines.index(line, after) + 1

    def ask(self, question):
        """The first answer that follows a question."""
        before = len(self.lines)
        self.say(question)
        return wait_for(lambda: next((line for line in self.lines[before:] if not line.startswith("event")), None),
                        f"an answer to {question!r}")

    def facts(self, name):
        """What the manager says about an interface, as a dictionary."""
        answer = self.ask(f"show {name}").split()
        assert answer[0] == "if", answer
        return dict(word.split("=", 1) for word in answer[2:])

    def events(self, after=0):
        return [line[len("event "):] for line in self.lines[after:] if line.startswith("event ")]

    @property
    def pid(self):
        return self._process.pid

    def close(self):
        self._process.stdin.close()
        status = self._process.wait(PATIENCE)
        self._reader.join()
        return status


@pytest.fixture
def namespace(make_namespace):
    return make_namespace("lsm")


@pytest.fixture
def start_probe(namespace):
    probes = []

    def start():
        probes.append(Probe(namespace))
        probes[-1].wait(f"event 0 sync {len(namespace.ip('-o', 'link').splitlines())}")
        return probes[-1]

    yield start
    assert [probe.close() for probe in probes] == [0] * len(probes)


def usable_link_local(facts):
    """Whether duplicate address detection, which ends when it likes, is done."""
    return "fe80:" in facts["addrs"] and "!" not in facts["addrs"]


def test_initial_data_are_what_exists(namespace, start_probe):
    namespace.add_veth("v0", "v1")
    namespace.ip("addr", "add", "10.0.0.1/24", "dev", "v0")
    v0 = namespace.ifindex("v0")
    events = start_probe().events()
    synchronised = next(at for at, event in enumerate(events) if event.startswith("0 sync "))
    for event in (f"3 create {v0}", f"7 create {v0}", f"7 admin {v0} up", f"7 link {v0} up",
                  f"7 ipv4 {v0} add 10.0.0.1/24"):
        assert event in events[:synchronised]


def test_life_of_a_port(namespace, start_probe):
    probe = start_probe()
    namespace.ip("link", "add", "v0", "type", "veth", "peer", "name", "v1")
    v0 = namespace.ifindex("v0")
    probe.wait(f"event 3 create {v0}")
    probe.wait(f"event 7 create {v0}")
    assert probe.facts("v0")["line"] == "0"
    namespace.ip("link", "set", "v0", "up")
    namespace.ip("link", "set", "v1", "up")
    at = probe.wait(f"event 7 link {v0} up")
    facts = probe.facts("v0")
    assert (facts["type"], facts["kind"], facts["admin"], facts["line"], facts["speed"]) == \
        ("12", "0x2", "1", "1", "10000/1")
    namespace.ip("link", "set", "v1", "down")
    at = probe.wait(f"event 7 link {v0} down", at)
    namespace.ip("link", "del", "v0")
    probe.wait(f"event 7 destroy {v0}", at)
    probe.wait(f"event 3 destroy {v0}", at)
    assert probe.ask("show v0") == "none v0"


def test_both_ways_of_asking_for_the_speed_agree(namespace, start_probe):
    namespace.add_veth("v0", "v1")
    probe = start_probe()
    assert probe.ask("speed v0") == "speed v0 10000/1 10000/1"
    assert probe.ask("speed lo") == "speed lo none none"


def test_addresses_and_their_order(namespace, start_probe):
    namespace.add_veth("v0", "v1")
    v0 = namespace.ifindex("v0")
    probe = start_probe()
    for address in ("10.0.0.1/24", "10.0.0.2/24", "10.0.1.1/24"):
        namespace.ip("addr", "add", address, "dev", "v0")
        probe.wait(f"event 7 ipv4 {v0} add {address}")
    assert probe.facts("v0")["ip"] == "10.0.0.1"
    namespace.run("sysctl", "-q", "-w", "net.ipv4.conf.v0.promote_secondaries=1")
    namespace.ip("addr", "del", "10.0.0.1/24", "dev", "v0")
    probe.wait(f"event 7 ipv4 {v0} del 10.0.0.1/24")
    wait_for(lambda: probe.facts("v0")["ip"] == "10.0.1.1", "the next primary address")
    for address in ("2001:db8::1/64", "2001:db8::2/64"):
        namespace.ip("addr", "add", address, "dev", "v0", "nodad")
        probe.wait(f"event 7 ipv6 {v0} add {address}")
    # What a client that follows the changes believes is what one that starts now reads.
    wait_for(lambda: usable_link_local(probe.facts("v0")), "the link-local address to be usable")
    assert probe.facts("v0") == start_probe().facts("v0")


def test_an_address_counts_once_duplicate_detection_is_done(namespace, start_probe):
    namespace.ip("link", "add", "v0", "type", "veth", "peer", "name", "v1")
    namespace.ip("link", "set", "v0", "up")
    v0 = namespace.ifindex("v0")
    probe = start_probe()
    # The detection does not begin before there is a carrier.
    namespace.ip("addr", "add", "2001:db8::1/64", "dev", "v0")
    wait_for(lambda: "2001:db8::1/64!" in probe.facts("v0")["addrs"], "the tentative address")
    assert f"7 ipv6 {v0} add 2001:db8::1/64" not in probe.events()
    namespace.ip("link", "set", "v1", "up")
    probe.wait(f"event 7 ipv6 {v0} add 2001:db8::1/64")
    assert probe.facts("v0")["ip6"] == "2001:db8::1"


def test_bridge_member_leaves_the_tcpip_layer(namespace, start_probe):
    namespace.add_veth("v0", "v1")
    add_device(namespace, "br0", "type", "bridge")
    v0 = namespace.ifindex("v0")
    probe = start_probe()
    namespace.ip("link", "set", "v0", "master", "br0")
    at = probe.wait(f"event 7 destroy {v0}")
    facts = probe.facts("v0")
    assert (facts["top"], facts["phys"], facts["tcpip"]) == ("5", "1", "0")
    namespace.ip("link", "set", "v0", "nomaster")
    probe.wait(f"event 7 create {v0}", at)
    assert f"3 destroy {v0}" not in probe.events()
    assert probe.facts("v0")["top"] == "7"


def test_rename_keeps_the_interface(namespace, start_probe):
    namespace.ip("link", "add", "v0", "type", "veth", "peer", "name", "v1")
    v0 = namespace.ifindex("v0")
    probe = start_probe()
    namespace.ip("link", "set", "v0", "name", "w0")
    wait_for(lambda: probe.ask("show w0").startswith(f"if w0 ifx={v0} "), "the new name")
    assert probe.ask("show v0") == "none v0"
    assert f"7 destroy {v0}" not in probe.events()


def test_index_given_to_another_device_is_another_interface(namespace, start_probe):
    namespace.ip("link", "add", "v0", "index", "77", "type", "veth", "peer", "name", "v1")
    probe = start_probe()
    namespace.ip("link", "del", "v0")
    add_device(namespace, "br0", "index", "77", "type", "bridge")
    at = probe.wait("event 7 destroy 77")
    probe.wait("event 7 create 77", at)
    assert probe.facts("br0")["type"] == "60"


def test_default_is_announced_on_both_layers(namespace, start_probe):
    namespace.ip("link", "add", "v0", "type", "veth", "peer", "name", "v1")
    v0 = namespace.ifindex("v0")
    probe = start_probe()
    assert probe.ask("default v0") == "ok v0"
    probe.wait(f"event 3 default {v0}")
    probe.wait(f"event 7 default {v0}")
    assert probe.ask("default nosuch") == "none nosuch"


def test_lost_notifications_are_made_good(namespace, start_probe, tmp_path):
    """A flood while the client stands still: it ends with exactly the events that lead to what is there."""
    namespace.add_veth("v0", "v1")
    v0 = namespace.ifindex("v0")
    probe = start_probe()
    wait_for(lambda: probe.facts("v0")["ip6"] != "none", "the link-local address to be usable")
    flood = tmp_path / "flood"
    flood.write_text("".join(f"addr add 10.{i}.{j}.1/24 dev v0\naddr del 10.{i}.{j}.1/24 dev v0\n"
                             for i in range(200) for j in range(100)) +
                     "addr add 10.255.0.1/24 dev v0\nlink add w0 type veth peer name w1\nlink set v0 name z0\n")
    with halted(probe.pid):
        namespace.run("ip", "-batch", flood)
        w0 = namespace.ifindex("w0")
    probe.wait(f"event 7 ipv4 {v0} add 10.255.0.1/24")
    probe.wait(f"event 7 create {w0}")
    assert probe.facts("z0")["ip"] == "10.255.0.1"
    wait_for(lambda: usable_link_local(probe.facts("z0")), "the addresses to be usable")
    assert probe.facts("z0") == start_probe().facts("z0")
    added = sum(f"ipv4 {v0} add" in event for event in probe.events())
    assert added < 20000, "no notification was lost: the test shows nothing"


@pytest.mark.parametrize("refused", [0, 1, 2], ids=["at-once", "after-one-failure", "after-two-failures"])
def test_changes_that_are_lost_become_exactly_the_events_that_are_missing(namespace, start_probe, refused, tmp_path):
    # IPv6 would go on adding and checking addresses by itself.
    namespace.run("sysctl", "-q", "-w", "net.ipv6.conf.all.disable_ipv6=1", "net.ipv6.conf.default.disable_ipv6=1")
    for name, peer in (("v0", "v1"), ("w0", "w1")):
        namespace.add_veth(name, peer)
    for address in ("10.0.0.1/24", "10.0.1.1/24"):
        namespace.ip("addr", "add", address, "dev", "v0")
    probe = start_probe()
    v0, w0, w1 = (namespace.ifindex(name) for name in ("v0", "w0", "w1"))
    wait_for(lambda: all(probe.facts(name)["line"] == "1" for name in ("v0", "v1", "w0", "w1")), "the carrier")
    batch = tmp_path / "batch"
    batch.write_text("addr add 10.9.9.9/24 dev v0\n"          # comes and goes
                     "addr del 10.9.9.9/24 dev v0\n"
                     "addr del 10.0.0.1/24 dev v0\n"
                     "addr add 10.0.2.1/24 dev v0\n"
                     "link set v1 mtu 1400\n"                  # no event of its own
                     "link del w0\n"
                     "link add passing type veth peer name through\n"
                     "link del passing\n"
                     "link add n0 index 4000 type veth peer name n1 index 4001\n")
    assert probe.ask(f"refuse {refused}") == "ok refuse"
    before = len(probe.lines)
    with halted(probe.pid):
        namespace.run("ip", "-batch", batch)
        os.kill(probe.pid, signal.SIGUSR1)      # handled before anything else once the probe goes on
    probe.wait("event 7 eth 4001 10000 1", before)
    namespace.ip("addr", "add", "10.0.3.1/24", "dev", "v0")     # whatever else there was has come before this
    probe.wait(f"event 7 ipv4 {v0} add 10.0.3.1/24", before)
    gone = [[f"3 link {index} down", f"7 link {index} down", f"3 admin {index} down", f"7 admin {index} down",
             f"3 destroy {index}", f"7 destroy {index}"] for index in sorted((w0, w1))]
    new = [[f"3 create {index}", f"7 create {index}", f"3 eth {index} 10000 1", f"7 eth {index} 10000 1"]
           for index in (4000, 4001)]
    # What is gone comes first, then the interfaces in the kernel's order.
    assert probe.events(before) == [*gone[0], *gone[1],
                                    f"7 ipv4 {v0} del 10.0.0.1/24", f"7 ipv4 {v0} add 10.0.2.1/24", *new[0], *new[1],
                                    f"7 ipv4 {v0} add 10.0.3.1/24"]


@pytest.mark.devices
def test_vlan_is_a_subinterface(namespace, start_probe):
    namespace.add_veth("v0", "v1")
    add_device(namespace, "link", "v0", "name", "v0.10", "type", "vlan", "id", "10")
    facts = start_probe().facts("v0.10")
    assert (facts["type"], facts["kind"], facts["sub"], facts["main"]) == \
        ("6", "0x800", "1", str(namespace.ifindex("v0")))
    assert (facts["phys"], facts["tcpip"]) == ("0", "1")


@pytest.mark.devices
def test_aggregate_membership(namespace, start_probe):
    namespace.ip("link", "add", "v0", "type", "veth", "peer", "name", "v1")
    add_device(namespace, "bond7", "type", "bond", "mode", "802.3ad")
    v0, bond = namespace.ifindex("v0"), namespace.ifindex("bond7")
    probe = start_probe()
    assert (probe.facts("bond7")["type"], probe.facts("bond7")["kind"]) == ("24", "0x20000")
    namespace.ip("link", "set", "v0", "master", "bond7")
    at = probe.wait(f"event 3 agg {v0} join {bond}")
    at = probe.wait(f"event 7 destroy {v0}", at)
    assert probe.facts("v0")["top"] == "3"
    namespace.ip("link", "set", "v0", "nomaster")
    at = probe.wait(f"event 3 agg {v0} leave {bond}", at)
    probe.wait(f"event 7 create {v0}", at)


@pytest.mark.devices
def test_aggregate_is_as_fast_as_its_members(namespace, start_probe):
    add_device(namespace, "bond7", "type", "bond", "mode", "balance-rr")
    for number in (0, 1):
        namespace.ip("link", "add", f"v{number}", "type", "veth", "peer", "name", f"p{number}")
        namespace.ip("link", "set", f"v{number}", "master", "bond7")
        namespace.ip("link", "set", f"p{number}", "up")
    namespace.ip("link", "set", "bond7", "up")
    namespace.ip("link", "add", "link", "bond7", "name", "bond7.5", "type", "vlan", "id", "5")
    namespace.ip("link", "set", "bond7.5", "up")
    probe = start_probe()
    wait_for(lambda: probe.facts("bond7")["speed"] == "20000/1", "both members")
    namespace.ip("link", "set", "p1", "down")
    wait_for(lambda: probe.facts("bond7")["speed"] == "10000/1", "one member")
    wait_for(lambda: probe.facts("bond7.5")["speed"] == "10000/1", "the subinterface")


@pytest.mark.devices
def test_vrf_binding_and_its_end(namespace, start_probe):
    namespace.ip("link", "add", "v0", "type", "veth", "peer", "name", "v1")
    add_device(namespace, "blue", "type", "vrf", "table", "10")
    v0, blue = namespace.ifindex("v0"), namespace.ifindex("blue")
    probe = start_probe()
    assert probe.ask("vrf blue") == f"vrf blue {blue}"
    assert probe.ask(f"vrfname {blue}") == f"vrf blue {blue}"
    assert probe.ask("vrf v0") == "none v0"
    namespace.ip("link", "set", "v0", "master", "blue")
    at = probe.wait(f"event 7 vrf {v0} bind {blue}")
    assert probe.facts("v0")["vrf"] == str(blue)
    namespace.ip("link", "del", "blue")
    at = probe.wait(f"event 7 vrf {v0} release 0", at)
    at = probe.wait(f"event 7 vrf gone {blue}", at)
    probe.wait(f"event 7 destroy {blue}", at)
    assert probe.facts("v0")["vrf"] == "0"
    assert probe.ask("vrf blue") == "none blue"


@pytest.mark.devices
def test_management_vrf_has_its_internal_name(namespace, start_probe):
    add_device(namespace, "mgmt", "type", "vrf", "table", "11")
    mgmt = namespace.ifindex("mgmt")
    probe = start_probe()
    assert probe.ask("vrf &#~_hidden_vrf_mgmt_0_@^$") == f"vrf &#~_hidden_vrf_mgmt_0_@^$ {mgmt}"
