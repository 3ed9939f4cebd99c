"""Control units of a switch on one machine: corosync nodes, each in a network and mount namespace of its own.

A node is held by a process that keeps its namespaces; corosync's files lie on a file system of the node's own, so that
any number of nodes run side by side. `Arbiter` is a third vote (corosync-qnetd) that every node reaches on its own link.
"""
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

from harness.daemon import BIN
from harness.namespace import Stack
from harness.wait import wait_for

RING = "ring0"                # the nodes' link to each other
RING_ADDRESS = "10.99.0.{}"
VOTE = "vote0"                # a node's link to the arbiter
VOTE_ADDRESS = "10.99.{}.{}"  # node, 1 at the node and 254 at the arbiter

CONFIG = """totem {{
  version: 2
  cluster_name: sflow
  transport: knet
  crypto_cipher: none
  crypto_hash: none
  token: {token}
}}
system {{
  state_dir: {directory}
  sched_rr: yes
  move_to_root_cgroup: no
}}
logging {{
  to_syslog: no
  to_stderr: no
  to_logfile: yes
  logfile: {directory}/corosync.log
  timestamp: hires
}}
quorum {{
  provider: corosync_votequorum
{quorum}}}
nodelist {{
{nodes}}}
"""
NODE = """  node {{
    nodeid: {number}
    name: unit{number}
    ring0_addr: {address}
  }}
"""
TWO_NODE = """  two_node: 1
"""
THIRD_VOTE = """  device {{
    votes: 1
    model: net
    sync_timeout: {sync_timeout}
    timeout: {timeout}
    net {{
      host: {arbiter}
      tls: off
      algorithm: ffsplit
      tie_breaker: {tie_breaker}
    }}
  }}
"""


def available(third_vote=False):
    """None when corosync nodes can run here, otherwise the reason why not."""
    if os.geteuid() != 0:
        return "corosync nodes in namespaces need root"
    for program in ("corosync", *(("corosync-qnetd", "corosync-qdevice") if third_vote else ())):
        if shutil.which(program, path=os.environ.get("PATH", "") + ":/usr/sbin") is None:
            return f"{program} is not installed"
    if b"libcpg.so" not in (BIN / "sflowd").read_bytes():
        return "sflowd was built without corosync's libraries"
    probe = subprocess.run(["unshare", "-n", "-m", "mount", "-t", "tmpfs", "probe", "/dev/shm"], capture_output=True,
                           text=True)
    return None if probe.returncode == 0 else f"no namespaces with mounts of their own: {probe.stderr.strip()}"


class Place(Stack):
    """A network and mount namespace, with a /run and /dev/shm of its own; `close` ends what is left in it."""

    def __init__(self, label):
        self.label = label
        self.holder = subprocess.Popen(
            ["unshare", "-n", "-m", "sh", "-c",
             "mount -t tmpfs run /run && mount -t tmpfs shm /dev/shm && ip link set lo up && echo ready && exec cat"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self.holder.stdout.readline() == b"ready\n", f"{label}: no namespaces"

    @property
    def path(self):
        return f"/proc/{self.holder.pid}/ns/net"

    def command(self, *words):
        """`words` as a command line that runs here."""
        return ["nsenter", "-t", str(self.holder.pid), "-n", "-m", "-r", "-w", "--", *map(str, words)]

    def ip(self, *words):
        return self.run("ip", *words).stdout

    def add_veth(self, name, peer_name, peer):
        """A veth pair from here to `peer`, both ends up."""
        self.ip("link", "add", name, "type", "veth", "peer", "name", peer_name, "netns", str(peer.holder.pid))
        self.ip("link", "set", name, "up")
        peer.ip("link", "set", peer_name, "up")

    def close(self):
        self.holder.stdin.close()
        self.holder.kill()
        self.holder.wait()
        self.holder.stdout.close()


class Daemon:
    """A program of the cluster engine, in the foreground of a place."""

    def __init__(self, place, *words, log):
        self._log = open(log, "ab")
        self.popen = place.popen(*words, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log)

    def running(self):
        return self.popen.poll() is None

    def send(self, number):
        self.popen.send_signal(number)

    def stop(self, number=signal.SIGKILL):
        if self.running():
            self.popen.send_signal(signal.SIGCONT)
            self.popen.send_signal(number)
        self.popen.wait()

    def close(self):
        self.stop()
        self._log.close()


class Arbiter(Place):
    """The third vote."""

    def __init__(self):
        super().__init__("arbiter")
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="sfc-arbiter.", dir="/tmp"))
        self.daemon = None

    def start(self):
        self.run("mkdir", "-p", "/run/corosync-qnetd")
        self.daemon = Daemon(self, "corosync-qnetd", "-f", "-s", "off", "-c", "off", log=self.directory / "qnetd.log")

    def close(self):
        if self.daemon:
            self.daemon.close()
        super().close()
        shutil.rmtree(self.directory, ignore_errors=True)


