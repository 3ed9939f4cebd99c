"""Fixtures of the component tier: a daemon in a namespace, commanded by a scripted sampling service."""
import pytest

from harness.addresses import AGENT4, AGENT6, COLLECTOR4, COLLECTOR4_B, COLLECTOR6
from harness.collector import Collector
from harness.domain_socket import ServiceEnd
from harness.wait import wait_for

PORTS = ("port1", "port2", "port3")


class Stage:
    """A namespace with three veth ports, addresses on the loopback, and a sandbox for one sflowd."""

    def __init__(self, namespace, sandbox):
        self.namespace = namespace
        self.sandbox = sandbox
        for number, port in enumerate(PORTS, 1):
            namespace.ip_batch(f"link add {port} type veth peer name far{number}", f"link set {port} up",
                               f"link set far{number} up")
        namespace.ip_batch(*(f"addr add {address}/32 dev lo" for address in (AGENT4, COLLECTOR4, COLLECTOR4_B)),
                           *(f"addr add {address}/128 dev lo nodad" for address in (AGENT6, COLLECTOR6)))
        self.daemon = None
        self.service = None
        self._open = []

    def ifindex(self, name):
        return self.namespace.ifindex(name)

    def start(self):
        self.daemon = self.sandbox.start_sflowd()
        return self.daemon

    def connect(self, **options):
        """A scripted service that has shaken hands; it answers everything unless told otherwise."""
        self.service = ServiceEnd(self.sandbox.domain_socket, **options).connect()
        self._open.append(self.service)
        return self.service

    def ready(self, **options):
        """Daemon and service up, commands accepted."""
        self.start()
        self.connect(**options)
        self.sandbox.ready()
        return self

    def collector(self, address=COLLECTOR4, port=6343):
        collector = Collector(self.namespace, address, port)
        self._open.append(collector)
        return collector

    def cli(self, *commands, **options):
        return self.sandbox.cli(*commands, **options)

    def configure(self, *commands):
        return self.sandbox.configure(*commands)

    def export_to_collector(self, agent=AGENT4, destination=f"{COLLECTOR4} 6343"):
        """The configuration that an export of port1 needs, both directions; waits until the service has confirmed it."""
        self.configure(f"sflow agent address {agent}", f"sflow collector 1 destination {destination}",
                       "interface port1", "sflow flow collector 1", "sflow counter collector 1", "sflow enable")
        self.wait_enabled("port1")
        return self.ifindex("port1")

    def wait_enabled(self, port):
        """Waits until both directions are confirmed, the last settings of export_to_collector()."""
        wait_for(lambda: "sflow enable" in self.sandbox.config_sections().get(port, []), f"the settings of {port}")

    def close(self):
        for thing in reversed(self._open):
            (thing.disconnect if isinstance(thing, ServiceEnd) else thing.close)()


@pytest.fixture
def stage(make_namespace, make_sandbox):
    namespace = make_namespace("stage")
    stage = Stage(namespace, make_sandbox(namespace))
    yield stage
    stage.close()


@pytest.fixture
def ready(stage):
    """A stage whose daemon accepts commands."""
    return stage.ready()
