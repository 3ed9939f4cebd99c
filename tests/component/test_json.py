"""`sflow-cli --format json`: documents of a real daemon, with the keys that the guide names."""
import json
import pathlib
import re
import subprocess

import pytest

from harness.addresses import AGENT4, COLLECTOR4, COLLECTOR6
from harness.daemon import BIN, CommandResult
from harness.wait import PATIENCE, wait_for

GUIDE = pathlib.Path(__file__).parents[2] / "docs/json.md"


def documents(stage, *commands):
    result = with_json(stage, *commands)
    assert result.status == 0, result
    return [json.loads(line) for line in result.output.splitlines()]


def with_json(stage, *commands):
    words = [str(BIN / "sflow-cli"), "--format", "json"]
    for command in commands:
        words += ["-c", command]
    return CommandResult(subprocess.run(words, env=stage.sandbox.environment, capture_output=True, text=True,
                                        timeout=2 * PATIENCE))


def examples():
    """The guide's example for each command."""
    text = GUIDE.read_text()
    found = dict(re.findall(r"^## (show [a-z ]+)\n```json\n(.*?)```", text, re.MULTILINE | re.DOTALL))
    return {command: json.loads(example) for command, example in found.items()}


def shape(value):
    """Keys in their order, and of lists the shape of the first member."""
    if isinstance(value, dict):
        return {key: shape(member) for key, member in value.items()}
    if isinstance(value, list):
        return [shape(value[0])] if value else []
    return None


@pytest.fixture
def configured(ready):
    ready.configure(f"sflow agent address {AGENT4}", f"sflow source address {AGENT4}",
                    f"sflow collector 1 destination {COLLECTOR4} 6343",
                    f"sflow collector 2 destination ipv6 {COLLECTOR6} 6344", "sflow collector 2 max-datagram-size 999",
                    "interface port1", "sflow enable", "sflow flow collector 1", "sflow counter collector 2",
                    "interface port2", "sflow enable egress", "sflow flow collector 2")
    wait_for(lambda: " sflow enable egress\n" in ready.sandbox.running_config() and
             " sflow enable\n" in ready.sandbox.running_config(), "both settings")
    return ready


def test_the_guide_has_an_example_for_every_command():
    assert list(examples()) == ["show sflow", "show sflow status", "show sflow stats", "show interfaces"]


def test_the_keys_are_those_of_the_guide(configured):
    commands = list(examples())
    for command, document in zip(commands, documents(configured, *commands)):
        if command == "show interfaces":    # one with an address, and only the first of each list is compared
            document["interfaces"] = [i for i in document["interfaces"] if i["addresses"]]
        expected = shape(examples()[command])
        assert json.dumps(shape(document)) == json.dumps(expected), command


def test_show_sflow_holds_what_is_configured(configured):
    [document] = documents(configured, "show sflow")
    assert document["agent_address"] == AGENT4
    assert [(c["id"], c["address"], c["port"], c["max_datagram_bytes"]) for c in document["collectors"]] == [
        (1, COLLECTOR4, 6343, 1400), (2, COLLECTOR6, 6344, 999)]
    assert [(i["name"], i["flow_collector"], i["counter_collector"], i["enable"]) for i in document["interfaces"]] == [
        ("port1", 1, 2, "both"), ("port2", 2, None, "egress")]
    assert (document["sources"][0]["collector"], document["sources"][0]["configured_address"]) == (1, AGENT4)


def test_show_interfaces_agrees_with_the_system(ready):
    ready.namespace.ip("link", "set", "port2", "down")
    ready.namespace.ip("link", "set", "port2", "mtu", "1400")
    ready.namespace.ip("addr", "add", "203.0.113.9/25", "dev", "port3")
    wait_for(lambda: "203.0.113.9" in ready.cli("show interfaces port3").output and
             "MTU 1400" in ready.cli("show interfaces port2").output and
             "administratively down" in ready.cli("show interfaces port2").output, "the changes")
    links = {link["ifname"]: link for link in json.loads(ready.namespace.ip("-j", "addr", "show"))}
    [document] = documents(ready, "show interfaces")
    shown = {interface["name"]: interface for interface in document["interfaces"]}
    assert {"port1", "port2", "port3", "far1"} <= set(shown)
    for name, interface in shown.items():
        link = links[name]
        assert interface["index"] == link["ifindex"]
        assert interface["mac_address"] == link["address"]
        assert interface["mtu_bytes"] == link["mtu"]
        assert interface["admin_up"] == ("UP" in link["flags"])
    assert {"family": "ipv4", "address": "203.0.113.9", "prefix_length": 25, "secondary": False} in (
        shown["port3"]["addresses"])


def test_one_interface_and_abbreviations(ready):
    one, abbreviated = documents(ready, "show interfaces port1", "sh int port1")
    assert [interface["name"] for interface in one["interfaces"]] == ["port1"]
    assert abbreviated == one


def test_commands_without_a_document_are_not_run(ready):
    result = with_json(ready, "configure terminal", "sflow sampling-rate 5000", "show version",
                       "show sflow | include rate", "show sflow status")
    assert result.status == 1
    assert [json.loads(line)["ready"] for line in result.output.splitlines()] == [True]
    assert result.errors.count("not run, it has no JSON form") == 4
    assert "sampling-rate" not in ready.sandbox.running_config()


def test_what_fails_is_said_on_standard_error(ready):
    result = with_json(ready, "show interfaces nosuch0", "show sflow st")
    assert (result.status, result.output) == (1, "")
    assert "% Invalid input" in result.errors and "no JSON form: show sflow st;" in result.errors


def test_a_script_on_standard_input(ready):
    words = [str(BIN / "sflow-cli"), "--format", "json"]
    done = subprocess.run(words, env=ready.sandbox.environment, capture_output=True, text=True, timeout=2 * PATIENCE,
                          input="! a comment\n\nshow sflow status\nshow sflow stats\n")
    assert done.returncode == 0, done.stderr
    assert [list(json.loads(line))[0] for line in done.stdout.splitlines()] == ["interface_data", "drop_flow_num"]


@pytest.mark.parametrize("words", [["--format", "xml"], ["--format"]])
def test_other_formats_are_a_mistake(ready, words):
    done = subprocess.run([str(BIN / "sflow-cli"), *words, "-c", "show sflow"], env=ready.sandbox.environment,
                          capture_output=True, text=True, timeout=2 * PATIENCE)
    assert done.returncode == 64


def test_an_unreachable_daemon_has_the_usual_status(stage):
    result = with_json(stage, "show sflow")
    assert (result.status, result.output) == (2, "")
    assert result.errors.startswith("sflow-cli: sflowd is not running")