class Node(Place):
    """A control unit: corosync, and the third vote's client when there is one."""

    def __init__(self, number, quorum, count, token):
        super().__init__(f"unit{number}")
        self.number = number
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix=f"sfc-unit{number}.", dir="/tmp"))
        nodes = "".join(NODE.format(number=n, address=RING_ADDRESS.format(n)) for n in range(1, count + 1))
        self.config = self.directory / "corosync.conf"
        self.config.write_text(CONFIG.format(token=token, directory=self.directory, quorum=quorum, nodes=nodes))
        self.corosync = self.qdevice = None

    def start_corosync(self):
        self.corosync = Daemon(self, "corosync", "-f", "-c", self.config, log=self.directory / "corosync.out")

    def start_qdevice(self):
        self.run("mkdir", "-p", "/run/corosync-qdevice")
        self.qdevice = Daemon(self, "corosync-qdevice", "-f", log=self.directory / "qdevice.out")

    def quorate(self):
        done = self.run("corosync-quorumtool", "-s", check=False)
        return any(line.split() == ["Quorate:", "Yes"] for line in done.stdout.splitlines())

    def members(self):
        done = self.run("corosync-quorumtool", "-l", check=False)
        return sum(1 for line in done.stdout.splitlines() if line.split()[:1] and line.split()[0].isdigit()
                   and line.split()[0] != "0")

    def log(self):
        path = self.directory / "corosync.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def cut_ring(self):
        self.ip("link", "set", RING, "down")

    def mend_ring(self):
        self.ip("link", "set", RING, "up")

    def close(self):
        for daemon in (self.qdevice, self.corosync):
            if daemon:
                daemon.close()
        super().close()
        shutil.rmtree(self.directory, ignore_errors=True)


class Cluster:
    """Two nodes on a link of their own; with `third_vote`, an arbiter besides.

    `token` is how long corosync waits for a sign of life, in milliseconds: as operators have it, or so long that a busy
    machine does not part the nodes.
    """

    def __init__(self, third_vote=False, token=1000, tie_breaker="lowest"):
        device_timeout = max(3000, token)
        self.arbiter = Arbiter() if third_vote else None
        self.nodes = []
        try:
            for number in (1, 2):
                quorum = THIRD_VOTE.format(
                    arbiter=VOTE_ADDRESS.format(number, 254), tie_breaker=tie_breaker, timeout=device_timeout,
                    sync_timeout=device_timeout * 4 // 3) if third_vote else TWO_NODE
                self.nodes.append(Node(number, quorum, 2, token))
            one, two = self.nodes
            one.add_veth(RING, RING, two)
            for node in self.nodes:
                node.ip("addr", "add", RING_ADDRESS.format(node.number) + "/24", "dev", RING)
                if self.arbiter:
                    node.add_veth(VOTE, f"{VOTE}-{node.number}", self.arbiter)
                    node.ip("addr", "add", VOTE_ADDRESS.format(node.number, 1) + "/24", "dev", VOTE)
                    self.arbiter.ip("addr", "add", VOTE_ADDRESS.format(node.number, 254) + "/24", "dev",
                                    f"{VOTE}-{node.number}")
            if self.arbiter:
                self.arbiter.start()
        except BaseException:
            self.close()
            raise

    def node(self, number):
        return self.nodes[number - 1]

    def start(self):
        """Starts corosync everywhere and waits until the nodes see each other and have quorum."""
        for node in self.nodes:
            self.start_node(node)
        wait_for(lambda: all(node.quorate() and node.members() == 2 for node in self.nodes), "two nodes with quorum",
                 180, 0.2)
        return self

    def start_node(self, node):
        node.start_corosync()
        if self.arbiter:
            wait_for(lambda: node.run("corosync-quorumtool", "-s", check=False).returncode in (0, 1, 2)
                     and "Nodes:" in node.run("corosync-quorumtool", "-s", check=False).stdout, "corosync", 180, 0.2)
            node.start_qdevice()

    def restart_corosync(self, node):
        """After corosync's end: its third vote's client ends with it."""
        for daemon in (node.qdevice, node.corosync):
            if daemon:
                daemon.close()
        self.start_node(node)

    def close(self):
        for node in self.nodes:
            node.close()
        if self.arbiter:
            self.arbiter.close()
