"""Lines in the readable configuration: their service is started before the daemon has them."""

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
    assert info.st_mode & 0o777 == 0o640
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
