"""What the configuration and the exported datagrams make of interfaces that change: real netlink events."""
import pytest

from harness.addresses import AGENT4, COLLECTOR4, COLLECTOR4_B, COLLECTOR6
from harness.devices import add_device
from harness.domain_socket import IFX_IS_CONF, SET_RATE, attach_answer, flow_record, rate_answer
from harness.wait import wait_for

FRAME = bytes(range(60))
PORT_LINES = ["sflow counter collector 1", "sflow flow collector 1", "sflow enable"]


def sections(stage):
    return stage.sandbox.config_sections()


def wait_sections(stage, wanted):
    """Waits for the running configuration to be `wanted`; the order of lines within a section does not matter."""
    wanted = {name: sorted(lines) for name, lines in wanted.items()}
    try:
        wait_for(lambda: sections(stage) == wanted, "the configuration")
    except AssertionError:
        raise AssertionError(f"wanted {wanted}, got {sections(stage)}") from None


def global_lines(stage):
    return sections(stage)[""]


def shown(stage, line):
    wait_for(lambda: f"{line}\n" in stage.cli("show sflow").output,
             f"{line!r}")


def enable_port(stage, port):
    """Samples and polls `port`, which needs collector 1; waits until the service has confirmed all of it."""
    stage.sandbox.wait_interface(port)
    stage.configure(f"interface {port}", *PORT_LINES)
    wait_for(lambda: sections(stage).get(port) == sorted(PORT_LINES), f"the settings of {port}")
    return stage.ifindex(port)


def next_datagram(stage, sink, index):
    """Has a sample of interface `index` exported: the datagram, and the address that it came from."""
    count = len(sink.raw)
    stage.service.send(flow_record(FRAME, index))
    sink.wait_datagrams(count + 1)
    return sink.datagrams()[count], sink.raw[count][1]


@pytest.fixture
def exporting(ready):
    """port1 exports to collector 1; the agent address is an explicit one."""
    ready.configure(f"sflow agent address {AGENT4}", f"sflow collector 1 destination {COLLECTOR4} 6343")
    enable_port(ready, "port1")
    return ready


BASE = [f"sflow agent address {AGENT4}", f"sflow collector 1 destination {COLLECTOR4} 6343"]


# ---- Interfaces that go --------------------------------------------------------------------------------------------

def test_an_interface_that_is_removed_takes_its_settings_with_it(exporting):
    second = enable_port(exporting, "port2")
    first = exporting.ifindex("port1")
    exporting.service.received.clear()
    exporting.namespace.ip("link", "del", "port1")
    wait_sections(exporting, {"": BASE, "port2": PORT_LINES})
    stops = exporting.service.wait_for(SET_RATE, 4)     # both directions, once an access-list slot
    assert {(stop.ifx, stop.rate) for stop in stops} == {(first, 0)}
    # The other port goes on, samples of the one that is gone belong to nobody.
    sink = exporting.collector()
    exporting.service.send(flow_record(FRAME, first))
    datagram, _ = next_datagram(exporting, sink, second)
    assert {flow.source_index for flow in datagram.flows} == {second}


def test_an_interface_made_again_under_its_name_starts_without_settings(exporting):
    exporting.namespace.ip("link", "del", "port1")
    exporting.namespace.add_veth("port1", "far1")
    wait_sections(exporting, {"": BASE})
    enable_port(exporting, "port1")
    wait_sections(exporting, {"": BASE, "port1": PORT_LINES})


def test_a_thousand_interfaces_come_and_go_without_a_trace(exporting, tmp_path):
    before = sections(exporting)
    batch = tmp_path / "batch"
    batch.write_text("".join(f"link add w{i} type veth peer name x{i}\nlink set w{i} up\nlink del w{i}\n"
                             for i in range(250)))
    for _ in range(4):
        exporting.namespace.run("ip", "-batch", batch)
    exporting.namespace.ip("link", "add", "last0", "type", "veth", "peer", "name", "last1")
    left = {"lo", "last0", "last1"} | {f"{end}{i}" for end in ("port", "far") for i in (1, 2, 3)}

    def names():
        return {line.split()[0] for line in exporting.cli("show interfaces brief").output.splitlines()[1:]}

    wait_for(lambda: names() == left, lambda: f"{left}, there are {names()}")
    assert sections(exporting) == before


