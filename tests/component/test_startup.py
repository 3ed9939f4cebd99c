"""Start, single instance, readiness, and what sflow-cli says while the daemon cannot be commanded."""
import os
import re
import subprocess

import pytest

from harness.daemon import BIN
from harness.domain_socket import CAPACITY, CONNECT, ServiceEnd, record
from harness.wait import PATIENCE, wait_for


def run_sflowd(environment):
    return subprocess.run([str(BIN / "sflowd")], env=environment, capture_output=True, text=True, timeout=PATIENCE)


def test_without_tmpdir_the_daemon_ends_and_says_what_to_do(stage, tmp_path):
    environment = {name: value for name, value in stage.sandbox.environment.items() if name != "TMPDIR"}
    done = subprocess.run([str(BIN / "sflowd")], env=environment, cwd=tmp_path, capture_output=True, text=True,
                          timeout=PATIENCE)
    assert done.returncode == 255
    assert "TMPDIR" in done.stderr
    assert not list(tmp_path.iterdir())


def test_a_tmpdir_too_long_for_its_paths_is_refused_before_anything_is_created(stage, tmp_path):
    deep = tmp_path / ("d" * 94)
    deep.mkdir()
    done = run_sflowd({**stage.sandbox.environment, "TMPDIR": str(deep)})
    assert done.returncode == 255
    assert "at most 79 characters are usable" in done.stderr
    assert not list(deep.iterdir())


@pytest.mark.parametrize("length, served", [(79, True), (80, False)])
def test_a_tmpdir_of_at_most_79_characters_has_room_for_the_domain_socket(stage, length, served):
    root = stage.sandbox.path    # short; pytest's own directory may not be
    deep = root / ("d" * (length - len(str(root)) - 1))
    deep.mkdir()
    assert len(str(deep)) == length
    stage.sandbox.environment["TMPDIR"] = str(deep)
    daemon = stage.sandbox.start("sflowd")
    debug_file = deep / "sflow/app_debug"
    text = "sflow app init success." if served else "make path fail"
    wait_for(lambda: debug_file.exists() and text in debug_file.read_text(errors="replace"), text)
    if served:
        wait_for((deep / "sflow/domain_socket").exists, "the domain socket")
        assert daemon.log() == ""
    else:
        wait_for(lambda: "sflow app init success." in debug_file.read_text(errors="replace"), "the rest to run")
        assert "at most 79 characters are usable, no sampling service can connect" in daemon.log()
        assert not (deep / "sflow/domain_socket").exists()
    assert daemon.running()


def test_a_second_daemon_ends_and_leaves_the_first_alone(stage):
    first = stage.start()
    done = run_sflowd(stage.sandbox.environment)
    assert done.returncode == 255
    assert "running" in done.stderr
    assert "SFLOW module is running." in stage.sandbox.debug_file()
    assert first.running()


def test_an_unwritable_tmpdir_is_named(stage):
    done = run_sflowd({**stage.sandbox.environment, "TMPDIR": "/proc/no-such-place"})
    assert done.returncode == 255
    assert "/proc/no-such-place" in done.stderr


def test_a_lock_file_that_cannot_be_opened_is_named(stage):
    (stage.sandbox.path / "sflow/sflow_lock").mkdir(parents=True)
    done = run_sflowd(stage.sandbox.environment)
    assert done.returncode == 255
    assert f"cannot open the lock file {stage.sandbox.path}/sflow/sflow_lock: Is a directory\n" in done.stderr
    assert "SFLOW create file lock failure." in stage.sandbox.debug_file()


def test_a_broken_platform_file_ends_the_daemon_for_want_of_a_role(stage):
    (stage.sandbox.config / "platform.toml").write_text("[syslog\n")
    done = run_sflowd(stage.sandbox.environment)
    assert "sflowd: cannot use the redundancy service: " in done.stderr
    assert "The platform's log may say more." in done.stderr


def test_the_daemon_explains_its_options(stage):
    asked = subprocess.run([str(BIN / "sflowd"), "--help"], capture_output=True, text=True)
    assert asked.returncode == 0
    assert asked.stdout.startswith("Usage: sflowd [--help | --version]\n") and "TMPDIR" in asked.stdout
    mistaken = subprocess.run([str(BIN / "sflowd"), "--bogus"], capture_output=True, text=True)
    assert mistaken.returncode == 2
    assert mistaken.stderr == f'sflowd: unknown argument "--bogus"\n{asked.stdout}'
    assert re.fullmatch(r"sflowd [\d.]+\n", subprocess.run([str(BIN / "sflowd"), "--version"], capture_output=True,
                                                           text=True).stdout)


