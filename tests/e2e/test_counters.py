"""Counters that never fall: what starts the kernel's again goes into the daemon's base, once, whoever is killed."""
import random
import signal
import struct

import pytest

from harness.addresses import HOST4, SWITCH4
from harness.capture import write_capture
from harness.daemon import BIN
from harness.domain_socket import (COUNTER_RET, GET_COUNTER, IFX_IS_CONF, IFX_IS_CONF_RET, INGRESS, UPDATE_COUNTER,
                                   DaemonEnd, record)
from harness.wait import wait_for

COUNTER_COLLECTOR = 2


class Port:
    """port1 of `switch`, which can be made again: a macvlan device on a link to eth0 of `host`.

    Not the link itself: a veth device that is removed has lost its received packets when the kernel says farewell.
    """

    MAC = "02:00:00:00:00:05"

    def __init__(self, switch, host):
        self.switch, self.host = switch, host
        for namespace in (switch, host):    # no packet but the test's
            namespace.run("sysctl", "-qw", "net.ipv6.conf.default.disable_ipv6=1")
        switch.add_veth("uplink", "eth9", host)
        self.indexes = []
        self.make()

    @property
    def index(self):
        return self.indexes[-1]

    def make(self):
        self.switch.ip("link", "add", "link", "uplink", "name", "port1", "address", self.MAC, "type", "macvlan")
        self.switch.ip("link", "set", "port1", "up")
        self.indexes.append(self.switch.ifindex("port1"))

    def make_again(self):
        self.switch.ip("link", "del", "port1")
        self.make()
        return self.index

    def received(self):
        return int(self.switch.run("cat", "/sys/class/net/port1/statistics/rx_packets").stdout)

    def traffic(self, packets):
        expected = self.received() + packets
        self.host.run(BIN / "pktgen", "--interface", "eth9", "--dst-mac", self.MAC, "--count", packets)
        wait_for(lambda: self.received() == expected, lambda: f"{expected} packets, {self.received()} so far")


# ---- A scripted daemon, which sees every record

@pytest.fixture
def stand(make_namespace, make_sandbox):
    stand = Stand(make_namespace, make_sandbox)
    yield stand
    stand.daemon.close()


class Stand:
    def __init__(self, make_namespace, make_sandbox):
        self.near = make_namespace("near")
        self.port = Port(self.near, make_namespace("far"))
        self.sandbox = make_sandbox(self.near)
        self.daemon = DaemonEnd(self.sandbox.domain_socket)
        self.start()

    def start(self, *arguments):
        self.service = self.sandbox.start("sflow-samplingd", *arguments)
        self.daemon.accept()

    def restart(self, *arguments):
        self.service.stop(signal.SIGKILL)
        wait_for(lambda: self.daemon.closed, "the end of the connection")
        self.daemon.disconnect()
        self.start(*arguments)

    def attach(self, index):
        count = len(self.daemon.of(IFX_IS_CONF_RET))
        self.daemon.send(record(IFX_IS_CONF, struct.pack("=Iii", index, COUNTER_COLLECTOR, 1)))
        self.daemon.wait_for(IFX_IS_CONF_RET, count + 1)

    def ask(self, index):
        """The next report for this interface."""
        count = len(self.daemon.of(COUNTER_RET))
        self.daemon.send(record(GET_COUNTER, struct.pack("=Ii", index, 1)))
        return self.daemon.wait_for(COUNTER_RET, count + 1)[count].generic

    def updates(self):
        return [(update.ifx, update.generic["ifInUcastPkts"]) for update in self.daemon.of(UPDATE_COUNTER)]


def test_a_device_made_again_under_its_name_is_one_update_with_the_kernels_last_word(stand):
    stand.port.traffic(1000)
    assert stand.ask(stand.port.index)["ifInUcastPkts"] == 1000
    stand.port.traffic(500)    # nobody asks before the device goes
    again = stand.port.make_again()
    stand.port.traffic(70)
    stand.attach(again)
    assert stand.ask(again)["ifInUcastPkts"] == 70
    assert stand.updates() == [(again, 1500)]
    assert stand.ask(again)["ifInUcastPkts"] == 70
    assert stand.updates() == [(again, 1500)]


def test_the_lost_part_is_reported_once_although_the_service_is_killed(stand):
    stand.port.traffic(1000)
    stand.ask(stand.port.index)
    stand.restart()
    assert stand.ask(stand.port.index)["ifInUcastPkts"] == 1000
    again = stand.port.make_again()
    stand.restart()
    stand.attach(again)
    assert stand.ask(again)["ifInUcastPkts"] == 0
    stand.restart()
    assert stand.ask(again)["ifInUcastPkts"] == 0
    assert stand.updates() == [(again, 1000)]


def test_a_report_waits_for_the_daemon_to_have_the_update(stand):
    stand.port.traffic(1000)
    stand.ask(stand.port.index)
    stand.daemon.keep_bases = False
    again = stand.port.make_again()
    stand.attach(again)
    reports = len(stand.daemon.of(COUNTER_RET))
    stand.daemon.send(record(GET_COUNTER, struct.pack("=Ii", again, 1)))
    update = stand.daemon.wait_for(UPDATE_COUNTER)[0]
    # An answer to a later request shows that the report is not merely on its way.
    stand.daemon.send(record(IFX_IS_CONF, struct.pack("=Iii", again, 1, 1)))
    stand.daemon.wait_for(IFX_IS_CONF_RET, 2)
    assert len(stand.daemon.of(COUNTER_RET)) == reports
    stand.daemon.add_to_base(update)
    stand.daemon.wait_for(COUNTER_RET, reports + 1)
    assert stand.updates() == [(again, 1000)]


