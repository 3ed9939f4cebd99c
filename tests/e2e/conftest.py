"""Fixtures of the end-to-end tier: two hosts on a veth link, real daemons on one of them."""
import json
import subprocess

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
        self._silence("port1", "eth0")
        self.sandbox = make_sandbox(self.switch)
        self.index = self.switch.ifindex("port1")
        self._collectors = []

    def _silence(self, port, peer):
        # No chatter of the kernel's own on a sampled link: its packets are counted one by one.
        for namespace, name in ((self.switch, port), (self.host, peer)):
            namespace.run("sysctl", "-qw", f"net.ipv6.conf.{name}.disable_ipv6=1")

    def add_second_port(self):
        """port2 of the switch, linked to eth1 of the host; returns its index."""
        self.switch.add_veth("port2", "eth1", self.host)
        self._silence("port2", "eth1")
        return self.switch.ifindex("port2")

    def start(self):
        self.daemon = self.sandbox.start_sflowd()
        self.service = self.sandbox.start("sflow-samplingd")
        self.sandbox.ready()

    def collector(self, address=HOST4, port=6343):
        self._collectors.append(Collector(self.host, address, port))
        return self._collectors[-1]

    def generating(self, count, direction="ingress", port=1, **options):
        """Starts sending `count` packets over the link of a port; returns the process."""
        near, far = (self.switch, f"port{port}"), (self.host, f"eth{port - 1}")
        (sender, interface), (target, target_interface) = (far, near) if direction == "ingress" else (near, far)
        mac = json.loads(target.ip("-j", "link", "show", target_interface))[0]["address"]
        words = [BIN / "pktgen", "--interface", interface, "--count", count, "--dst-mac", mac]
        for name, value in options.items():
            words += [f"--{name.replace('_', '-')}", value]
        return sender.popen(*words, stdout=subprocess.PIPE, text=True)

    def generate(self, count, *where, **options):
        """Sends `count` packets as generating() does; returns what pktgen reports."""
        return self.report_of(self.generating(count, *where, **options))

    @staticmethod
    def report_of(process):
        """Waits for the end of generating()."""
        output = process.communicate()[0]
        assert process.returncode == 0, f"pktgen ended with status {process.returncode}"
        return json.loads(output)

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