def test_a_bridge_member_keeps_its_settings(exporting):
    """It leaves the TCP/IP layer, but the port is still there."""
    add_device(exporting.namespace, "br0", "type", "bridge")
    exporting.cli("debug sflow conf")
    exporting.namespace.ip("link", "set", "port1", "master", "br0")
    wait_for(lambda: "sflow_intf_destroy interface is exist" in exporting.daemon.log(), "the event")
    exporting.namespace.ip("link", "set", "port1", "nomaster")
    enable_port(exporting, "port2")
    wait_sections(exporting, {"": BASE, "port1": PORT_LINES, "port2": PORT_LINES})


def test_a_macvlan_goes_with_the_interface_below_it(exporting):
    add_device(exporting.namespace, "link", "port2", "name", "mac0", "type", "macvlan", "mode", "bridge")
    enable_port(exporting, "mac0")
    exporting.namespace.ip("link", "del", "port2")
    wait_sections(exporting, {"": BASE, "port1": PORT_LINES})


@pytest.mark.devices
def test_a_subinterface_goes_with_its_port(exporting):
    add_device(exporting.namespace, "link", "port2", "name", "port2.10", "type", "vlan", "id", "10")
    enable_port(exporting, "port2.10")
    exporting.namespace.ip("link", "del", "port2")
    wait_sections(exporting, {"": BASE, "port1": PORT_LINES})


def test_an_interface_that_moves_to_another_namespace_is_gone_here(exporting, make_namespace):
    exporting.namespace.ip("link", "set", "port1", "netns", make_namespace("other").name)
    wait_sections(exporting, {"": BASE})


def test_a_rename_keeps_the_settings_under_the_new_name(exporting):
    exporting.configure("no sflow agent address", "sflow agent interface port1", "sflow source interface port1")
    exporting.namespace.ip("link", "set", "port1", "down")
    exporting.namespace.ip("link", "set", "port1", "name", "uplink")
    wait_sections(exporting, {"": ["sflow agent interface uplink", "sflow source interface uplink", BASE[1]],
                              "uplink": PORT_LINES})


@pytest.mark.parametrize("setting", ["sflow enable", "sflow flow collector 1", "sflow counter collector 1"])
def test_an_interface_that_goes_before_the_answer_leaves_nothing_behind(stage, setting):
    """Its section would stay for ever and hide those of the interfaces behind it."""
    stage.ready()
    stage.configure(*BASE)
    last = enable_port(stage, "port3")
    stage.service.answer_rate = stage.service.answer_attach = lambda request: None
    stage.configure("interface port1", setting)
    kind, answer = (SET_RATE, rate_answer) if setting == "sflow enable" else (IFX_IS_CONF, attach_answer)
    index = stage.ifindex("port1")
    count = 2 if setting == "sflow enable" else 1     # one a direction
    requests = wait_for(lambda: len(found := [request for request in stage.service.of(kind) if request.ifx == index])
                        == count and found, "the setting")
    stage.namespace.ip("link", "del", "port1")
    wait_for(lambda: "port1" not in stage.cli("show interfaces brief").output, "the end of port1")
    for request in requests:
        stage.service.send(answer(request))
    assert index < last
    sink = stage.collector()
    next_datagram(stage, sink, last)   # the answers have been handled
    wait_sections(stage, {"": BASE, "port3": PORT_LINES})


# ---- Defaults ------------------------------------------------------------------------------------------------------

def test_default_interface_forgets_sampling_and_keeps_addresses(exporting):
    exporting.configure("no sflow agent address", "sflow agent interface port1", "sflow source interface port1")
    enable_port(exporting, "port2")
    result = exporting.cli("configure terminal", "default interface port1")
    assert result.status == 0, result
    wait_sections(exporting, {"": ["sflow agent interface port1", "sflow source interface port1", BASE[1]],
                              "port2": PORT_LINES})


def test_default_of_an_unknown_interface_is_refused(exporting):
    result = exporting.cli("configure terminal", "default interface nosuch0")
    assert result.status == 1
    assert "% Interface nosuch0 does not exist" in result.output
    wait_sections(exporting, {"": BASE, "port1": PORT_LINES})


