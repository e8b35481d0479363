"""A run of the tests that was started with SIGHUP ignored, as nohup does."""

import os
import shutil
import signal
import subprocess
import sys

import pytest

from harness import settings
from harness.waiting import stretched

TEST = """
import os, re, signal, subprocess

def test_what_is_started_does_not_ignore_it():
    status = subprocess.check_output(["cat", "/proc/self/status"], text=True)
    ignored = int(re.search(r"SigIgn:\\t(\\w+)", status).group(1), 16)
    assert not ignored & 1 << signal.SIGHUP - 1

def test_the_run_outlives_it():
    os.kill(os.getpid(), signal.SIGHUP)
"""


def ignore_hangups() -> None:
    signal.signal(signal.SIGHUP, signal.SIG_IGN)


@pytest.mark.parametrize("workers", [[], ["-n", "1"]])
def test_what_tests_start_does_not_ignore_hangups(tmp_path, workers):
    copy = tmp_path / "tests" / "system"
    shutil.copytree(settings.SYSTEM_TESTS, copy, ignore=shutil.ignore_patterns("test_*.py"))
    (copy / "test_it.py").write_text(TEST)
    inherited = {name: value for name, value in os.environ.items()
                 if not name.startswith("PYTEST_") and name != settings.BUILD}
    done = subprocess.run([sys.executable, "-m", "pytest", str(copy), *workers],
                          capture_output=True, text=True, env=inherited, cwd=tmp_path,
                          timeout=stretched(60), preexec_fn=ignore_hangups, check=False)
    assert done.returncode == 0 and "2 passed" in done.stdout, done.stdout
