"""What scripts/run runs once everything is built: the demonstration, or the agent on a real interface."""
import argparse
import collections
import ipaddress
import json
import math
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests"))
sys.dont_write_bytecode = True

RATE = 4096
SWITCH_PORT, HOST_PORT = "port1", "eth0"      # the sampled link
SWITCH_MGMT, HOST_MGMT = "mgmt0", "coll0"     # the link to the collector
AGENT, COLLECTOR = "198.51.100.1", "198.51.100.2"


class Failure(Exception):
    """Ends the run with this text and status 1."""


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/run", add_help=False)
    parser.add_argument("--bin", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    parser.add_argument("--packets", type=int, default=4_000_000)
    parser.add_argument("--pair", action="store_true")
    parser.add_argument("--interface")
    parser.add_argument("--collector")
    parser.add_argument("--rate", type=int, default=RATE)
    parser.add_argument("--agent")
    parser.add_argument("--interval", type=int, default=30)
    arguments = parser.parse_args()
    if arguments.interface and not arguments.collector:
        parser.error("--interface needs --collector ADDRESS[:PORT]")
    if arguments.collector and not arguments.interface:
        parser.error("--collector needs --interface NAME")
    if arguments.packets < 200_000:
        parser.error("--packets: at least 200000, or there are too few samples to judge")
    return arguments


def split_collector(text):
    """(address, port) of A, A:P, [A] or [A]:P."""
    host, port = text, "6343"
    if text.startswith("["):
        host, _, rest = text[1:].partition("]")
        port = rest.removeprefix(":") or port
    elif text.count(":") == 1:
        host, port = text.split(":")
    try:
        address = ipaddress.ip_address(host)
        number = int(port)
    except ValueError as error:
        raise Failure(f"--collector {text}: {error}; give an address and a port, e.g. 192.0.2.10:6343") from error
    if not 1 <= number <= 65535:
        raise Failure(f"--collector {text}: port {number} is not between 1 and 65535")
    return address, number


class Agent:
    """sflowd and sflow-samplingd with a sandbox of their own, commanded through sflow-cli."""

    def __init__(self, binaries, namespace=None):
        os.environ["SFLOW_BIN"] = str(binaries.resolve())
        from harness.daemon import Sandbox
        self.binaries = binaries
        self.sandbox = Sandbox(namespace)

    def start(self):
        self.service = None
        self.daemon = self.sandbox.start_sflowd()
        self.service = self.sandbox.start("sflow-samplingd")
        result = self.sandbox.cli("show version", wait=20)
        if result.status != 0:
            raise Failure(f"sflowd does not get ready: {result.errors.strip() or result.output.strip()}\n"
                          f"{self.service.log()}{self.sandbox.debug_file()}")

    def type(self, *commands):
        """Runs the commands in one session and shows them; each must succeed."""
        for command in commands:
            print(f"  {command}")
        result = self.sandbox.cli(*commands)
        if result.output.strip():
            print("".join(f"    {line}\n" for line in result.output.splitlines()), end="")
        if result.status != 0:
            raise Failure(f"a command was refused, see above{result.errors}")

    def check_alive(self):
        for process in (self.daemon, self.service):
            if not process.running():
                raise Failure(f"{process.name} ended with status {process.wait()}:\n{process.log()}")

    def stop(self):
        if getattr(self, "service", None):
            self.service.stop(signal.SIGTERM)
        self.sandbox.close()


def read_available(pipe):
    """What a pipe holds at the moment, without waiting for more."""
    os.set_blocking(pipe.fileno(), False)
    parts = []
    while True:
        try:
            part = os.read(pipe.fileno(), 1 << 16)
        except BlockingIOError:
            part = b""
        if not part:
            return b"".join(parts).decode(errors="replace")
        parts.append(part)


class Decoder:
    """tshark on the collector's link: counts datagrams, samples and estimates per data source and direction."""

    FIELDS = ("sflow_245.sequence_number", "sflow_245.sampletype", "sflow.flow_sample.source_id_index",
              "sflow.flow_sample.sampling_rate", "sflow.flow_sample.input_interface_value",
              "sflow_245.header.frame_length", "_ws.malformed", "sflow.counters_sample.source_id_index")

    def __init__(self, namespace, interface):
        command = ["tshark", "-l", "-n", "-i", interface, "-f", "udp dst port 6343", "-o",
                   "sflow.enable_dissection:FALSE", "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=,"]
        for field in self.FIELDS:
            command += ["-e", field]
        self.process = namespace.popen(*command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.rest = ""
        self.datagrams = self.malformed = self.lost = self.counters = 0
        self.last_sequence = None
        self.samples = collections.Counter()    # (ifindex, direction) → flow samples
        self.packets = collections.Counter()    # the same → estimated packets
        self.octets = collections.Counter()
        self._wait_until_capturing()

    def _wait_until_capturing(self):
        deadline, text = time.monotonic() + 20, ""
        while "Capturing on" not in text:
            text += read_available(self.process.stderr)
            if self.process.poll() is not None or time.monotonic() > deadline:
                raise Failure(f"tshark does not capture: {text.strip()}")
            time.sleep(0.05)
        time.sleep(0.5)    # the line comes shortly before the capture is open

    def read(self):
        self.rest += read_available(self.process.stdout)
        *lines, self.rest = self.rest.split("\n")
        for line in lines:
            self._datagram(line.split("\t"))

    def _datagram(self, columns):
        lists = [column.split(",") if column else [] for column in columns]
        sequence, kinds, sources, rates, inputs, lengths, malformed, counters = lists
        if not sequence or not kinds:
            self.malformed += 1
            return
        self.datagrams += 1
        self.malformed += len(malformed)
        number = int(sequence[0])
        if self.last_sequence is not None and number > self.last_sequence + 1:
            self.lost += number - self.last_sequence - 1
        self.last_sequence = number
        self.counters += len(counters)
        for source, rate, inbound, length in zip(sources, rates, inputs, lengths):
            key = (int(source), "ingress" if source == inbound else "egress")
            self.samples[key] += 1
            self.packets[key] += int(rate)
            self.octets[key] += int(rate) * int(length)

    def stop(self):
        self.process.terminate()
        self.process.wait()


def interface_packets(namespace, name):
    statistics = json.loads(namespace.ip("-s", "-j", "link", "show", name))[0]["stats64"]
    return {"ingress": statistics["rx"]["packets"], "egress": statistics["tx"]["packets"]}


def mac(namespace, name):
    return json.loads(namespace.ip("-j", "link", "show", name))[0]["address"]


def make_link(switch, host):
    switch.add_veth(SWITCH_PORT, HOST_PORT, host)
    switch.add_veth(SWITCH_MGMT, HOST_MGMT, host)
    for namespace, name, v4, v6 in ((switch, SWITCH_PORT, "192.0.2.1/24", "2001:db8:1::1/64"),
                                    (host, HOST_PORT, "192.0.2.2/24", "2001:db8:1::2/64"),
                                    (switch, SWITCH_MGMT, f"{AGENT}/24", "2001:db8:2::1/64"),
                                    (host, HOST_MGMT, f"{COLLECTOR}/24", "2001:db8:2::2/64")):
        namespace.ip("addr", "add", v4, "dev", name)
        namespace.ip("addr", "add", v6, "dev", name, "nodad")


def demonstration(arguments):
    from harness import namespace as namespaces
    reason = namespaces.available()
    if reason:
        raise Failure(reason)
    print("\n== Two namespaces joined by veth: 'switch' runs the agent, 'host' sends traffic and collects")
    switch, host = namespaces.Namespace("switch"), namespaces.Namespace("host")
    agent = decoder = None
    generators = []
    try:
        make_link(switch, host)
        # A listener, so that the collector's host does not answer with port-unreachable messages.
        listener = host.socket(socket.AF_INET, socket.SOCK_DGRAM)
        listener.bind((COLLECTOR, 6343))
        decoder = Decoder(host, HOST_MGMT)

        print("\n== sflowd and sflow-samplingd start in 'switch'; an operator types into sflow-cli:")
        agent = Agent(arguments.bin, switch)
        agent.start()
        agent.type("configure terminal", f"sflow agent address {AGENT}",
                   f"sflow collector 1 destination {COLLECTOR} 6343", f"sflow sampling-rate {RATE}",
                   "sflow flow max-header 128", "sflow counter interval 3", f"interface {SWITCH_PORT}",
                   "sflow flow collector 1", "sflow counter collector 1", "sflow enable", "end")
        wait_attached(switch, agent)
        agent.type("show sflow", "show running-config")

        print(f"\n== {arguments.packets} packets a direction; 1 in {RATE} is sampled. The collector's view (tshark):")
        index = switch.ifindex(SWITCH_PORT)
        before = interface_packets(switch, SWITCH_PORT)
        for source, sender, target_mac in ((host, HOST_PORT, mac(switch, SWITCH_PORT)),
                                           (switch, SWITCH_PORT, mac(host, HOST_PORT))):
            generators.append(source.popen((arguments.bin / "pktgen").resolve(), "--interface", sender, "--count",
                                           arguments.packets, "--dst-mac", target_mac, stdout=subprocess.PIPE,
                                           text=True))
        watch(decoder, generators, switch, before, index, agent)
        return judge(decoder, generators, interface_packets(switch, SWITCH_PORT), before, index, agent)
    finally:
        for generator in generators:
            if generator.poll() is None:
                generator.kill()
        if decoder:
            decoder.stop()
        if agent:
            agent.stop()
        switch.close()
        host.close()


def wait_attached(switch, agent):
    """Waits until the service has hooked both directions of the port."""
    deadline = time.monotonic() + 10
    while True:
        agent.check_alive()
        hooks = [switch.run("tc", "filter", "show", "dev", SWITCH_PORT, direction, check=False).stdout
                 for direction in ("ingress", "egress")]
        if all(hooks):
            return
        if time.monotonic() > deadline:
            raise Failure(f"sflow-samplingd did not hook {SWITCH_PORT}:\n{agent.service.log()}")
        time.sleep(0.1)


def watch(decoder, generators, switch, before, index, agent):
    print(f"{'time':>5} {'datagrams':>9} {'samples':>8} {'counters':>8}   "
          f"{'in: est. pps':>12} {'Mbit/s':>8}   {'out: est. pps':>13} {'Mbit/s':>8}   estimated/true packets in, out")
    start = last_time = time.monotonic()
    last = {"ingress": (0, 0), "egress": (0, 0)}
    # Two seconds more than the traffic: the last samples leave with the next tick.
    ending = None
    while ending is None or time.monotonic() < ending:
        time.sleep(1)
        agent.check_alive()
        decoder.read()
        now = time.monotonic()
        true = interface_packets(switch, SWITCH_PORT)
        cells, ratios = [], []
        for direction in ("ingress", "egress"):
            key = (index, direction)
            packets, octets = decoder.packets[key], decoder.octets[key]
            elapsed = now - last_time
            cells += [(packets - last[direction][0]) / elapsed, (octets - last[direction][1]) * 8 / elapsed / 1e6]
            last[direction] = (packets, octets)
            sent = true[direction] - before[direction]
            ratios.append(f"{packets / sent:.3f}" if sent else "-")
        last_time = now
        print(f"{now - start:4.0f}s {decoder.datagrams:9} {sum(decoder.samples.values()):8} {decoder.counters:8}   "
              f"{cells[0]:12,.0f} {cells[1]:8,.1f}   {cells[2]:13,.0f} {cells[3]:8,.1f}   {', '.join(ratios)}",
              flush=True)
        if ending is None and all(generator.poll() is not None for generator in generators):
            ending = time.monotonic() + 2.5


def judge(decoder, generators, after, before, index, agent):
    decoder.read()
    for generator in generators:
        if generator.returncode != 0:
            raise Failure(f"pktgen ended with status {generator.returncode}")
    print("\n== Result")
    good = True
    for direction in ("ingress", "egress"):
        key = (index, direction)
        true = after[direction] - before[direction]
        samples, estimate = decoder.samples[key], decoder.packets[key]
        error = RATE * math.sqrt(true / RATE * (1 - 1 / RATE))
        deviation = (estimate - true) / error if error else 0.0
        inside = samples > 0 and abs(deviation) <= 3
        good &= inside
        print(f"  {direction:8} {samples:6} samples x {RATE} = {estimate:9} packets estimated, {true:9} true: "
              f"{deviation:+.2f} standard errors{'' if inside else '  <-- outside 3'}")
    print(f"  {decoder.datagrams} datagrams, {decoder.lost} lost, {decoder.malformed} malformed, "
          f"{decoder.counters} counters samples")
    good &= decoder.lost == 0 and decoder.malformed == 0 and decoder.counters > 0
    if not good:
        print(agent.service.log(), agent.daemon.log(), sep="", file=sys.stderr)
    print(f"\nVERDICT: {'the agent estimates the traffic correctly' if good else 'FAILED, see above'}")
    return 0 if good else 1


def first_address(interface):
    shown = subprocess.run(["ip", "-j", "addr", "show", "dev", interface], capture_output=True, text=True)
    if shown.returncode != 0:
        names = ", ".join(entry["ifname"] for entry in json.loads(
            subprocess.run(["ip", "-j", "link"], capture_output=True, text=True, check=True).stdout))
        raise Failure(f"--interface {interface}: no such interface; there are: {names}")
    for entry in json.loads(shown.stdout)[0].get("addr_info", []):
        if not ipaddress.ip_address(entry["local"]).is_loopback:
            return entry["local"]
    raise Failure(f"{interface} has no address: name the agent's with --agent ADDRESS")


def address_words(address):
    return f"ipv6 {address}" if address.version == 6 else str(address)


def real_interface(arguments):
    collector, port = split_collector(arguments.collector)
    try:
        address = ipaddress.ip_address(arguments.agent or first_address(arguments.interface))
    except ValueError as error:
        raise Failure(f"--agent {arguments.agent}: {error}") from error
    agent = Agent(arguments.bin)
    try:
        print("run: an operator types into sflow-cli:")
        agent.start()
        agent.type("configure terminal", f"sflow agent address {address_words(address)}",
                   f"sflow collector 1 destination {address_words(collector)} {port}",
                   f"sflow sampling-rate {arguments.rate}", "sflow flow max-header 128",
                   f"sflow counter interval {arguments.interval}", f"interface {arguments.interface}",
                   "sflow flow collector 1", "sflow counter collector 1", "sflow enable", "end")
        print(f"run: sampling {arguments.interface}, 1 in {arguments.rate}, to {collector} port {port}; Ctrl-C ends it")
        print(f"run: TMPDIR={agent.sandbox.path} {agent.binaries}/sflow-cli is the agent's shell")
        while True:
            time.sleep(10)
            agent.check_alive()
            lines = agent.sandbox.cli("show sflow stats | include export").output.splitlines()
            print(time.strftime("%H:%M:%S  ") + "  ".join(line.replace("sflow export ", "") for line in lines),
                  flush=True)
    except KeyboardInterrupt:
        print("\nrun: stopped")
        return 0
    finally:
        agent.stop()


def main():
    arguments = parse_arguments()
    try:
        if arguments.pair:
            import demo_pair
            return demo_pair.demonstrate(arguments)
        return real_interface(arguments) if arguments.interface else demonstration(arguments)
    except Failure as failure:
        print(f"scripts/run: {failure}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nscripts/run: interrupted", file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.modules["demo"] = sys.modules["__main__"]    # what demo_pair imports
    sys.exit(main())
