"""What reaches a collector: every field of the datagrams, addresses, sockets, sizes, sequence numbers."""
import time

import pytest

from harness.addresses import AGENT4, AGENT6, COLLECTOR4, COLLECTOR4_B, COLLECTOR6
from harness.domain_socket import flow_record
from harness.wait import wait_for

FRAME = bytes(range(60))


def exporting(stage, agent=AGENT4, destination=f"{COLLECTOR4} 6343"):
    return stage.export_to_collector(agent, destination)


def wait_statistics(stage, line):
    wait_for(lambda: f"{line}\n" in stage.cli("show sflow stats").output, line)


def uptime_ms():
    return time.clock_gettime(time.CLOCK_BOOTTIME) * 1000


@pytest.mark.parametrize("agent, agent_words", [(AGENT4, AGENT4), (AGENT6, f"ipv6 {AGENT6}")], ids=["v4", "v6"])
@pytest.mark.parametrize("collector, words", [(COLLECTOR4, f"{COLLECTOR4} 7000"), (COLLECTOR6, f"ipv6 {COLLECTOR6} 7000")],
                         ids=["to-v4", "to-v6"])
def test_every_field_of_a_flow_sample(ready, agent, agent_words, collector, words):
    index = exporting(ready, agent_words, words)
    sink = ready.collector(collector, 7000)
    ready.configure("sflow flow max-header 128")
    earliest = uptime_ms()
    ready.service.send(flow_record(FRAME, index, ingress=index, egress=77, pool=123, drops=9, frame_len=1518, strip_len=4,
                                   vlans=(10, 1, 20, 2)))
    flow = sink.wait_flows(1)[0]
    datagram = sink.datagrams()[0]
    assert (datagram.agent, datagram.sub_agent, datagram.sequence) == (agent, 0, 1)
    # The kernel reports its uptime in whole seconds, rounded up.
    assert earliest <= datagram.uptime_ms <= uptime_ms() + 1000
    assert datagram.uptime_ms % 1000 == 0
    assert (flow.sequence, flow.source_class, flow.source_index) == (1, 0, index)
    assert (flow.rate, flow.pool, flow.drops) == (8192, 0, 9)
    assert (flow.input_format, flow.input, flow.output_format, flow.output) == (0, index, 0, 77)
    assert (flow.src_vlan, flow.src_priority, flow.dest_vlan, flow.dest_priority) == (10, 1, 20, 2)
    assert (flow.protocol, flow.frame_length, flow.stripped, flow.header) == (1, 1518, 4, FRAME)
    assert len(sink.raw[0][0]) == (28 if agent == AGENT4 else 40) + 160


def test_the_pool_of_an_interface_grows_by_the_global_rate(ready):
    ready.configure("sflow sampling-rate 5000")
    index = exporting(ready)
    sink = ready.collector()
    ready.service.send(*(flow_record(FRAME, index, pool=10**6) for _ in range(3)))
    assert [(flow.sequence, flow.pool, flow.rate) for flow in sink.wait_flows(3)] == [
        (1, 0, 5000), (2, 5000, 5000), (3, 10000, 5000)]


def test_a_sample_without_a_source_goes_to_the_first_collector(ready):
    exporting(ready)
    sink = ready.collector()
    ready.service.send(*(flow_record(FRAME, 0, pool=pool) for pool in (100, 200)))
    assert [(flow.sequence, flow.pool, flow.source_index) for flow in sink.wait_flows(2)] == [(1, 100, 0), (2, 200, 0)]


def test_a_sample_of_an_unconfigured_interface_is_counted_as_dropped(ready):
    exporting(ready)
    ready.service.send(flow_record(FRAME, ready.ifindex("port2")))
    wait_statistics(ready, "sflow drop flow num:1")


def test_a_header_is_padded_and_the_padded_length_announced(ready):
    index = exporting(ready)
    sink = ready.collector()
    ready.service.send(flow_record(bytes(range(1, 62)), index))     # 61 bytes, max-header 64
    flow = sink.wait_flows(1)[0]
    assert len(flow.header) == 64 and flow.header[:61] == bytes(range(1, 62))


def test_a_long_header_is_cut_at_the_maximum_rounded_up(ready):
    index = exporting(ready)
    ready.configure("sflow flow max-header 61")
    sink = ready.collector()
    ready.service.send(flow_record(bytes(range(200)), index))
    assert sink.wait_flows(1)[0].header == bytes(range(64))


