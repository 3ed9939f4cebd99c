"""Where the log goes: /dev/log, journald, and standard error when there is neither."""
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess

import pytest

from harness.domain_socket import SET_RATE
from harness.wait import PATIENCE, wait_for

JOURNALD = pathlib.Path("/lib/systemd/systemd-journald")
MACHINE_ID = pathlib.Path("/etc/machine-id")
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
CONFLICT_IPFIX = -11
WARNING = "%SFLOW-4-CONFLICT_IPFIX: Interface port1 cannot be sampled due to the conflict between SFLOW and IPFIX."
DEBUG = "%UNKNOW_MODULE-7-DEBUG: [SFLOW-CONF]recv set sampling rate return msg"


class Machine:
    """A /dev and a /run of the test's own, seen by the programs that are started through `wrapper`."""

    def __init__(self, path):
        self.path = path
        (path / "dev").mkdir()
        (path / "run").mkdir()
        for device in DEVICES:
            (path / "dev" / device).touch()
        (path / "enter").write_text("\n".join(
            ["#!/bin/sh", "set -e", "cd $(dirname $0)", *(f"mount --bind /dev/{device} dev/{device}"
                                                          for device in DEVICES),
             "mount --bind run /run", "mount --bind dev /dev", "cd /", 'exec "$@"', ""]))
        # ip netns exec gives a program a mount namespace of its own; journald needs none of the network's.
        self.wrapper = ["sh", str(path / "enter")]

    @property
    def dev_log(self):
        return self.path / "dev/log"


@pytest.fixture
def machine(tmp_path):
    return Machine(tmp_path)


def speak(stage, machine):
    """A warning to the operator and a debug line, from a daemon that chooses its log by itself."""
    (stage.sandbox.config / "platform.toml").write_text('[syslog]\ntarget = "auto"\n')
    stage.sandbox.wrapper = machine.wrapper
    stage.ready(answer_rate=lambda request: CONFLICT_IPFIX)
    assert stage.cli("debug sflow conf").status == 0
    stage.configure("interface port1", "sflow enable ingress")
    stage.service.wait_for(SET_RATE)


def test_lines_go_to_dev_log_with_their_priority(stage, machine):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as listener:
        listener.bind(str(machine.dev_log))
        machine.dev_log.chmod(0o666)
        listener.settimeout(0.1)
        lines = []

        def heard(text):
            try:
                while True:
                    lines.append(listener.recv(65536).decode(errors="replace"))
            except TimeoutError:
                return [line for line in lines if text in line]

        speak(stage, machine)
        warning, = wait_for(lambda: heard(WARNING), "the warning")
        debug = wait_for(lambda: heard(DEBUG), "the debug line")[0]
    # Facility daemon (3); RFC 3164: <facility * 8 + severity>date tag[pid]: text
    assert re.fullmatch(rf"<28>\w{{3}} [ \d]\d [\d:]{{8}} sflowd\[{stage.daemon.pid}\]: {re.escape(WARNING)}", warning)
    assert re.fullmatch(rf"<31>\w{{3}} [ \d]\d [\d:]{{8}} sflowd\[{stage.daemon.pid}\]: {re.escape(DEBUG)}", debug)
    assert stage.daemon.log() == "", "nothing on standard error beside"


@pytest.mark.parametrize("left_over", [False, True])
def test_without_a_system_log_lines_go_to_standard_error(stage, machine, left_over):
    if left_over:       # the socket's file outlives its log daemon
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as gone:
            gone.bind(str(machine.dev_log))
    speak(stage, machine)
    for line in (WARNING, DEBUG):
        wait_for(lambda: f"{line}\n" in stage.daemon.log(), line)


def test_with_all_switches_off_only_the_warning_is_logged(stage, machine):
    (stage.sandbox.config / "platform.toml").write_text('[syslog]\ntarget = "auto"\n')
    stage.sandbox.wrapper = machine.wrapper
    stage.ready(answer_rate=lambda request: CONFLICT_IPFIX)
    stage.cli("debug sflow socket")     # can be set, opens nothing
    stage.configure("interface port1", "sflow enable ingress")
    wait_for(lambda: WARNING in stage.daemon.log(), "the warning")
    assert stage.daemon.log() == f"{WARNING}\n"


@pytest.fixture
def journal(machine):
    """A journald for the machine; a function that returns its entries of sflowd."""
    missing = [name for name in (str(JOURNALD), "journalctl") if shutil.which(name) is None]
    if missing or not MACHINE_ID.exists() or not MACHINE_ID.read_text().strip():
        pytest.skip(f"no journal here: {' and '.join(missing) or 'the machine has no id'}")
    machine.dev_log.symlink_to("/run/systemd/journal/dev-log")
    daemon = subprocess.Popen(["unshare", "--mount", "--propagation", "private", *machine.wrapper, str(JOURNALD)],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    sockets = machine.path / "run/systemd/journal"
    wait_for(lambda: (sockets / "dev-log").exists() or daemon.poll() is not None, "journald's socket")
    if daemon.poll() is not None:
        pytest.skip(f"journald ends with status {daemon.returncode} here")

    def entries():
        done = subprocess.run(["journalctl", "-D", str(machine.path / "run/log/journal" / MACHINE_ID.read_text().strip()),
                               "-o", "json", "-t", "sflowd"], capture_output=True, text=True,
                              env={**os.environ, "TZ": "UTC"})
        return [json.loads(line) for line in done.stdout.splitlines() if line.startswith("{")]

    yield entries
    daemon.terminate()
    daemon.wait(PATIENCE)


def test_lines_go_to_journald_with_their_priority(stage, machine, journal):
    speak(stage, machine)
    for text, priority in ((WARNING, "4"), (DEBUG, "7")):
        entry = wait_for(lambda: [entry for entry in journal() if entry["MESSAGE"] == text], text)[0]
        assert entry["PRIORITY"] == priority
        assert entry["SYSLOG_FACILITY"] == "3"
        assert entry["SYSLOG_PID"] == str(stage.daemon.pid)
