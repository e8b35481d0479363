"""Lines in the readable configuration: their service is started before the daemon has them."""

import json
import os
import socket
import subprocess
from pathlib import Path

import pytest

from harness import zevctl
from harness.helpers import private_copy
from harness.isolation import mount_tmpfs, unmount

pytestmark = pytest.mark.needs_namespace

SYSTEMCTL = Path("/usr/bin/systemctl")
SERIAL = '[[console]]\nname = "{name}"\nexec = "/bin/cat"\n'


class Services:
    """A system manager of the test's own, which notes what it is told."""

    def __init__(self, program: Path, notes: Path) -> None:
        self.program = program
        self.notes = notes
        self.answer(0)

    def answer(self, status: int) -> None:
        """End with this status from now on."""
        self.notes.write_text("")
        self.program.write_text(f'#!/bin/sh\necho "$*" >> {self.notes}\nexit {status}\n')
        self.program.chmod(0o755)

    def told(self) -> list[str]:
        """The commands since the last answer was set."""
        return self.notes.read_text().splitlines()


@pytest.fixture
def services(station, tmp_path):
    """What would start the service of the lines."""
    run = Path("/run")
    mount_tmpfs(run)
    (run / "systemd/system").mkdir(parents=True)
    with private_copy(SYSTEMCTL, tmp_path) as copy:
        yield Services(copy, tmp_path / "notes")
    unmount(run)


@pytest.fixture
def listener():
    """What would be the line server, at the first line's port."""
    with socket.socket() as made:
        made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        made.bind(("127.65.0.1", 10001))
        made.listen()
        yield made


def readable(station, *names: str) -> None:
    """A readable configuration of lines with these names."""
    (station.config / "consoles.toml").write_text(
        "".join(SERIAL.format(name=name) for name in names))


def apply(station, status: int = zevctl.OK) -> str:
    """Apply, and return what was said beside warnings."""
    done = zevctl.run(station if station.running else None, "config", "apply")
    assert done.returncode == status, done.stderr
    return done.stdout + "".join(line + "\n" for line in done.stderr.splitlines()
                                 if ": warning: " not in line)


def lines_of(station) -> list[str]:
    """The consoles' lines in zev.conf, without the first one of the file."""
    return station.config_file.read_text().splitlines()[1:]


def test_the_service_is_started_before_the_daemon_has_the_console(station, services, listener):
    station.start()
    readable(station, "a")
    apply(station)
    assert services.told() == ["--no-ask-password reload-or-restart zevd-lines.service"]
    assert lines_of(station) == ['a 127.65.0.1 10001 0 0 - - "-" 1 1 1 1 "" ']
    info = (station.config / "lines.yaml").stat()
    assert info.st_mode & 0o777 == 0o600
    listener.settimeout(10)
    listener.accept()[0].close()


def test_a_service_that_runs_as_it_should_is_left_alone(station, services, listener):
    readable(station, "a")
    apply(station)
    services.answer(0)
    apply(station)
    assert services.told() == []


def test_a_line_keeps_its_port(station, services, listener):
    readable(station, "b")
    apply(station)
    second = socket.create_server(("127.65.0.1", 10002))
    with second:
        readable(station, "a", "b")
        apply(station)
    assert [line.split()[:3] for line in lines_of(station)] == [
        ["a", "127.65.0.1", "10002"], ["b", "127.65.0.1", "10001"]]


@pytest.mark.parametrize("status, said", [
    (1, "zevd-lines.service cannot be started"),
    (0, 'the line of "b" does not listen on port 10002'),
])
def test_a_service_that_does_not_start_leaves_all_as_it_was(station, services, listener, status,
                                                             said):
    readable(station, "a")
    apply(station)
    before = {path.name: path.read_bytes() for path in station.config.iterdir()}
    services.answer(status)
    readable(station, "a", "b")
    before["consoles.toml"] = (station.config / "consoles.toml").read_bytes()
    assert apply(station, zevctl.FAILED) == (
        f'zevctl: {said}; "journalctl -u zevd-lines" tells why. Lines and zev.conf are as '
        "before.\n")
    assert {path.name: path.read_bytes() for path in station.config.iterdir()} == before
    assert services.told() == 2 * ["--no-ask-password reload-or-restart zevd-lines.service"]


def test_a_port_that_a_stranger_has_is_no_line(station, services, listener):
    listener.close()
    stranger = subprocess.Popen(
        ["setpriv", "--reuid", "77", "--regid", "77", "--clear-groups", "--", "socat",
         "TCP-LISTEN:10001,bind=127.65.0.1,fork", "PIPE"])
    try:
        readable(station, "a")
        assert 'the line of "a" does not listen on port 10001' in apply(station, zevctl.FAILED)
        assert not (station.config / "lines.yaml").exists()
        assert station.config_file.read_text() == ""
    finally:
        stranger.kill()
        stranger.wait()


def test_without_lines_the_service_is_stopped(station, services, listener):
    readable(station, "a")
    apply(station)
    services.answer(0)
    (station.config / "consoles.toml").write_text(
        '[[console]]\nname = "a"\ntcp = "192.0.2.1"\n')
    apply(station)
    assert services.told() == ["--no-ask-password stop zevd-lines.service"]


def test_without_a_system_manager_the_user_is_told(station):
    readable(station, "a")
    done = zevctl.run(None, "config", "apply")
    assert done.returncode == zevctl.OK
    assert f"have ser2net read {station.config}/lines.yaml yourself" in done.stderr


