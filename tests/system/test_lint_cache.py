"""What script/lint keeps: whatever may change a check's outcome makes it run again.

Each test has a small tree of its own with a copy of the check in it.
"""

import json
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from harness import settings

LIB = settings.REPOSITORY / "script/lib"
REPORT = re.compile(r"(\d+) sources: (\d+) passed, (\d+) failed, (\d+) unchanged")
SETTINGS = "Checks: '-*,readability-braces-around-statements'\nWarningsAsErrors: '*'\n"
LACKS_BRACES = "void Wait(int n) {\n  while (n > 0)\n    --n;\n}\n"


class Tree:
    """A product source and a test of it, and what the check says of the two."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self._path = os.environ["PATH"]
        (root / "build/release").mkdir(parents=True)
        for name in ("check_cpp.py", "kept_passes.py"):
            (root / "script/lib").mkdir(parents=True, exist_ok=True)
            shutil.copy(LIB / name, root / "script/lib")
        self.write(".clang-tidy", SETTINGS)
        self.write("zevd/value.h", "inline int Value() { return 1; }\n")
        self.write("zevd/product.cpp", '#include "value.h"\nint product = Value();\n')
        self.write("tests/product_test.cpp", "extern int product;\nint test = product;\n")
        self.compile_with()

    def write(self, name: str, text: str) -> None:
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def compile_with(self, *flags: str) -> None:
        """Have the build compile the product with these flags, and the test with none."""
        entries = [{"directory": str(self.root), "file": str(self.root / name),
                    "command": f"g++ {' '.join(added)} -o {name}.o -c {self.root / name}"}
                   for name, added in (("zevd/product.cpp", flags), ("tests/product_test.cpp", ()))]
        self.write("build/release/compile_commands.json", json.dumps(entries))

    def install(self, tool: str, script: str) -> None:
        """Put a tool before those of the machine."""
        self.write(f"bin/{tool}", f"#!/bin/sh\n{script}\n")
        (self.root / "bin" / tool).chmod(0o755)
        self._path = f"{self.root}/bin:{os.environ['PATH']}"

    def kept(self) -> list[Path]:
        return list((self.root / "build/lint").iterdir())

    def check(self) -> tuple[int, int, int]:
        """How many sources passed, failed, and were not checked."""
        done = subprocess.run(
            [sys.executable, "-B", "script/lib/check_cpp.py", "build/release"], cwd=self.root,
            env=os.environ | {"PATH": self._path}, capture_output=True, text=True, check=False)
        report = REPORT.search(done.stdout)
        assert report, done.stdout + done.stderr
        _, passed, failed, unchanged = map(int, report.groups())
        assert (done.returncode != 0) == (failed > 0), done.stderr
        return passed, failed, unchanged


NOTHING = (0, 0, 2)
ONE = (1, 0, 1)
EVERYTHING = (2, 0, 0)
ONE_FAILS = (0, 1, 1)


@pytest.fixture
def tree(tmp_path):
    made = Tree(tmp_path)
    assert made.check() == EVERYTHING
    return made


def test_what_passed_is_not_checked_again(tree):
    assert tree.check() == NOTHING


def test_a_changed_source_is_checked_again(tree):
    tree.write("tests/product_test.cpp", "int test = 2;\n")
    assert tree.check() == ONE
    assert tree.check() == NOTHING


def test_a_changed_header_makes_its_includer_be_checked_again(tree):
    tree.write("zevd/value.h", "inline int Value() { return 2; }\n")
    assert tree.check() == ONE
    assert tree.check() == NOTHING


def test_what_passed_once_needs_no_check_when_it_comes_back(tree):
    before = (tree.root / "zevd/value.h").read_text()
    tree.write("zevd/value.h", "inline int Value() { return 2; }\n")
    assert tree.check() == ONE
    tree.write("zevd/value.h", before)
    assert tree.check() == NOTHING


def test_a_failure_is_not_kept(tree):
    tree.write("zevd/value.h", "inline int Value() { return undeclared; }\n")
    assert tree.check() == ONE_FAILS
    assert tree.check() == ONE_FAILS


def test_a_failure_of_a_test_is_not_kept(tree):
    tree.write("tests/product_test.cpp", "int f(long a) { return a; }\n")
    assert tree.check() == ONE_FAILS
    assert tree.check() == ONE_FAILS


def test_a_source_that_lacks_a_header_fails(tree):
    (tree.root / "zevd/value.h").unlink()
    assert tree.check() == ONE_FAILS
    assert tree.check() == ONE_FAILS


def test_a_comment_counts(tree):
    tree.write("zevd/product.cpp", LACKS_BRACES.replace("\n", "  // NOLINT\n"))
    assert tree.check() == ONE
    tree.write("zevd/product.cpp", LACKS_BRACES)
    assert tree.check() == ONE_FAILS


def test_changed_settings_make_everything_be_checked_again(tree):
    tree.write(".clang-tidy", SETTINGS.replace("'-*,", "'-*,bugprone-infinite-loop,"))
    assert tree.check() == EVERYTHING
    assert tree.check() == NOTHING


def test_settings_of_a_directory_count_from_their_first_day(tree):
    tree.write("zevd/.clang-tidy", SETTINGS)
    assert tree.check() == EVERYTHING


def test_another_flag_makes_its_source_be_checked_again(tree):
    tree.compile_with("-DUNUSED")
    assert tree.check() == ONE
    tree.compile_with("-DUNUSED", "-Wold-style-cast")
    assert tree.check() == ONE


def test_a_new_header_that_takes_the_place_of_another_is_seen(tree):
    for directory in ("near", "far"):
        (tree.root / directory).mkdir()
    tree.compile_with("-Inear", "-Ifar")
    tree.write("far/place.h", "inline int Place() { return 1; }\n")
    tree.write("zevd/product.cpp", "#include <place.h>\nint product = Place();\n")
    assert tree.check() == ONE
    tree.write("near/place.h", "")
    assert tree.check() == ONE_FAILS


def test_a_new_header_that_is_only_asked_about_is_seen(tree):
    tree.write("zevd/product.cpp",
               '#if __has_include("extra.h")\nint product = undeclared;\n#endif\n')
    assert tree.check() == ONE
    tree.write("zevd/extra.h", "")
    assert tree.check() == ONE_FAILS


def test_a_macro_that_depends_on_a_new_header_is_seen(tree):
    tree.write("zevd/product.cpp", '#if __has_include("extra.h")\n#define UNUSED\n#endif\n')
    assert tree.check() == ONE
    tree.write("zevd/extra.h", "")
    assert tree.check() == ONE


def test_an_upgraded_library_makes_what_uses_it_be_checked_again(tree):
    tree.compile_with("-isystem", "library")
    tree.write("library/library.h", "int Library();\n")
    tree.write("zevd/product.cpp", "#include <library.h>\nint product = Library();\n")
    assert tree.check() == ONE
    tree.write("library/library.h", "int Library();  // mended\n")
    assert tree.check() == ONE


@pytest.mark.parametrize("tool", ["clang++", "clang-tidy"])
def test_another_tool_checks_everything_again(tree, tool):
    tree.install(tool, f'exec {shutil.which(tool)} "$@"')
    assert tree.check() == EVERYTHING
    assert tree.check() == NOTHING


def test_another_check_checks_everything_again(tree):
    with (tree.root / "script/lib/check_cpp.py").open("a") as script:
        script.write("# changed\n")
    assert tree.check() == EVERYTHING


def test_a_source_that_is_edited_during_its_check_is_not_kept(tree):
    before = (tree.root / "zevd/value.h").read_text()
    tree.install("clang-tidy", f'[ "$1" = --version ] || echo >> {tree.root}/zevd/value.h\n'
                               f'exec {shutil.which("clang-tidy")} "$@"')
    assert tree.check() == EVERYTHING
    tree.write("zevd/value.h", before)
    assert tree.check() == ONE, "nobody has ever checked it as it is now"


@pytest.mark.parametrize("damage", [b"", b"half", b"\xff\x00"])
def test_damaged_files_count_as_absent(tree, damage):
    for file in tree.kept():
        file.write_bytes(damage)
    assert tree.check() == EVERYTHING
    assert tree.check() == NOTHING


def test_what_is_kept_is_bounded_and_the_oldest_goes_first(tree):
    script = tree.root / "script/lib/kept_passes.py"
    script.write_text(re.sub(r"AT_MOST = \d+", "AT_MOST = 3", script.read_text()))
    for value in range(5):
        tree.write("zevd/value.h", f"inline int Value() {{ return {value}; }}\n")
        tree.check()
    assert len(tree.kept()) == 3
    assert tree.check() == NOTHING
