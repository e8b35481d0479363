"""Checks that every unit test in the sources was really run.

Usage: check_all_ran.py SOURCE_DIRECTORY DIRECTORY_OF_GOOGLETEST_REPORTS [--with-threads]

With the option only sources that start threads count.

A test file that was left out of the build, or a test that is disabled, would otherwise go
unnoticed: the tests that do run all pass.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

TEST = re.compile(r"^(?:TYPED_)?TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)
THREADS = re.compile(r"std::thread|pthread_create")
PLAIN_NAME = re.compile(r"^(?:\w+/)?([A-Za-z]\w*)(?:/\d+)?\.(\w+)")


def written(directory: Path, with_threads: bool) -> dict[str, Path]:
    """Every test in the sources, with its file; a file without any is listed by its own name."""
    tests = {}
    for source in sorted(directory.rglob("*_test.cpp")):
        text = source.read_text()
        if with_threads and not THREADS.search(text):
            continue
        found = TEST.findall(text)
        tests |= {f"{suite}.{name}": source for suite, name in found} or {str(source): source}
    return tests


def run(reports: Path) -> set[str]:
    """Every test that was run to its end, without the decorations of parameters and types."""
    cases = (case for report in reports.glob("*.xml")
             for case in ElementTree.parse(report).iter("testcase"))
    names = (f"{case.get('classname')}.{case.get('name')}" for case in cases
             if case.get("result") == "completed")
    return {".".join(match.groups()) for name in names if (match := PLAIN_NAME.match(name))}


def main() -> None:
    tests = written(Path(sys.argv[1]), sys.argv[3:] == ["--with-threads"])
    ran = run(Path(sys.argv[2]))
    missed = {test: source for test, source in tests.items() if test not in ran}
    for test, source in missed.items():
        print(f"{source}: {test} was not run", file=sys.stderr)
    print(f"{len(tests) - len(missed)} of {len(tests)} unit tests in the sources were run")
    sys.exit(bool(missed) or not tests)


if __name__ == "__main__":
    main()
