"""Collectors in VRFs: whom their datagrams reach, by which way and from which address, and that no other network sees
any of it. Every VRF of the switch uses the same addresses."""
import socket
import struct

import pytest

from harness.addresses import AGENT4
from harness.collector import Collector
from harness.devices import add_device
from harness.domain_socket import flow_record
from harness.wait import wait_for

pytestmark = pytest.mark.devices

NEAR = {"v4": "192.0.2.1", "v6": "2001:db8:2::1"}       # the switch, in every VRF
SECOND = {"v4": "192.0.2.11", "v6": "2001:db8:2::11"}   # its other address, in every VRF
FAR = {"v4": "192.0.2.2", "v6": "2001:db8:2::2"}        # the host behind every VRF
MASK = {"v4": 24, "v6": 64}
PORT = 6343
FRAME = bytes(range(60))
FAMILIES = pytest.mark.parametrize("family", ["v4", "v6"])
MARKER = bytes(12) + b"\x88\xb5" + bytes(46)     # a frame of the EtherType for local experiments
ETH_P_ALL, ETH_P_IP, ETH_P_IPV6 = 3, 0x0800, 0x86DD


def export_port_of(frame):
    """Destination port of a frame when it carries UDP over IPv4 or IPv6 without extension headers."""
    kind = struct.unpack_from("!H", frame, 12)[0]
    if kind == ETH_P_IP and frame[23] == socket.IPPROTO_UDP:
        return struct.unpack_from("!H", frame, 14 + 4 * (frame[14] & 15) + 2)[0]
    if kind == ETH_P_IPV6 and frame[20] == socket.IPPROTO_UDP:
        return struct.unpack_from("!H", frame, 14 + 40 + 2)[0]
    return None


class Network:
    """The host behind one interface of the switch: a collector, and every frame that arrives."""

    def __init__(self, switch, name, host):
        self.name, self.interface, self.host = name, f"to-{name}", host
        master = [] if name == "default" else [f"link set {self.interface} master {name}"]
        switch.ip_batch(f"link add {self.interface} type veth peer name eth0 netns {host.name}", *master,
                        *self.address_lines())
        host.ip_batch("link set eth0 up", *(f"addr add {FAR[f]}/{MASK[f]} dev eth0{' nodad' * (f == 'v6')}" for f in FAR))
        self.collectors = [Collector(host, address, PORT) for address in FAR.values()]
        self.capture = host.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        self.capture.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)

    def address_lines(self):
        """Lines for ip(8) that give the switch its addresses here; IPv6 loses them when an interface changes its VRF."""
        device = f"dev {self.interface}"
        return [f"link set {self.interface} up",
                f"addr replace {NEAR['v4']}/{MASK['v4']} {device}", f"addr replace {SECOND['v4']}/{MASK['v4']} {device}",
                f"addr replace {NEAR['v6']}/{MASK['v6']} {device} nodad",
                # Deprecated: not what the kernel chooses by itself.
                f"addr replace {SECOND['v6']}/{MASK['v6']} {device} nodad preferred_lft 0"]

    def received(self):
        """(datagram, source address) of all datagrams so far."""
        return [pair for collector in self.collectors for pair in list(collector.raw)]

    def exported_frames(self):
        """Takes the frames that have arrived since the last call; how many of them were sent to the collectors' port.

        A frame of our own comes last, so that none sent before it can still be on its way."""
        marker = self.host.socket(socket.AF_PACKET, socket.SOCK_RAW)
        marker.sendto(MARKER, ("eth0", 0))
        marker.close()
        count = 0
        self.capture.settimeout(60)
        while True:
            frame, address = self.capture.recvfrom(65535)
            if frame == MARKER:
                return count
            count += address[2] != socket.PACKET_OUTGOING and export_port_of(frame) == PORT

    def close(self):
        for collector in self.collectors:
            collector.close()
        self.capture.close()


