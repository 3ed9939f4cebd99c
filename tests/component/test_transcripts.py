"""The transcripts leave no command of the reference out, in any mode, with and without `no`."""
import pathlib
import re

import pytest

ROOT = pathlib.Path(__file__).parents[2]
REFERENCE = (ROOT / "docs/command-reference.md").read_text()
INTERFACE = "Interface mode and interface-range mode"
LISTS = {"ip access-list standard": "Standard access lists", "ip access-list extended": "Extended access lists",
         "ipv6 access-list": "IPv6 access lists", "mac access-list": "MAC access lists"}
MODES = ["Exec mode", "Configuration mode", INTERFACE, *LISTS.values()]


def syntaxes(mode):
    """Commands of a mode as the reference has them, and their forms with `no`."""
    section = REFERENCE.split(f"\n## {mode}\n", 1)[1].split("\n## ", 1)[0]
    found = []
    for syntax, notes in re.findall(r"^### `(.*)`\n(.*)", section, re.MULTILINE):
        found.append(syntax)
        found += re.findall(r"With `no`: `(.*?)`", notes)
        if "Takes `no` in front." in notes:
            found.append(f"no {syntax}")
    return found


def pattern(syntax):
    """A regular expression for lines of a command. What may be left out counts neither way, a value is any word."""
    before = None
    while before != syntax:
        before, syntax = syntax, re.sub(r"\[[^\[\]]*\]", "", syntax)
    alternatives = r"\{(?:[^{}]|\{[^{}]*\})*\}"
    words = [".+" if token[0] == "{" else r"\S+" if token[0] == "<" or token.isupper() else re.escape(token)
             for token in re.findall(alternatives + r"|\S+", syntax)]
    return re.compile(" ".join(words) + "( .*)?")


def typed():
    """Lines typed in all transcripts, by mode. A line of configuration mode may be typed in the modes below it too."""
    lines = {mode: [] for mode in MODES}
    for path in (ROOT / "tests/transcripts").glob("*.txt"):
        kinds = {}
        for where, line in re.findall(r"^switch(?:\((.*?)\))?[>#] ?(.*)$", path.read_text(), re.MULTILINE):
            if entered := re.match(f"({'|'.join(LISTS)}) (\\S+)", line):
                kinds[entered[2]] = LISTS[entered[1]]
            if line.startswith("do ") or where == "":
                lines["Exec mode"].append(line.removeprefix("do "))
                continue
            lines["Configuration mode"].append(line)
            if where.startswith("config-if"):
                lines[INTERFACE].append(line)
            elif where.startswith("config-acl-"):
                lines[kinds[where.removeprefix("config-acl-")]].append(line)
    return lines


@pytest.mark.parametrize("mode", MODES)
def test_every_command_of_the_reference_is_typed_in_a_transcript(mode):
    lines = typed()[mode]
    assert syntaxes(mode)
    missing = [syntax for syntax in syntaxes(mode) if not any(map(pattern(syntax).fullmatch, lines))]
    assert not missing
