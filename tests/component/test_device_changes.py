"""Random changes of ports, aggregates, subinterfaces, VRFs and addresses, in no foreseeable order: after each sequence the
daemon's view of them is the kernel's, and its configuration is what the rules make of the changes."""
import os

import pytest

from harness.addresses import COLLECTOR4, COLLECTOR4_B
from harness.devices import add_device
from test_interface_changes import Changes, Model, prepared     # pylint: disable=unused-import

pytestmark = [pytest.mark.devices, pytest.mark.long]

#: Seeds of the sequences: the first, and how many. Each sequence goes on where the one before it has ended.
FIRST = int(os.environ.get("SFLOW_TEST_SEED", "1"))
SEQUENCES = int(os.environ.get("SFLOW_TEST_SEQUENCES", "8"))
CHANGES = 6     # in a sequence
VRFS = 3        # at most
FIXED = f"sflow collector 1 destination {COLLECTOR4} 6343"


class DeviceModel(Model):
    """Also: a port that joins an aggregate loses its settings for good; a VRF takes its collector with it."""

    def __init__(self, stage):
        super().__init__(stage)
        self.vrf = None         # index of collector 2's VRF
        self.collecting = True  # whether there is a collector 2

    def forget_the_gone(self, links):
        super().forget_the_gone(links)
        if self.vrf and self.vrf not in links:
            self.vrf, self.own_source, self.collecting = None, None, False
            self.ports = {index: [line for line in lines if not line.endswith("collector 2")]
                          for index, lines in self.ports.items()}

    def wanted(self):
        wanted = super().wanted()
        own = [line for line in wanted[""] if line.startswith("sflow collector 2")]
        if not self.collecting:
            wanted[""].remove(*own)
        elif self.vrf:
            name = self.links()[self.vrf]["ifname"]
            wanted[""].remove(*own)
            wanted[""].append(own[0].replace(" 6343", f" 6343 vrf {name}"))
        return {name: sorted(lines) for name, lines in wanted.items() if lines or not name}


