"""The units of the service manager, and the check before the daemon starts."""

import os
import re
import shutil
import subprocess

import pytest

from harness import settings
# `accounts`, `groups`, `unprivileged` and `zevd_user` are fixtures.
from harness.accounts import UID, accounts
from harness.helpers import groups
from harness.managed import as_user, unprivileged, zevd_user

UNITS = settings.REPOSITORY / "packaging" / "systemd"
CHECK = settings.REPOSITORY / "packaging" / "libexec" / "zevd-check"

MOST_EXPOSED = 2.0
# It replaces files of the daemon's user, tells the daemon so, and asks it: rights that others lack.
MOST_EXPOSED_WRITER = 2.1


def analyze(*words: str) -> subprocess.CompletedProcess:
    """What systemd-analyze says."""
    return subprocess.run(["systemd-analyze", *words], capture_output=True, text=True, check=False,
                          env={**os.environ, "SYSTEMD_COLORS": "0", "SYSTEMD_PAGER": "cat"})


@pytest.mark.parametrize("unit", ["zevd.service", "zevd-password@.service", "zevweb.service",
                                  "zevfleet.service", "zevfleet-guard.service",
                                  "zevfleet-ship.service"])
def test_a_service_is_hardly_exposed(unit):
    done = analyze("security", "--offline=true", "--no-pager", UNITS / unit)
    assert done.returncode == 0, done.stderr
    level = re.search(rf"exposure level for {re.escape(unit).replace('@', '@[a-z]*')}: ([0-9.]+)",
                      done.stdout)
    assert level, done.stdout
    most = MOST_EXPOSED_WRITER if unit == "zevfleet.service" else MOST_EXPOSED
    assert float(level[1]) <= most


def test_the_units_are_understood(tmp_path):
    """Their programs are looked for, so those are put where the test has some."""
    mine = [unit for unit in UNITS.iterdir()
            if unit.name in ("zevd.service", "zevd.socket", "zevd-password.socket",
                             "zevd-password@.service", "zevweb.service", "zevfleet.service",
                             "zevfleet-guard.service", "zevfleet-ship.service")]
    assert len(mine) == 8
    for unit in mine:
        text = re.sub(r"^(Exec\w+)=/usr/(bin/zev(d|web|fleet)|libexec/zevd/[a-z_-]+)\b",
                      r"\1=/bin/true", unit.read_text(encoding="ascii"), flags=re.MULTILINE)
        (tmp_path / unit.name).write_text(text, encoding="ascii")
    names = sorted(unit.name.replace("@", "@1") for unit in mine)
    shutil.copy(tmp_path / "zevd-password@.service", tmp_path / "zevd-password@1.service")
    done = analyze("verify", "--man=no", *(tmp_path / name for name in names))
    said = [line for line in (done.stdout + done.stderr).splitlines() if str(tmp_path) in line
            or "zevd" in line]
    assert (done.returncode, said) == (0, [])


# The check before the start


def check(station, *options: str) -> subprocess.CompletedProcess:
    """Run it as the daemon's user."""
    return subprocess.run([*as_user(station.uid), CHECK, *options], capture_output=True, text=True,
                          check=False)


def mend(station, *options: str) -> str:
    """The command that a refusal names, run as root, after which the check may have no more to say.

    The group has no name in the test's database.
    """
    done = check(station, *options)
    assert (done.returncode, done.stdout) == (78, "")
    line = re.fullmatch(r"zevd-check: [^\n]*\. Run: ([^\n]*)\n", done.stderr)
    assert line, done.stderr
    subprocess.run(["sh", "-c", line[1]], check=True)
    return line[1]


@pytest.fixture
def checked(unprivileged, groups):
    """A station that has been running."""
    groups.write(f"zevd:x:{UID}:\n")
    unprivileged.start("-S", "1")
    unprivileged.stop()
    assert check(unprivileged).returncode == 0
    return unprivileged


@pytest.mark.needs_namespace
def test_a_wrong_group_is_refused(checked):
    os.chown(checked.root, 0, 0)
    assert mend(checked) == f"chgrp zevd {checked.root}"
    assert check(checked).returncode == 0


@pytest.mark.needs_namespace
@pytest.mark.parametrize("spoil", ["owner", "mode", "missing"])
@pytest.mark.parametrize("name, mode", [("config", "0750"), ("logs", "0770")])
def test_a_directory_that_cannot_be_written_is_refused(checked, name, mode, spoil):
    directory = checked.root / name
    if spoil == "owner":
        os.chown(directory, 0, 0)
    elif spoil == "mode":
        directory.chmod(0o500)
    else:
        shutil.rmtree(directory)
    assert f"{mode} {directory}" in mend(checked)
    assert check(checked).returncode == 0


@pytest.mark.needs_namespace
@pytest.mark.parametrize("name", ["config/zev.lock", "config/.cookie", "config/qor.conf",
                                  "logs/zev.dated", "logs/zev.dated/current/consolidated.log"])
def test_what_another_user_has_left_is_refused(checked, name):
    os.chown(checked.root / name, 0, 0)
    command = mend(checked)
    assert command.startswith("chown -R zevd:zevd ") and str(checked.root / name).startswith(
        command.split()[-1])
    assert check(checked).returncode == 0


@pytest.mark.needs_namespace
@pytest.mark.parametrize("name", ["journal", "journal/id"])
def test_a_journal_of_another_user_is_refused(checked, name):
    directory = checked.root / "journal"
    directory.mkdir(0o750)
    (directory / "id").write_text("0123456789abcdef\n")
    for path in (directory, directory / "id"):
        os.chown(path, checked.uid, UID)
    assert check(checked).returncode == 0
    os.chown(checked.root / name, 0, 0)
    assert mend(checked) == f"chown -R zevd:zevd {checked.root / name}"
    assert check(checked).returncode == 0


@pytest.mark.needs_namespace
@pytest.mark.parametrize("name", ["config/zev.conf", "config/models", "events"])
def test_what_cannot_be_read_is_refused(checked, name):
    path = checked.root / name
    path.chmod(0o700 if path.is_dir() else 0o600)
    mend(checked)
    assert check(checked).returncode == 0


@pytest.mark.needs_namespace
def test_the_options_of_the_daemon_are_heeded(checked):
    logs = checked.root / "else where"
    options = ("-f", "-B", "4096", "-l", str(logs), "-c", str(checked.root / "other.conf"))
    done = check(checked, *options)
    assert done.returncode == 78 and f"There is no {logs}." in done.stderr
    logs.mkdir()
    os.chown(logs, checked.uid, UID)
    assert check(checked, *options).returncode == 0


@pytest.mark.needs_namespace
def test_a_missing_user_database_is_refused(checked, accounts):
    with open("/etc/passwd", "r+", encoding="utf-8") as passwd:
        passwd.truncate(0)
    done = check(checked)
    assert done.returncode == 78
    assert "The user database does not know user" in done.stderr
