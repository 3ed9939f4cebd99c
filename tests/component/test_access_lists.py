"""Access lists on the command line, their publication, and ingress sampling that is limited by them."""
import pytest

from harness import access_list
from harness.domain_socket import ALL_CAPACITY, HEADER_LEN, INGRESS, SET_RATE
from harness.wait import wait_for

LISTS = ("ip access-list standard 5", "10 permit 192.0.2.0/24", "exit",
         "ip access-list extended web", "remark only the shop", "permit tcp any host 192.0.2.80 eq 443",
         "ipv6 access-list six", "permit ipv6 2001:db8::/32 any",
         "mac access-list frames", "permit any any arp", "exit")


def acl_id(stage, name):
    """The id that `show access-lists` tells."""
    output = stage.cli(f"show access-lists {name}").output
    return int(output.split(", id ")[1].split(",")[0])


def requests(stage, count=0):
    """What the service was asked for since its `count` requests, without interface kind and snooping."""
    return [(request.ifx, request.rate, request.direct, request.acl_id, request.acl_name)
            for request in stage.service.of(SET_RATE)[count:]]


def asked(stage):
    """How many requests the service has had."""
    return len(stage.service.of(SET_RATE))


def limit(stage, port, *names):
    """Limits the ingress sampling of a port; waits for each confirmation, which fills the port's slots."""
    for name in names:
        stage.configure(f"interface {port}", f"sflow enable ingress acl {name}")
        wait_for(lambda: name in uses(stage, port), f"list {name} on {port}")


def uses(stage, port):
    """The lists that limit a port, as its section of the running configuration has them."""
    inside, names = False, []
    for line in stage.sandbox.running_config().splitlines():
        if not line.startswith(" "):
            inside = line == f"interface {port}"
        elif inside and line.startswith(" sflow enable ingress acl "):
            names.append(line.split()[-1])
    return names


def settled(stage):
    """What was asked of the daemon before has reached the service: a record that only this call sends is there."""
    length = 18 + 4 * (len(stage.service.of(HEADER_LEN)) % 50)
    count = len(stage.service.of(HEADER_LEN))
    stage.configure(f"sflow flow max-header {length}")
    stage.service.wait_for(HEADER_LEN, count + 1)


def fails(stage, *commands):
    """The text of the last command, which must fail."""
    result = stage.cli("configure terminal", *commands)
    assert result.status == 1, result
    return result.output.splitlines()[-1] if result.output else ""


# ---- Lists and their files ------------------------------------------------------------------------------------------

def test_a_list_is_published_while_it_exists(ready):
    ready.configure(*LISTS)
    web = acl_id(ready, "web")
    assert web > 2899 and acl_id(ready, "5") == 5
    five = access_list.published(ready.sandbox, 5)
    assert five["entries"] == [{"sequence": 10, "action": "permit", "source": ["192.0.2.0", "255.255.255.0"]}]
    entry = access_list.published(ready.sandbox, web)["entries"][0]
    assert entry == {"sequence": 20, "action": "permit", "protocol": 6,
                     "destination": ["192.0.2.80", "255.255.255.255"], "destination_ports": [443, 443, False]}
    ready.configure("no ip access-list web")
    assert access_list.published(ready.sandbox, web) is None
    assert access_list.published(ready.sandbox, 5) == five


def test_lists_stand_ahead_of_the_interfaces_and_survive_a_restart(stage):
    stage.ready()
    stage.configure("interface port1", "sflow enable ingress", *LISTS)
    limit(stage, "port1", "web", "5")
    before = stage.sandbox.running_config()
    assert before.index("ip access-list extended web\n") < before.index("interface port1\n")
    assert stage.cli("write memory").status == 0
    web = acl_id(stage, "web")
    stage.daemon.stop()
    stage.service.disconnect()
    stage.ready()
    wait_for(lambda: stage.sandbox.running_config() == before, f"the saved configuration\n{before}")
    assert acl_id(stage, "web") == web
    assert access_list.published(stage.sandbox, web)["entries"]


def test_lists_that_were_not_saved_are_withdrawn_after_a_restart(stage):
    stage.ready()
    stage.configure("ip access-list standard 5", "permit any")
    assert stage.cli("write memory").status == 0
    stage.configure("ip access-list standard 6", "permit any")
    assert access_list.published_ids(stage.sandbox) == [5, 6]
    instance = access_list.published(stage.sandbox, 5)["instance"]
    stage.daemon.stop()
    stage.service.disconnect()
    stage.ready()
    assert access_list.published_ids(stage.sandbox) == [5]
    assert access_list.published(stage.sandbox, 5)["instance"] != instance