class Vrfs:
    """A daemon on a switch with networks "default", "red", "blue" and "mgmt"."""

    def __init__(self, stage, make_namespace):
        self.stage = stage
        for number, name in enumerate(("red", "blue", "mgmt"), 10):
            add_device(stage.namespace, name, "type", "vrf", "table", number)
            # Without them, a look-up that finds nothing in the VRF goes on in the default one.
            stage.namespace.ip_batch(f"link set {name} up",
                                     *(f"route add unreachable {everything} metric 4278198272 vrf {name}"
                                       for everything in ("0.0.0.0/0", "::/0")))
        self.networks = {name: Network(stage.namespace, name, make_namespace(name)) for name in ("default", "red", "blue", "mgmt")}

    def start(self):
        interface = self.networks["mgmt"].interface
        (self.stage.sandbox.config / "platform.toml").write_text(
            f'[syslog]\ntarget = "stderr"\n[interfaces]\nmanagement = ["{interface}"]\n')
        self.stage.ready()
        self.stage.configure(f"sflow agent address {AGENT4}")

    def collect(self, where, family, address=None, number=1):
        """Has collector `number` in `where` ("vrf red source address …") receive the samples of port1."""
        words = f"{'ipv6 ' * (family == 'v6')}{address or FAR[family]} {PORT}"
        line = f"sflow collector {number} destination {words} {where}".rstrip()
        self.stage.configure(line, "interface port1", "sflow enable", f"sflow flow collector {number}")
        self.wait_lines(port1=["sflow enable", f"sflow flow collector {number}"])
        return line

    def wait_lines(self, lines=None, **interfaces):
        """Waits for lines of the running configuration: exactly these of an interface, these among the global ones."""
        def there():
            sections = self.stage.sandbox.config_sections()
            return (set(lines or []) <= set(sections[""]) and
                    all(sections.get(name) == sorted(wanted) for name, wanted in interfaces.items()))
        wait_for(there, f"{lines} {interfaces} in the configuration")

    def sample(self):
        self.stage.service.send(flow_record(FRAME, self.stage.ifindex("port1")))

    def arrives(self, name):
        """Exports one sample: it has to arrive in the network `name` and nowhere else; the address it came from."""
        before = {other: len(network.received()) for other, network in self.networks.items()}
        for network in self.networks.values():
            network.exported_frames()
        self.sample()
        wait_for(lambda: len(self.networks[name].received()) > before[name], f"a datagram in {name}")
        frames = {other: network.exported_frames() for other, network in self.networks.items()}
        after = {other: len(network.received()) for other, network in self.networks.items()}
        count = after[name] - before[name]
        assert after == {**before, name: before[name] + count}, "a datagram in another network"
        assert frames == {**dict.fromkeys(frames, 0), name: count}, "a frame in another network"
        return self.networks[name].received()[-1][1]

    def close(self):
        for network in self.networks.values():
            network.close()


@pytest.fixture
def vrfs(stage, make_namespace):
    vrfs = Vrfs(stage, make_namespace)
    vrfs.start()
    yield vrfs
    vrfs.close()


@FAMILIES
def test_overlapping_addresses_are_told_apart_by_the_vrf(vrfs, family):
    for name, words in (("red", "vrf red"), ("blue", "vrf blue"), ("mgmt", "oob"), ("default", ""),
                        ("mgmt", "oob via to-mgmt")):
        line = vrfs.collect(words, family)
        assert vrfs.arrives(name) == NEAR[family]
        vrfs.wait_lines([line])


def test_two_collectors_of_one_address_in_two_vrfs_each_get_their_own(vrfs):
    vrfs.collect("vrf red", "v4", number=1)
    vrfs.collect("vrf blue", "v4", number=2)
    assert vrfs.arrives("blue") == NEAR["v4"]
    vrfs.stage.configure("interface port1", "sflow flow collector 1")
    vrfs.wait_lines(port1=["sflow enable", "sflow flow collector 1"])
    assert vrfs.arrives("red") == NEAR["v4"]


