"""Commands as an operator types them: accepted, refused, shown, taken back."""
import pytest

from harness.addresses import AGENT4, COLLECTOR4, COLLECTOR4_B
from harness.domain_socket import EGRESS, HEADER_LEN, INGRESS, SET_RATE
from harness.wait import wait_for

INVALID = "% Invalid input detected at '^' marker."


def configured(stage, *commands):
    return stage.cli("configure terminal", *commands)


@pytest.mark.parametrize("command", [
    "sflow sampling-rate 4095", "sflow sampling-rate 16777216", "sflow flow max-header 17", "sflow flow max-header 257",
    "sflow counter interval 2", "sflow counter interval 2147483648", "sflow collector 3 max-datagram-size 400",
    "sflow collector 1 max-datagram-size 199", "sflow collector 1 max-datagram-size 9001",
    "sflow collector 1 destination ipv6 2001::1 6343 source address 10.0.0.1",
    "sflow collector 1 destination 10.0.0.1 0", "sflow collector 1 destination 10.0.0.1 65536",
    "sflow agent address 10.0.0", "sflow agent address ipv6 10.0.0.1", "sflow nonsense"])
def test_the_parser_refuses(ready, command):
    before = ready.sandbox.running_config()
    result = configured(ready, command)
    assert result.status == 1
    assert INVALID in result.output
    assert ready.sandbox.running_config() == before


@pytest.mark.parametrize("command, line", [
    ("sflow sampling-rate 4096", "sflow sampling-rate 4096"),
    ("sflow sampling-rate 16777215", "sflow sampling-rate 16777215"),
    ("sflow flow max-header 18", "sflow flow max-header 18"),
    ("sflow flow max-header 256", "sflow flow max-header 256"),
    ("sflow counter interval 3", "sflow counter interval 3"),
    ("sflow counter interval 2147483647", "sflow counter interval 2147483647"),
    ("sflow collector 2 max-datagram-size 200", "sflow collector 2 max-datagram-size 200"),
    ("sflow collector 1 max-datagram-size 9000", "sflow collector 1 max-datagram-size 9000"),
    ("sflow agent address 10.0.0.1", "sflow agent address 10.0.0.1"),
    ("sflow agent address ipv6 fe80::1", "sflow agent address ipv6 fe80::1"),
    ("sflow agent interface port1", "sflow agent interface port1"),
    ("sflow agent interface ipv6 port1", "sflow agent interface ipv6 port1"),
    ("sflow source address 10.0.0.1", "sflow source address 10.0.0.1"),
    ("sflow source address ipv6 2001:db8::9", "sflow source address ipv6 2001:db8::9"),
    ("sflow source interface port1", "sflow source interface port1"),
    ("sflow source interface ipv6 port1", "sflow source interface ipv6 port1"),
    ("sflow collector 1 destination 10.0.0.1 6343", "sflow collector 1 destination 10.0.0.1 6343"),
    ("sflow collector 2 destination ipv6 2001:db8::5 1 description core source interface port2",
     "sflow collector 2 destination ipv6 2001:db8::5 1 description core source interface port2"),
    ("sflow collector 1 destination 10.0.0.1 6343 source address 10.0.0.2",
     "sflow collector 1 destination 10.0.0.1 6343 source address 10.0.0.2")])
def test_the_command_is_in_the_running_configuration_and_can_be_taken_back(ready, command, line):
    assert configured(ready, command).status == 0
    assert f"{line}\n" in ready.sandbox.running_config()
    inverse = {"sampling-rate": "no sflow sampling-rate", "max-header": "no sflow flow max-header",
               "interval": "no sflow counter interval"}
    undo = next((text for word, text in inverse.items() if word in command), None)
    if undo is None:
        words = command.split()
        undo = " ".join(["no", *(words[:4] if "max-datagram-size" in command else words[:3] if words[1] == "agent"
                                 else words)])
        if words[1:3] == ["source", "address"] and words[3] != "ipv6":
            undo = "no sflow source address"
    if words_are(command, "sflow source interface port1"):
        undo = "no sflow source interface"
    assert configured(ready, undo).status == 0
    assert line not in ready.sandbox.running_config()


def words_are(command, text):
    return command == text


@pytest.mark.parametrize("address", ["127.0.0.1", "0.0.0.0", "224.0.0.1", "255.255.255.255", "0.1.2.3", "240.0.0.1"])
def test_an_address_that_no_host_can_have_is_refused(ready, address):
    for command in (f"sflow agent address {address}", f"sflow source address {address}",
                    f"sflow collector 1 destination {address} 6343"):
        result = configured(ready, command)
        assert (result.status, result.output.splitlines()[-1]) == (1, "invalid host address."), command


