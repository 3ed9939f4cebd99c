"""Two control units over one forwarding plane: the real sflowd on each, a scripted sampling service that both share."""
import selectors
import signal
import socket
import struct
import threading

from harness.addresses import AGENT4, COLLECTOR4
from harness.cluster import Cluster
from harness.daemon import Sandbox
from harness.datagram import decode
from harness.domain_socket import UPDATE_COUNTER, ServiceEnd, counter_report, flow_record
from harness.wait import wait_for

PATIENCE_S = 180           # several timeouts of a pair, on a machine that is slow
SO_TIMESTAMPNS = 35        # asm-generic/socket.h
PORTS = ("port1", "port2", "port3")
CACHE_NODE = 168           # bytes of an entry of the counter cache's file
CACHE_IFX, CACHE_IN_OCTETS = 16, 48
HEADER = bytes(range(64))  # of the sampled packets


class Plane:
    """What both units' sampling services report: packets and counters of the same ports."""

    def __init__(self):
        self.octets = {}   # port's index → octets in
        self._lock = threading.Lock()

    def count(self, ifx, octets):
        with self._lock:
            self.octets[ifx] = self.octets.get(ifx, 0) + octets

    def report(self, ifx, ifx_type):
        with self._lock:
            return counter_report(ifx, {"ifInOctets": self.octets.get(ifx, 0)}, ifx_type=ifx_type)


class Unit:
    """A control unit: a corosync node, sflowd in it, its end of the forwarding plane."""

    def __init__(self, node, plane, peer_timeout_ms):
        self.node = node
        self.number = node.number
        self.plane = plane
        self.sandbox = Sandbox(node)
        self.settings(f'[redundancy]\nmode = "corosync"\npeer_timeout_ms = {peer_timeout_ms}\n')
        for number, port in enumerate(PORTS, 1):
            node.add_veth(port, f"far{number}", node)
        for address in (AGENT4, COLLECTOR4):
            node.ip("addr", "add", f"{address}/32", "dev", "lo")
        self.index = {port: node.ifindex(port) for port in PORTS}
        self.daemon = self.service = None

    def settings(self, redundancy):
        (self.sandbox.config / "platform.toml").write_text(f'[syslog]\ntarget = "stderr"\n{redundancy}')

    def start(self):
        self.daemon = self.sandbox.start_sflowd()
        self.connect()

    def connect(self):
        self.service = ServiceEnd(self.sandbox.domain_socket, answer_counter=self.plane.report).connect()

    def started(self):
        """Starts and waits until the daemon takes commands."""
        self.start()
        self.sandbox.ready(PATIENCE_S)
        return self

    def kill(self, how=signal.SIGKILL):
        self.daemon.popen.send_signal(how)

    def ended(self):
        """After the daemon's end: lets its service go too."""
        self.daemon.wait(PATIENCE_S)
        self.service.disconnect()
        self.service = None

    def running(self):
        return self.daemon is not None and self.daemon.running()

    def show(self):
        """`show redundancy` as a mapping; empty when the daemon does not answer."""
        result = self.sandbox.cli("show redundancy")
        lines = [line.split(":", 1) for line in result.output.splitlines() if ":" in line]
        return {heading: value.strip() for heading, value in lines} if result.status == 0 else {}

    def is_(self, role, state=None):
        shown = self.show()
        return shown.get("Role") == role and state in (None, shown.get("State"))

    def wait_for(self, role, state=None):
        wait_for(lambda: self.is_(role, state),
                 lambda: f"unit {self.number} as {role} {state or ''}: {self.show()}\n{self.story()}", PATIENCE_S, 0.2)

    def story(self):
        """What daemon and engine have logged, for the message of a failure."""
        logged = self.daemon.log() if self.daemon else ""
        return (f"---- unit {self.number}: sflowd\n{logged[-5000:]}\n"
                f"---- unit {self.number}: corosync\n{self.node.log()[-3000:]}")

    def cli(self, *commands, **options):
        return self.sandbox.cli(*commands, **options)

    def log(self):
        return self.daemon.log()

    def update(self, port, octets):
        """The forwarding plane reports counts that it had before its counters began again; they name the interface."""
        self.service.send(counter_report(0, {"ifIndex": self.index[port], "ifInOctets": octets}, kind=UPDATE_COUNTER))

    def send_flows(self, port, count, flags=0):
        """Sampled packets of a port; they are lost while the daemon does not take them."""
        connection = self.service and self.service.connection
        for _ in range(count if connection else 0):
            try:
                connection.send(flow_record(HEADER, self.index[port], ingress=self.index[port]), flags)
            except OSError:
                return

    def cached(self):
        """Octets that the daemon's cache file holds, by the port's index."""
        path = self.sandbox.path / "sflow/tmp_file"
        data = path.read_bytes() if path.exists() else b""
        nodes = (data[at:at + CACHE_NODE] for at in range(0, len(data) - CACHE_NODE + 1, CACHE_NODE))
        return {struct.unpack_from("=I", node, CACHE_IFX)[0]: struct.unpack_from("=Q", node, CACHE_IN_OCTETS)[0]
                for node in nodes}

    def close(self):
        if self.daemon and self.daemon.running():
            self.daemon.popen.send_signal(signal.SIGCONT)
        if self.service:
            self.service.disconnect()
        self.sandbox.close()


