"""Sampling limited by access lists: mixed packets on veth links, counted at the collector."""
import math
import re

import pytest

from harness import access_list
from harness.addresses import HOST4, SWITCH4
from harness.sampler_totals import sampler_totals
from harness.wait import wait_for

RATE = 4096
PACKETS = 400_000
FEWER = 200_000     # 12 samples of each kind of marked packet are expected; none at all, once in 200,000 times
MARKED = 50     # percent of the packets that the lists are about

NET = "permit ip 203.0.113.0/24 any"
PORT = "permit tcp any any eq 443"

# ---- Packets --------------------------------------------------------------------------------------------------------

def is_of_net(flow):
    return flow.header[12:14] == b"\x08\x00" and flow.header[26:29] == bytes([203, 0, 113])


def is_to_port(flow):
    return flow.header[12:14] == b"\x08\x00" and flow.header[23] == 6 and flow.header[36:38] == (443).to_bytes(2, "big")


def is_of_either(flow):
    return is_of_net(flow) or is_to_port(flow)


def all_packets(report):
    return report["packets"]


def of_net(report):
    return report["marked_by_net"]


def to_port(report):
    return report["marked_by_port"]


def of_either(report):
    return of_net(report) + to_port(report)


# ---- The service ----------------------------------------------------------------------------------------------------

def samplers(link):
    """What the service says of its samplers that are on: totals by port."""
    totals = sampler_totals(link.service, lambda: link.sandbox.cli("show sflow_lib_info"))
    return {name.removesuffix(" ingress"): one for name, one in totals.items() if one.on}


def pool(link):
    """Packets that have passed the ingress sampler of port1."""
    return samplers(link)["port1"].pool


def received(link):
    return int(link.switch.run("cat", "/sys/class/net/port1/statistics/rx_packets").stdout)


def edit(link, *lines):
    """Changes the list `web`, and waits until the change is in force."""
    link.sandbox.configure("ip access-list extended web", *lines)
    version = access_list.published(link.sandbox, id_of(link, "web"))["version"]
    wait_for(lambda: f"access list web: version {version} with" in link.service.log(), "the edit to be in force")


def id_of(link, name):
    return int(re.search(r", id (\d+),", link.sandbox.cli(f"show access-lists {name}").output)[1])


def list_of(*entries, name="web"):
    return (f"ip access-list extended {name}", *(f"{10 * (i + 1)} {entry}" for i, entry in enumerate(entries)))


def running(link, *lines):
    wait_for(lambda: all(f" {line}\n" in link.sandbox.running_config() for line in lines), f"{lines}")


def gone(link, text):
    wait_for(lambda: text not in link.sandbox.running_config(), f"{text} to go")


def started(link, *lists):
    """Both daemons with these lists; port1 is limited to `web`."""
    link.start()
    link.sandbox.configure(f"sflow agent address {SWITCH4}", f"sflow collector 1 destination {HOST4} 6343",
                           f"sflow sampling-rate {RATE}", *(line for one in lists for line in one),
                           "interface port1", "sflow flow collector 1", "sflow enable ingress acl web")
    running(link, "sflow flow collector 1", "sflow enable ingress acl web")
    return link.collector()


def limit(link, name):
    """A further list for port1."""
    link.sandbox.configure("interface port1", f"sflow enable ingress acl {name}")
    running(link, f"sflow enable ingress acl {name}")


def restart_service(link, meanwhile=lambda: None):
    """The daemon stops and starts everything; the new service has to take the lists from their files."""
    complete = "configuration complete"
    before = link.service.log().count(complete)
    link.service.stop()
    meanwhile()
    link.service = link.sandbox.start("sflow-samplingd")
    wait_for(lambda: link.service.log().count(complete) > before, "the end of the replay")


# ---- Measurement ----------------------------------------------------------------------------------------------------

