"""scripts/run --pair: two control units with corosync, real traffic, and the death of the active one."""
import os
import select
import signal
import socket
import subprocess
import sys
import time

from demo import COLLECTOR, RATE, Agent, Failure

PORT, MGMT, RING = "port1", "mgmt0", "ring0"
UNIT_ADDRESS = "198.51.100.1{}"     # of unit 1 and 2 on the link to the collector
AGENT = "198.51.100.1"              # both are the same agent
PACKETS_PER_SECOND = 150_000
TIMEOUT_S = 60


class Collector:
    """Datagrams of both units with the time of their arrival, by the sender's address."""

    def __init__(self, host):
        from harness.datagram import decode
        self.decode = decode
        self.socket = host.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 23)
        self.socket.bind((COLLECTOR, 6343))
        self.arrivals = []    # (time, unit, Datagram)

    def read(self, seconds):
        """Takes in what arrives during the next `seconds`."""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            if select.select([self.socket], [], [], left)[0]:
                data, sender = self.socket.recvfrom(65535)
                self.arrivals.append((time.monotonic(), int(sender[0][-1]), self.decode(data)))

    def of(self, unit):
        return [(when, datagram) for when, number, datagram in self.arrivals if number == unit]

    def octets(self):
        """(time, unit, octets in) of the port, in the order of arrival."""
        return [(when, unit, sample.generic["ifInOctets"]) for when, unit, datagram in self.arrivals
                for sample in datagram.counters]


class Unit:
    """A control unit: corosync, sflowd, sflow-samplingd and a shell."""

    def __init__(self, binaries, node):
        self.node = node
        self.agent = Agent(binaries, node)
        (self.agent.sandbox.config / "platform.toml").write_text(
            '[syslog]\ntarget = "stderr"\n[redundancy]\nmode = "corosync"\n')

    def shown(self):
        lines = [line.split(":", 1) for line in self.agent.sandbox.cli("show redundancy").output.splitlines()]
        return {words[0]: words[1].strip() for words in lines if len(words) == 2}

    def wait(self, collector, role, state):
        deadline = time.monotonic() + TIMEOUT_S
        while (shown := self.shown()).get("Role") != role or shown.get("State") not in state:
            if time.monotonic() > deadline:
                raise Failure(f"unit {self.node.number} does not become {role}: {shown}\n{self.agent.daemon.log()}")
            collector.read(0.2)


def make_network(cluster, host):
    """One bridge carries the traffic to the same port of both units, another one their way to the collector."""
    host.ip("link", "add", "traffic", "type", "bridge")
    host.ip("link", "add", "mgmt", "type", "bridge")
    host.ip("addr", "add", f"{COLLECTOR}/24", "dev", "mgmt")
    host.ip("link", "add", "src0", "type", "veth", "peer", "name", "src1")
    host.ip("link", "set", "src1", "master", "traffic")
    for node in cluster.nodes:
        for name, bridge in ((PORT, "traffic"), (MGMT, "mgmt")):
            far = f"{name}-{node.number}"
            node.add_veth(name, far, host)
            host.ip("link", "set", far, "master", bridge)
        node.ip("addr", "add", UNIT_ADDRESS.format(node.number) + "/24", "dev", MGMT)
    for name in ("src0", "src1", "traffic", "mgmt"):
        host.ip("link", "set", name, "up")


def show_state(units):
    for unit in units:
        shown = unit.shown()
        print(f"  unit {unit.node.number}: {shown['Role']}, {shown['State']}; peer {shown['Peer']}")
        print(f"          checkpoints {shown['Checkpoints of SFLOW_RDND']}; last switchover: {shown['Last switchover']}")


def watch(collector, seconds, units):
    for _ in range(seconds):
        known = len(collector.arrivals)
        collector.read(1)
        fresh = collector.arrivals[known:]
        counts = [sum(1 for _, number, _ in fresh if number == unit.node.number) for unit in units]
        octets = collector.octets()
        print(f"  datagrams a second: unit 1 {counts[0]:4}, unit 2 {counts[1]:4};   ifInOctets exported last: "
              f"{octets[-1][2] if octets else '-'}", flush=True)


def demonstrate(arguments):
    from harness import cluster as clusters
    os.environ["SFLOW_BIN"] = str(arguments.bin.resolve())
    reason = clusters.available()
    if reason:
        raise Failure(reason)
    cluster, host, units, generator = clusters.Cluster(), clusters.Place("host"), [], None
    try:
        make_network(cluster, host)
        collector = Collector(host)
        print("\n== Two control units with the same ports, joined by corosync")
        cluster.start()
        for node in cluster.nodes:
            units.append(Unit(arguments.bin, node))
            units[-1].agent.start()
            units[-1].wait(collector, "master" if node.number == 1 else "standby", ("alone", "realtime"))
        one, two = units
        two.wait(collector, "standby", ("realtime",))
        show_state(units)

        print("\n== An operator configures unit 1; unit 2 follows")
        one.agent.type("configure terminal", f"sflow agent address {AGENT}",
                       f"sflow collector 1 destination {COLLECTOR} 6343", f"sflow sampling-rate {RATE}",
                       "sflow counter interval 3", f"interface {PORT}", "sflow flow collector 1",
                       "sflow counter collector 1", "sflow enable", "end")
        deadline = time.monotonic() + TIMEOUT_S
        while two.agent.sandbox.running_config().count("\n sflow") < 3:
            if time.monotonic() > deadline:
                raise Failure("the configuration does not reach unit 2")
            time.sleep(0.2)
        print("\n== Unit 2's shell")
        print("  configure terminal\n    " + two.agent.sandbox.cli("configure terminal").output.strip())
        two.agent.type("show running-config")

        print("\n== Traffic; the collector's view")
        generator = host.popen((arguments.bin / "pktgen").resolve(), "--interface", "src0", "--count", 100_000_000,
                               "--rate", PACKETS_PER_SECOND, "--dst-mac", "02:00:00:00:00:01",
                               stdout=subprocess.DEVNULL)
        watch(collector, 8, units)

        print("\n== kill -9 of unit 1's sflowd")
        one.agent.daemon.popen.send_signal(signal.SIGKILL)
        killed = time.monotonic()
        watch(collector, 8, units)
        two.wait(collector, "master", ("alone",))

        print("\n== Unit 1 is started again: it comes back as the standby")
        one.agent.service.stop(signal.SIGTERM)
        one.agent.daemon.wait()
        one.agent.start()
        one.wait(collector, "standby", ("realtime",))
        show_state(units)
        return judge(collector, killed)
    finally:
        if generator:
            generator.kill()
            generator.wait()
        for unit in units:
            unit.agent.stop()
        cluster.close()
        host.close()


def judge(collector, killed):
    before = [when for when, _ in collector.of(1) if when <= killed + 1]
    after = [when for when, _ in collector.of(2)]
    octets = collector.octets()
    old = [value for _, unit, value in octets if unit == 1]
    new = [value for _, unit, value in octets if unit == 2]
    if not before or not after or not old or not new:
        raise Failure("a unit did not export")
    print("\n== Result")
    print(f"  export gap: {after[0] - before[-1]:.2f} s between unit 1's last datagram and unit 2's first")
    print(f"  ifInOctets: unit 1 exported {old[0]} to {old[-1]}, unit 2 went on with {new[0]} to {new[-1]}")
    values = [value for _, _, value in octets]
    good = values == sorted(values) and after[0] > before[-1]
    print(f"\nVERDICT: {'the export went on and no counter ran backwards' if good else 'FAILED, see above'}")
    return 0 if good else 1