def test_a_missing_packet_filter_is_an_error_of_the_station(station):
    """An apply does not wait for it: what the station has already is as open as before."""
    readable(station, "a")
    path = station.config / "consoles.toml"
    missing = ("everybody on this machine can connect to the lines: the packet filter inet "
               "zevd_lines is not loaded; start zevd-lines-filter.service, or load its rules with "
               "nft")
    done = zevctl.run(None, "config", "check")
    assert done.returncode == zevctl.FAILED and f"{path}: error: {missing}\n" in done.stdout
    applied = zevctl.run(None, "config", "apply")
    assert applied.returncode == zevctl.OK and f"{path}: warning: {missing}\n" in applied.stderr


def test_a_line_that_changes_costs_its_users(station, services, listener):
    """What zev.conf says of the console stays the same; what is behind its port does not."""
    station.start()
    readable(station, "a", "b")
    with socket.create_server(("127.65.0.1", 10002)):
        apply(station)
        for name in ("a", "b"):
            station.wait_connected(name)
            station.attach(name)
        path = station.config / "consoles.toml"
        path.write_text(path.read_text().replace("/bin/cat", "/bin/dd"))
        done = zevctl.run(station, "--json", "config", "diff")
        assert [(entry["console"], entry["change"], entry["fields"], entry["line_changed"],
                 entry["users_lost"]) for entry in json.loads(done.stdout)] == [
            ("a", "changes", [], True, 1), ("b", "changes", [], True, 1)]
        shown = zevctl.run(station, "config", "diff").stdout
        assert shown.count("line: changed\n") == 2 and "/bin" not in shown
        before = (station.config / "lines.yaml").read_text()
        apply(station, zevctl.DECLINED)  # more than one console, and no terminal to ask on
        assert (station.config / "lines.yaml").read_text() == before
        done = zevctl.run(station, "config", "apply", "--yes")
        assert ": 0 new, 0 gone, 2 changed; " in done.stdout, done.stderr


def test_who_may_not_read_the_lines_is_told_that_they_are_not_compared(station, services, listener):
    readable(station, "a")
    apply(station)
    os.chown(station.config / "lines.yaml", 77, 77)
    done = zevctl.run(None, "--port", "1", "config", "diff")
    assert done.returncode == zevctl.OK
    assert "zevctl: the lines are not compared: " in done.stderr


def far_file(station, make) -> Path:
    """A file that the daemon's user may not read, in the place of the lines of its station."""
    far = station.root / "far"
    far.write_text("far away\n")
    far.chmod(0o600)
    os.chown(station.config, 77, 77)
    make(far, station.config / "lines.yaml")
    return far


def in_place(far: Path, path: Path) -> None:
    far.rename(path)


@pytest.mark.parametrize("make, reason", [
    (os.symlink, "it is a link"),
    (os.link, "it has more than one name"),
    (in_place, "it belongs to user 0"),
    (lambda _, path: os.mkfifo(path), "it is no plain file"),
])
def test_no_file_of_root_gets_into_the_lines(station, services, listener, make, reason):
    """Its text would be put back for the daemon's user when the service does not start."""
    far_file(station, make)
    readable(station, "a")
    services.answer(1)
    path = station.config / "lines.yaml"
    before = path.lstat()
    assert apply(station, zevctl.FAILED) == (
        f"zevctl: cannot use {path}: {reason}; remove it, and the next apply makes it anew\n")
    after = path.lstat()
    assert (after.st_ino, after.st_uid, after.st_mode) == (
        before.st_ino, before.st_uid, before.st_mode)
    assert services.told() == []


def test_lines_that_the_group_may_read_are_closed_to_it(station, services, listener):
    readable(station, "a")
    apply(station)
    path = station.config / "lines.yaml"
    path.chmod(0o640)
    apply(station)
    assert path.stat().st_mode & 0o777 == 0o600


# The files of passwords


def check_secret(station, path: Path) -> str:
    """What a check says of a line with this file."""
    (station.config / "consoles.toml").write_text(
        f'[[console]]\nname = "a"\nipmi = "adm@192.0.2.1"\nsecret_file = "{path}"\n')
    done = zevctl.run(None, "config", "check", str(station.config / "consoles.toml"))
    return done.stdout


def secret_at(path: Path, owner: int = 0, mode: int = 0o600) -> Path:
    """A file with a password."""
    path.write_text("changeme\n")
    path.chmod(mode)
    os.chown(path, owner, owner)
    return path


def test_files_that_are_meant_as_secrets_are_taken(station, tmp_path):
    os.chown(station.config, 77, 77)
    for path, owner in ((station.config / "bmc1.secret", 0), (station.config / "bmc1", 0),
                        (tmp_path / "bmc1.secret", 0), (tmp_path / "bmc1", 77)):
        assert check_secret(station, secret_at(path, owner)).endswith(": 1 console, 0 errors\n")


@pytest.mark.parametrize("owner, mode, reason", [
    (0, 0o600, "is root's and may be meant for something else; give it a name that ends in "),
    (78, 0o600, "belongs to user 78; give it to root"),
    (77, 0o640, "is open to others than its owner; chmod 0600 "),
    (77, 0o604, "is open to others than its owner; chmod 0600 "),
])
def test_other_files_are_no_secrets(station, tmp_path, owner, mode, reason):
    os.chown(station.config, 77, 77)
    path = secret_at(tmp_path / "shadow", owner, mode)
    assert f'error: the secret\'s file "{path}" {reason}' in check_secret(station, path)


@pytest.mark.parametrize("make, reason", [
    (os.symlink, "it is a link"),
    (os.link, "it has more than one name"),
    (lambda _, path: os.mkfifo(path), "it is no plain file"),
])
def test_a_secret_is_a_plain_file_of_one_name(station, make, reason):
    path = station.config / "bmc1.secret"
    make(secret_at(station.root / "shadow"), path)
    assert f'the secret\'s file "{path}" cannot be used: {reason}; ' in check_secret(station, path)
