"""The client's commands for a station's people: setting up, and a report for those who help."""

import os
import shutil
import subprocess
from pathlib import Path

import pytest

from harness import settings, zevctl
from harness.helpers import private_copy
from harness.scenes import connected

PERSON = "games"  # a user of every Debian system, who is in no group of the station
WORDS = "Passw0rd-of-somebody"


@pytest.fixture
def machine(station, tmp_path):
    """The user databases and PAM services of this test, without the station's groups."""
    assert station.process is None
    with private_copy(Path("/etc"), tmp_path):
        for path in (Path("/etc/group"), Path("/etc/gshadow")):
            kept = [line for line in path.read_text().splitlines(keepends=True)
                    if not line.startswith(("qoruser:", "zevd:"))]
            path.write_text("".join(kept))
        shutil.copy(settings.REPOSITORY / "packaging/pam.d/qor", "/etc/pam.d/qor")
        os.chmod("/etc/pam.d/qor", 0o644)
        os.chown(station.root, 0, 0)
        os.chown(station.config, 0, 0)
        os.chmod(station.config, 0o700)
        yield station


def as_person(station, *words: str) -> subprocess.CompletedProcess:
    """Run the client as that person, with the groups of a new login and without a terminal."""
    return subprocess.run(
        ["setpriv", f"--reuid={PERSON}", f"--regid={PERSON}", "--init-groups", "--",
         zevctl.PROGRAM, *words], env=zevctl.environment(ZEVCTL_PORT=str(station.port or 6500)),
        stdin=subprocess.DEVNULL, capture_output=True, start_new_session=True, text=True,
        check=False)


@pytest.mark.needs_namespace
def test_one_command_lets_a_user_in_without_a_password(machine):
    box = machine.console("box")
    said = zevctl.succeed(None, "setup", PERSON)
    assert said.splitlines() == [
        "the group qoruser was made", "the group zevd was made",
        f"{PERSON} was added to the group qoruser", f"{PERSON} was added to the group zevd",
        f"{machine.root} was given to the group zevd",
        f"{machine.config} was given to the group zevd",
        f"{machine.config} was changed from mode 0700 to 0750",
        f"{machine.config}/.cookie is not there yet: the daemon makes it when it starts",
        "/etc/pam.d/qor is there",
        "New groups take effect at the next login: log out and in again."]
    machine.start("-S", "1")
    connected(machine, box, "box")
    done = as_person(machine, "list", "-q")
    assert (done.returncode, done.stdout, done.stderr) == (zevctl.OK, "box\n", "")


@pytest.mark.needs_namespace
def test_a_second_time_nothing_is_left_to_do(machine):
    machine.start("-S", "1")
    machine.stop()
    os.chmod(machine.config / ".cookie", 0o604)
    zevctl.succeed(None, "setup", PERSON)
    assert (machine.config / ".cookie").stat().st_mode & 0o7777 == 0o640
    steps = zevctl.data(None, "setup", PERSON)
    assert {step["result"] for step in steps} == {"right"} and len(steps) == 8


@pytest.mark.needs_namespace
def test_a_dry_run_changes_nothing(machine):
    before = Path("/etc/group").read_bytes()
    steps = zevctl.data(None, "setup", "--dry-run", PERSON)
    assert {"result": "wanted", "text": "the group zevd would be made"} in steps
    assert {"result": "wanted",
            "text": f"{machine.config} would be changed from mode 0700 to 0750"} in steps
    assert Path("/etc/group").read_bytes() == before
    assert machine.config.stat().st_mode & 0o7777 == 0o700


@pytest.mark.needs_namespace
def test_whoever_called_sudo_is_meant(machine):
    done = zevctl.run(None, "setup", env={"SUDO_USER": PERSON})
    assert (done.returncode, done.stderr) == (zevctl.OK, "")
    assert f"{PERSON} was added to the group zevd\n" in done.stdout


@pytest.mark.needs_namespace
def test_nothing_is_done_for_a_user_who_is_not_there(machine):
    before = Path("/etc/group").read_bytes()
    zevctl.refuse(None, zevctl.USAGE, 'this machine has no user "nosuch", and nothing was done; '
                  '"getent passwd" shows all', "setup", PERSON, "nosuch")
    assert Path("/etc/group").read_bytes() == before


@pytest.mark.needs_namespace
def test_only_root_sets_up(machine):
    done = as_person(machine, "setup", PERSON)
    assert (done.returncode, done.stdout, done.stderr) == (
        zevctl.FAILED, "", "zevctl: only root can change groups and modes; use sudo, or --dry-run "
        "to look\n")


@pytest.mark.needs_namespace
def test_what_is_planted_in_the_cookies_place_is_left_alone(machine):
    victim = machine.root / "victim"
    victim.write_text("x")
    victim.chmod(0o600)
    (machine.config / ".cookie").symlink_to(victim)
    done = zevctl.run(None, "setup", PERSON)
    assert done.returncode == zevctl.FAILED
    assert done.stderr == (f"zevctl: {machine.config}/.cookie is not a usable file; look at "
                           "it, remove it, and restart zevd\n")
    assert (victim.stat().st_gid, victim.stat().st_mode & 0o7777) == (0, 0o600)


@pytest.mark.needs_namespace
def test_another_owner_and_another_group_are_reported(machine):
    os.chown(machine.config, 5, 60)  # games
    os.unlink("/etc/pam.d/qor")
    done = zevctl.run(None, "setup")
    assert done.returncode == zevctl.FAILED
    assert done.stderr.splitlines() == [
        f"zevctl: {machine.config} belongs to games, neither to root nor to the daemon: "
        f"chown zevd {machine.config}",
        f"zevctl: {machine.config} belongs to the group games; unless that is meant: "
        f"chgrp zevd {machine.config}",
        "zevctl: /etc/pam.d/qor is missing, without which nobody can log in by password; "
        "install it (packaging/pam.d/qor)"]
    assert machine.config.stat().st_gid == 60


# report


def test_a_report_tells_much_and_no_secret(station):
    box = station.console("box")
    station.console("db", listening=False)
    station.start()
    connected(station, box, "box")
    user = station.attach("box")
    user.send(WORDS.encode())
    station.wait_log(f"ProcessUserInput: Received ->{WORDS}<- ({len(WORDS)} bytes)")
    cookie = "QwErTyUiOpAsDfGh"
    (station.config / ".cookie").write_text(f"{cookie}\n")
    (station.logs / "zevd.log").write_text(
        station.log_text() + f"ZEV 26/11/22_08:00:00: shown: {cookie}\n")
    report = zevctl.succeed(station, "report")
    assert cookie not in report and WORDS not in report
    for text in ("zevctl 0.1.0", "kernel: ", "consoles: 2", "  refused: 1", "users_attached: 1",
                 "config check ended with status", "shown: [removed]"):
        assert text in report
    told = zevctl.data(station, "report")
    assert list(told) == ["versions", "daemon", "services", "rights", "configuration", "messages"]
    assert cookie not in str(told) and WORDS not in str(told)


@pytest.mark.usefixtures("station")
def test_a_report_needs_no_daemon():
    report = zevctl.succeed(None, "--port", "1", "report")
    assert "it was not asked: no daemon answers at 127.0.0.1 port 1: " in report
