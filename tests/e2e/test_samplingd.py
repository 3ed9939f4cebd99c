"""sflow-samplingd against a scripted daemon: real packets on a veth link, counted one by one."""
import contextlib
import json
import math
import os
import pathlib
import select
import signal
import socket
import struct
import threading

import pytest

from harness.capture import write_capture
from harness.daemon import BIN
from harness.domain_socket import (CAPACITY, CONFIG_REQUEST, COUNTER_RET, DEBUG, EGRESS, FLOW, GET_COUNTER,
                                   HEADER_LEN, IFX_IS_CONF, IFX_IS_CONF_RET, INGRESS, RATE_RET, DaemonEnd, rate_request,
                                   record, split)
from harness.sampler_totals import sampler_totals
from harness.wait import PATIENCE, wait_for

PACKETS = 1_000_000
FLOW_BYTES = 312
NO_INPUT = 0xFFFFFFFF
SNOOP = {"snoop": 1}
SHOW_INFORMATION = 2
SHOT = 2    # tc's verdict "drop"
FOREIGN_FILTER = ("tc", "filter", "add", "dev", "port1")
PASS_ALL = ("protocol", "all", "bpf", "bytecode", "1,6 0 0 0,", "flowid", "1:1")


class Daemon(DaemonEnd):
    """Keeps flow samples packed, so that a million of them is no burden, and can stop reading."""

    def __init__(self, path):
        super().__init__(path)
        self.reading = threading.Event()
        self.reading.set()
        self.clear()

    def clear(self):
        self.flow_packets = []
        self.flow_count = 0

    def _receive(self):
        flow_type = struct.pack("=I", FLOW)
        while True:
            self.reading.wait()
            try:
                packet = self.connection.recv(4096)
            except OSError:
                packet = b""
            if not packet:
                self.closed = True
                return
            self.packets.append(len(packet))
            if packet[:4] == flow_type and len(packet) % FLOW_BYTES == 0:
                self.flow_packets.append(packet)
                self.flow_count += len(packet) // FLOW_BYTES
                continue
            for kind, body in split(packet):
                self.received.append((kind, body))
                self.handle(kind, body)

    def flows(self):
        return [body for packet in self.flow_packets for _, body in split(packet)]

    def last_flow(self):
        return list(split(self.flow_packets[-1]))[-1][1]

    def settled(self, least=0):
        """Waits until there are `least` samples and no more arrive; returns how many there are."""
        wait_for(lambda: self.flow_count >= least, lambda: f"{least} samples, {self.flow_count} so far")
        last = [-1]

        def quiet():
            now = self.flow_count
            same, last[0] = now == last[0], now
            return same

        wait_for(quiet, "the samples to end", pause=0.3)
        return self.flow_count


class Stand:
    """`near` with port1, on which the service samples; `far` with the other end, eth0. No packet but the test's."""

    def __init__(self, make_namespace, make_sandbox):
        self.near, self.far = make_namespace("near"), make_namespace("far")
        for namespace in (self.near, self.far):
            namespace.run("sysctl", "-qw", "net.ipv6.conf.default.disable_ipv6=1")
        self.near.add_veth("port1", "eth0", self.far)
        self.sandbox = make_sandbox(self.near)
        self.index = self.near.ifindex("port1")
        self.daemon = Daemon(self.sandbox.domain_socket)
        self.service = None

    def start(self, *arguments):
        self.service = self.sandbox.start("sflow-samplingd", *arguments)
        wait_for(lambda: self.daemon.is_asked_for() or not self.service.running(), "a connection")
        assert self.service.running(), f"the service has ended: {self.service.log()}"
        self.daemon.accept()
        return self.daemon

    def generate(self, count, direction=INGRESS, **options):
        namespace, interface = (self.far, "eth0") if direction == INGRESS else (self.near, "port1")
        words = ["taskset", "-c", "0", BIN / "pktgen", "--interface", interface, "--count", count]
        for name, value in options.items():
            words += [f"--{name.replace('_', '-')}", value]
        return json.loads(namespace.run(*words).stdout)

    def received_packets(self):
        return int(self.near.run("cat", "/sys/class/net/port1/statistics/rx_packets").stdout)

    def hooks(self, interface="port1"):
        """Number of filters of the service on each side."""
        shown = [self.near.run("tc", "filter", "show", "dev", interface, side, check=False).stdout
                 for side in ("ingress", "egress")]
        return [text.count("handle") for text in shown]

    def qdisc(self):
        return self.near.run("tc", "qdisc", "show", "dev", "port1").stdout

    @contextlib.contextmanager
    def service_stopped(self):
        """The service stands still: what is done meanwhile is one step to it."""
        pid = self.service.popen.pid
        os.kill(pid, signal.SIGSTOP)
        try:
            wait_for(lambda: pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "T",
                     "the service to stand still")
            yield
        finally:
            os.kill(pid, signal.SIGCONT)

    def totals(self):
        """Totals of each sampler, from the service's own account."""
        return sampler_totals(self.service,
                              lambda: self.daemon.send(record(DEBUG, struct.pack("=ii", SHOW_INFORMATION, 0))))

    def sums(self):
        """Pool and samples taken, of all samplers together."""
        totals = self.totals().values()
        return sum(one.pool for one in totals), sum(one.taken for one in totals)

    def counters(self):
        return self.daemon.of(COUNTER_RET)

    def close(self):
        self.daemon.reading.set()
        self.daemon.close()


