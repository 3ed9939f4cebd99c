"""A UDP collector inside a namespace."""
import socket
import threading

from harness.datagram import decode
from harness.wait import PATIENCE, wait_for


class Collector:
    """Receives datagrams on `address`:`port` of a namespace until closed; a thread keeps them in order."""

    def __init__(self, namespace, address, port=6343):
        family = socket.AF_INET6 if ":" in address else socket.AF_INET
        self.socket = namespace.socket(family, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 23)
        self.socket.bind((address, port))
        self.socket.settimeout(0.1)
        self.raw = []    # (bytes, source address)
        self._closed = False
        self._thread = threading.Thread(target=self._receive, daemon=True)
        self._thread.start()

    def _receive(self):
        while not self._closed:
            try:
                data, source = self.socket.recvfrom(65535)
            except socket.timeout:
                continue
            except OSError:
                return
            self.raw.append((data, source[0]))

    def datagrams(self):
        return [decode(data) for data, _ in list(self.raw)]

    def flows(self):
        return [sample for datagram in self.datagrams() for sample in datagram.flows]

    def counters(self):
        return [sample for datagram in self.datagrams() for sample in datagram.counters]

    def wait_datagrams(self, count, seconds=PATIENCE):
        wait_for(lambda: len(self.raw) >= count, lambda: f"{count} datagrams, {len(self.raw)} so far", seconds)
        return self.datagrams()

    def wait_flows(self, count, seconds=PATIENCE):
        wait_for(lambda: len(self.flows()) >= count, lambda: f"{count} flow samples, {len(self.flows())} so far",
                 seconds)
        return self.flows()

    def wait_counters(self, count, seconds=PATIENCE):
        wait_for(lambda: len(self.counters()) >= count,
                 lambda: f"{count} counters samples, {len(self.counters())} so far", seconds)
        return self.counters()

    def clear(self):
        self.raw.clear()

    def close(self):
        self._closed = True
        self._thread.join()
        self.socket.close()