# ---- Addresses -----------------------------------------------------------------------------------------------------

def give(stage, port, address):
    stage.namespace.ip("addr", "add", address, "dev", port, *(["nodad"] if ":" in address else []))


def take(stage, port, address):
    stage.namespace.ip("addr", "del", address, "dev", port)


@pytest.mark.parametrize("words, first, second, third, none", [
    ("", "10.1.0.1/24", "10.2.0.1/24", "10.3.0.1/24", "0.0.0.0"),
    ("ipv6 ", "2001:db8:1::1/64", "2001:db8:2::1/64", "2001:db8:3::1/64", "::")], ids=["v4", "v6"])
def test_the_agent_address_follows_its_interface(exporting, words, first, second, third, none):
    namespace, v6 = exporting.namespace, words != ""
    if v6:      # no address but those given here
        namespace.run("sysctl", "-q", "-w", "net.ipv6.conf.port2.addr_gen_mode=1")
        namespace.ip("addr", "flush", "dev", "port2", "scope", "link")
    index = exporting.ifindex("port1")
    give(exporting, "port2", first)
    exporting.configure("no sflow agent address", f"sflow agent interface {words}port2")
    line = f"sflow agent interface {words}port2"
    shown(exporting, f"Agent IP: {first.split('/')[0]}")
    sink = exporting.collector()
    assert next_datagram(exporting, sink, index)[0].agent == first.split("/")[0]
    give(exporting, "port2", second)        # an IPv6 address goes in front of those there are, an IPv4 one behind
    shown(exporting, f"Agent IP: {(second if v6 else first).split('/')[0]}")
    take(exporting, "port2", second if v6 else first)
    shown(exporting, f"Agent IP: {(first if v6 else second).split('/')[0]}")
    assert next_datagram(exporting, sink, index)[0].agent == (first if v6 else second).split("/")[0]
    take(exporting, "port2", first if v6 else second)
    shown(exporting, f"Agent IP: {none}")
    assert line in global_lines(exporting)
    give(exporting, "port2", third)
    shown(exporting, f"Agent IP: {third.split('/')[0]}")
    assert next_datagram(exporting, sink, index)[0].agent == third.split("/")[0]
    namespace.ip("link", "del", "port2")
    shown(exporting, "Agent IP: NULL")
    wait_sections(exporting, {"": BASE[1:], "port1": PORT_LINES})


def test_an_agent_address_of_one_family_is_left_alone_by_the_other(exporting):
    give(exporting, "port2", "10.1.0.1/24")
    exporting.configure("no sflow agent address", "sflow agent interface port2")
    give(exporting, "port2", "2001:db8:1::1/64")
    take(exporting, "port2", "2001:db8:1::1/64")
    give(exporting, "port2", "10.1.0.2/24")     # secondary
    wait_for(lambda: "10.1.0.2/24 secondary" in exporting.cli("show interfaces").output, "the last change")
    shown(exporting, "Agent IP: 10.1.0.1")


def test_the_source_follows_its_interface_and_the_socket_is_opened_anew(exporting):
    index = exporting.ifindex("port1")
    give(exporting, "port2", "10.1.0.1/24")
    exporting.configure("sflow source interface port2")
    shown(exporting, "Source IP[1]: 10.1.0.1(used: 0.0.0.0)")
    sink = exporting.collector()
    assert next_datagram(exporting, sink, index)[1] == "10.1.0.1"
    give(exporting, "port2", "10.2.0.1/24")
    take(exporting, "port2", "10.1.0.1/24")
    shown(exporting, "Source IP[1]: 10.2.0.1(used: 10.1.0.1)")
    assert next_datagram(exporting, sink, index)[1] == "10.2.0.1"
    # Without an address the routing table chooses, with one again it is used again.
    take(exporting, "port2", "10.2.0.1/24")
    shown(exporting, "Source IP[1]: 0.0.0.0(used: 10.2.0.1)")
    assert next_datagram(exporting, sink, index)[1] == COLLECTOR4
    give(exporting, "port2", "10.3.0.1/24")
    shown(exporting, f"Source IP[1]: 10.3.0.1(used: {COLLECTOR4})")
    assert next_datagram(exporting, sink, index)[1] == "10.3.0.1"
    assert "sflow source interface port2" in global_lines(exporting)
    exporting.namespace.ip("link", "del", "port2")
    wait_sections(exporting, {"": BASE, "port1": PORT_LINES})
    assert next_datagram(exporting, sink, index)[1] == COLLECTOR4