@pytest.fixture
def stand(make_namespace, make_sandbox):
    stand = Stand(make_namespace, make_sandbox)
    yield stand
    stand.close()


def sample(stand, rate, direction, **setting):
    """Sends PACKETS past a sampler; returns (packets that passed, samples)."""
    stand.daemon.clear()
    answer = stand.daemon.set_rate(stand.index, rate, direction, **setting)
    assert answer.ret == 0
    received = stand.received_packets()
    pool_before, taken_before = stand.sums()
    sent = stand.generate(PACKETS, direction)["packets"]
    assert sent == PACKETS

    def passed():
        return stand.received_packets() - received if direction == INGRESS else sent

    def all_there():
        pool, taken = stand.sums()
        return pool - pool_before == passed() and taken - taken_before == stand.daemon.flow_count

    wait_for(all_there, lambda: f"{stand.totals()} in the end, {stand.daemon.flow_count} samples of {passed()} packets",
             pause=0.2)
    return passed(), stand.daemon.flow_count


PLACES = [pytest.param(INGRESS, {}, id="ingress"), pytest.param(EGRESS, {}, id="egress"),
          pytest.param(INGRESS, SNOOP, id="snoop")]


@pytest.mark.parametrize("direction, setting", PLACES)
@pytest.mark.parametrize("rate", [16, 4096])
def test_estimates_lie_within_three_standard_errors(stand, rate, direction, setting):
    stand.start()
    # A right sampler misses three standard errors once in 370 times; twice in a row hardly ever.
    for _ in range(2):
        passed, samples = sample(stand, rate, direction, **setting)
        error = rate * math.sqrt(passed / rate * (1 - 1 / rate))
        if abs(samples * rate - passed) <= 3 * error:
            break
    else:
        pytest.fail(f"{samples} samples of {passed} packets at one in {rate}")
    info = stand.daemon.last_flow().info
    assert info.source_id == stand.index
    assert (info.ingress_ifx, info.egress_ifx) == ((stand.index, 0) if direction == INGRESS else (NO_INPUT, stand.index))
    assert info.drops_num == 0
    assert 0 < info.sample_pool <= 2 * PACKETS


@pytest.mark.parametrize("direction, setting", PLACES)
def test_at_rate_1_every_packet_is_a_sample(stand, direction, setting):
    stand.start("--ring-size", "512M")
    passed, samples = sample(stand, 1, direction, **setting)
    assert samples == passed
    info = stand.daemon.last_flow().info
    assert info.drops_num == 0
    assert info.sample_pool == passed
    assert max(stand.daemon.packets) == 3 * FLOW_BYTES


def captured(namespace, interface, outgoing):
    """A packet socket that keeps whole frames, to compare samples with."""
    everything = namespace.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    everything.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 24)
    everything.bind((interface, 3))

    def frames():
        got = []
        while select.select([everything], [], [], 0.3)[0]:
            frame, address = everything.recvfrom(65536)
            if (address[2] == socket.PACKET_OUTGOING) == outgoing:
                got.append(frame)
        everything.close()
        return got

    return frames


@pytest.mark.parametrize("direction, setting", PLACES)
def test_headers_and_lengths_are_those_of_the_frames(stand, direction, setting):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, direction, **setting).ret == 0
    namespace, interface = (stand.far, "eth0") if direction == INGRESS else (stand.near, "port1")
    frames = captured(namespace, interface, outgoing=True)
    stand.generate(200, direction, seed=5)
    assert stand.daemon.settled(200) == 200
    sent = frames()
    flows = stand.daemon.flows()
    assert [flow.header for flow in flows] == [frame[:128] for frame in sent]
    assert [flow.info.frame_len for flow in flows] == [len(frame) + 4 for frame in sent]
    assert {flow.info.strip_len for flow in flows} == {4}
    assert {flow.info[-4:] for flow in flows} == {(0, 0, 0, 0)}


@pytest.mark.parametrize("direction, setting", PLACES)
def test_the_vlan_tag_is_in_the_header_and_in_the_fields(stand, direction, setting):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, direction, **setting).ret == 0
    stand.generate(50, direction, vlan="100:5", size_range="200-200")
    assert stand.daemon.settled(50) == 50
    for flow in stand.daemon.flows():
        assert flow.header[12:16] == bytes([0x81, 0x00, 5 << 5, 100])
        assert flow.header[16:18] in (b"\x08\x00", b"\x86\xdd")
        assert len(flow.header) == 128
        assert flow.info.frame_len == 204
        assert flow.info[-4:] == ((100, 5, 0, 0) if direction == INGRESS else (0, 0, 100, 5))


