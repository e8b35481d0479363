"""What script/lint says of text files: rules that a formatter has broken."""

import shutil
import subprocess
import sys

import pytest

from harness import settings

SCRIPT = settings.REPOSITORY / "script/lib/check_text.py"
FINDING = "not a rule of 100 characters with a title: ---- Title ----...----"
TITLE = "// ---- A title "


@pytest.fixture
def findings(tmp_path):
    """Gives what the check says of a tree with one more file."""
    (tmp_path / "script/lib").mkdir(parents=True)
    shutil.copy(SCRIPT, tmp_path / "script/lib")

    def check(name: str, text: str) -> list[str]:
        (tmp_path / name).write_text(text)
        done = subprocess.run([sys.executable, "-B", "script/lib/check_text.py"], cwd=tmp_path,
                              capture_output=True, text=True, check=False)
        found = [line for line in done.stderr.splitlines() if line]
        assert done.returncode == bool(found)
        return found

    return check


@pytest.mark.parametrize("name, line", [
    ("a.cpp", TITLE + "-" * 84),
    ("a.c", "/* ---- A title " + "-" * 81 + " */"),
    ("a.py", "# ---- A title " + "-" * 85),
    ("a.cpp", "// --once is an option, and -- ends them"),
])
def test_whole_rules_are_good(findings, name, line):
    assert findings(name, f"{line}\n") == []


@pytest.mark.parametrize("name, line", [
    ("a.cpp", TITLE + "-" * 83),
    ("a.cpp", TITLE + "-" * 85),
    ("a.cpp", TITLE.rstrip()),
    ("a.cpp", "// " + "-" * 97),
    ("a.cpp", "// " + "-" * 81 + " Joined by the formatter"),
    ("a.cpp", "  " + TITLE + "-" * 82),
    ("a.c", "/* ---- A title " + "-" * 83 + " */"),
    ("a.py", "# ---- A title " + "-" * 60),
])
def test_broken_rules_are_found(findings, name, line):
    assert findings(name, f"\n{line}\n") == [f"{name}: line 2: {FINDING}"]


def test_a_rule_that_was_wrapped_is_found_twice(findings):
    assert findings("a.cpp", f"{TITLE.rstrip()}\n// {'-' * 84}\n") == [
        f"a.cpp: line 1: {FINDING}", f"a.cpp: line 2: {FINDING}"]