def measured(link, collector, permitted, packets):
    """Sends so many mixed packets to each port of `permitted`, which maps a port to what says, of pktgen's report, how
    many packets its sampler counts: exactly so many, and all samples of them arrive. Returns flows and numbers of packets
    that were permitted, by port."""
    collector.clear()
    before = samplers(link)
    senders = {port: link.generating(packets, port=int(port[-1]), marked=MARKED) for port in permitted}
    reports = {port: link.report_of(sender) for port, sender in senders.items()}
    expected = {port: permitted[port](report) for port, report in reports.items()}

    def counted():
        now = samplers(link)
        return now if {port: now[port].pool - before[port].pool for port in permitted} == expected else None

    after = wait_for(counted, f"the pools to have grown by {expected} from {before}")
    assert [after[port].dropped for port in permitted] == [before[port].dropped for port in permitted]
    taken = sum(after[port].taken - before[port].taken for port in permitted)
    collector.wait_flows(taken)
    flows = {port: [] for port in permitted}
    names = {link.switch.ifindex(port): port for port in permitted}
    for flow in collector.flows():
        flows[names[flow.source_index]].append(flow)
    assert sum(map(len, flows.values())) == taken
    return flows, expected


def right_number_of(link, collector, checks, permitted, packets=FEWER):
    """All samples pass the check of their port; they are as many as the packets permitted say, within three standard
    errors. A right sampler misses that once in 370 times, so that one repetition is enough."""
    deviations = []
    for _ in range(2):
        flows, counts = measured(link, collector, permitted, packets)
        for port, check in checks.items():
            assert all(map(check, flows[port])), port
        deviations.append([(len(flows[port]) - counts[port] / RATE) / math.sqrt(counts[port] / RATE * (1 - 1 / RATE))
                           for port in permitted])
        if max(map(abs, deviations[-1])) <= 3:
            return flows
    raise AssertionError(f"numbers of samples off by {deviations} standard errors")


# ---- Behaviour ------------------------------------------------------------------------------------------------------

def test_only_what_the_list_permits_arrives_and_in_the_right_number(link):
    link.add_second_port()
    collector = started(link, list_of(NET, PORT))
    link.sandbox.configure("interface port2", "sflow flow collector 1", "sflow enable ingress")
    running(link, "sflow enable ingress")
    flows = right_number_of(link, collector, {"port1": is_of_either}, {"port1": of_either, "port2": all_packets}, PACKETS)
    assert any(map(is_of_net, flows["port1"])) and any(map(is_to_port, flows["port1"]))
    assert not all(map(is_of_either, flows["port2"]))


def test_an_edit_takes_effect_on_the_running_sampler(link):
    collector = started(link, list_of(NET, PORT))
    edit(link, "no 20")
    right_number_of(link, collector, {"port1": is_of_net}, {"port1": of_net})
    edit(link, f"10 {PORT}")
    right_number_of(link, collector, {"port1": is_to_port}, {"port1": to_port})


def test_edits_under_traffic_leave_no_gap(link):
    started(link, list_of(NET, PORT, "permit udp any any eq 9"))
    before = received(link)
    with link.generating(200_000, marked=100) as traffic:
        edits = 0
        while edits == 0 or traffic.poll() is None:
            edits += 1
            edit(link, f"30 permit udp any any eq {9 + edits}")
    assert traffic.returncode == 0
    wait_for(lambda: pool(link) == received(link) - before, "a pool that missed no packet")


def test_the_pool_counts_nothing_else(link):
    started(link, list_of(NET, PORT))
    before = received(link)
    assert link.generate(1000, marked=0)["packets"] == 1000
    wait_for(lambda: received(link) >= before + 1000, "the packets to be received")
    assert pool(link) == 0
    report = link.generate(1000, marked=MARKED)
    wait_for(lambda: pool(link) == of_either(report), "the pool to have what is permitted")


def test_a_deleted_list_ends_its_sampling_and_frees_nothing(link):
    collector = started(link, list_of(NET, PORT))
    link.sandbox.configure("no ip access-list extended web")
    gone(link, "sflow enable")
    wait_for(lambda: not link.hooks()["ingress"], "the hook to go")
    link.generate(100_000, marked=MARKED)
    assert samplers(link) == {}
    assert collector.flows() == []


def test_a_second_list_adds_to_the_first_and_a_third_is_refused(link):
    collector = started(link, list_of(NET), list_of(PORT, name="https"), list_of("permit udp any any", name="third"))
    limit(link, "https")
    right_number_of(link, collector, {"port1": is_of_either}, {"port1": of_either})
    refused = link.sandbox.cli("configure terminal", "interface port1", "sflow enable ingress acl third")
    assert refused.status != 0
    assert "Max acl rule number has been configure." in refused.output + refused.errors
    assert "acl third" not in link.sandbox.running_config()
    assert samplers(link).keys() == {"port1"}

    # the first list goes: the second one limits alone
    link.sandbox.configure("interface port1", "no sflow enable ingress acl web")
    gone(link, "acl web")
    right_number_of(link, collector, {"port1": is_to_port}, {"port1": to_port})