def test_datagrams_fill_up_to_the_maximum_and_no_further(ready):
    index = exporting(ready)
    # 28 bytes of header and 164 a sample: three fit exactly into 520.
    ready.configure("sflow collector 1 max-datagram-size 520")
    sink = ready.collector()
    sent = 0

    def filled():
        """Sends on until three have met in a datagram: the timer may come between them."""
        nonlocal sent
        ready.service.send(*(flow_record(bytes(64), index) for _ in range(3)))
        sent += 3
        sink.wait_flows(sent)
        return any(len(data) == 520 for data, _ in sink.raw)

    wait_for(filled, "a full datagram")
    ready.service.send(*(flow_record(bytes(64), index) for _ in range(3)))
    ready.service.send(flow_record(bytes(64), index))
    assert len(sink.wait_flows(sent + 4)) == sent + 4
    assert max(len(data) for data, _ in sink.raw) == 520
    assert [datagram.sequence for datagram in sink.datagrams()] == list(range(1, len(sink.raw) + 1))


def test_a_lone_sample_is_sent_without_another_one(ready):
    index = exporting(ready)
    sink = ready.collector()
    ready.service.send(flow_record(FRAME, index))
    sink.wait_datagrams(1)


def test_pending_samples_leave_under_the_old_agent_address(ready):
    index = exporting(ready)
    sink = ready.collector()
    ready.service.send(flow_record(FRAME, index))
    wait_statistics(ready, "sflow receive flow num:1")
    ready.configure(f"sflow agent address {COLLECTOR4_B}")
    ready.service.send(flow_record(FRAME, index))
    sink.wait_flows(2)
    agents = [datagram.agent for datagram in sink.datagrams()]
    assert agents == sorted(agents) and agents[-1] == COLLECTOR4_B
    assert sink.datagrams()[-1].sequence == 1      # a new address starts a new sequence


def test_the_configured_source_is_used_and_shown(ready):
    index = exporting(ready)
    ready.configure(f"sflow source address {COLLECTOR4_B}")
    sink = ready.collector()
    ready.service.send(flow_record(FRAME, index))
    sink.wait_datagrams(1)
    assert sink.raw[0][1] == COLLECTOR4_B
    assert f"Source IP[1]: {COLLECTOR4_B}(used: {COLLECTOR4_B})\n" in ready.cli("show sflow").output


def test_a_collectors_own_source_beats_the_global_one(ready):
    ready.configure(f"sflow source address {COLLECTOR4_B}")
    index = exporting(ready, destination=f"{COLLECTOR4} 6343 source address {AGENT4}")
    sink = ready.collector()
    ready.service.send(flow_record(FRAME, index))
    sink.wait_datagrams(1)
    assert sink.raw[0][1] == AGENT4


def test_a_source_that_cannot_be_bound_falls_back_to_the_next(ready):
    ready.configure(f"sflow source address {COLLECTOR4_B}")
    index = exporting(ready, destination=f"{COLLECTOR4} 6343 source address 203.0.113.77")
    sink = ready.collector()
    ready.service.send(flow_record(FRAME, index))
    sink.wait_datagrams(1)
    assert sink.raw[0][1] == COLLECTOR4_B


def test_an_unreachable_collector_loses_its_samples_but_no_sequence_number(ready):
    index = exporting(ready, destination="203.0.113.9 6343")
    ready.configure("do debug sflow export")
    ready.service.send(flow_record(FRAME, index))
    wait_for(lambda: "connect fail:Network is unreachable" in ready.daemon.log(), "the export to fail")
    ready.namespace.ip("addr", "add", "203.0.113.9/32", "dev", "lo")
    sink = ready.collector("203.0.113.9")
    ready.service.send(flow_record(FRAME, index))
    datagram = sink.wait_datagrams(1)[0]
    assert datagram.sequence == 1
    assert [flow.sequence for flow in datagram.flows] == [2]


def test_two_collectors_each_get_what_their_interfaces_send(ready):
    first = exporting(ready)
    ready.configure(f"sflow collector 2 destination {COLLECTOR4_B} 6344", "interface port2", "sflow flow collector 2",
                    "sflow enable")
    second = ready.ifindex("port2")
    ready.wait_enabled("port2")
    sink, other = ready.collector(), ready.collector(COLLECTOR4_B, 6344)
    ready.service.send(flow_record(FRAME, first), flow_record(FRAME, second), flow_record(FRAME, second))
    assert {flow.source_index for flow in sink.wait_flows(1)} == {first}
    assert {flow.source_index for flow in other.wait_flows(2)} == {second}


def test_statistics_count_what_was_exported(ready):
    index = exporting(ready)
    sink = ready.collector()
    ready.service.send(flow_record(FRAME, index))
    sink.wait_flows(1)
    wait_statistics(ready, "sflow export flow num:1")
    wait_statistics(ready, "sflow export packet num:1")
