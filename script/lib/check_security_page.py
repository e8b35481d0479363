"""Checks that every test that docs/security.md names is there.

The page says of each line which tests fail when it is no longer true; a test that was renamed or
removed would leave a promise that nobody keeps. A name without a file belongs to the file named
before it.
"""

import re
import sys
from collections.abc import Iterator
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
PAGE = REPOSITORY / "docs/security.md"
NAMED = re.compile(r"`([a-z]\w*\.py|[a-z]\w*_test\.cpp)?(?:::(test_\w+))?`")
HOMES = {".py": ("tests/system", "tests/package"), ".cpp": ("tests/unit",)}


def place_of(file: str) -> Path:
    """Where the file is, or would be."""
    homes = [REPOSITORY / home / file for home in HOMES[Path(file).suffix]]
    return next((path for path in homes if path.is_file()), homes[0])


def named_tests(text: str) -> Iterator[tuple[Path, str]]:
    """Every file, with the test in it or an empty text for all of them."""
    path = PAGE
    for file, test in NAMED.findall(text):
        if file:
            path = place_of(file)
        if file or test:
            yield path, test


def findings(tests: list[tuple[Path, str]]) -> Iterator[str]:
    for path, test in tests:
        if not path.is_file():
            yield f"there is no {path.name}"
        elif test and f"\ndef {test}(" not in path.read_text():
            yield f"{path.name} has no {test}"


def main() -> None:
    tests = list(named_tests(PAGE.read_text()))
    wrong = list(findings(tests))
    for finding in wrong:
        print(f"{PAGE.name}: {finding}", file=sys.stderr)
    print(f"{len(tests)} tests named in {PAGE.name}")
    sys.exit(bool(wrong) or not tests)


if __name__ == "__main__":
    main()
