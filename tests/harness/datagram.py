"""A strict decoder of sFlow version 5 datagrams, written for the tests alone.

It accepts exactly what the agent may send (expanded flow samples with an extended switch and a raw header record,
counters samples with a generic and an Ethernet record) and raises DatagramError on anything else: a length that
does not add up, an unknown tag, bytes left over.
"""
import dataclasses
import ipaddress
import struct


class DatagramError(Exception):
    """The datagram is not one that the agent may send."""


class _Reader:
    def __init__(self, data):
        self.data = data
        self.at = 0

    def take(self, count):
        if count < 0 or self.at + count > len(self.data):
            raise DatagramError(f"{count} bytes wanted at {self.at} of {len(self.data)}")
        self.at += count
        return self.data[self.at - count:self.at]

    def u32(self, count=None):
        words = struct.unpack(f"!{count or 1}I", self.take(4 * (count or 1)))
        return list(words) if count else words[0]

    def u64(self):
        return struct.unpack("!Q", self.take(8))[0]

    def expect(self, wanted, what):
        found = self.u32()
        if found != wanted:
            raise DatagramError(f"{what} is {found}, not {wanted}")

    def end(self, what):
        if self.at != len(self.data):
            raise DatagramError(f"{what}: {len(self.data) - self.at} bytes left over")


@dataclasses.dataclass
class FlowSample:
    sequence: int
    source_class: int
    source_index: int
    rate: int
    pool: int
    drops: int
    input_format: int
    input: int
    output_format: int
    output: int
    src_vlan: int
    src_priority: int
    dest_vlan: int
    dest_priority: int
    protocol: int
    frame_length: int
    stripped: int
    header: bytes


@dataclasses.dataclass
class CountersSample:
    sequence: int
    source_index: int
    generic: dict
    ethernet: dict


@dataclasses.dataclass
class Datagram:
    agent: str
    sub_agent: int
    sequence: int
    uptime_ms: int
    flows: list
    counters: list
    samples: list


GENERIC = [("ifIndex", 4), ("ifType", 4), ("ifSpeed", 8), ("ifDirection", 4), ("ifStatus", 4), ("ifInOctets", 8),
           ("ifInUcastPkts", 4), ("ifInMulticastPkts", 4), ("ifInBroadcastPkts", 4), ("ifInDiscards", 4),
           ("ifInErrors", 4), ("ifInUnknownProtos", 4), ("ifOutOctets", 8), ("ifOutUcastPkts", 4),
           ("ifOutMulticastPkts", 4), ("ifOutBroadcastPkts", 4), ("ifOutDiscards", 4), ("ifOutErrors", 4),
           ("ifPromiscuousMode", 4)]
ETHERNET = [(f"dot3Stats{name}", 4) for name in (
    "AlignmentErrors", "FCSErrors", "SingleCollisionFrames", "MultipleCollisionFrames", "SQETestErrors",
    "DeferredTransmissions", "LateCollisions", "ExcessiveCollisions", "InternalMacTransmitErrors",
    "CarrierSenseErrors", "FrameTooLongs", "InternalMacReceiveErrors", "SymbolErrors")]


def _fields(reader, layout):
    return {name: reader.u64() if size == 8 else reader.u32() for name, size in layout}


def _record(reader, tag, length):
    reader.expect(tag, "record tag")
    if length is None:
        length = reader.u32()
    else:
        reader.expect(length, f"length of record {tag}")
    return _Reader(reader.take(length))


def _flow_sample(reader):
    sequence, source_class, source_index, rate, pool, drops = reader.u32(6)
    input_format, input_value, output_format, output_value = reader.u32(4)
    reader.expect(2, "number of flow records")
    switch = _record(reader, 1001, 16)
    vlans = switch.u32(4)
    raw = _record(reader, 1, None)
    protocol, frame_length, stripped, header_length = raw.u32(4)
    header = raw.take(header_length)
    raw.end("raw header record")
    reader.end("flow sample")
    return FlowSample(sequence, source_class, source_index, rate, pool, drops, input_format, input_value,
                      output_format, output_value, *vlans, protocol, frame_length, stripped, header)


def _counters_sample(reader):
    sequence, source = reader.u32(2)
    reader.expect(2, "number of counter records")
    generic = _fields(_record(reader, 1, 88), GENERIC)
    ethernet = _fields(_record(reader, 2, 52), ETHERNET)
    reader.end("counters sample")
    return CountersSample(sequence, source, generic, ethernet)


def decode(data):
    """The Datagram in `data`."""
    reader = _Reader(data)
    reader.expect(5, "version")
    family = reader.u32()
    if family not in (1, 2):
        raise DatagramError(f"agent address type {family}")
    agent = str(ipaddress.ip_address(reader.take(4 if family == 1 else 16)))
    sub_agent, sequence, uptime_ms, count = reader.u32(4)
    samples = []
    for _ in range(count):
        tag = reader.u32()
        body = _Reader(reader.take(reader.u32()))
        decoder = {2: _counters_sample, 3: _flow_sample}.get(tag)
        if decoder is None:
            raise DatagramError(f"sample tag {tag}")
        samples.append(decoder(body))
    reader.end("datagram")
    return Datagram(agent, sub_agent, sequence, uptime_ms,
                    [sample for sample in samples if isinstance(sample, FlowSample)],
                    [sample for sample in samples if isinstance(sample, CountersSample)], samples)
