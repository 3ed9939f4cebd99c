"""The vm tier: runs tests of the other tiers in a guest with one of Debian's kernels, which have the kinds of devices
that a small kernel lacks, and writes their results as JUnit files.

    tier.py --bin FOLDER --results FOLDER [--all] [--kernel 6.12] [--filter EXPRESSION]

By default the tests marked `devices` on Linux 6.1, for at most TIME seconds: what has not begun by then is skipped.
With --all also the whole e2e tier, the long random sequences, and every kernel. The first boot is a probe: where no
guest comes up, the tier is skipped with the reason. A guest that dies later is a failure; what is not done in time
counts as skipped.
"""
import argparse
import pathlib
import shlex
import sys
import tempfile
import time
from xml.sax.saxutils import escape, quoteattr

import guest
import kernels

#: Seconds: the tests of the default share, the same with --all, and the probe.
TIME, TIME_ALL, TIME_PROBE = 270, 6000, 120
#: A test that has begun may end later than that, by this much at most.
MARGIN = 600
#: Seconds after which a test in the guest gives up: not before the guest does.
PATIENCE = MARGIN


def note(results, kernel, outcome, text):
    """A result of the tier itself: "skipped" or "failure"."""
    print(f"vm: Linux {kernel}: {outcome}: {text}", flush=True)
    first = text.splitlines()[0]
    (results / f"guest-{kernel}.xml").write_text(
        f'<testsuites><testsuite name="vm"><testcase classname="vm" name="guest-{kernel}">'
        f"<{outcome} message={quoteattr(first)}>{escape(text)}</{outcome}></testcase></testsuite></testsuites>\n")


def command(arguments, kernel, seconds):
    """The shell line that runs the tests in the guest."""
    environment = {"SFLOW_BIN": arguments.bin.resolve(), "PYTHONDONTWRITEBYTECODE": 1, "SFLOW_TEST_PATIENCE": PATIENCE,
                   "SFLOW_TEST_STOP_AFTER": seconds, "SFLOW_TEST_SEQUENCES": 200 if arguments.all else 12}
    pytest = ["/usr/bin/python3", "-m", "pytest", "-v", "-ra", "-p", "no:cacheprovider",
              "-o", "junit_family=xunit2", "-o", f"junit_suite_name=vm-{kernel}"]
    runs = [[*pytest, "-m", "devices", "tests/component", "tests/e2e"]]
    if arguments.all:
        runs.append([*pytest, "-m", "not devices", "tests/e2e"])
    lines = [f"export {name}={shlex.quote(str(value))}" for name, value in environment.items()]
    for number, words in enumerate(runs):
        selected = ["-k", arguments.filter] if arguments.filter else []
        # Status 5: the filter left nothing. A failed test is in the file of results.
        lines.append(f'{shlex.join([*words, *selected])} --junitxml="$EXCHANGE/tests-{number}.xml"; status=$?\n'
                     "case $status in 0 | 1 | 5) ;; *) exit $status ;; esac")
    return "\n".join(lines)


def run_kernel(arguments, kernel):
    results = arguments.results
    seconds = TIME_ALL if arguments.all else TIME
    with tempfile.TemporaryDirectory(prefix="vm-") as scratch:
        started = time.monotonic()
        status, reason = guest.run(kernel, "uname -r", scratch, TIME_PROBE)
        if status != 0:
            note(results, kernel, "skipped", f"no guest comes up here: {reason or f'status {status}'}")
            return
        print(f"vm: the guest is up after {time.monotonic() - started:.0f} s; the tests follow, it is slow", flush=True)
        status, reason = guest.run(kernel, command(arguments, kernel, seconds), scratch, seconds + MARGIN)
        for path in pathlib.Path(scratch).glob("tests-*.xml"):
            (results / f"{kernel}-{path.name}").write_bytes(path.read_bytes())
        # Emulation can stand still for minutes: that is nothing that the tests could have found.
        if status != 0:
            note(results, kernel, "skipped" if status == guest.LATE else "failure",
                 reason or f"pytest ended with status {status}")


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
            note(arguments.results, kernel, "skipped", str(error))
    return 0


if __name__ == "__main__":
    sys.exit(main())