def test_the_header_length_follows_the_daemon(stand):
    stand.daemon.header_len = 64
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    for length in (None, 256, 4):
        if length:
            stand.daemon.send(record(HEADER_LEN, struct.pack("=I", length)))
            stand.daemon.set_rate(stand.index, 1, INGRESS)
        stand.daemon.clear()
        stand.generate(10, size_range="300-300")
        stand.daemon.settled(10)
        assert {len(flow.header) for flow in stand.daemon.flows()} == {length or 64}


def test_a_forwarded_packet_keeps_its_input_on_egress(stand):
    stand.near.add_veth("port2", "eth2", stand.far)
    stand.near.ip("link", "add", "bridge", "type", "bridge")
    stand.near.ip("link", "set", "bridge", "up")
    for port in ("port1", "port2"):
        stand.near.ip("link", "set", port, "master", "bridge")
    # A port of a new bridge learns before it forwards unless spanning tree is off, which is the default.
    out = stand.near.ifindex("port2")
    stand.start()
    assert stand.daemon.set_rate(out, 1, EGRESS).ret == 0

    def forwarded():
        stand.generate(10, dst_mac="02:00:00:00:00:77")
        stand.daemon.settled()
        # The rest is what the host itself sends through its ports: neighbour discovery, group memberships.
        return [flow.info for flow in stand.daemon.flows() if flow.header[:6] == bytes.fromhex("020000000077")]

    for info in wait_for(forwarded, "the bridge to forward"):
        assert (info.source_id, info.ingress_ifx, info.egress_ifx) == (out, stand.index, out)


def add_link(namespace, *words):
    """Makes an interface, or skips the test where the kernel does not have this kind."""
    made = namespace.run("ip", "link", "add", *words, check=False)
    if made.returncode != 0:
        pytest.skip(f"this kernel has no such interface: ip link add {' '.join(map(str, words))}: {made.stderr.strip()}")


@pytest.mark.parametrize("vrf", [False, pytest.param(True, marks=pytest.mark.devices)], ids=["plain", "vrf"])
def test_a_routed_packet_keeps_its_input_on_egress(stand, vrf):
    if vrf:
        add_link(stand.near, "red", "type", "vrf", "table", "10")
        stand.near.ip("link", "set", "red", "up")
    stand.near.add_veth("port2", "eth2", stand.far)
    for number, port in enumerate(("port1", "port2"), 1):
        if vrf:
            stand.near.ip("link", "set", port, "master", "red")
        stand.near.ip("addr", "add", f"203.0.113.{16 * number}/28", "dev", port)
    where = ["vrf", "red"] if vrf else []
    stand.near.ip("neigh", "add", "203.0.113.33", "lladdr", "02:00:00:00:00:33", "dev", "port2")
    for network in ("198.51.100.0/24", "192.0.2.0/24"):     # pktgen's destinations and sources
        stand.near.ip("route", "add", network, "via", "203.0.113.33", *where)
    for name in ("ip_forward", "conf.all.rp_filter=0", "conf.port1.rp_filter=0"):
        stand.near.run("sysctl", "-qw", f"net.ipv4.{name}" if "=" in name else f"net.ipv4.{name}=1")
    mac = json.loads(stand.near.ip("-j", "link", "show", "port1"))[0]["address"]
    out = stand.near.ifindex("port2")
    stand.start()
    assert stand.daemon.set_rate(out, 1, EGRESS).ret == 0
    stand.generate(100, dst_mac=mac)
    assert stand.daemon.settled(1) > 0
    # A packet that came in through a member of a VRF shows the hook only the VRF itself.
    expected = 0 if vrf else stand.index
    assert {(flow.info.ingress_ifx, flow.info.egress_ifx) for flow in stand.daemon.flows()} == {(expected, out)}


def tag_of(protocol, vlan):
    return struct.pack("!HH", protocol, vlan)


@pytest.mark.parametrize("direction, setting", PLACES)
@pytest.mark.devices
def test_a_vlan_device_shows_the_tag_that_it_takes_off_and_adds(stand, direction, setting):
    add_link(stand.near, "link", "port1", "name", "port1.100", "type", "vlan", "id", "100")
    stand.near.ip("link", "set", "port1.100", "up")
    index = stand.near.ifindex("port1.100")
    stand.start()
    assert stand.daemon.set_rate(index, 1, direction, ifx_type=3, **setting).ret == 0
    if direction == INGRESS:
        stand.generate(50, vlan="100", size_range="200-200")
    else:
        stand.near.run(BIN / "pktgen", "--interface", "port1.100", "--count", 50, "--size-range", "196-196")
    assert stand.daemon.settled(50) == 50
    for flow in stand.daemon.flows():
        assert flow.info.source_id == index
        assert flow.header[12:16] == tag_of(0x8100, 100)
        assert flow.header[16:18] in (b"\x08\x00", b"\x86\xdd")
        assert flow.info.frame_len == 204
        assert flow.info[-4:] == ((100, 0, 0, 0) if direction == INGRESS else (0, 0, 100, 0))


