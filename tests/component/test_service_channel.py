"""The daemon's side of the socket: connect, replay, settings, refusals, odd packets, reconnects."""
import socket

import pytest

from harness.addresses import AGENT4, COLLECTOR4
from harness.domain_socket import (CAPACITY, CONFIG_END, CONFIG_REQUEST, CONFIG_START, CONNECT, EGRESS, HEADER_LEN,
                                   INGRESS, IFX_IS_CONF, SET_RATE, Rate, ServiceEnd, counter_report, flow_record,
                                   rate_answer, record)
from harness.wait import PATIENCE, wait_for


def kinds(service):
    return [kind for kind, _ in list(service.received)]


def test_the_first_record_is_the_connect_notice(stage):
    stage.start()
    service = ServiceEnd(stage.sandbox.domain_socket).connect(handshake=False)
    service.wait_for(CONNECT)
    assert kinds(service) == [CONNECT]
    service.disconnect()


def test_an_empty_configuration_replays_start_header_length_end(stage):
    stage.start()
    service = stage.connect()
    assert kinds(service) == [CONNECT, CONFIG_START, HEADER_LEN, CONFIG_END]
    assert service.of(HEADER_LEN) == [64]


def test_a_reconnected_service_gets_the_configuration_again(ready):
    ready.configure("sflow flow max-header 100", "interface port1", "sflow enable")
    index = ready.ifindex("port1")
    ready.wait_enabled("port1")
    ready.service.disconnect()
    service = ready.connect()
    assert kinds(service)[:2] == [CONNECT, CONFIG_START]
    assert kinds(service)[-2:] == [HEADER_LEN, CONFIG_END]
    assert service.of(HEADER_LEN) == [100]
    # Two slots, two directions: everything is switched off before anything is switched on.
    replayed = [(request.rate, request.direct) for request in service.of(SET_RATE)]
    assert replayed == [(0, INGRESS), (0, EGRESS)] * 2 + [(8192, INGRESS), (8192, EGRESS)] * 2
    assert all(request.ifx == index and request.ifx_type == 1 for request in service.of(SET_RATE))


def test_a_setting_takes_effect_only_when_the_service_confirms_it(stage):
    held = []
    stage.ready(answer_rate=lambda request: held.append(request) or None)
    stage.configure("interface port1", "sflow enable ingress")
    wait_for(lambda: held, "the request")
    assert "port1" not in stage.sandbox.running_config()
    stage.service.send(rate_answer(held[0]))
    wait_for(lambda: "sflow enable ingress" in stage.sandbox.running_config(), "the confirmed setting")


@pytest.mark.parametrize("code, text", [
    (-10, "%SFLOW-4-CONFLICT_ERSPAN: Interface port1 cannot be sampled due to the conflict between SFLOW and ERSPAN."),
    (-11, "%SFLOW-4-CONFLICT_IPFIX: Interface port1 cannot be sampled due to the conflict between SFLOW and IPFIX."),
    (-22, "%SFLOW-4-CONFIG_FAIL: Interface port1 cannot be sampled due to an unknown error[-22]."),
])
def test_a_refusal_warns_with_the_interface_and_changes_nothing(stage, code, text):
    stage.ready(answer_rate=lambda request: code)
    assert stage.cli("configure terminal", "interface port1", "sflow enable ingress").status == 0
    wait_for(lambda: text in stage.daemon.log(), f"{text!r} in the log")
    assert "port1" not in stage.sandbox.running_config()


def test_a_refusal_for_an_unknown_interface_is_not_a_warning(stage):
    stage.ready()
    stage.configure("do debug sflow conf")
    stage.service.send(rate_answer(Rate(9999, 8192, INGRESS, 1, 0, "", 0), -11))
    wait_for(lambda: "Failed to get interface name" in stage.daemon.log(), "the log line")
    assert "CONFLICT_IPFIX" not in stage.daemon.log()


def test_a_refused_attachment_leaves_the_interface_without_collector(stage):
    stage.ready(answer_attach=lambda request: -1)
    stage.configure(f"sflow collector 1 destination {COLLECTOR4} 6343", "interface port1", "sflow flow collector 1")
    wait_for(lambda: stage.service.of(IFX_IS_CONF), "the request")
    assert "sflow flow collector" not in stage.sandbox.running_config()


def test_three_flow_samples_back_to_back_in_one_packet_are_all_exported(ready):
    index = ready.export_to_collector()
    collector = ready.collector()
    headers = [bytes([number]) * 64 for number in (1, 2, 3)]
    ready.service.send(*(flow_record(header, index, ingress=index) for header in headers))
    flows = collector.wait_flows(3)
    assert [flow.header for flow in flows] == headers
    assert [flow.sequence for flow in flows] == [1, 2, 3]