@pytest.mark.parametrize("address", ["::1", "::", "ff02::1"])
def test_an_ipv6_address_that_no_host_can_have_is_refused(ready, address):
    for command in (f"sflow agent address ipv6 {address}", f"sflow source address ipv6 {address}",
                    f"sflow collector 1 destination ipv6 {address} 6343"):
        result = configured(ready, command)
        assert (result.status, result.output.splitlines()[-1]) == (1, "invalid ipv6 host address."), command


def test_agent_address_and_interface_exclude_each_other(ready):
    ready.configure(f"sflow agent address {AGENT4}")
    result = configured(ready, "sflow agent interface port1")
    assert "config failure because sflow agent address has already configured.\n" in result.output
    ready.configure("no sflow agent address", "sflow agent interface port1")
    result = configured(ready, f"sflow agent address {AGENT4}")
    assert result.status == 1
    assert "config failure because sflow agent interface has already configured.\n" in result.output


def test_agent_and_collector_must_differ(ready):
    ready.configure(f"sflow collector 1 destination {COLLECTOR4} 6343")
    result = configured(ready, f"sflow agent address {COLLECTOR4}")
    assert result.status == 1
    assert result.output.endswith("% Sflow agent address is same as sflow collector destination address.\n")
    ready.configure(f"sflow agent address {AGENT4}")
    result = configured(ready, f"sflow collector 2 destination {AGENT4} 6343")
    assert result.status == 1
    assert result.output.endswith("% Sflow collector destination address is same as sflow agent address.\n")


def test_a_second_collector_with_the_same_address_needs_another_description(ready):
    ready.configure(f"sflow collector 1 destination {COLLECTOR4} 6343")
    result = configured(ready, f"sflow collector 2 destination {COLLECTOR4} 9999")
    assert result.status == 0 and result.output.endswith("The same ip address is already configured!\n")
    assert "sflow collector 2" not in ready.sandbox.running_config()
    ready.configure(f"sflow collector 2 destination {COLLECTOR4} 9999 description backup")
    assert f"sflow collector 2 destination {COLLECTOR4} 9999 description backup\n" in ready.sandbox.running_config()


def test_an_unknown_vrf_is_refused_with_its_name(ready):
    result = configured(ready, f"sflow collector 1 destination {COLLECTOR4} 6343 vrf blue")
    assert result.status == 1 and result.output.endswith("VRF blue is not configured\n")


def test_a_description_may_have_64_characters(ready):
    longest = "d" * 64
    ready.configure(f"sflow collector 1 destination {COLLECTOR4} 6343 description {longest}")
    assert longest in ready.sandbox.running_config()
    result = configured(ready, f"sflow collector 2 destination {COLLECTOR4_B} 6343 description {longest}d")
    assert result.status == 1 and result.output.endswith("Invalid sflow collector description.\n")


def test_a_new_header_length_goes_to_the_service_rounded_up(ready):
    count = len(ready.service.of(HEADER_LEN))
    ready.configure("sflow flow max-header 61")
    assert ready.service.wait_for(HEADER_LEN, count + 1)[-1] == 64
    ready.configure("sflow flow max-header 61")
    ready.configure("sflow flow max-header 65")
    assert ready.service.wait_for(HEADER_LEN, count + 2)[count:] == [64, 68]


def test_an_interface_needs_a_configured_collector(ready):
    result = configured(ready, "interface port1", "sflow flow collector 2")
    assert result.status == 1
    assert result.output.endswith("Failed to configure sflow flow collector 2. Sflow collector 2 should be configured "
                                  "first.\n")


@pytest.mark.parametrize("command, requests, line", [
    ("sflow enable", [(8192, INGRESS, 0), (8192, EGRESS, 0)], " sflow enable"),
    ("sflow enable ingress", [(8192, INGRESS, 0)], " sflow enable ingress"),
    ("sflow enable egress", [(8192, EGRESS, 0)], " sflow enable egress"),
    ("sflow enable ingress by-snoop", [(8192, INGRESS, 1)], " sflow enable ingress by-snoop")])
def test_enabling_asks_the_service_and_disabling_stops_it(ready, command, requests, line):
    ready.configure("interface port1", command)
    wait_for(lambda: f"{line}\n" in ready.sandbox.running_config(), "the setting")
    asked = sorted((request.rate, request.direct, request.snoop) for request in ready.service.of(SET_RATE))
    assert asked == sorted(requests)
    ready.configure("interface port1", f"no {command}")
    wait_for(lambda: "port1" not in ready.sandbox.running_config(), "the setting to go")