def test_both_families_of_a_source_follow(exporting):
    index = exporting.ifindex("port1")
    exporting.configure(f"sflow collector 2 destination ipv6 {COLLECTOR6} 6344", "interface port3",
                        "sflow flow collector 2", "sflow enable")
    wait_for(lambda: len(sections(exporting).get("port3", [])) == 2, "the settings of port3")
    give(exporting, "port2", "10.1.0.1/24")
    give(exporting, "port2", "2001:db8:1::1/64")
    exporting.configure("sflow source interface port2", "sflow source interface ipv6 port2")
    shown(exporting, "Source IP[1]: 10.1.0.1(used: 0.0.0.0)")
    shown(exporting, "Source IP[2]: 2001:db8:1::1(used: ::)")
    sink, sink6 = exporting.collector(), exporting.collector(COLLECTOR6, 6344)
    assert next_datagram(exporting, sink, index)[1] == "10.1.0.1"
    assert next_datagram(exporting, sink6, exporting.ifindex("port3"))[1] == "2001:db8:1::1"
    give(exporting, "port2", "2001:db8:2::1/64")        # goes in front
    shown(exporting, "Source IP[2]: 2001:db8:2::1(used: 2001:db8:1::1)")
    assert next_datagram(exporting, sink6, exporting.ifindex("port3"))[1] == "2001:db8:2::1"
    assert next_datagram(exporting, sink, index)[1] == "10.1.0.1"
    exporting.namespace.ip("link", "del", "port2")
    wait_for(lambda: not any("source" in line for line in global_lines(exporting)), "the end of both")


def test_a_link_that_goes_down_takes_its_ipv6_addresses_and_the_source_follows(exporting):
    exporting.configure(f"sflow collector 1 destination ipv6 {COLLECTOR6} 6343")
    index = exporting.ifindex("port1")
    give(exporting, "port2", "2001:db8:1::1/64")
    exporting.configure("sflow source interface ipv6 port2")
    shown(exporting, "Source IP[1]: 2001:db8:1::1(used: ::)")
    sink = exporting.collector(COLLECTOR6)
    assert next_datagram(exporting, sink, index)[1] == "2001:db8:1::1"
    exporting.namespace.ip("link", "set", "port2", "down")
    shown(exporting, "Source IP[1]: ::(used: 2001:db8:1::1)")
    assert next_datagram(exporting, sink, index)[1] == COLLECTOR6
    exporting.namespace.ip("link", "set", "port2", "up")
    give(exporting, "port2", "2001:db8:1::1/64")
    shown(exporting, f"Source IP[1]: 2001:db8:1::1(used: {COLLECTOR6})")
    assert next_datagram(exporting, sink, index)[1] == "2001:db8:1::1"


def test_a_collectors_own_source_follows_its_interface(exporting):
    index = exporting.ifindex("port1")
    give(exporting, "port2", "10.1.0.1/24")
    give(exporting, "port3", "10.9.0.1/24")
    destination = f"sflow collector 1 destination {COLLECTOR4} 6343"
    exporting.configure("sflow source interface port3", f"{destination} source interface port2")
    shown(exporting, "Source IP[1]: 10.1.0.1(used: 0.0.0.0)")
    sink = exporting.collector()
    assert next_datagram(exporting, sink, index)[1] == "10.1.0.1"
    take(exporting, "port2", "10.1.0.1/24")
    shown(exporting, "Source IP[1]: 0.0.0.0(used: 10.1.0.1)")
    assert next_datagram(exporting, sink, index)[1] == "10.9.0.1"       # the next in line
    give(exporting, "port2", "10.2.0.1/24")
    shown(exporting, "Source IP[1]: 10.2.0.1(used: 10.9.0.1)")
    assert next_datagram(exporting, sink, index)[1] == "10.2.0.1"
    exporting.namespace.ip("link", "del", "port2")
    wait_sections(exporting, {"": [BASE[0], destination, "sflow source interface port3"], "port1": PORT_LINES})
    assert next_datagram(exporting, sink, index)[1] == "10.9.0.1"