def test_short_records_unknown_records_and_noise_lose_nothing_else(ready):
    index = ready.export_to_collector()
    collector = ready.collector()
    good = flow_record(b"\x11" * 64, index, ingress=index)
    service = ready.service
    service.send(b"\0\0\0")                                   # shorter than a header
    service.send(record(0x7777, b"unknown!"))                 # nobody's record
    service.send(record(0x203))                               # a flow sample without a body
    service.send(record(0x202, b"\0" * 4), record(0x205), record(0x201), record(0x501))
    service.send(good[:100])                                  # cut short: its length runs past the end
    service.send(record(0x7777), good)
    assert len(collector.wait_flows(1)) == 1
    assert ready.daemon.running()


def test_a_hostile_header_length_does_no_harm(ready):
    index = ready.export_to_collector()
    collector = ready.collector()
    for length in (-1, -2**31, 257, 2**31 - 1, 100000):
        ready.service.send(flow_record(b"\x22" * 64, index, buf_len=length))
    ready.service.send(flow_record(b"\x33" * 64, index))
    wait_for(lambda: any(flow.header == b"\x33" * 64 for flow in collector.flows()), "the good sample")
    assert ready.daemon.running()


def test_a_second_service_is_served_when_the_first_leaves(ready):
    second = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    second.connect(ready.sandbox.domain_socket)
    second.settimeout(0.5)
    with pytest.raises(socket.timeout):
        second.recv(1000)
    ready.service.disconnect()
    second.settimeout(PATIENCE)
    assert second.recv(1000) == record(CONNECT)
    second.close()


def test_commands_that_need_the_service_fail_while_it_is_away(ready):
    ready.configure(f"sflow collector 1 destination {COLLECTOR4} 6343")
    ready.service.disconnect()
    wait_for(lambda: "no connect" in ready.cli("show sflow_server_lib_info").output, "the disconnect")
    result = ready.cli("configure terminal", "interface port1", "sflow enable ingress")
    assert result.status == 1 and result.output.endswith("sflow enable failure.\n")
    result = ready.cli("configure terminal", "interface port1", "sflow flow collector 1")
    assert result.status == 1 and result.output.endswith("Failed to configure sflow flow collector.\n")


def test_many_reconnects(ready):
    for _ in range(20):
        ready.service.disconnect()
        ready.connect()
    assert ready.cli("show sflow status").output.splitlines()[1] == "sflow ss connect success"


def test_counter_reports_are_exported_with_the_interface_facts(ready):
    index = ready.export_to_collector()
    collector = ready.collector()
    ready.service.send(counter_report(index, {"ifInOctets": 2**40, "ifOutErrors": 7, "ifPromiscuousMode": 1},
                                      list(range(1, 14))))
    sample = collector.wait_counters(1)[0]
    assert sample.source_index == index and sample.sequence == 1
    assert sample.generic["ifIndex"] == index and sample.generic["ifType"] == 6
    assert sample.generic["ifInOctets"] == 2**40 and sample.generic["ifOutErrors"] == 7
    assert sample.generic["ifPromiscuousMode"] == 2
    assert sample.generic["ifStatus"] == 3 and sample.generic["ifSpeed"] == 10**10
    assert list(sample.ethernet.values()) == list(range(1, 14))


def test_the_poller_asks_once_an_interval(stage):
    stage.ready(answer_counter=lambda ifx, ifx_type: counter_report(ifx, {"ifInOctets": 5}))
    stage.configure("sflow counter interval 3")
    collector = stage.collector()     # before the first report
    stage.export_to_collector(agent=AGENT4)
    samples = collector.wait_counters(2)
    assert [sample.sequence for sample in samples[:2]] == [1, 2]


def test_the_capacity_decides_what_is_offered(stage):
    stage.ready(capacity=0x1)
    refused = stage.cli("configure terminal", "interface port1", "sflow enable")
    assert refused.status == 1
    assert stage.cli("configure terminal", "interface port1", "sflow enable ingress").status == 0
    stage.service.send(record(CAPACITY, b"\x03\0\0\0"))
    wait_for(lambda: stage.cli("configure terminal", "interface port1", "sflow enable").status == 0,
             "the command to be offered")


def test_a_request_for_the_configuration_may_come_again(ready):
    ready.service.send(record(CONFIG_REQUEST))
    ready.service.wait_for(CONFIG_END, 2)
    assert kinds(ready.service).count(CONFIG_START) == 2