def test_threads_bear_their_names(stage):
    daemon = stage.ready().daemon
    wanted = {"sflow_rdnd", "sflow_timer", "sflow_cli", "sflow_srv_recv", "sflow_srv_send", "sflow_msg_main"}

    def names():
        comm = subprocess.run(["ps", "-T", "-o", "comm=", "-p", str(child_of(daemon))], capture_output=True, text=True)
        return set(comm.stdout.split())

    wait_for(lambda: wanted <= names(), lambda: f"{wanted}, there are {names()}")    # a thread names itself


def child_of(process):
    """ip netns exec replaces itself, so the process is the daemon."""
    return process.pid


def test_sflow_cli_says_that_the_daemon_does_not_run(stage):
    result = stage.cli("show version")
    assert result.status == 2
    assert "sflowd" in result.errors and "not running" in result.errors


def test_sflow_cli_says_that_the_daemon_waits_for_the_sampling_service(stage):
    stage.start()
    result = wait_for(lambda: "sampling service" in (result := stage.cli("show version")).errors and result,
                      "the command line to be there")
    assert result.status == 2


def test_the_command_line_stays_closed_until_the_capacity_is_reported(stage):
    stage.start()
    service = ServiceEnd(stage.sandbox.domain_socket).connect(handshake=False)
    service.wait_for(CONNECT)
    assert stage.cli("show version").status == 2
    service.send(record(CAPACITY, b"\0\0\0\0"))     # a service that can sample nothing opens nothing
    assert stage.cli("show version", wait=3).status == 2
    service.disconnect()


def test_wait_returns_as_soon_as_commands_are_accepted(stage):
    stage.start()
    waiting = subprocess.Popen([str(BIN / "sflow-cli"), "--wait", str(PATIENCE), "-c", "show sflow status"],
                               env=stage.sandbox.environment, stdout=subprocess.PIPE, text=True)
    stage.connect()
    output, _ = waiting.communicate(timeout=2 * PATIENCE)
    assert waiting.returncode == 0
    assert output == ("sflow lsm data over\nsflow ss connect success\nsflow acl data over\nsflow cli ready\n"
                      "sflow cannot rdnd\n")


def test_without_a_configuration_request_the_command_line_is_not_ready(stage):
    stage.start()
    service = ServiceEnd(stage.sandbox.domain_socket).connect(handshake=False)
    service.wait_for(CONNECT)
    service.send(record(CAPACITY, b"\xff\x0f\0\0"))
    result = wait_for(lambda: "starting" in (result := stage.cli("configure terminal")).errors and result,
                      "the CLI socket")
    assert result.status == 2
    wait_for(lambda: "sflowd is starting: it waits for the sampling service\n" in
             stage.cli("configure terminal").errors, "the one that is missing to be named")
    # What is there to see can be seen: it tells which of the three is missing.
    wait_for(lambda: "sflow lsm data over\nsflow acl data over\n" in stage.cli("show sflow status").output,
             "the other two")
    service.disconnect()


def test_the_debug_file_tells_the_steps_of_a_start(ready):
    for line in ("sflow app init success.", "sflow lib server success.", "create cli thread success.",
                 "create one second thread success.", "create rdnd thread success.", "rdnd RDND_E_STAT_READY",
                 "rdnd master.", "accept success", "recv request msg", "ss ready", "lsm recv over",
                 "recv sflow_hd_capacity_msg.", "cli_client_ready"):
        # A text is one write; its line may be torn by another.
        wait_for(lambda: line in ready.sandbox.debug_file(), lambda: f"{line!r} in\n{ready.sandbox.debug_file()}")
    text = ready.sandbox.debug_file()
    assert any(re.fullmatch(r"\d{4}/\d\d/\d\d \d\d:\d\d:\d\d [\w.]+,\d+,\w.*", line) for line in text.splitlines())


def test_the_cli_socket_is_closed_to_others(ready):
    path = ready.sandbox.path / "platform/cli_socket"
    assert os.stat(path).st_mode & 0o007 == 0
