"""The command reference covers what a real daemon offers."""
import pathlib
import re
import socket

import pytest

from harness.wait import PATIENCE

REFERENCE = (pathlib.Path(__file__).parents[2] / "docs/command-reference.md").read_text()


class Session:
    """A session of the line protocol."""

    def __init__(self, sandbox):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(str(sandbox.path / "platform/cli_socket"))
        self.file = self.socket.makefile("rb")
        self.ask("hello 1 batch", "state")

    def ask(self, request, last="done"):
        """Sends a request; returns the text of its output."""
        self.socket.sendall(request.encode() + b"\n")
        output = ""
        while True:
            tag, length, *_ = self.file.readline().decode().split()
            text = self.file.read(int(length)).decode()
            if tag == last:
                return output
            assert tag == "out", f"{tag}: {text}"
            output += text

    def close(self):
        self.file.close()
        self.socket.close()


@pytest.fixture
def session(ready):
    session = Session(ready.sandbox)
    yield session
    session.close()


def syntaxes(mode):
    """The commands of a mode's section."""
    section = REFERENCE.split(f"\n## {mode}\n", 1)[1].split("\n## ", 1)[0]
    return re.findall(r"^### `(.*)`$", section, re.MULTILINE)


@pytest.mark.parametrize("enter, mode", [
    ([], "Exec mode"), (["configure terminal"], "Configuration mode"),
    (["configure terminal", "interface port1"], "Interface mode and interface-range mode"),
    (["configure terminal", "ip access-list standard web"], "Standard access lists"),
    (["configure terminal", "ip access-list extended web"], "Extended access lists"),
    (["configure terminal", "ipv6 access-list web"], "IPv6 access lists"),
    (["configure terminal", "mac access-list web"], "MAC access lists")])
def test_every_offered_word_is_in_the_reference(session, enter, mode):
    for line in enter:
        session.ask(f"run {line}")
    commands = syntaxes(mode)
    assert commands
    for first in session.ask("complete ").split():
        if first in ("do", "no"):
            continue
        described = [command for command in commands if command.split()[0] == first]
        assert described, f"{first} is not in the reference of {mode}"
        words = {word.strip("[]{}") for command in described for word in command.split()}
        for second in session.ask(f"complete {first} ").split():
            assert second in words or "IFNAME" in words, f"{first} {second} is not in the reference of {mode}"


def test_the_reference_names_ranges_and_defaults():
    assert "### `sflow sampling-rate <4096-16777215>`\nWith `no`: `no sflow sampling-rate`. " \
           "Default: `sflow sampling-rate 8192`." in REFERENCE
    assert "### `sflow collector <1-2> max-datagram-size <200-9000>`" in REFERENCE
