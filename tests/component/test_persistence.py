"""Saving the configuration, and what comes back after a restart of either process."""
from harness.addresses import AGENT4, COLLECTOR4
from harness.domain_socket import ServiceEnd
from harness.wait import wait_for

COMMANDS = (f"sflow agent address {AGENT4}", f"sflow collector 1 destination {COLLECTOR4} 6343",
            "sflow sampling-rate 4096", "interface port1", "sflow flow collector 1", "sflow counter collector 1",
            "sflow enable", "interface port2", "sflow enable egress")


def saved(stage):
    stage.configure(*COMMANDS)
    stage.wait_enabled("port1")
    wait_for(lambda: stage.sandbox.config_sections().get("port2") == ["sflow enable egress"], "the settings of port2")
    result = stage.cli("write memory")
    assert result.status == 0, result
    return stage.sandbox.running_config()


def test_a_saved_configuration_comes_back_after_kill_9(stage):
    stage.ready()
    before = saved(stage)
    stage.daemon.stop()
    stage.service.disconnect()
    stage.ready()
    wait_for(lambda: stage.sandbox.running_config() == before, f"the saved configuration\n{before}")
    assert stage.cli("show startup-config").status == 0


def test_copy_running_config_startup_config_saves_too(ready):
    ready.configure("sflow counter interval 9")
    assert ready.cli("copy running-config startup-config").status == 0
    assert "sflow counter interval 9" in (ready.sandbox.config / "startup-config").read_text()


def test_what_was_not_saved_does_not_come_back(stage):
    stage.ready()
    stage.configure("sflow counter interval 9")
    stage.daemon.stop()
    stage.service.disconnect()
    stage.ready()
    assert "interval" not in stage.sandbox.running_config()


def test_a_line_that_fails_is_logged_with_its_number_and_the_rest_is_applied(stage):
    (stage.sandbox.config / "startup-config").write_text(
        "! a comment\nsflow sampling-rate 4096\nsflow gibberish\nsflow counter interval 2\nsflow counter interval 11\n"
        "interface nosuch0\n sflow enable\n!\ninterface port1\n sflow enable\n!\n")
    stage.ready()
    stage.wait_enabled("port1")
    text = stage.sandbox.running_config()
    assert "sflow sampling-rate 4096\n" in text and "sflow counter interval 11\n" in text
    for line in (3, 4, 6):
        wait_for(lambda: f"startup-config line {line}: " in stage.daemon.log(), f"line {line} in the log")


def test_without_a_startup_configuration_the_daemon_starts_empty(ready):
    assert "sflow" not in ready.sandbox.running_config()
    assert ready.cli("show startup-config").output != ""


def test_an_unreadable_startup_configuration_is_named_and_does_no_harm(stage):
    (stage.sandbox.config / "startup-config").mkdir()
    stage.ready()
    wait_for(lambda: "startup-config" in stage.daemon.log(), "a line in the log")


def test_saving_to_a_full_disk_keeps_the_old_file(stage):
    stage.sandbox.use_small_config_disk()
    stage.ready()
    stage.configure("sflow counter interval 9")
    assert stage.cli("write memory").status == 0
    target = stage.sandbox.config / "startup-config"
    old = target.read_text()
    stage.sandbox.fill_config_disk()
    stage.configure("sflow counter interval 10")
    result = stage.cli("write memory")
    assert result.status == 1 and "No space left" in result.output
    assert target.read_text() == old
    assert {path.name for path in stage.sandbox.config.iterdir()} <= {"startup-config", "filler", "platform.toml"}


def test_the_services_restart_restores_its_settings(stage):
    stage.ready()
    saved(stage)
    stage.service.disconnect()
    service = ServiceEnd(stage.sandbox.domain_socket).connect()
    rates = [request for request in service.of(0x102) if request.rate]
    assert {(request.ifx, request.direct) for request in rates} == {
        (stage.ifindex("port1"), 1), (stage.ifindex("port1"), 2), (stage.ifindex("port2"), 2)}
    service.disconnect()
