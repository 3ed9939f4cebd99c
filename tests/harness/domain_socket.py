"""Both ends of the socket between sflowd and the sampling service, scripted.

`ServiceEnd` plays the sampling service against the real sflowd; `DaemonEnd` plays the daemon against the real
sflow-samplingd. Records are in host byte order; one packet holds one or more of them.
"""
import collections
import os
import select
import socket
import struct
import threading

from harness.wait import PATIENCE, wait_for

GET_COUNTER, SET_RATE, IFX_IS_CONF, HEADER_LEN = 0x101, 0x102, 0x105, 0x106
COUNTER_RET, RATE_RET, FLOW, UPDATE_COUNTER, IFX_IS_CONF_RET = 0x201, 0x202, 0x203, 0x204, 0x205
CAPACITY = 0x501
CONFIG_START, CONFIG_END, CONFIG_REQUEST, CONNECT = 0x1001, 0x1002, 0x1003, 0x1004
DEBUG = 0x2001

INGRESS, EGRESS = 1, 2
BY_SNOOP = 1
ALL_CAPACITY = 0xFFF

GENERIC_FORMAT = "=IIQII" + "Q6I" + "Q6I"
GENERIC_FIELDS = ("ifIndex", "ifType", "ifSpeed", "ifDirection", "ifStatus", "ifInOctets", "ifInUcastPkts",
                  "ifInMulticastPkts", "ifInBroadcastPkts", "ifInDiscards", "ifInErrors", "ifInUnknownProtos",
                  "ifOutOctets", "ifOutUcastPkts", "ifOutMulticastPkts", "ifOutBroadcastPkts", "ifOutDiscards",
                  "ifOutErrors", "ifPromiscuousMode")

Header = collections.namedtuple("Header", "type len")
Rate = collections.namedtuple("Rate", "ifx rate direct ifx_type acl_id acl_name snoop")
RateAnswer = collections.namedtuple("RateAnswer", Rate._fields + ("ret",))
Attach = collections.namedtuple("Attach", "ifx flag cid")
AttachAnswer = collections.namedtuple("AttachAnswer", Attach._fields + ("ret",))
Counters = collections.namedtuple("Counters", "ifx ifx_type generic ethernet")
FlowInfo = collections.namedtuple("FlowInfo", "source_id ingress_ifx egress_ifx sample_pool drops_num frame_len "
                                              "strip_len src_vlan src_priority dest_vlan dest_prority")
Flow = collections.namedtuple("Flow", "header info")


def record(kind, body=b""):
    return struct.pack("=II", kind, 8 + len(body)) + body


def rate_request(ifx, rate, direct, ifx_type=1, acl_id=0, acl_name="", snoop=0):
    return record(SET_RATE, struct.pack("=Iiiii100si", ifx, rate, direct, ifx_type, acl_id, acl_name.encode(), snoop))


def rate_answer(request, ret=0):
    return record(RATE_RET, struct.pack("=Iiiii100sii", request.ifx, request.rate, request.direct, request.ifx_type,
                                        request.acl_id, request.acl_name.encode(), request.snoop, ret))


def attach_answer(request, ret=0):
    return record(IFX_IS_CONF_RET, struct.pack("=Iiii", request.ifx, request.flag, request.cid, ret))


def counter_report(ifx, generic=None, ethernet=None, ifx_type=1, kind=COUNTER_RET):
    """`generic` maps field names to values, `ethernet` is a list of thirteen; what is left out is 0."""
    values = [(generic or {}).get(name, 0) for name in GENERIC_FIELDS]
    body = struct.pack("=Ii", ifx, ifx_type) + struct.pack(GENERIC_FORMAT, *values)
    body += struct.pack("=13II", *(ethernet or [0] * 13), 0)
    return record(kind, body)


def flow_record(header, source_id, ingress=0, egress=0, pool=0, drops=0, frame_len=None, strip_len=4, vlans=(0, 0, 0, 0),
                buf_len=None):
    frame_len = len(header) + 4 if frame_len is None else frame_len
    body = struct.pack("=256si", header, len(header) if buf_len is None else buf_len)
    body += struct.pack("=11I", source_id, ingress, egress, pool, drops, frame_len, strip_len, *vlans)
    return record(FLOW, body)


