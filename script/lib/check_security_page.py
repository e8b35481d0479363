"""Checks that every test that docs/security.md and docs/fleet.md name is there.

The pages say of each line which tests fail when it is no longer true; a test that was renamed or
removed would leave a promise that nobody keeps. A name without a file belongs to the file named
before it.
"""

import re
import sys
from collections.abc import Iterator
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
PAGES = (REPOSITORY / "docs/security.md", REPOSITORY / "docs/fleet.md")
NAMED = re.compile(r"`([a-z]\w*\.py|[a-z]\w*_test\.cpp)?(?:::(test_\w+))?`")
HOMES = {".py": ("tests/system", "tests/package"), ".cpp": ("tests/unit",)}


def place_of(file: str) -> Path:
    """Where the file is, or would be."""
    homes = [REPOSITORY / home / file for home in HOMES[Path(file).suffix]]
    return next((path for path in homes if path.is_file()), homes[0])


def named_tests(page: Path) -> Iterator[tuple[Path, str]]:
    """Every file, with the test in it or an empty text for all of them."""
    path = page
    for file, test in NAMED.findall(page.read_text()):
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


def is_sound(page: Path) -> bool:
    """Says what is wrong with a page."""
    tests = list(named_tests(page))
    wrong = list(findings(tests))
    for finding in wrong:
        print(f"{page.name}: {finding}", file=sys.stderr)
    print(f"{len(tests)} tests named in {page.name}")
    return bool(tests) and not wrong


def main() -> None:
    sys.exit(not all([is_sound(page) for page in PAGES]))


if __name__ == "__main__":
    main()