def test_the_running_configuration_of_lists_is_a_fixed_point(ready):
    ready.configure(*LISTS)
    before = ready.sandbox.running_config()
    lines = [line for line in before.splitlines() if line.strip() and not line.startswith(("Building", "!"))]
    ready.configure("no ip access-list 5", "no ip access-list web", "no ipv6 access-list six", "no mac access-list frames")
    assert "access-list" not in ready.sandbox.running_config()
    assert access_list.published_ids(ready.sandbox) == []
    ready.configure(*lines)
    assert ready.sandbox.running_config() == before


def test_a_list_that_cannot_be_published_is_refused(ready):
    ready.configure("ip access-list standard 5", "permit any")
    obstacle = access_list.directory(ready.sandbox) / "5.acl.new"
    obstacle.mkdir()
    said = fails(ready, "ip access-list standard 5", "deny any")
    assert said.endswith(f"cannot create {obstacle}: Is a directory")
    assert len(access_list.published(ready.sandbox, 5)["entries"]) == 1
    assert "deny any" not in ready.sandbox.running_config()


# ---- Sampling by list -----------------------------------------------------------------------------------------------

@pytest.mark.parametrize("command, name", [("sflow enable ingress acl web", "web"), ("sflow enable ingress acl 5", "")])
def test_enabling_asks_the_service_for_the_list(ready, command, name):
    ready.configure(*LISTS)
    wanted = acl_id(ready, name or "5")
    ready.configure("interface port1", command)
    wait_for(lambda: f" {command}\n" in ready.sandbox.running_config(), "the setting")
    assert requests(ready) == [(ready.ifindex("port1"), 8192, INGRESS, wanted, name)]
    assert access_list.published(ready.sandbox, wanted)["id"] == wanted
    ready.configure("interface port1", f"no {command}")
    wait_for(lambda: "port1" not in ready.sandbox.running_config(), "the setting to go")
    assert requests(ready, 1) == [(ready.ifindex("port1"), 0, INGRESS, wanted, name)]


def test_a_list_replaces_plain_sampling(ready):
    ready.configure(*LISTS, "interface port1", "sflow enable ingress")
    wait_for(lambda: " sflow enable ingress\n" in ready.sandbox.running_config(), "plain sampling")
    index = ready.ifindex("port1")
    limit(ready, "port1", "5")
    assert requests(ready, 1) == [(index, 0, INGRESS, 0, ""), (index, 8192, INGRESS, 5, "")]


def test_plain_sampling_replaces_both_lists(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "5", "web")
    index, web, count = ready.ifindex("port1"), acl_id(ready, "web"), asked(ready)
    ready.configure("interface port1", "sflow enable ingress")
    wait_for(lambda: " sflow enable ingress\n" in ready.sandbox.running_config(), "plain sampling")
    assert requests(ready, count) == [(index, 0, INGRESS, 5, ""), (index, 0, INGRESS, web, "web"),
                                      (index, 8192, INGRESS, 0, "")]


def test_a_rate_change_stops_both_slots_before_it_starts_them(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "5")
    index, count = ready.ifindex("port1"), asked(ready)
    ready.configure("sflow sampling-rate 4096")
    ready.service.wait_for(SET_RATE, count + 4)
    assert requests(ready, count) == [(index, 0, INGRESS, 5, ""), (index, 0, INGRESS, 0, ""),
                                      (index, 4096, INGRESS, 5, ""), (index, 4096, INGRESS, 0, "")]
    wait_for(lambda: uses(ready, "port1") == ["5"], "the list to be confirmed again")


def test_a_third_list_is_refused(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "5", "web")
    count = asked(ready)
    assert fails(ready, "interface port1", "sflow enable ingress acl six") == "Max acl rule number has been configure."
    settled(ready)
    assert asked(ready) == count
    assert uses(ready, "port1") == ["5", "web"]


def test_a_list_that_is_applied_already_fails_without_a_word(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "5")
    result = ready.cli("configure terminal", "interface port1", "sflow enable ingress acl 5")
    assert (result.status, result.output) == (1, ""), result


def test_taking_back_a_list_that_is_not_applied_succeeds_without_a_word(ready):
    ready.configure(*LISTS)
    result = ready.cli("configure terminal", "interface port1", "no sflow enable ingress acl 5")
    assert (result.status, result.output) == (0, ""), result
    settled(ready)
    assert asked(ready) == 0


@pytest.mark.parametrize("prefix", ["", "no "])
def test_a_list_that_does_not_exist_is_refused(ready, prefix):
    for name in ("5", "nosuch", "2900"):
        assert fails(ready, "interface port1", f"{prefix}sflow enable ingress acl {name}") == \
            f"ACL({name}) rule referenced by SFLOW does not exist."
    assert fails(ready, "interface port1", f"{prefix}sflow enable ingress acl {'n' * 100}") == "Invalid acl name."


def test_lists_are_not_offered_without_the_capacity(stage):
    stage.start()
    stage.connect(capacity=ALL_CAPACITY & ~0x1C0)
    stage.sandbox.ready()
    stage.configure("ip access-list standard 5", "permit any")
    result = stage.cli("configure terminal", "interface port1", "sflow enable ingress acl 5")
    assert result.status == 1 and "% Invalid input detected at '^' marker." in result.output


