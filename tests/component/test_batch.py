"""`sflow-cli -c` and scripts: exit statuses, output as it is, odd input, who may connect, sessions that misbehave."""
import os
import shutil
import socket
import subprocess

import pytest

from harness.daemon import BIN, CommandResult
from harness.wait import PATIENCE, wait_for

INVALID = "% Invalid input detected at '^' marker.\n"


def shell(stage, *arguments, wrapper=(), **options):
    options = {"capture_output": True, "text": True, "timeout": 2 * PATIENCE, "env": stage.sandbox.environment, **options}
    return subprocess.run([*wrapper, str(BIN / "sflow-cli"), *arguments], **options)


@pytest.mark.parametrize("commands, status", [
    (["show version"], 0), (["! a comment", "", "show sflow"], 0), (["show version", "show version"], 0),
    (["show nonsense"], 1), (["show"], 1), (["show s"], 1), (["show interfaces nosuch0"], 1),
    (["configure terminal", "sflow collector 1 destination 127.0.0.1 6343"], 1),
    (["show nonsense", "show version"], 1), (["exit"], 0), (["exit", "show version"], 1)])
def test_the_status_tells_whether_every_command_succeeded(ready, commands, status):
    assert ready.cli(*commands).status == status


def test_the_commands_behind_one_that_fails_are_run(ready):
    result = ready.cli("show nonsense", "configure terminal", "sflow sampling-rate 1", "sflow sampling-rate 5000",
                       "do show running-config | include sampling")
    assert result.status == 1
    assert result.output == ("show nonsense\n     ^\n" + INVALID + "sflow sampling-rate 1\n                    ^\n" +
                             INVALID + "sflow sampling-rate 5000\n")
    assert result.errors == ""


def test_errors_point_at_the_word(ready):
    for line, column, message in [("show sflow nonsense", 11, INVALID), ("show s", 5, "% Ambiguous command\n"),
                                  ("  show   sflow é", 15, INVALID)]:
        assert ready.cli(line).output == f"{line}\n{' ' * column}^\n{message}"
    assert ready.cli("terminal length").output == "% Incomplete command\n"


def test_wait_gives_up_with_the_reason(stage):
    result = stage.cli("show version", wait=1)
    assert (result.status, result.output) == (2, "")
    assert "sflowd is not running" in result.errors


@pytest.mark.parametrize("arguments", [["--wait", "soon"], ["--wait", "-1"], ["--nonsense"], ["show version"], ["-c"]])
def test_a_mistake_in_the_options_has_a_status_of_its_own(stage, arguments):
    done = shell(stage, *arguments)
    assert (done.returncode, done.stdout) == (64, "") and done.stderr


def test_output_that_cannot_be_written_is_a_failure(ready):
    with open("/dev/full", "w") as full:
        done = shell(ready, "-c", "show version", capture_output=False, stdout=full, stderr=subprocess.PIPE)
    assert done.returncode == 1
    assert done.stderr == "sflow-cli: the output could not be written\n"


def test_a_script_is_read_from_standard_input(ready):
    script = "configure terminal\n! a rate\n\n  sflow sampling-rate 6001  \nsflow nonsense\nsflow counter interval 9"
    done = shell(ready, input=script)
    assert done.returncode == 1
    assert done.stdout == "sflow nonsense\n      ^\n" + INVALID
    config = ready.sandbox.running_config()
    assert "sampling-rate 6001\n" in config and "interval 9\n" in config


@pytest.mark.parametrize("line", [b"show\x00version", b"show version\x00", "show ünsinn".encode(), b"\xff\xfe\xfd",
                                  b"x" * 10240, b"show version " + b"y" * 10240, b"show\x1b[2Jversion", b"\x7f"],
                         ids=["NUL", "NUL at the end", "UTF-8", "no UTF-8", "10 kB", "10 kB behind a command", "escape",
                              "delete"])
def test_odd_lines_are_refused_and_the_next_one_is_run(ready, line):
    done = shell(ready, input=line + b"\nshow version\n", text=False)
    assert done.returncode == 1
    assert b"% Invalid input" in done.stdout or b"% The line is too long" in done.stdout
    assert done.stdout.endswith(b"saved\n") and b"sFlow agent, version" in done.stdout
    assert done.stderr == b""


def test_a_description_may_be_utf_8(ready):
    ready.configure("sflow collector 1 destination 198.51.100.2 6343 description zürich-β")
    assert "description zürich-β\n" in ready.sandbox.running_config()


# ---- Who may connect -------------------------------------------------------------------------------------------------

@pytest.mark.skipif(shutil.which("setpriv") is None, reason="setpriv is not installed")
def test_the_socket_is_for_root_and_its_group(ready):
    nobody, group = 65534, 4242
    ready.sandbox.path.chmod(0o711)
    platform = ready.sandbox.path / "platform"
    for path in (platform, platform / "cli_socket"):
        os.chown(path, -1, group)      # as the daemon does where the group sflow exists

    def as_user(gid):
        return shell(ready, "-c", "show version",
                     wrapper=["setpriv", f"--reuid={nobody}", f"--regid={gid}", "--clear-groups"])

    member, stranger = as_user(group), as_user(nobody)
    assert member.returncode == 0, member
    assert (stranger.returncode, stranger.stdout) == (2, "")
    assert stranger.stderr == (f"sflow-cli: no permission for {platform}/cli_socket: it is open to root and to members "
                               "of the group sflow\n")


# ---- Sessions that misbehave -----------------------------------------------------------------------------------------

@pytest.fixture
def raw_session(ready):
    """A function that opens a session without a shell."""
    opened = []

    def open_one():
        session = socket.socket(socket.AF_UNIX)
        session.connect(str(ready.sandbox.path / "platform/cli_socket"))
        session.sendall(b"hello 1 batch\n")
        opened.append(session)
        return session

    yield open_one
    for session in opened:
        session.close()


def test_floods_that_are_never_read_hold_up_nobody(ready, raw_session):
    requests = b"run show running-config\n" * 4000
    for _ in range(8):
        session = raw_session()
        session.setblocking(False)
        try:
            while True:
                session.send(requests)
        except (BlockingIOError, BrokenPipeError, ConnectionResetError):
            pass        # the daemon reads no more of it, or has cut it off already
    assert ready.cli("show version").status == 0
    ready.configure("sflow sampling-rate 6002")
    assert "sampling-rate 6002\n" in ready.sandbox.running_config()


def test_sessions_that_only_connect_do_not_keep_others_out(ready, raw_session):
    for _ in range(20):
        raw_session()
    results = [CommandResult(shell(ready, "-c", "show version")) for _ in range(3)]
    assert [result.status for result in results] == [0, 0, 0]


def test_a_full_house_is_said(ready, raw_session):
    sessions = []

    def one_more():
        session = raw_session()
        session.settimeout(PATIENCE)
        if session.recv(64).startswith(b"state "):
            sessions.append(session)
        return len(sessions) == 64

    # The daemon may still have a session of which the other end has gone.
    wait_for(one_more, "64 sessions", pause=0)
    result = ready.cli("show version")
    assert (result.status, result.errors) == (2, "sflow-cli: there are 64 sessions already\n")
    sessions[0].close()
    wait_for(lambda: ready.cli("show version").status == 0, "a place to become free")