def test_an_update_that_a_killed_service_had_sent_is_not_sent_again(stand):
    stand.port.traffic(1000)
    stand.ask(stand.port.index)
    stand.daemon.keep_bases = False
    again = stand.port.make_again()
    stand.attach(again)
    stand.daemon.send(record(GET_COUNTER, struct.pack("=Ii", again, 1)))
    update = stand.daemon.wait_for(UPDATE_COUNTER)[0]
    stand.restart()
    stand.daemon.send(record(GET_COUNTER, struct.pack("=Ii", again, 1)))
    stand.daemon.add_to_base(update)    # the daemon was slow
    stand.daemon.wait_for(COUNTER_RET, 2)
    assert stand.updates() == [(again, 1000)]


def test_counters_that_start_again_on_the_same_device_are_added_up(stand):
    """The counters of a replay start with the service: a driver reset that can be had at will."""
    capture = stand.sandbox.path / "capture.pcap"
    write_capture(capture, [bytes([2, 0, 0, 0, 0, 1, 2, 0, 0, 0, 0, 2, 8, 0]) + bytes(50)] * 700)
    replay = ("--backend", "replay", "--replay", capture, "--replay-interface", "port1", "--replay-speed", "0")
    for round_number in range(1, 4):
        stand.restart(*replay)
        assert stand.ask(stand.port.index)["ifInUcastPkts"] == 0
        assert stand.daemon.set_rate(stand.port.index, 100, INGRESS).ret == 0
        wait_for(lambda: stand.service.log().count("ended after 1 pass") == round_number, "the replay to end")
        assert stand.ask(stand.port.index)["ifInUcastPkts"] == 700
    assert stand.updates() == [(stand.port.index, 700)] * 2


# ---- Real processes

class World:
    """sflowd and sflow-samplingd on a switch whose port1 is polled; counts what is sent to the port."""

    def __init__(self, link, seed):
        self.link = link
        self.random = random.Random(seed)
        link.switch.ip("link", "del", "port1")    # a port of another kind bears its name here
        self.port = Port(link.switch, link.host)
        self.sent = 0
        link.start()
        self.collector = link.collector()
        self.configure(f"sflow agent address {SWITCH4}", f"sflow collector 1 destination {HOST4} 6343",
                       "sflow counter interval 3")
        self.configure_port()

    def configure(self, *commands):
        wait_for(lambda: self.link.sandbox.cli("configure terminal", *commands).status == 0, f"{commands}")

    def configure_port(self):
        self.link.sandbox.wait_interface("port1")
        self.configure("interface port1", "sflow counter collector 1", "sflow enable ingress")
        wait_for(lambda: "sflow counter collector" in (config := self.link.sandbox.running_config())
                 and "sflow enable" in config, "the settings to be confirmed")
        assert self.link.sandbox.cli("write memory").status == 0
        # A port that has never been asked for is not remembered.
        wait_for(lambda: any(sample.source_index == self.port.index for sample in self.collector.counters()),
                 "the port to be exported")

    # What can happen

    def traffic(self):
        packets = self.random.randrange(1, 2000)
        self.port.traffic(packets)
        self.sent += packets

    def kill_service(self):
        self.link.service.stop(signal.SIGKILL)
        if self.random.random() < 0.5:
            self.traffic()
        self.link.service = self.link.sandbox.start("sflow-samplingd")

    def kill_daemon(self):
        self.link.daemon.stop(signal.SIGKILL)
        if self.random.random() < 0.5:
            self.traffic()
        self.start_daemon()

    def start_daemon(self):
        self.link.daemon = self.link.sandbox.start_sflowd()
        self.link.sandbox.ready()

    def make_again(self):
        self.port.make_again()
        self.configure_port()

    def make_again_without_service(self):
        self.catch_up()    # what nobody has seen of a device that goes is lost
        self.link.service.stop(signal.SIGKILL)
        self.port.make_again()
        self.link.service = self.link.sandbox.start("sflow-samplingd")
        self.configure_port()

    def make_again_without_daemon(self):
        self.link.daemon.stop(signal.SIGKILL)
        self.traffic()
        self.port.make_again()
        self.traffic()
        self.start_daemon()
        self.configure_port()

    def run(self, steps):
        actions = [self.traffic, self.kill_service, self.kill_daemon, self.make_again,
                   self.make_again_without_service, self.make_again_without_daemon]
        for action in self.random.choices(actions, k=steps):
            action()
            self.traffic()

    # What is exported

    def exports(self):
        return [(sample.generic["ifInUcastPkts"], sample.generic["ifInOctets"]) for sample in self.collector.counters()
                if sample.source_index in self.port.indexes]

    def catch_up(self):
        try:
            wait_for(lambda: (exports := self.exports()) and exports[-1][0] >= self.sent, "the export")
        except AssertionError:
            raise AssertionError(f"{self.sent} packets sent, exported: {self.exports()}\n{self.link.service.log()}")


@pytest.mark.parametrize("seed", [1, 2, 3])
def test_exported_counters_never_fall_and_their_totals_are_right(link, seed):
    world = World(link, seed)
    world.run(6)
    world.catch_up()
    exports = world.exports()
    for field in (0, 1):
        values = [export[field] for export in exports]
        assert values == sorted(values)
    assert exports[-1][0] == world.sent