class DeviceChanges(Changes):
    """Letters of names: w ports, x their far ends, m macvlans, b aggregates, s subinterfaces, r VRFs."""

    def __init__(self, stage, seed):
        super().__init__(stage, seed)
        self.model = DeviceModel(stage)

    def named(self, letters, links=None):
        return [link for link in (links or self.model.links()).values()
                if link["ifname"][0] in letters and link["ifname"] != "br0"]    # the bridge stays

    def mine(self, links=None):
        return self.named("wmbs", links)

    def choose(self, letters, condition=lambda link: True):
        found = [link for link in self.named(letters) if condition(link)]
        return self.random.choice(found) if found else None

    def up_or_down(self):
        """A subinterface does not come up while what it is on is down."""
        if link := self.pick():
            below = link["link"] if link["ifname"][0] == "s" else None
            able = all("UP" in other["flags"] for other in self.model.links().values() if other["ifname"] == below)
            self.ip("link", "set", link["ifname"], self.random.choice(["up", "up", "down"]) if able else "down")

    def bridge(self):
        """A subinterface that is bridged counts as removed: that is another test's."""
        if link := self.choose("w", lambda link: link.get("master") in (None, "br0")):
            if link.get("master"):
                self.ip("link", "set", link["ifname"], "nomaster")
            elif not any(other.get("link") == link["ifname"] for other in self.mine()):
                self.ip("link", "set", link["ifname"], "master", "br0")

    def add_aggregate(self):
        if len(self.named("b")) < 3:
            self.ip("link", "add", f"b{self.number()}", "type", "bond", "mode", "active-backup")

    def join_or_leave(self):
        links = self.model.links()
        members = [link for link in self.named("w", links) if (link.get("master") or "")[:1] == "b"
                   and link["master"] != "br0"]
        free = [link for link in self.named("w", links) if not link.get("master")
                and not any(other.get("link") == link["ifname"] for other in self.mine(links))]
        aggregates = self.named("b", links)
        if members and self.random.random() < 0.4:
            self.ip("link", "set", self.random.choice(members)["ifname"], "nomaster")
        elif free and aggregates:
            link = self.random.choice(free)
            self.ip("link", "set", link["ifname"], "down")
            self.ip("link", "set", link["ifname"], "master", self.random.choice(aggregates)["ifname"])
            self.model.ports.pop(link["ifindex"], None)

    def add_subinterface(self):
        if lower := self.choose("wb", lambda link: not link.get("master")):
            number = self.number()
            self.ip("link", "add", "link", lower["ifname"], "name", f"s{number}", "type", "vlan", "id", 1 + number % 4000)

    def add_vrf(self):
        if len(self.named("r")) < VRFS:
            number = self.number()
            self.ip("link", "add", f"r{number}", "type", "vrf", "table", 1000 + number)
            self.ip("link", "set", f"r{number}", "up")

    def remove_vrf(self):
        if link := self.choose("r"):
            self.ip("link", "del", link["ifname"])

    def rename_vrf(self):
        if link := self.choose("r"):
            self.ip("link", "set", link["ifname"], "down")
            self.ip("link", "set", link["ifname"], "name", f"r{self.number()}")

    def bind(self):
        """Moves an interface into a VRF, to another one, or out of it."""
        vrf = self.choose("r")
        link = self.choose("wbs", lambda link: (link.get("master") or "r")[:1] == "r")
        if vrf and link:
            same = link.get("master") == vrf["ifname"]
            self.ip("link", "set", link["ifname"], *(["nomaster"] if same else ["master", vrf["ifname"]]))

    def set_collector(self):
        """Collector 2 in a VRF, or back in the default one."""
        self.model.check()
        vrf = self.choose("r") if self.random.random() < 0.7 else None
        self.configure(f"sflow collector 2 destination {COLLECTOR4_B} 6343{' vrf ' + vrf['ifname'] if vrf else ''}")
        self.model.vrf, self.model.collecting, self.model.own_source = vrf and vrf["ifindex"], True, None

    def set_own_source(self):
        """Only within what set_collector() has chosen."""

    def set_port(self):
        link = self.known()
        if link and (link.get("master") or "")[:1] != "b" and link["ifindex"] not in self.model.ports:
            lines = ["sflow enable", "sflow flow collector 1",
                     *(["sflow counter collector 2"] if self.model.collecting else [])]
            self.configure(f"interface {link['ifname']}", *lines)
            self.model.ports[link["ifindex"]] = lines

    DEVICES = [*Changes.KERNEL[:1], (Changes.add_macvlan, 1), (Changes.remove, 3), (Changes.rename, 2),
               (up_or_down, 3), (bridge, 1), (Changes.add_address, 5), (Changes.remove_address, 3),
               (add_aggregate, 2), (join_or_leave, 4), (add_subinterface, 3), (add_vrf, 3), (remove_vrf, 1),
               (rename_vrf, 1), (bind, 4)]
    OPERATOR = [(set_port, 5), (Changes.default_port, 1), (Changes.set_agent, 2), (Changes.set_source, 2),
                (set_collector, 4)]


def test_random_changes_of_devices_end_in_the_kernels_view_and_the_configuration_that_the_rules_give(prepared):
    add_device(prepared.namespace, "r0", "type", "vrf", "table", "999")
    add_device(prepared.namespace, "b0", "type", "bond", "mode", "active-backup")
    changes = DeviceChanges(prepared, FIRST)
    for _ in range(4):
        changes.add_pair()
    for seed in range(FIRST, FIRST + SEQUENCES):
        changes.random.seed(seed)
        del changes.done[:-20]
        try:
            for _ in range(CHANGES):
                changes.step(DeviceChanges.DEVICES)
            changes.step(DeviceChanges.OPERATOR)
            changes.model.check()
        except AssertionError as error:
            raise AssertionError(f"seed {seed}, begun with {FIRST}: {error}\nafter\n" +
                                 "\n".join(changes.done)) from None
    assert prepared.daemon.running()