class Watch:
    """The collector of a pair: datagrams of all units with the time at which the kernel got them. Each unit has a socket of
    its own, and a busy machine reads them late and in any order; the kernel's time is when they were sent."""

    def __init__(self, units, port=6343):
        self._seen = []    # (seconds since the epoch, unit's number, Datagram)
        self._closed = False
        self._selector = selectors.DefaultSelector()
        for unit in units:
            inlet = unit.node.socket(socket.AF_INET, socket.SOCK_DGRAM)
            inlet.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 23)
            inlet.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)
            inlet.bind((COLLECTOR4, port))
            self._selector.register(inlet, selectors.EVENT_READ, unit.number)
        self._thread = threading.Thread(target=self._receive, daemon=True)
        self._thread.start()

    def _receive(self):
        while not self._closed:
            for key, _ in self._selector.select(0.1):
                data, ancillary, _, _ = key.fileobj.recvmsg(65535, 64)
                seconds, nanoseconds = struct.unpack("=qq", ancillary[0][2])
                self._seen.append((seconds + nanoseconds / 1e9, key.data, decode(data)))

    def seen(self):
        """(time, unit, datagram) in the order in which they were sent."""
        return sorted(list(self._seen), key=lambda each: each[0])

    def forget(self):
        self._seen.clear()

    def datagrams_of(self, number, since=0.0):
        return [datagram for when, unit, datagram in self.seen() if unit == number and when >= since]

    def octets(self, since=0.0, until=float("inf")):
        """Exported octets as (time, unit, interface, octets), in order."""
        return [(when, unit, sample.source_index, sample.generic["ifInOctets"])
                for when, unit, datagram in self.seen() if since <= when <= until for sample in datagram.counters]

    def steps_back(self, since=0.0, until=float("inf"), by_unit=False):
        """Where an interface's exported octets fell; with `by_unit`, within what one unit exported."""
        last, falls = {}, []
        for when, unit, ifx, octets in self.octets(since, until):
            key = (ifx, unit if by_unit else 0)
            if octets < last.get(key, (0,))[0]:
                falls.append(f"interface {ifx}: {last[key]} and then {(octets, unit, when)}")
            last[key] = (octets, unit, when)
        return falls

    def close(self):
        self._closed = True
        self._thread.join()
        for key in list(self._selector.get_map().values()):
            key.fileobj.close()
        self._selector.close()


class Pair:
    """A cluster of two, with a unit on each node.

    Roles change when a process stands still for long, which on a busy machine any of them may do. So the timeouts are
    long unless a test is about how long things take: `prompt` makes them those of an operator.
    """

    def __init__(self, third_vote=False, prompt=False):
        self.plane = Plane()
        self.units = []
        self.watch = None
        self.cluster = Cluster(third_vote, token=1000 if prompt else 8000)
        try:
            self.units = [Unit(node, self.plane, 1500 if prompt else 12_000) for node in self.cluster.nodes]
            assert self.units[0].index == self.units[1].index, "the units must know the ports by the same indexes"
        except BaseException:
            self.close()
            raise

    def unit(self, number):
        return self.units[number - 1]

    def other(self, unit):
        return self.units[2 - unit.number]

    def start(self):
        """Cluster and both units; unit 1 is master, unit 2 its standby."""
        self.cluster.start()
        for unit in self.units:
            unit.started()
            unit.wait_for("master" if unit.number == 1 else "standby")
        self.unit(2).wait_for("standby", "realtime")
        return self

    def configure(self, interval=3):
        """What an export of all ports needs, entered at the master."""
        commands = [f"sflow agent address {AGENT4}", f"sflow collector 1 destination {COLLECTOR4} 6343",
                    "sflow sampling-rate 4096", f"sflow counter interval {interval}"]
        for port in PORTS:
            commands += [f"interface {port}", "sflow flow collector 1", "sflow counter collector 1", "sflow enable"]
        self.master().sandbox.configure(*commands)
        self.wait_configured()

    def wait_configured(self):
        """Until both units have the same configuration in force."""
        def same():
            texts = [unit.sandbox.running_config() for unit in self.units]
            return texts[0] == texts[1] and texts[0].count("sflow enable") == len(PORTS)
        wait_for(same, "the configuration on both units", PATIENCE_S, 0.2)

    def master(self):
        masters = [unit for unit in self.units if unit.running() and unit.is_("master")]
        assert len(masters) == 1, f"{len(masters)} masters"
        return masters[0]

    def collect(self):
        self.watch = Watch(self.units)
        return self.watch

    def close(self):
        for unit in self.units:
            unit.close()
        if self.watch:
            self.watch.close()
        self.cluster.close()