@FAMILIES
def test_the_source_is_one_of_the_vrf(vrfs, family):
    vrfs.collect(f"vrf red source address {SECOND[family]}", family)
    assert vrfs.arrives("red") == SECOND[family]
    assert f"Source IP[1]: {SECOND[family]}(used: {SECOND[family]})" in vrfs.stage.cli("show sflow").output
    vrfs.collect("vrf blue source interface to-blue", family)
    assert vrfs.arrives("blue") == NEAR[family]
    # An address of another VRF cannot be bound: the VRF's routes choose.
    vrfs.stage.namespace.ip("addr", "add", "203.0.113.1/24" if family == "v4" else "2001:db8:9::1/64", "dev", "to-red",
                            *(["nodad"] * (family == "v6")))
    foreign = "203.0.113.1" if family == "v4" else "2001:db8:9::1"
    vrfs.collect(f"vrf blue source address {foreign}", family)
    assert vrfs.arrives("blue") == NEAR[family]
    assert f"Source IP[1]: {foreign}(used: {NEAR[family]})" in vrfs.stage.cli("show sflow").output


def test_a_global_source_is_used_in_the_vrf_that_has_it(vrfs):
    vrfs.stage.configure(f"sflow source address {SECOND['v4']}")
    vrfs.collect("vrf red", "v4")
    assert vrfs.arrives("red") == SECOND["v4"]
    vrfs.collect("oob", "v4")
    assert vrfs.arrives("mgmt") == SECOND["v4"]


@FAMILIES
def test_a_collector_that_only_another_vrf_reaches_gets_nothing(vrfs, family):
    only_default = "203.0.113.7" if family == "v4" else "2001:db8:7::7"
    network = vrfs.networks["default"]
    network.host.ip("addr", "add", f"{only_default}/{32 if family == 'v4' else 128}", "dev", "lo",
                    *(["nodad"] * (family == "v6")))
    vrfs.stage.namespace.ip("route", "add", only_default, "via", FAR[family])
    vrfs.networks["default"].collectors.append(Collector(network.host, only_default, PORT))
    vrfs.collect("", family, only_default)
    assert vrfs.arrives("default") == NEAR[family]      # the way is there
    vrfs.stage.cli("debug sflow export")
    vrfs.collect("vrf red", family, only_default)
    vrfs.sample()
    failed = f"sflow_receiver_bind_ip{family}_socket connect fail:"
    wait_for(lambda: failed in vrfs.stage.daemon.log(), "the refusal")
    assert sum(network.exported_frames() for network in vrfs.networks.values()) == 0


def test_the_kernels_own_binding_is_used_where_the_options_are_not_known(vrfs):
    vrfs.stage.cli("debug sflow export")
    vrfs.collect("vrf red", "v4")
    assert vrfs.arrives("red") == NEAR["v4"]
    refused = "sflow_receiver_bind_ipv4_socket set sock vrf opt fail:Protocol not available"
    wait_for(lambda: refused in vrfs.stage.daemon.log(), "the option to be refused")
    assert "bind socket fail" not in vrfs.stage.daemon.log()


def test_a_removed_vrf_takes_its_collector_and_nothing_reaches_the_default_one(vrfs):
    vrfs.collect("vrf red", "v4")
    assert vrfs.arrives("red") == NEAR["v4"]
    for network in vrfs.networks.values():
        network.exported_frames()
    vrfs.stage.namespace.ip("link", "del", "red")
    vrfs.sample()       # before or after the daemon hears of it
    wait_for(lambda: not any("collector 1" in line for line in vrfs.stage.sandbox.config_sections()[""]),
             "the end of the collector")
    vrfs.wait_lines(port1=["sflow enable"])
    vrfs.sample()
    vrfs.stage.configure("interface port1", "no sflow enable")      # behind the samples
    assert {name: network.exported_frames() for name, network in vrfs.networks.items()} == \
        dict.fromkeys(vrfs.networks, 0)


