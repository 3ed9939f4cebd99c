"""Real packets on a veth link, sampled in the kernel, counted at the collector."""
import math
import signal

import pytest

from harness.addresses import HOST4, SWITCH4
from harness.sampler_totals import sampler_totals
from harness.wait import wait_for

RATE = 4096
PACKETS = 1_000_000


def configured(link, *more):
    link.start()
    link.sandbox.configure(f"sflow agent address {SWITCH4}", f"sflow collector 1 destination {HOST4} 6343",
                           f"sflow sampling-rate {RATE}", "sflow counter interval 3", "interface port1",
                           "sflow flow collector 1", "sflow counter collector 1", *(more or ("sflow enable",)))
    wait_for(lambda: f" {(more or ('sflow enable',))[-1]}\n" in link.sandbox.running_config(), "the settings")
    return link.collector()


def estimated(link, collector, direction="ingress"):
    """Sends PACKETS and returns their flow samples, whose estimate must lie within three standard errors."""
    error = RATE * math.sqrt(PACKETS / RATE * (1 - 1 / RATE))
    deviations = []
    for _ in range(2):    # a right sampler misses three standard errors once in 370 times; twice in a row hardly ever
        before = len(collector.flows())
        assert link.generate(PACKETS, direction)["packets"] == PACKETS
        flows = settled(link, collector)[before:]
        deviations.append((len(flows) * RATE - PACKETS) / error)
        if abs(deviations[-1]) <= 3:
            return flows
    raise AssertionError(f"estimates off by {deviations} standard errors")


@pytest.mark.parametrize("direction", ["ingress", "egress"])
def test_a_million_packets_are_estimated_within_three_standard_errors(link, direction):
    collector = configured(link)
    flows = estimated(link, collector, direction)
    field = "input" if direction == "ingress" else "output"
    assert {getattr(flow, field) for flow in flows} == {link.index}
    assert {flow.source_index for flow in flows} == {link.index}
    assert {flow.rate for flow in flows} == {RATE}
    sequences = [flow.sequence for flow in flows]
    assert sequences == list(range(sequences[0], sequences[0] + len(flows)))


def settled(link, collector):
    """Waits until every sample that the service has ever taken has arrived; returns them."""
    def all_there():
        totals = sampler_totals(link.service, lambda: link.sandbox.cli("show sflow_lib_info"))
        return len(collector.flows()) == sum(one.taken for one in totals.values())

    wait_for(all_there, lambda: f"all samples, {len(collector.flows())} so far", pause=0.2)
    return collector.flows()


def test_the_sampled_headers_are_those_of_the_packets_sent(link):
    collector = configured(link)
    report = link.generate(400_000)
    flows = settled(link, collector)
    assert flows and report["packets"] == 400_000
    kinds = set()
    for flow in flows:
        ethertype = int.from_bytes(flow.header[12:14], "big")
        assert ethertype in (0x0800, 0x86dd)
        kinds.add((ethertype, flow.header[23] if ethertype == 0x0800 else flow.header[20]))
        length = int.from_bytes(flow.header[16:18], "big") + 14 if ethertype == 0x0800 else \
            int.from_bytes(flow.header[18:20], "big") + 54
        assert flow.frame_length == max(length, 60) + 4 or flow.frame_length == length + 4
        assert flow.stripped == 4
    assert len(kinds) >= 4      # IPv4 and IPv6, several protocols


def test_by_snoop_samples_without_a_tc_hook(link):
    collector = configured(link, "sflow enable ingress by-snoop")
    estimated(link, collector)
    assert not link.hooks()["ingress"]


def test_disabling_takes_the_hooks_away_and_the_samples_stop(link):
    collector = configured(link)
    wait_for(lambda: all(link.hooks().values()), "the hooks")
    link.sandbox.configure("interface port1", "no sflow enable")
    wait_for(lambda: not any(link.hooks().values()), "the hooks to go")
    link.generate(200_000)
    assert settled(link, collector) == []


def test_the_services_end_leaves_no_hook_behind(link):
    configured(link)
    wait_for(lambda: all(link.hooks().values()), "the hooks")
    assert link.service.stop(signal.SIGTERM) == 0
    assert not any(link.hooks().values())
    assert "clsact" not in link.switch.run("tc", "qdisc", "show", "dev", "port1").stdout


def test_hooks_left_by_a_killed_service_are_replaced(link):
    collector = configured(link)
    wait_for(lambda: all(link.hooks().values()), "the hooks")
    link.service.stop(signal.SIGKILL)
    assert all(link.hooks().values())
    link.service = link.sandbox.start("sflow-samplingd")
    wait_for(lambda: "removed 2 filters" in link.service.log(), "the old hooks to go")
    wait_for(lambda: all(link.hooks().values()), "the new hooks")
    # A stale filter beside the new one would double the samples.
    estimated(link, collector)


def test_the_daemons_end_stops_sampling_and_its_return_starts_it_again(link):
    configured(link)
    link.sandbox.cli("write memory")
    wait_for(lambda: all(link.hooks().values()), "the hooks")
    link.daemon.stop(signal.SIGKILL)
    wait_for(lambda: not any(link.hooks().values()), "the hooks to go")
    link.daemon = link.sandbox.start_sflowd()
    wait_for(lambda: all(link.hooks().values()), "the hooks to come back")


def test_counters_are_those_of_the_kernel(link):
    collector = configured(link)
    report = link.generate(100_000)
    wait_for(lambda: collector.counters() and collector.counters()[-1].generic["ifInUcastPkts"] >= 100_000,
             "counters that have seen the traffic")
    last = collector.counters()[-1].generic
    statistics = link.switch.run("cat", "/sys/class/net/port1/statistics/rx_bytes").stdout
    assert last["ifInOctets"] == int(statistics)
    assert last["ifInOctets"] >= report["bytes"]
    assert last["ifSpeed"] == 10**10 and last["ifDirection"] == 1 and last["ifStatus"] == 3