@pytest.mark.devices
@pytest.mark.parametrize("direction, setting", PLACES)
def test_a_vlan_device_on_another_one_shows_both_tags(stand, direction, setting):
    add_link(stand.near, "link", "port1", "name", "outer", "type", "vlan", "protocol", "802.1ad", "id", "200")
    add_link(stand.near, "link", "outer", "name", "inner", "type", "vlan", "id", "100")
    stand.near.ip_batch("link set outer up", "link set inner up")
    add_link(stand.far, "link", "eth0", "name", "outer", "type", "vlan", "protocol", "802.1ad", "id", "200")
    add_link(stand.far, "link", "outer", "name", "inner", "type", "vlan", "id", "100")
    stand.far.ip_batch("link set outer up", "link set inner up")
    stand.start()
    assert stand.daemon.set_rate(stand.near.ifindex("inner"), 1, direction, ifx_type=3, **setting).ret == 0
    sender = stand.far if direction == INGRESS else stand.near
    sender.run(BIN / "pktgen", "--interface", "inner", "--count", 20, "--size-range", "196-196")
    assert stand.daemon.settled(20) == 20
    for flow in stand.daemon.flows():
        assert flow.header[12:20] == tag_of(0x88A8, 200) + tag_of(0x8100, 100)
        assert flow.info.frame_len == 208
        assert flow.info[-4:] == ((200, 0, 0, 0) if direction == INGRESS else (0, 0, 200, 0))


@pytest.mark.devices
@pytest.mark.parametrize("kind, direction, setting", [
    ("bond", INGRESS, {}), ("bond", EGRESS, {}), ("bond", INGRESS, SNOOP),
    ("team", INGRESS, {})],     # it sends nothing until its daemon has chosen a mode
    ids=["bond-ingress", "bond-egress", "bond-snoop", "team-ingress"])
def test_an_aggregate_and_a_vlan_device_on_it_are_sampled(stand, kind, direction, setting):
    add_link(stand.near, "lag1", "type", kind, *(["mode", "active-backup"] if kind == "bond" else []))
    stand.near.ip_batch("link set port1 down", "link set port1 master lag1", "link set port1 up", "link set lag1 up",
                        "link add link lag1 name lag1.100 type vlan id 100", "link set lag1.100 up")
    if kind == "bond":
        wait_for(lambda: "state UP" in stand.near.ip("link", "show", "lag1"), "the aggregate")
    lag, vlan = stand.near.ifindex("lag1"), stand.near.ifindex("lag1.100")
    stand.start()
    for index, ifx_type in ((lag, 2), (vlan, 3)):
        assert stand.daemon.set_rate(index, 1, direction, ifx_type=ifx_type, **setting).ret == 0
    if direction == INGRESS:
        stand.generate(30, vlan="100", size_range="200-200")
    else:
        stand.near.run(BIN / "pktgen", "--interface", "lag1.100", "--count", 30, "--size-range", "196-196")

    def tagged(index):      # what the kernel itself sends is not
        return [flow for flow in stand.daemon.flows()
                if flow.info.source_id == index and flow.header[12:16] == tag_of(0x8100, 100)]

    wait_for(lambda: len(tagged(lag)) >= 30 and len(tagged(vlan)) >= 30, "the samples of both")
    for index in (lag, vlan):
        flows = tagged(index)
        assert len(flows) == 30
        assert {flow.info.frame_len for flow in flows} == {204}
        assert {flow.info[-4:] for flow in flows} == {(100, 0, 0, 0) if direction == INGRESS else (0, 0, 100, 0)}


@pytest.mark.devices
def test_an_aggregate_and_its_member_are_sampled_each_on_its_own(stand):
    add_link(stand.near, "bond0", "type", "bond", "mode", "active-backup")
    stand.near.ip("link", "set", "port1", "down")
    stand.near.ip("link", "set", "port1", "master", "bond0")
    stand.near.ip("link", "set", "bond0", "up")
    wait_for(lambda: "state UP" in stand.near.ip("link", "show", "bond0"), "the aggregate")
    index = stand.near.ifindex("bond0")
    stand.start()
    assert stand.daemon.set_rate(index, 1, INGRESS, ifx_type=2).ret == 0
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.generate(50)
    assert stand.daemon.settled(100) == 100
    sources = [flow.info.source_id for flow in stand.daemon.flows()]
    assert (sources.count(index), sources.count(stand.index)) == (50, 50)


