"""Every kind of device that Linux has: what the agent takes it for, whether it can be sampled, and what an operator reads
when it cannot."""
import re

import pytest

from harness.addresses import COLLECTOR4
from harness.devices import add_device
from harness.domain_socket import SET_RATE
from harness.wait import wait_for

pytestmark = pytest.mark.devices

PORT, AGGREGATE, SUBINTERFACE = 1, 2, 3

#: Name, `ip link add` words in front of and behind it, the type that is shown, kind in settings (None: not sampled).
DEVICES = [
    ("dum0", "", "type dummy", "virtual", PORT),
    ("mac0", "link dum0", "type macvlan mode bridge", "virtual", PORT),
    ("bond1", "", "type bond", "aggregate", AGGREGATE),
    ("team1", "", "type team", "aggregate", AGGREGATE),
    ("port2.10", "link port2", "type vlan id 10", "vlan", SUBINTERFACE),
    ("bond1.20", "link bond1", "type vlan protocol 802.1ad id 20", "vlan", SUBINTERFACE),
    ("double", "link port2.10", "type vlan id 30", "vlan", SUBINTERFACE),
    ("br0", "", "type bridge", "bridge", None),
    ("red", "", "type vrf table 10", "vrf", None),
    ("vx0", "", "type vxlan id 7 remote 198.51.100.9 dstport 4789", "tunnel", None),
    ("gre1", "", "type gre remote 198.51.100.9", "tunnel", None),
    ("tap1", "", "type gretap remote 198.51.100.9", "tunnel", None),
    ("ipip1", "", "type ipip remote 198.51.100.9", "tunnel", None),
    ("wg0", "", "type wireguard", "tunnel", None),
    ("ifb7", "", "type ifb", "other", None),
]
LOOPBACK = ("lo", "loopback", None)
TUN, TAP = ("tun1", "tunnel", None), ("tap2", "virtual", PORT)


def make_devices(namespace):
    for name, before, after, _, _ in DEVICES:
        add_device(namespace, *before.split(), "name", name, *after.split())
    for (name, _, _), mode in ((TUN, "tun"), (TAP, "tap")):
        namespace.ip("tuntap", "add", name, "mode", mode)
    return [(name, shown, kind) for name, _, _, shown, kind in DEVICES] + [LOOPBACK, TUN, TAP]


def test_each_kind_of_device_is_sampled_or_refused_with_the_reason(ready):
    devices = make_devices(ready.namespace)
    for name, _, _ in devices:
        ready.sandbox.wait_interface(name)
    shown = dict(re.findall(r"^(\S+) is .*\n(?:  .*\n)*?  Index \d+, type (\w+)", ready.cli("show interfaces").output,
                            flags=re.MULTILINE))
    assert {name: shown.get(name) for name, _, _ in devices} == {name: word for name, word, _ in devices}

    sampled = {name: kind for name, _, kind in devices if kind}
    ready.configure(*(line for name in sampled for line in (f"interface {name}", "sflow enable")))
    wait_for(lambda: {name: ["sflow enable"] for name in sampled}.items() <= ready.sandbox.config_sections().items(),
             "the settings")
    asked = {request.ifx: request.ifx_type for request in ready.service.of(SET_RATE)}
    assert {name: asked[ready.ifindex(name)] for name in sampled} == sampled

    for name, word, kind in devices:
        if kind is None:
            answer = ready.cli("configure terminal", f"interface {name}", "sflow enable")
            assert answer.status == 1, name
            assert f"% Interface {name} ({word}): the command is not available there\n" in answer.output
    assert set(ready.sandbox.config_sections()) == {"", *sampled}


def test_a_bridged_subinterface_is_refused_and_its_port_is_not(ready):
    add_device(ready.namespace, "link", "port2", "name", "port2.10", "type", "vlan", "id", "10")
    add_device(ready.namespace, "br0", "type", "bridge")
    ready.namespace.ip("link", "set", "port2.10", "master", "br0")
    ready.namespace.ip("link", "set", "port3", "master", "br0")
    wait_for(lambda: ready.cli("show interfaces").output.count("member of br0") == 2, "the bridge")
    answer = ready.cli("configure terminal", "interface port2.10", "sflow enable")
    assert "% Interface port2.10 (vlan): the command is not available there\n" in answer.output
    ready.configure("interface port3", "sflow enable", "interface port2", "sflow enable")
    wait_for(lambda: set(ready.sandbox.config_sections()) == {"", "port2", "port3"}, "the settings")


def test_a_range_of_several_kinds_serves_those_that_have_the_command(ready):
    add_device(ready.namespace, "link", "port2", "name", "port2.10", "type", "vlan", "id", "10")
    add_device(ready.namespace, "bond1", "type", "bond")
    add_device(ready.namespace, "red", "type", "vrf", "table", "10")
    for name in ("port2.10", "bond1", "red"):
        ready.sandbox.wait_interface(name)
    ready.configure(f"sflow collector 1 destination {COLLECTOR4} 6343")
    answer = ready.cli("configure terminal", "interface range port1, bond1, port2.10, red", "sflow enable",
                       "sflow flow collector 1")
    assert answer.output.count("% Interface red: the command is not available there\n") == 2
    lines = ["sflow enable", "sflow flow collector 1"]
    wait_for(lambda: {name: ready.sandbox.config_sections().get(name) for name in ("port1", "bond1", "port2.10")} ==
             {"port1": lines, "bond1": lines, "port2.10": lines}, "the settings of the three")
    assert "red" not in ready.sandbox.config_sections()
    answer = ready.cli("configure terminal", "interface range red, lo", "sflow enable")
    assert "% The interfaces of the range: the command is not available there\n" in answer.output
    answer = ready.cli("configure terminal", "interface range port1, bond1, port2.10", "no sflow enable")
    assert answer.status == 0, answer
    wait_for(lambda: all(ready.sandbox.config_sections().get(name) == lines[1:]
                         for name in ("port1", "bond1", "port2.10")), "the end of sampling")
