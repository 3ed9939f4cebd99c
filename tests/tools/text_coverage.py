#!/usr/bin/python3
"""Which of the daemon's texts no test provokes.

    text_coverage.py --source DIR --exceptions FILE PROGRAM...

A text is a string literal of sflow_app/. It counts as provoked when one of the unit-test PROGRAMs, run here, hands it
to the log, to an operator or to the running configuration (the fake platform writes down the formats), or when its
longest piece without placeholders stands in a test. What is left must be listed, with its reason, in the exceptions
file; what is listed and provoked all the same is a mistake too. Status 1 when the two do not agree.
"""
import argparse
import os
import pathlib
import re
import subprocess
import sys
import tempfile

TOKEN = re.compile(r"""R"\([^"]*\)"|//[^\n]*|/\*.*?\*/|'(?:\\[^\n]{1,4}?|[^'\\\n])'|"(?:\\.|[^"\\])*"|\n|\S""",
                   re.DOTALL)
ESCAPE = re.compile(r'\\(x[0-9a-fA-F]+|[0-7]{1,3}|.)')
SIMPLE = {"n": "\n", "r": "\r", "t": "\t", "0": "\0", '"': '"', "\\": "\\", "'": "'"}
PLACEHOLDER = re.compile(r"%[-0-9.*]*[a-zA-Z]|%%")


def unescaped(body):
    def one(match):
        code = match.group(1)
        if code in SIMPLE:
            return SIMPLE[code]
        if code[0] == "x":
            return chr(int(code[1:], 16))
        return chr(int(code, 8)) if code[0].isdigit() else code

    return ESCAPE.sub(one, body)


def literals(source):
    """String literals of a C++ text, neighbours joined; what only the compiler reads is left out."""
    source = re.sub(r'^[ \t]*#[ \t]*include[^\n]*|\bstatic_assert\([^;]*;', "", source, flags=re.MULTILINE)
    texts, current = [], None
    for token in TOKEN.findall(source):
        if token[0] == '"':
            current = (current or "") + unescaped(token[1:-1])
        elif token != "\n" and not token.startswith(("//", "/*")) and token != "\\":
            if current is not None:
                texts.append(current)
            current = None
    return texts + ([current] if current is not None else [])


def read(path):
    return path.read_text(encoding="latin1")


def core(text):
    """The longest piece of a text that stands in its output as it is; nothing of a path."""
    if text.startswith("/"):
        return ""
    pieces = [piece.strip() for piece in PLACEHOLDER.split(re.sub(r"^\[SFLOW-\w+\]", "", text))]
    return max(pieces, key=len)


def formats_of(programs):
    """Formats that reached the log or an operator while the programs ran."""
    formats = set()
    for program in programs:
        with tempfile.TemporaryDirectory() as directory:    # also keeps apart what ctest runs at the same time
            notes = pathlib.Path(directory) / "formats"
            environment = {**os.environ, "TMPDIR": directory, "SFLOW_NOTE_FORMATS": str(notes)}
            subprocess.run([program, "--gtest_brief=1"], env=environment, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, check=True)
            formats |= set(read(notes).split("\0")) if notes.exists() else set()
    return formats


def exceptions_of(path):
    """Texts of the file, one a line with the reason behind two blanks; as they stand in the source."""
    lines = [line for line in read(path).splitlines() if line and not line.startswith("#")]
    return {unescaped(line.split("  ")[0]) for line in lines}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--exceptions", type=pathlib.Path, required=True)
    parser.add_argument("programs", nargs="+")
    options = parser.parse_args()

    tests = [path for folder in ("unit", "component", "transcripts")
             for path in (options.source / "tests" / folder).iterdir()]
    quoted = "\0".join(text for path in tests if path.suffix in (".cpp", ".h") for text in literals(read(path)))
    quoted += "\0".join(read(path) for path in tests if path.suffix in (".py", ".txt"))
    noted = formats_of(options.programs)
    texts = {text for path in sorted((options.source / "sflow_app").glob("*.cpp")) for text in literals(read(path))}
    texts |= {text for path in sorted((options.source / "sflow_app").glob("*.h")) for text in literals(read(path))}
    # The log's formats have to be seen at run time: that a test quotes one does not mean that it is logged.
    provoked = {text for text in texts if text in noted
                or (not text.startswith("[SFLOW") and (not core(text) or core(text).splitlines()[0] in quoted))}
    excepted = exceptions_of(options.exceptions)

    for text in sorted(texts - provoked - excepted):
        print(f"not provoked by any test: {text!r}")
    for text in sorted(excepted & provoked):
        print(f"listed as not to be provoked, but is: {text!r}")
    for text in sorted(excepted - texts):
        print(f"listed as not to be provoked, but no text of the daemon: {text!r}")
    agreed = excepted <= texts and texts - provoked == excepted
    print(f"{len(texts)} texts, {len(texts & noted)} handed on at run time, {len(excepted)} excepted")
    return 0 if agreed else 1


if __name__ == "__main__":
    sys.exit(main())