def test_a_range_configures_each_member(ready):
    ready.configure("interface range port1, port3", "sflow enable ingress")
    wait_for(lambda: ready.sandbox.running_config().count("sflow enable ingress\n") == 2, "both settings")
    assert {request.ifx for request in ready.service.of(SET_RATE)} == {ready.ifindex("port1"), ready.ifindex("port3")}


def test_a_rate_change_switches_off_and_on_again(ready):
    ready.configure("interface port1", "sflow enable ingress")
    wait_for(lambda: "sflow enable" in ready.sandbox.running_config(), "the setting")
    count = len(ready.service.of(SET_RATE))
    ready.configure("sflow sampling-rate 10000")
    requests = ready.service.wait_for(SET_RATE, count + 4)[count:]
    assert [(request.rate, request.direct) for request in requests] == [
        (0, INGRESS), (0, INGRESS), (10000, INGRESS), (10000, INGRESS)]


def test_an_unknown_interface_is_refused(ready):
    result = configured(ready, "interface nosuch0")
    assert result.status == 1
    assert "nosuch0" in result.output or INVALID in result.output


def test_an_interface_that_cannot_be_sampled_is_not_offered_sflow(ready):
    result = configured(ready, "interface lo", "sflow enable")
    assert result.status == 1


def test_the_running_configuration_is_a_fixed_point(stage, make_sandbox):
    stage.ready()
    stage.configure(f"sflow agent address {AGENT4}", "sflow source address 10.9.9.9", "sflow counter interval 7",
                    f"sflow collector 1 destination {COLLECTOR4} 6343 description one",
                    "sflow collector 2 destination ipv6 2001:db8::2 6344 source interface port3",
                    "sflow collector 2 max-datagram-size 999", "sflow flow max-header 99", "sflow sampling-rate 4097",
                    "interface port1", "sflow enable", "sflow flow collector 1", "sflow counter collector 2",
                    "interface port2", "sflow enable ingress by-snoop", "sflow flow collector 2")
    expected = {" sflow enable", " sflow flow collector 1", " sflow counter collector 2",
                " sflow enable ingress by-snoop", " sflow flow collector 2"}
    wait_for(lambda: expected <= set(stage.sandbox.running_config().splitlines()), "every setting to be confirmed")
    before = stage.sandbox.running_config()
    lines = [line for line in before.splitlines() if line.strip() and not line.startswith(("Building", "!"))]
    undo = [f"no {line.strip()}" for line in lines if "destination" in line]
    undo += ["interface port1", "no sflow enable", "exit"]
    stage.configure("interface port2", "no sflow enable ingress by-snoop", "exit", *undo, "no sflow agent address",
                    "no sflow source address", "no sflow counter interval", "no sflow flow max-header",
                    "no sflow collector 2 max-datagram-size")
    # A new rate is asked for every interface whose disabling has not been answered yet, and would enable it again.
    wait_for(lambda: "enable" not in stage.sandbox.running_config(), "the interfaces to be disabled")
    stage.configure("no sflow sampling-rate")
    wait_for(lambda: "sflow" not in stage.sandbox.running_config(), f"an empty configuration after {undo}")
    stage.configure(*lines)
    wait_for(lambda: stage.sandbox.running_config() == before, f"the same configuration\n{before}")


def test_show_sflow_of_an_unconfigured_daemon(ready):
    assert ready.cli("show sflow").output == (
        "sflow datagram version 5\nGlobal information:\nAgent IP: NULL\n"
        "sflow counter interval:30\nsflow flow max-header:64\nsflow sampling-rate:8192\n"
        "Collector information:\n"
        f"{'ID':<5}{'IP':<45}{'Port':<6}{'Size':<5}{'VRF':<32}\n"
        f"{1:<5}{'NULL':<45}{0:<6}{1400:<5}{'':<32}\n"
        f"{2:<5}{'NULL':<45}{0:<6}{1400:<5}{'':<32}\n"
        "Port information\n"
        f"{'Interface':<32}{'CID':<10}{'FID':<10}{'Enable':<15}\n")


def test_show_sflow_of_a_configured_daemon(ready):
    ready.export_to_collector(AGENT4, f"{COLLECTOR4} 6343")
    output = ready.cli("show sflow").output
    assert f"Agent IP: {AGENT4}\n" in output
    assert f"{1:<5}{COLLECTOR4:<45}{6343:<6}{1400:<5}{'':<32}\n" in output
    assert output.endswith(f"{'port1':<32}{1:<10}{1:<10}{'B':<15}\n")


def test_debug_switches_and_their_listing(ready):
    assert ready.cli("show debugging").output == ""
    ready.cli("debug sflow conf")
    assert "sflow configure debug information is on" in ready.cli("show debugging").output
    ready.configure("sflow sampling-rate 5000")
    ready.cli("no debug sflow conf")
    assert ready.cli("show debugging").output == ""
