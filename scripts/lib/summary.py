"""Counts the tests in the JUnit files of the given folders and prints the closing line.

A program of the unit tier that ended before it wrote its file counts as one failed test.
"""
import argparse
import pathlib
import sys
import xml.etree.ElementTree as ElementTree


def count_cases(path):
    """(passed, [failed names], skipped) of one JUnit file."""
    passed, failed, skipped = 0, [], 0
    for case in ElementTree.parse(path).getroot().iter("testcase"):
        name = f'{case.get("classname", "")}.{case.get("name", "")}'
        if case.find("failure") is not None or case.find("error") is not None:
            failed.append(name)
        elif case.find("skipped") is not None or case.get("status") in ("notrun", "disabled"):
            skipped += 1
        else:
            passed += 1
    return passed, failed, skipped


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--broken", type=int, default=0, help="steps that failed outside any test")
    parser.add_argument("folders", nargs="*", type=pathlib.Path)
    arguments = parser.parse_args()

    passed, failed, skipped = 0, [], 0
    for folder in arguments.folders:
        files = [path for path in sorted(folder.glob("*.xml")) if path.name != "ctest.xml"]
        for path in files:
            try:
                counts = count_cases(path)
            except ElementTree.ParseError:
                counts = (0, [f"{path.name}: unreadable result file"], 0)
            passed += counts[0]
            failed += counts[1]
            skipped += counts[2]
        programs = folder / "ctest.xml"
        if programs.exists():
            written = {path.stem for path in files}
            for program in count_cases(programs)[1]:
                name = program.rpartition(".")[2]
                if name not in written:
                    failed.append(f"{name}: ended without a result file")
    for name in failed:
        print(f"FAILED {name}")
    if arguments.broken:
        print(f"FAILED steps outside the tests: {arguments.broken} (see above)")
    total_failed = len(failed) + arguments.broken
    print(f"{passed} passed, {total_failed} failed, {skipped} skipped")
    if passed == 0 and total_failed == 0:
        print("no test ran", file=sys.stderr)
        return 1
    return 1 if total_failed else 0


if __name__ == "__main__":
    sys.exit(main())