def test_a_refused_list_is_told_in_the_log_and_leaves_the_configuration(stage):
    stage.ready(answer_rate=lambda request: -26 if request.acl_id else 0)
    stage.configure("ip access-list standard 5", "permit any", "interface port1", "sflow enable ingress acl 5")
    wait_for(lambda: "Interface port1 cannot be sampled due to an unknown error[-26]." in stage.daemon.log(), "the warning")
    assert uses(stage, "port1") == []


# ---- Edits and deletion while sampling ------------------------------------------------------------------------------

def test_an_edit_reaches_the_file_and_disturbs_no_sampler(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "web")
    web, count = acl_id(ready, "web"), asked(ready)
    before = access_list.published(ready.sandbox, web)
    ready.configure("ip access-list extended web", "5 deny tcp any any eq 443", "no 20", "30 permit udp any any")
    after = access_list.published(ready.sandbox, web)
    assert [entry["sequence"] for entry in after["entries"]] == [5, 30]
    assert after["instance"] == before["instance"] and after["version"] > before["version"]
    settled(ready)
    assert asked(ready) == count


def test_deleting_a_list_stops_the_interfaces_that_use_it_and_no_other(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "web")
    limit(ready, "port2", "web", "5")
    limit(ready, "port3", "5")
    web, count = acl_id(ready, "web"), asked(ready)
    ready.configure("no ip access-list web")
    wait_for(lambda: uses(ready, "port1") == [] and uses(ready, "port2") == ["5"], "the list to be withdrawn")
    assert requests(ready, count) == [(ready.ifindex(port), 0, INGRESS, web, "web") for port in ("port1", "port2")]
    assert uses(ready, "port3") == ["5"]
    assert access_list.published(ready.sandbox, web) is None


def test_a_deleted_list_can_be_made_and_applied_again(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "web")
    web = acl_id(ready, "web")
    ready.configure("no ip access-list web")
    wait_for(lambda: uses(ready, "port1") == [], "the list to be withdrawn")
    ready.configure("ip access-list extended web", "deny ip any any")
    assert acl_id(ready, "web") == web
    limit(ready, "port1", "web")
    assert requests(ready)[-1] == (ready.ifindex("port1"), 8192, INGRESS, web, "web")


def test_a_list_deleted_without_a_service_is_asked_for_again_and_refused_by_the_missing_file(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "web")
    web = acl_id(ready, "web")
    ready.service.disconnect()
    wait_for(lambda: "no connect" in ready.cli("show sflow_server_lib_info").output, "the disconnect")
    ready.configure("no ip access-list web")
    assert uses(ready, "port1") == ["web"], "the interface keeps it until a stop is answered"
    service = ready.connect()
    index = ready.ifindex("port1")
    assert [(r.rate, r.acl_id, r.acl_name) for r in service.of(SET_RATE) if r.ifx == index and r.acl_id] == [
        (0, web, "web"), (8192, web, "web")]
    assert access_list.published(ready.sandbox, web) is None


def test_the_services_restart_finds_the_lists_published(ready):
    ready.configure(*LISTS)
    limit(ready, "port1", "web")
    web = acl_id(ready, "web")
    ready.service.disconnect()
    service = ready.connect()
    assert (8192, web, "web") in [(r.rate, r.acl_id, r.acl_name) for r in service.of(SET_RATE)]
    assert access_list.published(ready.sandbox, web)["entries"]
    wait_for(lambda: uses(ready, "port1") == ["web"], "the list to be confirmed again")


# ---- Show -----------------------------------------------------------------------------------------------------------

def test_show_says_who_references_a_list(ready):
    ready.configure(*LISTS)
    assert "  References: none\n" in ready.cli("show access-lists web").output
    limit(ready, "port1", "web")
    limit(ready, "port2", "web")
    output = ready.cli("show access-lists web").output
    assert output == (f"ip access-list extended web, id {acl_id(ready, 'web')}, 1 entry\n"
                      "  10 remark only the shop\n"
                      "  20 permit tcp any host 192.0.2.80 eq 443\n"
                      "  References: 2 (sflow_acl)\n"
                      "  Used by interface port1: sflow enable ingress acl web\n"
                      "  Used by interface port2: sflow enable ingress acl web\n")
    heads = [line.split(",")[0] for line in ready.cli("show access-lists").output.splitlines() if line[0] != " "]
    assert heads == ["ip access-list standard 5", "mac access-list frames", "ipv6 access-list six",
                     "ip access-list extended web"]
    ready.configure("interface port2", "no sflow enable ingress acl web")
    wait_for(lambda: "  References: 1 (sflow_acl)\n" in ready.cli("show access-lists web").output, "one reference less")
