"""What script/lint says of the page's packages: pinned, and from no registry of ours."""

import json
import shutil
import subprocess
import sys

import pytest

from harness import settings

SCRIPT = settings.REPOSITORY / "script/lib/check_lock_file.py"
LOCK = "zevweb/page/package-lock.json"


@pytest.fixture
def tree(tmp_path):
    """A tree of the check and the page's two files, with one package."""
    (tmp_path / "script/lib").mkdir(parents=True)
    (tmp_path / "zevweb/page").mkdir(parents=True)
    shutil.copy(SCRIPT, tmp_path / "script/lib")

    def check(asked="1.2.3", wanted=None, **locked) -> list[str]:
        own = {"dependencies": {"one": asked}}
        one = {"version": "1.2.3", "integrity": "sha512-AAAA"} | locked
        one = {key: value for key, value in one.items() if value is not None}
        packages = {"": {"dependencies": {"one": wanted or asked}}, "node_modules/one": one}
        (tmp_path / "zevweb/page/package.json").write_text(json.dumps(own))
        (tmp_path / LOCK).write_text(json.dumps({"packages": packages}))
        done = subprocess.run([sys.executable, "-B", "script/lib/check_lock_file.py"],
                              cwd=tmp_path, capture_output=True, text=True, check=False)
        found = done.stderr.splitlines()
        assert done.returncode == bool(found)
        return found

    return check


def test_pinned_packages_are_good(tree):
    assert tree() == []


@pytest.mark.parametrize("asked", ["^1.2.3", "~1.2.3", "1.x", "*", "latest", ">=1.2.3"])
def test_a_package_that_is_not_pinned_is_found(tree, asked):
    assert tree(asked) == [f"zevweb/page/package.json: one is not pinned: {asked}"]


@pytest.mark.parametrize("locked, finding", [
    ({"resolved": "file:one.tgz"},
     "node_modules/one: resolved; set omit-lockfile-registry-resolved=true for npm"),
    ({"funding": "https://example.org/"}, "line 1: an address"),
    ({"integrity": None}, "node_modules/one: no digest"),
    ({"version": None}, "node_modules/one: no version"),
])
def test_what_a_lock_file_must_not_say_is_found(tree, locked, finding):
    assert tree(**locked) == [f"{LOCK}: {finding}"]


def test_a_lock_file_of_other_packages_is_found(tree):
    assert tree("1.2.3", "1.2.4") == [
        f"{LOCK}: not made from package.json: run npm install --package-lock-only"]