# ---- Aggregates and VRFs, where the kernel has them ----------------------------------------------------------------

@pytest.mark.devices
def test_a_port_that_joins_an_aggregate_loses_its_settings(exporting):
    add_device(exporting.namespace, "bond7", "type", "bond", "mode", "802.3ad")
    enable_port(exporting, "bond7")
    enable_port(exporting, "port2")
    exporting.configure("sflow source interface port1")
    exporting.namespace.ip("link", "set", "port1", "down")
    exporting.namespace.ip("link", "set", "port1", "master", "bond7")
    settled = {"": [*BASE, "sflow source interface port1"], "bond7": PORT_LINES, "port2": PORT_LINES}
    wait_sections(exporting, settled)
    exporting.namespace.ip("link", "set", "port1", "nomaster")
    exporting.namespace.ip("link", "set", "port1", "name", "left0")     # what follows the release
    wait_for(lambda: "left0" in exporting.cli("show interfaces brief").output, "the release")
    wait_sections(exporting, {**settled, "": [*BASE, "sflow source interface left0"]})
    exporting.namespace.ip("link", "del", "bond7")
    wait_sections(exporting, {"": [*BASE, "sflow source interface left0"], "port2": PORT_LINES})


@pytest.mark.devices
def test_a_vrf_that_is_removed_takes_its_collectors_with_it(ready):
    add_device(ready.namespace, "blue", "type", "vrf", "table", "10")
    ready.namespace.ip("link", "set", "blue", "up")
    wait_for(lambda: "blue" in ready.cli("show interfaces brief").output, "the VRF")
    ready.configure(BASE[0], f"sflow collector 1 destination {COLLECTOR4} 6343 vrf blue",
                    f"sflow collector 2 destination {COLLECTOR4_B} 6343", "interface port1", "sflow enable",
                    "sflow flow collector 1", "sflow counter collector 2")
    wait_sections(ready, {"": [BASE[0], f"sflow collector 1 destination {COLLECTOR4} 6343 vrf blue",
                               f"sflow collector 2 destination {COLLECTOR4_B} 6343"],
                          "port1": ["sflow enable", "sflow flow collector 1", "sflow counter collector 2"]})
    ready.namespace.ip("link", "del", "blue")
    wait_sections(ready, {"": [BASE[0], f"sflow collector 2 destination {COLLECTOR4_B} 6343"],
                          "port1": ["sflow enable", "sflow counter collector 2"]})
    assert f"{1:<5}{'NULL':<45}{0:<6}{1400:<5}" in ready.cli("show sflow").output


@pytest.mark.devices
def test_an_out_of_band_collector_follows_the_binding_of_its_interface(stage):
    (stage.sandbox.config / "platform.toml").write_text(
        '[syslog]\ntarget = "stderr"\n[interfaces]\nmanagement = ["port3"]\n')
    for number, vrf in ((10, "blue"), (11, "green")):
        add_device(stage.namespace, vrf, "type", "vrf", "table", number)
    stage.namespace.ip("link", "set", "port3", "master", "blue")
    stage.ready()
    destination = f"sflow collector 1 destination {COLLECTOR4} 6343"
    stage.configure(f"{destination} oob via port3")
    wait_sections(stage, {"": [f"{destination} oob via port3"]})
    stage.cli("debug sflow conf")
    stage.namespace.ip("link", "set", "port3", "master", "green")
    bound = f"sflow_lsm_intf_vrf_bind msg ifx({stage.ifindex('port3')}) vrf({stage.ifindex('green')})"
    wait_for(lambda: bound in stage.daemon.log(), "the binding")
    stage.namespace.ip("link", "del", "blue")       # is nothing to it any more
    wait_for(lambda: "blue" not in stage.cli("show interfaces brief").output, "the end of the first VRF")
    wait_sections(stage, {"": [f"{destination} oob via port3"]})
    stage.namespace.ip("link", "del", "green")      # releases its members before it goes
    wait_sections(stage, {"": [destination]})       # in the default VRF it is like any other