def test_refusals_have_codes_of_their_own_and_reasons_in_the_log(stand):
    stand.near.run("ip", "tuntap", "add", "mode", "tun", "name", "tun0")
    stand.near.run("tc", "qdisc", "add", "dev", "port1", "ingress")
    stand.start()
    answers = [
        (stand.daemon.set_rate(987654, 16, INGRESS).ret, -20, "no such interface"),
        (stand.daemon.set_rate(stand.index, 16, EGRESS, acl_id=3, acl_name="web").ret, -21, "in this direction"),
        (stand.daemon.set_rate(stand.index, 16, INGRESS, acl_id=3, acl_name="web").ret, -26, "is not published"),
        (stand.daemon.set_rate(stand.index, 16, INGRESS, acl_name="web").ret, -23, "makes no sense"),
        (stand.daemon.set_rate(stand.index, 16, EGRESS).ret, -22, 'a qdisc of kind "ingress" in the place of clsact'),
        (stand.daemon.set_rate(stand.index, 16, 3).ret, -23, "makes no sense"),
        (stand.daemon.set_rate(stand.index, -1, INGRESS).ret, -23, "makes no sense"),
        (stand.daemon.set_rate(stand.near.ifindex("tun0"), 16, INGRESS).ret, -24, "type of interface"),
        (stand.daemon.set_rate(stand.index, 0, EGRESS).ret, 0, ""),
        (stand.daemon.set_rate(987654, 0, INGRESS).ret, 0, ""),
        (stand.daemon.set_rate(stand.index, 0, INGRESS, acl_id=3).ret, 0, ""),
    ]
    log = stand.service.log()
    for got, expected, reason in answers:
        assert got == expected
        assert reason in log
    assert "ingress" in stand.qdisc()   # not ours to take away


def test_snooping_leaves_the_hooks_alone_and_excludes_plain_ingress(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS, **SNOOP).ret == 0
    assert stand.hooks() == [0, 0]
    stand.generate(100)
    assert stand.daemon.settled(100) == 100
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.daemon.clear()
    stand.generate(100)
    assert stand.daemon.settled(100) == 100    # not both
    assert stand.daemon.set_rate(stand.index, 0, INGRESS, **SNOOP).ret == 0     # does not run any more
    stand.daemon.clear()
    stand.generate(100)
    assert stand.daemon.settled(100) == 100