def _text(raw):
    return raw.split(b"\0")[0].decode()


def split(packet):
    """The records of a packet as (type, decoded body); raises ValueError when a length does not add up."""
    at = 0
    while at < len(packet):
        kind, length = struct.unpack_from("=II", packet, at)
        if length < 8 or at + length > len(packet):
            raise ValueError(f"record {kind:#x} of {length} bytes at {at} of {len(packet)}")
        yield kind, _decode(kind, packet[at + 8:at + length])
        at += length


def _exactly(layout, body):
    if struct.calcsize(layout) != len(body):
        raise ValueError(f"body of {len(body)} bytes where {struct.calcsize(layout)} belong")
    return struct.unpack(layout, body)


def _decode(kind, body):
    if kind == SET_RATE:
        fields = _exactly("=Iiiii100si", body)
        return Rate(*fields[:5], _text(fields[5]), fields[6])
    if kind == RATE_RET:
        fields = _exactly("=Iiiii100sii", body)
        return RateAnswer(*fields[:5], _text(fields[5]), *fields[6:])
    if kind == IFX_IS_CONF:
        return Attach(*_exactly("=Iii", body))
    if kind == IFX_IS_CONF_RET:
        return AttachAnswer(*_exactly("=Iiii", body))
    if kind == GET_COUNTER:
        return _exactly("=Ii", body)
    if kind in (COUNTER_RET, UPDATE_COUNTER):
        ifx, ifx_type = struct.unpack_from("=Ii", body)
        generic = dict(zip(GENERIC_FIELDS, struct.unpack_from(GENERIC_FORMAT, body, 8)))
        return Counters(ifx, ifx_type, generic, list(struct.unpack_from("=13I", body, 96)))
    if kind == FLOW:
        fields = _exactly("=256si11I", body)
        return Flow(fields[0][:fields[1]], FlowInfo(*fields[2:]))
    if kind in (HEADER_LEN, CAPACITY):
        return _exactly("=I", body)[0]
    if kind == DEBUG:
        return _exactly("=ii", body)
    _exactly("=", body)
    return None


class _End:
    """A connected socket whose received records are kept, in order, by a thread."""

    def __init__(self):
        self.received = []    # (type, decoded body)
        self.packets = []     # sizes
        self.connection = None
        self.closed = False
        self._thread = None

    def _serve(self, connection):
        self.connection = connection
        self._thread = threading.Thread(target=self._receive, daemon=True)
        self._thread.start()

    def _receive(self):
        while True:
            try:
                packet = self.connection.recv(4096)
            except OSError:
                packet = b""
            if not packet:
                self.closed = True
                return
            self.packets.append(len(packet))
            for kind, body in split(packet):
                self.received.append((kind, body))
                self.handle(kind, body)

    def handle(self, kind, body):
        """Called on the receiving thread for each record."""

    def send(self, *records):
        """All records in one packet."""
        self.connection.sendall(b"".join(records))

    def of(self, kind):
        """Bodies of the records of one type received so far."""
        return [body for received, body in list(self.received) if received == kind]

    def wait_for(self, kind, count=1, seconds=PATIENCE):
        wait_for(lambda: len(self.of(kind)) >= count,
                 lambda: f"{count} records of type {kind:#x}; received {self.received}", seconds)
        return self.of(kind)

    def disconnect(self):
        if self.connection is not None:
            try:
                self.connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            self._thread.join(PATIENCE)
            self.connection.close()
            self.connection = None


