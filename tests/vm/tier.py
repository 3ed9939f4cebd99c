"""The vm tier: runs tests of the other tiers in a guest with one of Debian's kernels, which have the kinds of devices
that a small kernel lacks, and writes their results as JUnit files.

    tier.py --bin FOLDER --results FOLDER [--all] [--kernel 6.12] [--filter EXPRESSION]

By default the tests marked `devices` but not `long`, on Linux 6.1: what has not begun after TIME seconds is skipped.
With --all also the long random sequences, the whole e2e tier, and every kernel. Where no guest comes up, the tier is
skipped with the reason. A guest that dies later is a failure, and so is a test that does not end; a guest that is slow
or stands still is no test's fault. What the tests found before counts in any case.
"""
import argparse
import collections
import itertools
import os
import pathlib
import shlex
import subprocess
import sys
import tempfile
from xml.sax.saxutils import escape, quoteattr

import guest
import kernels
import progress

#: Seconds since the guest was started: of the default share, and of each of the runs with --all.
TIME, TIME_ALL = 240, 7200
#: A test that has begun may end later than that, by this much at most.
MARGIN = 1200
#: Seconds of the guest's own after which a test in it gives up, and those that one with all its clearing up may take
#: when the time is over. Both are as long as the machine's while the guest waits, and much longer while it works.
PATIENCE, PATIENCE_OVER = 300, 900
#: Random sequences of changes.
SEQUENCES = 200
#: Tests at a time: they wait as long as they work.
WORKERS = 3
PYTEST = ["/usr/bin/python3", "-m", "pytest", "-p", "no:cacheprovider"]
FOLDERS = ["tests/component", "tests/e2e"]


def write_results(path, cases):
    """`cases`: test → (outcome, text); the outcome is "passed", "skipped" or "failure"."""
    lines = []
    for name, (outcome, text) in cases.items():
        inside = "" if outcome == "passed" else (
            f"<{outcome} message={quoteattr((text.strip() or outcome).splitlines()[-1])}>"
            f"{escape(text)}</{outcome}>")
        lines.append(f'<testcase classname="vm-{path.stem}" name={quoteattr(name)}>{inside}</testcase>')
    body = "".join(filter(lambda character: character.isprintable() or character in "\n\t", "\n".join(lines)))
    path.write_text(f'<testsuites><testsuite name="vm-{path.stem}">\n{body}\n</testsuite></testsuites>\n')


def collect(arguments, marks, folders):
    """The tests of a run, taken from the files in turn: what is left out on a slow machine is a little of each. The guest
    need not read the other files."""
    words = [*PYTEST, "-q", "--collect-only", "-m", marks, *folders]
    if arguments.filter:
        words += ["-k", arguments.filter]
    environment = {**os.environ, "SFLOW_BIN": str(arguments.bin.resolve()), "PYTHONDONTWRITEBYTECODE": "1"}
    done = subprocess.run(words, capture_output=True, text=True, env=environment, check=False)
    if done.returncode not in (0, 5):   # 5: the filter left nothing
        sys.exit(f"vm: pytest does not collect: {(done.stdout + done.stderr).strip()[-500:]}")
    files = collections.defaultdict(list)
    for line in done.stdout.splitlines():
        if "::" in line:
            files[line.partition("::")[0]].append(line)
    return [test for turn in itertools.zip_longest(*files.values()) for test in turn if test]


def command(arguments, tests, workers):
    """The shell lines that run the tests in the guest."""
    environment = {"SFLOW_BIN": arguments.bin.resolve(), "PYTHONPATH": pathlib.Path(__file__).parent.resolve(),
                   "SFLOW_TEST_PATIENCE": PATIENCE, "SFLOW_TEST_SEQUENCES": SEQUENCES}
    several = ["-n", min(workers, len(tests))] if workers > 1 else []
    words = [*PYTEST, "-v", "-ra", "-p", "progress", *several, *tests]
    lines = ["uname -sr", *(f"export {name}={shlex.quote(str(value))}" for name, value in environment.items())]
    # A failed test (1) has been told already.
    lines.append(f"{shlex.join(map(str, words))}; status=$?; [ $status -eq 1 ] || exit $status")
    return "\n".join(lines)


def outcomes(tests, told, status, reason):
    """What became of each test, and of the guest when it has to do with that."""
    cases = {}
    for test, (state, text) in {**dict.fromkeys(tests, (None, "")), **told}.items():
        if state == progress.FAILED:
            cases[test] = ("failure", text)
        elif state == progress.SKIPPED:
            cases[test] = ("skipped", text)
        elif state == progress.ENDED:
            cases[test] = ("passed", "")
        elif state == progress.BEGUN and status == guest.LATE:
            cases[test] = ("failure", f"did not end\n{reason}")
        else:
            cases[test] = ("skipped", "the guest was gone before this had ended" if state else "not begun")
    if status in (guest.SLOW, guest.LATE, guest.DOWN):
        cases["guest"] = ("skipped", reason)
    elif status != 0:
        cases["guest"] = ("failure", reason or f"pytest ended with status {status}")
    return cases


def run_tests(arguments, kernel, name, tests, workers):
    if not tests:
        return
    seconds = TIME_ALL if arguments.all else TIME
    with tempfile.TemporaryDirectory(prefix="vm-") as scratch:
        status, reason = guest.run(kernel, command(arguments, tests, workers), scratch,
                                   guest.Limits(seconds, seconds + MARGIN, PATIENCE_OVER))
        cases = outcomes(tests, progress.read(scratch), status, reason)
    write_results(arguments.results / f"{kernel}-{name}.xml", cases)
    for test, (outcome, text) in cases.items():
        if outcome == "failure":
            print(f"vm: Linux {kernel}: {test}: {outcome}: {text}", flush=True)
    counts = collections.Counter(outcome for outcome, _ in cases.values())
    print(f"vm: Linux {kernel}, {name}: {counts['passed']} passed, {counts['failure']} failed, "
          f"{counts['skipped']} skipped", flush=True)


def run_kernel(arguments, kernel):
    # Each run has a guest of its own, and all tests are known before the first.
    runs = [("devices", "devices and not long", FOLDERS, WORKERS)]
    if arguments.all:
        runs += [("sequences", "devices and long", FOLDERS, 1), ("e2e", "not devices", FOLDERS[1:], 1)]
    collected = [(name, collect(arguments, marks, folders), workers) for name, marks, folders, workers in runs]
    for name, tests, workers in collected:
        run_tests(arguments, kernel, name, tests, workers)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--bin", type=pathlib.Path, required=True, help="the programs under test")
    parser.add_argument("--results", type=pathlib.Path, required=True, help="folder for the JUnit files")
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--kernel", choices=kernels.PACKAGES, help="only this one")
    parser.add_argument("--filter", help="pytest -k expression")
    arguments = parser.parse_args()
    guest.end_in_order()
    arguments.results.mkdir(parents=True, exist_ok=True)
    chosen = [arguments.kernel] if arguments.kernel else list(kernels.PACKAGES) if arguments.all else ["6.1"]
    for kernel in chosen:
        try:
            guest.check()
            run_kernel(arguments, kernel)
        except (kernels.Unavailable, OSError) as error:
            print(f"vm: Linux {kernel}: skipped: {error}", flush=True)
            write_results(arguments.results / f"{kernel}-guest.xml", {"guest": ("skipped", str(error))})
    return 0


if __name__ == "__main__":
    sys.exit(main())