def test_a_rate_change_keeps_the_hook_and_the_pool(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.generate(100)
    stand.daemon.settled(100)
    before = stand.near.run("tc", "filter", "show", "dev", "port1", "ingress").stdout
    for rate in (0, 0, 2, 2, 0, 0, 1, 1):
        assert stand.daemon.set_rate(stand.index, rate, INGRESS).ret == 0
    stand.daemon.clear()
    stand.generate(100)
    assert stand.daemon.settled(100) == 100
    assert stand.daemon.last_flow().info.sample_pool == 200
    wait_for(lambda: "port1 ingress" in stand.totals(), "the sampler")
    assert stand.near.run("tc", "filter", "show", "dev", "port1", "ingress").stdout == before


def test_off_stops_at_once_and_takes_the_hook_away_a_little_later(stand):
    stand.start()
    for direction in (INGRESS, EGRESS):
        assert stand.daemon.set_rate(stand.index, 1, direction).ret == 0
    assert stand.hooks() == [1, 1]
    assert stand.daemon.set_rate(stand.index, 0, INGRESS).ret == 0
    stand.generate(100)
    assert stand.daemon.settled() == 0
    wait_for(lambda: stand.hooks() == [0, 1], "the ingress hook to go")
    assert "clsact" in stand.qdisc()
    assert stand.daemon.set_rate(stand.index, 0, EGRESS).ret == 0
    wait_for(lambda: stand.hooks() == [0, 0] and "clsact" not in stand.qdisc(), "the egress hook and the qdisc to go")


def test_a_qdisc_of_somebody_else_stays(stand):
    stand.near.run("tc", "qdisc", "add", "dev", "port1", "clsact")
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    assert stand.service.stop(signal.SIGTERM) == 0
    assert stand.hooks() == [0, 0]
    assert "clsact" in stand.qdisc()


def test_a_filter_of_somebody_else_keeps_our_qdisc(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.near.run(*FOREIGN_FILTER, "egress", "prio", "9", *PASS_ALL)
    assert stand.service.stop(signal.SIGTERM) == 0
    assert "clsact" in stand.qdisc()
    assert stand.hooks() == [0, 1]


def test_a_filter_of_somebody_else_in_our_place_is_not_replaced(stand):
    stand.near.run("tc", "qdisc", "add", "dev", "port1", "clsact")
    stand.near.run(*FOREIGN_FILTER, "ingress", "prio", "1", "handle", "0x5f10", *PASS_ALL)
    before = stand.near.run("tc", "filter", "show", "dev", "port1", "ingress").stdout
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == -22
    assert "a foreign filter has priority 1 and our handle" in stand.service.log()
    assert stand.near.run("tc", "filter", "show", "dev", "port1", "ingress").stdout == before


def test_a_filter_that_drops_everything_hides_nothing_from_the_sampler(stand):
    stand.near.run("tc", "qdisc", "add", "dev", "port1", "clsact")
    stand.near.run(*FOREIGN_FILTER, "ingress", "prio", "2", "protocol", "all", "bpf", "da", "bytecode", f"1,6 0 0 {SHOT},")
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.generate(50)
    assert stand.daemon.settled(50) == 50


@pytest.mark.parametrize("taking", [("qdisc", "del", "dev", "port1", "clsact"), ("filter", "del", "dev", "port1", "ingress")])
def test_a_hook_that_somebody_else_removes_is_put_back(stand, taking):
    stand.start()
    for direction in (INGRESS, EGRESS):
        assert stand.daemon.set_rate(stand.index, 1, direction).ret == 0
    stand.near.run("tc", *taking)
    wait_for(lambda: stand.hooks() == [1, 1], lambda: f"the hooks {stand.hooks()}\n{stand.service.log()}")
    for direction in (INGRESS, EGRESS):
        stand.daemon.clear()
        stand.generate(10, direction)
        assert stand.daemon.settled(10) == 10
    assert stand.service.log().count("ingress hook: somebody else removed it, it is back") == 1
    assert stand.service.stop(signal.SIGTERM) == 0
    assert stand.hooks() == [0, 0]


def test_a_hook_whose_place_is_taken_comes_back_when_the_place_is_free(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    with stand.service_stopped():
        stand.near.run("tc", "qdisc", "del", "dev", "port1", "clsact")
        stand.near.run("tc", "qdisc", "add", "dev", "port1", "ingress")
    refusal = "ingress hook: somebody else removed it and it cannot be put back: the interface has a qdisc of kind"
    wait_for(lambda: refusal in stand.service.log(), stand.service.log)
    assert "qdisc ingress" in stand.qdisc()
    stand.near.run("tc", "qdisc", "del", "dev", "port1", "ingress")
    wait_for(lambda: stand.hooks() == [1, 0], lambda: f"the hook\n{stand.service.log()}")
    assert stand.service.log().count(refusal) == 1
    stand.generate(10)
    assert stand.daemon.settled(10) == 10


def test_a_qdisc_that_somebody_else_puts_in_the_place_of_ours_stays(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    with stand.service_stopped():
        stand.near.run("tc", "qdisc", "del", "dev", "port1", "clsact")
        stand.near.run("tc", "qdisc", "add", "dev", "port1", "clsact")
    wait_for(lambda: stand.hooks() == [1, 0], lambda: f"the hook\n{stand.service.log()}")
    assert stand.service.stop(signal.SIGTERM) == 0
    assert stand.hooks() == [0, 0] and "clsact" in stand.qdisc()


def test_a_new_setting_puts_a_hook_back_as_well(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    with stand.service_stopped():
        stand.near.run("tc", "filter", "del", "dev", "port1", "ingress")
        stand.near.run(*FOREIGN_FILTER, "ingress", "prio", "1", "handle", "0x5f10", *PASS_ALL)
    wait_for(lambda: "a foreign filter has priority 1 and our handle, not sampled until" in stand.service.log(),
             stand.service.log)
    assert stand.daemon.set_rate(stand.index, 2, INGRESS).ret == -22
    stand.near.run("tc", "filter", "del", "dev", "port1", "ingress")
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    assert stand.hooks() == [1, 0]


def test_hooks_of_a_killed_instance_are_removed_at_the_next_start(stand):
    stand.start()
    for direction in (INGRESS, EGRESS):
        assert stand.daemon.set_rate(stand.index, 1, direction).ret == 0
    stand.service.stop(signal.SIGKILL)
    assert stand.hooks() == [1, 1]
    stand.daemon.disconnect()
    stand.daemon.received.clear()
    stand.start()
    assert stand.hooks() == [0, 0]
    assert "removed 2 filters" in stand.service.log()
    stand.generate(10)
    assert stand.daemon.settled() == 0


def test_a_second_instance_leaves_the_hooks_of_the_first_alone(stand):
    stand.start()
    for direction in (INGRESS, EGRESS):
        assert stand.daemon.set_rate(stand.index, 1, direction).ret == 0
    second = stand.near.run(BIN / "sflow-samplingd", "--socket", stand.sandbox.domain_socket, check=False)
    assert second.returncode == 1
    assert second.stderr == (f"tc hooks: another sflow-samplingd (process {stand.service.popen.pid}) samples in this "
                             "network namespace\n")
    assert stand.hooks() == [1, 1]
    stand.generate(10)
    assert stand.daemon.settled(10) == 10


def test_instances_in_other_namespaces_do_not_get_into_each_others_way(stand, make_sandbox):
    stand.start()
    other = make_sandbox(stand.far)
    daemon = Daemon(other.domain_socket)
    try:
        other.start("sflow-samplingd")
        daemon.accept()
        assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
        assert daemon.set_rate(stand.far.ifindex("eth0"), 1, EGRESS).ret == 0
    finally:
        daemon.close()


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_signal_to_end_removes_all_hooks(stand, how):
    stand.sandbox.wrapper = ["env", "--default-signal=HUP"]     # who runs the tests may have it ignored
    stand.start()
    for direction in (INGRESS, EGRESS):
        assert stand.daemon.set_rate(stand.index, 1, direction).ret == 0
    assert stand.service.stop(how) == 0
    assert stand.hooks() == [0, 0]


def test_a_hangup_that_is_ignored_from_the_start_ends_nothing(stand):
    stand.sandbox.wrapper = ["nohup"]
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.service.popen.send_signal(signal.SIGHUP)
    assert stand.daemon.set_rate(stand.index, 2, INGRESS).ret == 0      # answered behind the signal
    assert stand.service.running() and stand.hooks() == [1, 0]


def test_when_the_daemon_goes_sampling_stops_and_when_it_returns_all_is_new(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.generate(50)
    stand.daemon.settled(50)
    stand.daemon.close()
    wait_for(lambda: stand.hooks() == [0, 0] and "clsact" not in stand.qdisc(), "the hooks to go")
    stand.daemon = Daemon(stand.sandbox.domain_socket)
    stand.daemon.accept()
    assert [kind for kind, _ in stand.daemon.received][:2] == [CONFIG_REQUEST, CAPACITY]
    assert stand.hooks() == [0, 0]
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.generate(50)
    assert stand.daemon.settled(50) == 50
    assert stand.daemon.last_flow().info.sample_pool == 50


def test_samples_that_are_lost_are_counted(stand):
    stand.start("--ring-size", "64K")
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.daemon.reading.clear()
    stand.generate(200_000)
    stand.daemon.reading.set()
    wait_for(lambda: stand.sums() == (200_000, stand.daemon.flow_count),
             lambda: f"{stand.totals()} in the end, {stand.daemon.flow_count} samples", pause=0.2)
    _, pool, taken, dropped = stand.totals()["port1 ingress"]
    assert dropped > 0
    assert taken + dropped == pool
    stand.generate(1)
    stand.daemon.settled(taken + 1)
    info = stand.daemon.last_flow().info
    assert info.sample_pool == 200_001
    assert info.drops_num == dropped


def test_answers_arrive_while_samples_wait(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.daemon.reading.clear()
    stand.generate(100_000)
    for _ in range(50):
        stand.daemon.send(rate_request(stand.index, 1, INGRESS), rate_request(stand.index, 1, EGRESS))
    stand.daemon.reading.set()
    answers = stand.daemon.wait_for(RATE_RET, 101)
    assert len(answers) == 101
    assert [answer.direct for answer in answers[1:]] == [INGRESS, EGRESS] * 50


def test_attachments_are_answered(stand):
    stand.start()
    for flag, cid in ((1, 1), (2, 2)):
        stand.daemon.send(record(IFX_IS_CONF, struct.pack("=Iii", stand.index, flag, cid)))
    answers = stand.daemon.wait_for(IFX_IS_CONF_RET, 2)
    assert [tuple(answer) for answer in answers] == [(stand.index, 1, 1, 0), (stand.index, 2, 2, 0)]


def test_counters_are_the_kernels(stand):
    stand.start()
    before = stand.received_packets()
    stand.generate(1000)
    wait_for(lambda: stand.received_packets() == before + 1000, "the packets to be received")
    stand.daemon.send(record(GET_COUNTER, struct.pack("=Ii", stand.index, 1)))
    answer = stand.daemon.wait_for(COUNTER_RET)[0]
    statistics = {name: int(stand.near.run("cat", f"/sys/class/net/port1/statistics/{name}").stdout)
                  for name in ("rx_bytes", "rx_packets", "multicast", "tx_bytes", "tx_packets")}
    assert answer.ifx == answer.generic["ifIndex"] == stand.index
    assert answer.generic["ifInOctets"] == statistics["rx_bytes"]
    assert answer.generic["ifInUcastPkts"] == statistics["rx_packets"] - statistics["multicast"]
    assert answer.generic["ifOutOctets"] == statistics["tx_bytes"]
    assert answer.generic["ifOutUcastPkts"] == statistics["tx_packets"]
    assert answer.generic["ifInUnknownProtos"] == 0xFFFFFFFF
    assert answer.generic["ifStatus"] == 3
    assert answer.ethernet[4] == 0xFFFFFFFF    # SQE test errors


def test_a_burst_of_requests_for_a_thousand_interfaces_does_not_hold_up_samples(stand):
    stand.near.add_veth("other", "far-other")
    batch = "".join(f"link add link other many{number} type macvlan\n" for number in range(1000))
    stand.near.run("ip", "-batch", "-", input=batch)
    indexes = [int(line.split(":")[0]) for line in stand.near.ip("-o", "link", "show", "type", "macvlan").splitlines()]
    assert len(indexes) == 1000
    stand.start("--ring-size", "64M")      # room for all samples, however late the service reads them
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    requests = [record(GET_COUNTER, struct.pack("=Ii", index, 1)) for index in indexes]
    for first in range(0, len(requests), 50):
        stand.daemon.send(*requests[first:first + 50])
    stand.generate(100_000)
    answers = stand.daemon.wait_for(COUNTER_RET, 1000)
    assert [answer.ifx for answer in answers] == indexes
    assert stand.daemon.settled(100_000) == 100_000
    assert stand.daemon.last_flow().info.drops_num == 0


def test_an_interface_that_goes_is_forgotten_and_can_come_back(stand):
    stand.start()
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.near.ip("link", "del", "port1")
    wait_for(lambda: not stand.totals(), "the sampler to go")
    assert stand.daemon.set_rate(stand.index, 0, INGRESS).ret == 0
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == -20
    stand.near.add_veth("port1", "eth0", stand.far)
    stand.index = stand.near.ifindex("port1")
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    stand.generate(10)
    assert stand.daemon.settled(10) == 10


def test_records_that_are_wrong_do_no_harm(stand):
    stand.start()
    stand.daemon.send(struct.pack("=II", 258, 0))
    stand.daemon.send(struct.pack("=II", 258, 4000))
    stand.daemon.send(record(258, bytes(10)), record(12345))
    stand.daemon.send(b"abc")
    assert stand.daemon.set_rate(stand.index, 16, INGRESS).ret == 0
    assert stand.service.running()


def drop_capabilities(*keep):
    """Words that run a command with these capabilities only."""
    return ["setpriv", "--bounding-set", ",".join(("-all", *(f"+{name}" for name in keep))), "--inh-caps", "-all"]


@pytest.mark.parametrize("keep, missing", [
    ((), "CAP_NET_ADMIN, CAP_NET_RAW, CAP_BPF (or CAP_SYS_ADMIN), CAP_PERFMON (or CAP_SYS_ADMIN)"),
    (("net_admin", "net_raw", "perfmon"), "CAP_BPF (or CAP_SYS_ADMIN)"),
    (("net_admin", "net_raw", "bpf"), "CAP_PERFMON (or CAP_SYS_ADMIN)"),
    (("net_raw", "bpf", "perfmon"), "CAP_NET_ADMIN"),
    (("net_admin", "bpf", "perfmon"), "CAP_NET_RAW"),
])
def test_a_missing_privilege_is_one_line_and_status_1(stand, keep, missing):
    done = stand.near.run(*drop_capabilities(*keep), BIN / "sflow-samplingd", "--socket", stand.sandbox.domain_socket,
                          check=False)
    assert done.returncode == 1
    assert done.stderr == f"ebpf backend: privilege: missing {missing}\n"


def test_four_capabilities_are_enough(stand):
    words = stand.near.command(*drop_capabilities("net_admin", "net_raw", "bpf", "perfmon"), BIN / "sflow-samplingd", "--socket",
                               stand.sandbox.domain_socket)
    process = stand.near.popen(*words[words.index("setpriv"):])
    try:
        stand.daemon.accept()
        for setting in ({"direct": INGRESS}, {"direct": EGRESS}, {"direct": INGRESS, "snoop": 1}):
            assert stand.daemon.set_rate(stand.index, 1, **setting).ret == 0
        stand.generate(10)
        assert stand.daemon.settled(10) == 10
    finally:
        process.send_signal(signal.SIGTERM)
        assert process.wait(PATIENCE) == 0
    assert stand.hooks() == [0, 0]


def test_a_replay_plays_a_capture_as_if_seen_on_an_interface(stand):
    frames = [bytes([2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 8, 0]) + number.to_bytes(4, "big") * 20
              for number in range(5000)]
    capture = stand.sandbox.path / "capture.pcap"
    write_capture(capture, frames)
    stand.start("--backend", "replay", "--replay", capture, "--replay-interface", "port1", "--replay-speed", "0")
    assert stand.daemon.of(CAPACITY) == [1 + 4 + 16 + 64 + 128 + 256]     # ingress, also limited to access lists
    assert stand.daemon.set_rate(stand.index, 16, EGRESS).ret == -22
    assert stand.daemon.set_rate(stand.index, 1, INGRESS).ret == 0
    assert stand.daemon.settled(5000) == 5000
    flows = stand.daemon.flows()
    assert [flow.header for flow in flows] == frames
    assert [flow.info.sample_pool for flow in flows] == list(range(1, 5001))
    assert {(flow.info.source_id, flow.info.ingress_ifx, flow.info.frame_len) for flow in flows} == {
        (stand.index, stand.index, 98)}
    wait_for(lambda: "ended after 1 pass: 5000 packets, 470000 octets, 5000 samples, still serving"
             in stand.service.log(), "the totals")
    stand.daemon.send(record(GET_COUNTER, struct.pack("=Ii", stand.index, 1)))
    generic = stand.daemon.wait_for(COUNTER_RET)[0].generic
    assert (generic["ifInOctets"], generic["ifInUcastPkts"]) == (470000, 5000)
    assert stand.service.stop(signal.SIGINT) == 0


def test_the_daemons_end_of_a_replay_is_no_loss(stand):
    frames = [bytes(60)] * 20_000
    capture = stand.sandbox.path / "capture.pcap"
    write_capture(capture, frames)
    stand.start("--backend", "replay", "--replay", capture, "--replay-interface", "port1", "--replay-speed", "0")
    stand.daemon.reading.clear()
    stand.daemon.send(rate_request(stand.index, 1, INGRESS))
    wait_for(lambda: "begins" in stand.service.log(), "the replay to begin")
    stand.daemon.reading.set()
    stand.daemon.wait_for(RATE_RET)
    assert stand.daemon.settled(20_000) == 20_000
    assert stand.daemon.last_flow().info.drops_num == 0
