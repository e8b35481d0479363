"""The check of layers, circles and lengths in script/lint, on small trees of the test's own."""

import shutil
import subprocess
import sys
from pathlib import Path

import pytest

from harness import settings

SCRIPT = settings.REPOSITORY / "script/lib/check_includes.py"
TABLE = """
[[zevd]]
layer = "ground"
files = "list text"

[[zevd]]
layer = "top"
files = "main work"

[[zevctl]]
layer = "borrowed"
files = "zevd/text"

[[zevctl]]
layer = "all"
files = "client"
"""


class Tree:
    """A daemon of two layers, and a client that borrows a header; nothing is wrong with them."""

    def __init__(self, root: Path) -> None:
        self.root = root
        (root / "script/lib").mkdir(parents=True)
        shutil.copy(SCRIPT, root / "script/lib")
        self.write("script/lib/layers.toml", TABLE)
        self.write("zevd/list.h", '#include <vector>\n#include "text.h"\n')
        self.write("zevd/text.h", "")
        self.write("zevd/text.cpp", '#include "text.h"\n')
        self.write("zevd/work.h", '#include "list.h"\n')
        self.write("zevd/work.cpp", '#include "work.h"\n#include "text.h"\n')
        self.write("zevd/main.cpp", '#include "work.h"\n')
        self.write("zevctl/client.cpp", '#include "text.h"\n')

    def write(self, name: str, text: str) -> None:
        path = self.root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def add_to_table(self, program: str, layer: str, files: str) -> None:
        with (self.root / "script/lib/layers.toml").open("a") as table:
            table.write(f'[[{program}]]\nlayer = "{layer}"\nfiles = "{files}"\n')

    def findings(self) -> list[str]:
        done = subprocess.run([sys.executable, "-B", "script/lib/check_includes.py"], cwd=self.root,
                              capture_output=True, text=True, check=False)
        found = done.stderr.splitlines()
        assert done.returncode == (1 if any(found) else 0)
        return [line for line in found if line]


@pytest.fixture
def tree(tmp_path):
    return Tree(tmp_path)


def test_a_tree_in_order_has_no_finding(tree):
    assert tree.findings() == []


@pytest.mark.parametrize("include", [
    '#include "work.h"', "#include <work.h>", '#  include "work.h"'])
@pytest.mark.parametrize("file", ["list.h", "text.cpp"])
def test_an_include_upwards_is_found(tree, file, include):
    tree.write(f"zevd/{file}", f"{include}\n")
    assert tree.findings() == [
        f'zevd/{file} (layer "ground"): includes "work.h", which is above it (layer "top")']


def test_a_circle_within_a_layer_is_found(tree):
    tree.write("zevd/text.h", '#include "list.h"\n')
    assert tree.findings() == ["zevd: circle of includes: list -> text -> list"]


def test_header_and_source_of_a_name_count_as_one(tree):
    tree.write("zevd/text.cpp", '#include "list.h"\n')
    assert tree.findings() == ["zevd: circle of includes: list -> text -> list"]


def test_every_circle_is_found(tree):
    tree.add_to_table("zevctl", "more", "a b c d e")
    for name, other in {"a": "b", "b": "c", "c": "a", "d": "e", "e": "d"}.items():
        tree.write(f"zevctl/{name}.h", f'#include "{other}.h"\n')
    assert tree.findings() == ["zevctl: circle of includes: a -> b -> c -> a",
                               "zevctl: circle of includes: d -> e -> d"]


@pytest.mark.parametrize("file", ["work.h", "work.cpp"])
def test_a_long_file_is_found(tree, file):
    text = (tree.root / "zevd" / file).read_text()
    tree.write(f"zevd/{file}", text + "\n" * (450 - text.count("\n")))
    assert tree.findings() == []
    tree.write(f"zevd/{file}", text + "\n" * (451 - text.count("\n")))
    assert tree.findings() == [f"zevd/{file}: 451 lines; 450 are allowed"]


def test_a_file_outside_the_table_is_found(tree):
    tree.write("zevd/more.cpp", '#include "work.h"\n')
    assert tree.findings() == ["zevd: more is not in the table"]


@pytest.mark.parametrize("program", ["qor_pam_auth", "platform"])
def test_a_program_without_a_table_is_found(tree, program):
    tree.write(f"{program}/part/one.cpp", "")
    assert tree.findings() == [f"{program}: part/one is not in the table"]


def test_an_entry_without_a_file_is_found(tree):
    tree.add_to_table("zevd", "more", "gone")
    assert tree.findings() == ["zevd: gone is in the table, but there is no such file"]


def test_an_entry_of_a_program_that_is_not_there_is_found(tree):
    tree.add_to_table("gone", "all", "main")
    assert tree.findings() == ["gone: main is in the table, but there is no such file"]


def test_a_file_in_two_layers_is_found(tree):
    tree.add_to_table("zevd", "more", "text")
    assert "zevd: text is in the table twice" in tree.findings()


def test_a_header_that_was_not_borrowed_is_found(tree):
    tree.write("zevctl/client.cpp", '#include "work.h"\n')
    assert tree.findings() == ['zevctl/client.cpp: includes "work.h", which is not in the table']


def test_a_program_may_have_directories(tree):
    tree.add_to_table("platform", "low", "one/one one/list two/list")
    tree.add_to_table("platform", "high", "two/two")
    tree.write("platform/one/one.cpp", '#include "list.h"\n')
    tree.write("platform/one/list.h", "")
    tree.write("platform/two/list.h", '#include "one/list.h"\n')
    tree.write("platform/two/two.h", '#include "list.h"\n')
    assert tree.findings() == []
    tree.write("platform/two/list.h", '#include "two/two.h"\n')
    assert tree.findings() == ['platform/two/list.h (layer "low"): includes "two/two.h", which is '
                               'above it (layer "high")']
