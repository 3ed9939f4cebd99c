"""Fixtures of the end-to-end tier: two hosts on a veth link, real daemons on one of them."""
import json

import pytest

from harness.addresses import HOST4, HOST6, SWITCH4, SWITCH6
from harness.collector import Collector
from harness.daemon import BIN


class Link:
    """`switch` with port1 (sampled) and mgmt0 (towards the collector), `host` with the far ends eth0 and coll0."""

    def __init__(self, make_namespace, make_sandbox):
        self.switch, self.host = make_namespace("switch"), make_namespace("host")
        self.switch.add_veth("port1", "eth0", self.host)
        self.switch.add_veth("mgmt0", "coll0", self.host)
        for namespace, name, v4, v6 in ((self.switch, "mgmt0", SWITCH4, SWITCH6), (self.host, "coll0", HOST4, HOST6)):
            namespace.ip("addr", "add", f"{v4}/24", "dev", name)
            namespace.ip("addr", "add", f"{v6}/64", "dev", name, "nodad")
        # No chatter of the kernel's own on the sampled link: its packets are counted one by one.
        for namespace, name in ((self.switch, "port1"), (self.host, "eth0")):
            namespace.run("sysctl", "-qw", f"net.ipv6.conf.{name}.disable_ipv6=1")
        self.sandbox = make_sandbox(self.switch)
        self.index = self.switch.ifindex("port1")
        self._collectors = []

    def start(self):
        self.daemon = self.sandbox.start_sflowd()
        self.service = self.sandbox.start("sflow-samplingd")
        self.sandbox.ready()

    def collector(self, address=HOST4, port=6343):
        self._collectors.append(Collector(self.host, address, port))
        return self._collectors[-1]

    def generate(self, count, direction="ingress", **options):
        """Sends `count` packets; returns what pktgen reports."""
        sender, interface, target, target_interface = (
            (self.host, "eth0", self.switch, "port1") if direction == "ingress" else
            (self.switch, "port1", self.host, "eth0"))
        mac = json.loads(target.ip("-j", "link", "show", target_interface))[0]["address"]
        words = [BIN / "pktgen", "--interface", interface, "--count", count, "--dst-mac", mac]
        for name, value in options.items():
            words += [f"--{name.replace('_', '-')}", value]
        return json.loads(sender.run(*words).stdout)

    def hooks(self):
        """Names of the tc filters on port1, by direction."""
        return {direction: self.switch.run("tc", "filter", "show", "dev", "port1", direction, check=False).stdout
                for direction in ("ingress", "egress")}

    def close(self):
        for collector in self._collectors:
            collector.close()


@pytest.fixture
def link(make_namespace, make_sandbox):
    link = Link(make_namespace, make_sandbox)
    yield link
    link.close()

