"""Checks that hold for every text file of the tree, and that Python files compile.

Line ends, white space and line length are those of .editorconfig; clang-format looks after the
length of C++ lines. A comment that draws a rule has its title and all of its dashes in one line:
clang-format breaks a longer one in two.
"""

import ast
import os
import re
import sys
from collections.abc import Iterator
from pathlib import Path

REPOSITORY = Path(__file__).resolve().parents[2]
NOT_OURS = {".git", "build", "__pycache__", ".pytest_cache", ".cache"}
INPUTS = REPOSITORY / "tests/fuzz/corpus"  # any bytes at all
PYTHON_AND_SHELL = {".py", ""}
MAKEFILES = {REPOSITORY / "debian/rules"}  # whose recipes begin with a tab
LONGEST = 100
DRAWN = re.compile(r" *(//|#|/\*) --+( |-|$)")
RULE = re.compile(r"(// ---- \S.* -+|# ---- \S.* -+|/\* ---- \S.* -+ \*/)")


def tree() -> Iterator[Path]:
    """Every text file of the tree that is not a product of building or testing."""
    for directory, subdirectories, names in os.walk(REPOSITORY):
        subdirectories[:] = set(subdirectories) - NOT_OURS
        if Path(directory) == INPUTS:
            subdirectories.clear()
        yield from (Path(directory, name) for name in names)


def line_findings(path: Path, line: str) -> Iterator[str]:
    if line != line.rstrip():
        yield "white space at the end of the line"
    if "\t" in (line.removeprefix("\t") if path in MAKEFILES else line):
        yield "tab"
    if path.suffix in PYTHON_AND_SHELL and len(line) > LONGEST:
        yield f"longer than {LONGEST} characters"
    if DRAWN.match(line) and not (RULE.fullmatch(line) and len(line) == LONGEST):
        yield f"not a rule of {LONGEST} characters with a title: ---- Title ----...----"


def findings(path: Path) -> Iterator[str]:
    """What is wrong with one file."""
    content = path.read_bytes()
    if b"\0" in content:
        return
    text = content.decode()
    if text and not text.endswith("\n"):
        yield "no newline at the end of the file"
    for number, line in enumerate(text.split("\n"), 1):
        yield from (f"line {number}: {finding}" for finding in line_findings(path, line))
    if path.suffix == ".py":
        try:
            ast.parse(text)
        except SyntaxError as error:
            yield str(error)


def main() -> None:
    wrong = [f"{path.relative_to(REPOSITORY)}: {finding}"
             for path in sorted(tree()) for finding in findings(path)]
    print("\n".join(wrong), file=sys.stderr)
    sys.exit(bool(wrong))


if __name__ == "__main__":
    main()
