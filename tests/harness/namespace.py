"""Network namespaces that a test makes and removes again."""
import ctypes
import os
import socket
import subprocess
import threading
import uuid

from harness.wait import wait_for

CLONE_NEWNET = 0x40000000


def available():
    """None when namespaces can be made here, otherwise the reason why not."""
    if os.geteuid() != 0:
        return "network namespaces need root"
    probe = subprocess.run(["unshare", "-n", "true"], capture_output=True, text=True)
    return None if probe.returncode == 0 else f"no network namespaces: {probe.stderr.strip()}"


class Stack:
    """What network namespaces of all kinds have in common. Derived classes say how a command comes to run in one
    (`command`), and which file it is (`path`)."""

    def run(self, *words, check=True, **keywords):
        keywords.setdefault("capture_output", True)
        keywords.setdefault("text", True)
        done = subprocess.run(self.command(*words), **keywords)
        if check and done.returncode != 0:
            raise RuntimeError(f"{' '.join(map(str, words))}: status {done.returncode}\n{done.stdout}{done.stderr}")
        return done

    def ifindex(self, name):
        return int(self.ip("-o", "link", "show", name).split(":")[0])

    def popen(self, *words, **keywords):
        return subprocess.Popen(self.command(*words), **keywords)

    def socket(self, family, kind, protocol=0):
        """A socket that lives in this namespace."""
        made = []

        def make():
            libc = ctypes.CDLL(None, use_errno=True)
            with open(self.path) as handle:
                if libc.setns(handle.fileno(), CLONE_NEWNET) != 0:
                    made.append(OSError(ctypes.get_errno(), "setns"))
                    return
            try:
                made.append(socket.socket(family, kind, protocol))
            except OSError as error:
                made.append(error)

        maker = threading.Thread(target=make)  # only the thread changes its namespace
        maker.start()
        maker.join()
        if isinstance(made[0], OSError):
            raise made[0]
        return made[0]


class Namespace(Stack):
    """One network namespace with its loopback up; `close` removes it with everything in it."""

    def __init__(self, label):
        self.name = f"sft-{label}-{uuid.uuid4().hex[:6]}"
        subprocess.run(["ip", "netns", "add", self.name], check=True)
        self.ip("link", "set", "lo", "up")

    @property
    def path(self):
        return f"/run/netns/{self.name}"

    def command(self, *words):
        """`words` as a command line that runs in this namespace."""
        return ["ip", "netns", "exec", self.name, *map(str, words)]

    def ip(self, *words):
        """Runs ip(8) here; returns its output."""
        command = ["ip", "-n", self.name, *map(str, words)]
        done = subprocess.run(command, capture_output=True, text=True)
        if done.returncode != 0:
            raise RuntimeError(f"{' '.join(command)}: {done.stderr.strip()}")
        return done.stdout

    def ip_batch(self, *lines):
        """Runs several commands of ip(8) in one process; the first that fails ends it."""
        command = ["ip", "-n", self.name, "-batch", "-"]
        done = subprocess.run(command, input="".join(f"{line}\n" for line in lines), capture_output=True, text=True)
        if done.returncode != 0:
            raise RuntimeError(f"{lines}: {done.stderr.strip()}")

    def add_veth(self, name, peer_name, peer=None):
        """A veth pair from here to `peer` (this namespace when None), both ends up and with carrier."""
        peer = peer or self
        self.ip("link", "add", name, "type", "veth", "peer", "name", peer_name, "netns", peer.name)
        self.ip("link", "set", name, "up")
        peer.ip("link", "set", peer_name, "up")
        # The kernel tells the carrier a little later.
        wait_for(lambda: all("state UP" in end.ip("link", "show", end_name)
                             for end, end_name in ((self, name), (peer, peer_name))), f"the carrier of {name}")

    def close(self):
        subprocess.run(["ip", "netns", "del", self.name], capture_output=True)