@pytest.mark.parametrize("spoil, code, reason", [
    (lambda path, other: path.unlink(), -26, "the access list is not published"),
    (lambda path, other: path.write_bytes(path.read_bytes()[:-1]), -28, "the published access list is corrupt"),
    (lambda path, other: path.write_bytes(other.read_bytes()), -29, "the published access list is stale"),
], ids=["missing", "corrupt", "stale"])
def test_a_list_that_cannot_be_used_is_never_replaced_by_sampling_everything(link, spoil, code, reason):
    collector = started(link, list_of(NET, PORT), list_of("permit ip any any", name="other"))
    path, other = (access_list.path_of(link.sandbox, id_of(link, name)) for name in ("web", "other"))
    restart_service(link, lambda: spoil(path, other))
    assert f'"web": {reason}, answered with {code}\n' in link.service.log()
    assert re.search(f"access list .*{path}: .*, nothing is sampled by it\n", link.service.log())
    wait_for(lambda: f"Interface port1 cannot be sampled due to an unknown error[{code}]." in link.daemon.log(),
             "the warning")
    link.sandbox.configure("sflow sampling-rate 8192")
    link.generate(100_000, marked=MARKED)
    assert samplers(link) == {}
    assert not link.hooks()["ingress"]
    assert collector.flows() == []
    assert "sflow enable ingress\n" not in link.sandbox.running_config()


def test_a_file_that_disappears_silences_the_sampler_until_it_is_back(link):
    started(link, list_of(NET, PORT))
    path = access_list.path_of(link.sandbox, id_of(link, "web"))
    aside = path.with_suffix(".aside")
    path.rename(aside)
    wait_for(lambda: "nothing is sampled by it until it is back" in link.service.log(), "the silence")
    link.generate(1000, marked=100)
    assert pool(link) == 0
    taken = "with 2 entries in force"   # what the service says when it lists them is punctuated
    before = link.service.log().count(taken)
    aside.rename(path)
    wait_for(lambda: link.service.log().count(taken) > before, "the list to be back")
    link.generate(1000, marked=100)
    wait_for(lambda: pool(link) == 1000, "the packets to be counted")


def test_a_file_that_turns_corrupt_leaves_the_version_in_force(link):
    started(link, list_of(NET, PORT))
    path = access_list.path_of(link.sandbox, id_of(link, "web"))
    path.write_bytes(b"garbage")
    wait_for(lambda: re.search(f"{path}: .* stays in force\n", link.service.log()), "the complaint")
    report = link.generate(1000, marked=MARKED)
    wait_for(lambda: pool(link) == of_either(report), "the packets to be counted")


def test_a_change_of_rate_or_of_connection_keeps_the_sampler_limited(link):
    collector = started(link, list_of(NET), list_of(PORT, name="https"))
    limit(link, "https")
    # now the first of the two places is empty
    link.sandbox.configure("interface port1", "no sflow enable ingress acl web")
    gone(link, "acl web")
    link.sandbox.configure("sflow sampling-rate 8192")
    wait_for(lambda: "rate 8192" in rate_line(link), "the new rate")
    link.generate(1000, marked=0)
    assert pool(link) == 0
    restart_service(link)
    wait_for(lambda: "rate 8192" in rate_line(link), "the sampler to be back")
    link.generate(1000, marked=0)
    assert pool(link) == 0
    flows, _ = measured(link, collector, {"port1": to_port}, PACKETS)
    assert flows["port1"] and all(map(is_to_port, flows["port1"]))
    running(link, "sflow enable ingress acl https")


def test_a_saved_configuration_limits_again_after_a_restart_of_both_programs(link):
    started(link, list_of(NET, PORT))
    assert link.sandbox.cli("write memory").status == 0
    link.service.stop()
    link.daemon.stop()
    link.service.log_path.unlink()
    link.start()
    running(link, "sflow enable ingress acl web")
    report = link.generate(1000, marked=MARKED)
    wait_for(lambda: pool(link) == of_either(report), "the pool to have what is permitted")


def rate_line(link):
    """What the service says of the sampler of port1, when it is on."""
    samplers(link)
    return link.service.log().rpartition("sampler port1 ingress: on")[2].partition("\n")[0]