class ServiceEnd(_End):
    """Plays the sampling service. Answers settings, attachments and counter requests unless told otherwise.

    answer_rate     Rate → result code, or None for no answer at all
    answer_attach   Attach → result code, or None
    answer_counter  (ifx, ifx_type) → a record from counter_report(), or None
    """

    def __init__(self, path, capacity=ALL_CAPACITY, answer_rate=lambda request: 0, answer_attach=lambda request: 0,
                 answer_counter=lambda ifx, ifx_type: None):
        super().__init__()
        self.path = path
        self.capacity = capacity
        self.answer_rate = answer_rate
        self.answer_attach = answer_attach
        self.answer_counter = answer_counter

    def connect(self, handshake=True):
        """Connects; with `handshake` asks for the configuration, reports the capacity, waits for the replay's end."""
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 1 << 22)

        def connected():
            try:
                connection.connect(self.path)
                return True
            except (FileNotFoundError, ConnectionRefusedError, BlockingIOError):
                return False

        wait_for(connected, f"a server at {self.path}")
        self._serve(connection)
        if handshake:
            self.wait_for(CONNECT)
            self.send(record(CONFIG_REQUEST))
            self.send(record(CAPACITY, struct.pack("=I", self.capacity)))
            self.wait_for(CONFIG_END)
        return self

    def handle(self, kind, body):
        answer = None
        if kind == SET_RATE and (ret := self.answer_rate(body)) is not None:
            answer = rate_answer(body, ret)
        elif kind == IFX_IS_CONF and (ret := self.answer_attach(body)) is not None:
            answer = attach_answer(body, ret)
        elif kind == GET_COUNTER:
            answer = self.answer_counter(*body)
        if answer is not None:
            try:
                self.send(answer)
            except OSError:
                pass    # the daemon has gone; the receiver sees it next


CACHE_IMAGE = "=16xI4x" + GENERIC_FORMAT[1:] + "13I4x"
GENERIC_COUNTERS = GENERIC_FIELDS[5:-1]


class DaemonEnd(_End):
    """Plays the daemon: listens, accepts one service, replays an empty configuration when asked for it, and keeps the
    counter bases in its cache file as long as `keep_bases` is set.
    """

    def __init__(self, path):
        super().__init__()
        self.keep_bases = True
        self.bases = {}    # interface → field values, octets first to symbol errors last
        self.cache_path = os.path.join(os.path.dirname(path), "tmp_file")
        os.makedirs(os.path.dirname(path), exist_ok=True)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        if os.path.exists(path):
            os.unlink(path)
        self.listener.bind(path)
        self.listener.listen(0)
        self.header_len = 128

    def is_asked_for(self):
        """Whether a service waits to be accepted."""
        return bool(select.select([self.listener], [], [], 0)[0])

    def accept(self, seconds=PATIENCE):
        """Waits for the service and for its capacity."""
        self.listener.settimeout(seconds)
        connection, _ = self.listener.accept()
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 22)
        self.closed = False
        self._serve(connection)
        self.send(record(CONNECT))
        self.wait_for(CAPACITY)
        return self

    def handle(self, kind, body):
        if kind == CONFIG_REQUEST:
            self.send(record(CONFIG_START))
            self.send(record(HEADER_LEN, struct.pack("=I", self.header_len)))
            self.send(record(CONFIG_END))
        elif kind == UPDATE_COUNTER and self.keep_bases:
            self.add_to_base(body)

    def add_to_base(self, update):
        """As the daemon does: the largest value of a field makes the sum unknown."""
        step = [update.generic[name] for name in GENERIC_COUNTERS] + update.ethernet
        base = self.bases.setdefault(update.generic["ifIndex"], [0] * len(step))
        for field, value in enumerate(step):
            unknown = 2**64 - 1 if field in (0, 7) else 2**32 - 1
            base[field] = unknown if value == unknown else (base[field] + value) & unknown
        self.write_cache()

    def write_cache(self):
        images = b"".join(struct.pack(CACHE_IMAGE, ifx, 0, 0, 0, 0, 0, *base[:13], 0, *base[13:])
                          for ifx, base in self.bases.items())
        with open(self.cache_path + ".new", "wb") as file:
            file.write(images)
        os.replace(self.cache_path + ".new", self.cache_path)

    def set_rate(self, ifx, rate, direct, **fields):
        """Sends a setting and returns the service's answer to it."""
        count = len(self.of(RATE_RET))
        self.send(rate_request(ifx, rate, direct, **fields))
        return self.wait_for(RATE_RET, count + 1)[count]

    def flows(self):
        return self.of(FLOW)

    def close(self):
        self.disconnect()
        self.listener.close()