def test_a_vrf_made_again_takes_collectors_again(vrfs):
    vrfs.collect("vrf red", "v4")
    vrfs.stage.namespace.ip("link", "del", "red")
    wait_for(lambda: not any("collector 1" in line for line in vrfs.stage.sandbox.config_sections()[""]),
             "the end of the collector")
    refused = vrfs.stage.cli("configure terminal", f"sflow collector 1 destination {FAR['v4']} {PORT} vrf red")
    assert refused.status == 1
    add_device(vrfs.stage.namespace, "red", "type", "vrf", "table", "20")
    vrfs.stage.namespace.ip("link", "set", "red", "up")
    vrfs.stage.namespace.ip("link", "set", "to-red", "master", "red")
    vrfs.stage.sandbox.wait_interface("red")
    vrfs.collect("vrf red", "v4")
    assert vrfs.arrives("red") == NEAR["v4"]


def test_a_renamed_vrf_keeps_its_collector_under_the_new_name(vrfs):
    destination = f"sflow collector 1 destination {FAR['v4']} {PORT}"
    vrfs.collect("vrf red", "v4")
    for old, new in (("red", "green"), ("mgmt", "former")):
        vrfs.stage.namespace.ip_batch(f"link set {old} down", f"link set {old} name {new}", f"link set {new} up")
    vrfs.wait_lines([f"{destination} vrf green"])
    vrfs.stage.namespace.ip_batch(*vrfs.networks["red"].address_lines())
    assert vrfs.arrives("red") == NEAR["v4"]
    assert "green" in vrfs.stage.cli("show sflow").output
    # The name makes the management network.
    vrfs.stage.namespace.ip_batch("link set green down", "link set green name mgmt", "link set mgmt up")
    vrfs.wait_lines([f"{destination} oob"])
    vrfs.stage.namespace.ip_batch(*vrfs.networks["red"].address_lines())
    assert vrfs.arrives("red") == NEAR["v4"]


@FAMILIES
def test_an_interface_that_moves_takes_its_network_to_the_other_vrf(vrfs, family):
    vrfs.collect("vrf red", family)
    assert vrfs.arrives("red") == NEAR[family]
    namespace = vrfs.stage.namespace
    # The hosts change places: what is red by name is reached through blue from now on.
    for name, vrf in (("red", "blue"), ("blue", "red")):
        namespace.ip("link", "set", f"to-{name}", "master", vrf)
    for name in ("red", "blue"):
        namespace.ip_batch(*vrfs.networks[name].address_lines())
    assert vrfs.arrives("blue") == NEAR[family]


def test_a_collector_by_way_of_a_management_interface_moves_with_it(vrfs):
    destination = f"sflow collector 1 destination {FAR['v4']} {PORT}"
    vrfs.collect("oob via to-mgmt", "v4")
    assert vrfs.arrives("mgmt") == NEAR["v4"]
    vrfs.stage.cli("debug sflow conf")
    vrfs.stage.namespace.ip_batch("link set to-blue nomaster", "link set to-mgmt master blue")
    bound = f"msg ifx({vrfs.stage.ifindex('to-mgmt')}) vrf({vrfs.stage.ifindex('blue')})"
    wait_for(lambda: bound in vrfs.stage.daemon.log(), "the binding")
    # The old network is still in the VRF that the collector has left; the new one holds the host of the interface.
    assert vrfs.arrives("mgmt") == NEAR["v4"]
    vrfs.wait_lines([f"{destination} oob via to-mgmt"])


def test_a_saved_configuration_finds_its_vrfs_again(vrfs):
    line = vrfs.collect("vrf blue", "v4")
    vrfs.stage.cli("write memory")
    vrfs.stage.daemon.stop()
    vrfs.stage.ready()
    vrfs.wait_lines([line], port1=["sflow enable", "sflow flow collector 1"])
    assert vrfs.arrives("blue") == NEAR["v4"]
