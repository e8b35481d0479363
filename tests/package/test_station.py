"""A station from the packages, under systemd and without root: people, consoles, the service."""

import contextlib
import errno
import shutil
import socket
from pathlib import Path

import pytest

from harness.clock import ShiftedClock
from harness.consoles import FakeConsole
from harness.waiting import wait_until

from machines.station import CONFIG, CURRENT, MAIN_PORT, MEMBER, OWN_PORT, PASSWORD, ROOT, \
    STRANGER, line

pytestmark = pytest.mark.needs_machine

QOR_CONF = f"{ROOT}/config/qor.conf"
DAY = 86400


# People


def test_a_member_logs_in_on_the_main_port(station):
    with station.log_in() as user:
        station.attached(user)
        assert f'user="{MEMBER}"' in station.machine.journal("-t", "zevd")


def test_a_wrong_password_and_a_stranger_to_the_group_are_refused(station):
    for name, password in ((MEMBER, "wrong"), (STRANGER, PASSWORD)):
        with station.log_in(name, password) as user:
            user.expect(b"username: ")
            assert b"ready" not in user.received


def test_a_member_logs_in_on_the_consoles_own_port(station):
    with station.call(OWN_PORT) as user:
        user.expect(b"username: ")
        user.send(MEMBER.encode() + b"\r\0")
        user.expect(b"password: ")
        user.send(PASSWORD.encode() + b"\r\0")
        user.expect(b'Connected to console "box" in shared mode.')
        station.talk(user)


def test_root_logs_in_by_the_cookie(station):
    assert "box" in station.machine.output("zevctl", "list")


def test_passwords_are_checked_by_a_service_of_their_own(station):
    with station.log_in() as user:
        station.attached(user)
    machine = station.machine
    assert int(machine.show("zevd-password.socket", "NAccepted")) > 0
    assert machine.show("zevd-password.socket", "SocketMode") == "0600"
    refused = machine.run("setpriv", "--reuid=nobody", "--clear-groups", "test", "-w",
                          "/run/zevd/password.sock", check=False)
    assert refused.returncode == 1


def test_at_most_eight_passwords_are_checked_at_a_time(station):
    """A ninth caller is closed before he may ask; as soon as one has gone there is room again."""
    path = f"/proc/{station.machine.first}/root/run/zevd/password.sock"
    with contextlib.ExitStack() as stack:
        def call() -> socket.socket:
            sock = stack.enter_context(socket.socket(socket.AF_UNIX))
            sock.settimeout(10)
            sock.connect(path)
            return sock

        callers = [call() for _ in range(8)]
        assert [caller.recv(1) for caller in callers] == [b"?"] * 8
        assert call().recv(1) == b""
        callers[0].close()
        wait_until(lambda: call().recv(1) == b"?", what="room for another")


# Consoles


def test_an_event_reaches_the_collector(station, tmp_path):
    events = tmp_path / "events"
    collector = station.machine.begin("zevctl", "events", output=events)
    try:
        wait_until(lambda: station.machine.path(f"{ROOT}/run/jix.sock").is_socket(),
                   what="the collector's socket")

        def posted() -> bool:
            station.box.send(b"disk 7: error\r\n")
            return "disk 7: error" in events.read_text()

        wait_until(posted, what="the event")
    finally:
        collector.terminate()
        collector.wait()


def test_a_reload_takes_a_new_console(station):
    before = station.machine.daemon()
    text = station.read(CONFIG).decode()
    with station.machine.network():
        attic = FakeConsole("attic")
    with attic:
        station.configure(text + line("attic", attic.port, OWN_PORT + 1))
        station.machine.run("systemctl", "reload", "zevd.service")
        attic.accept()
        attic.send(b"up here\r\n")
        station.wait_log("attic", b"up here")
        station.configure(text)
        station.machine.run("systemctl", "reload", "zevd.service")
        attic.expect_closed()
    assert station.machine.daemon() == before


def test_the_interval_is_written_and_logs_are_rotated(station):
    """The daemon may rewrite qor.conf, and begins a new directory when its clock says so."""
    place = station.machine.path("/opt/clock")
    place.mkdir(parents=True)
    clock = ShiftedClock(place)
    environment = " ".join(f"{name}={value}".replace(str(place), "/opt/clock")
                           for name, value in clock.env.items() if name != "ASAN_OPTIONS")
    station.drop_in("clock", f"Environment={environment}")
    station.machine.run("sh", "-c", f"echo OTHER=kept >> {QOR_CONF}")
    settings = station.read(QOR_CONF)
    assert settings.startswith(b"ZEVD_ARCH_INT=7\n") and settings.endswith(b"\nOTHER=kept\n")
    station.options("-B 4096 -a 2w")
    station.restart()
    assert station.read(QOR_CONF) == settings.replace(b"_INT=7\n", b"_INT=14\n", 1)
    assert station.machine.output("stat", "--format=%U:%G %a", QOR_CONF) == "zevd:zevd 640"
    before = station.current()
    clock.shift(13 * DAY)
    station.box.send(b"not yet\r\n")
    station.wait_log("box", b"not yet")
    assert station.current() == before
    clock.shift(15 * DAY)
    wait_until(lambda: station.current() != before, what="a new directory")
    station.box.send(b"next fortnight\r\n")
    station.wait_log("box", b"next fortnight")
    assert station.machine.output("stat", "--format=%U:%G %a", f"{CURRENT}/") == "zevd:zevd 770"
    shutil.rmtree(station.machine.path("/etc/systemd/system/zevd.service.d"))
    station.machine.run("systemctl", "daemon-reload")
    station.options("-B 4096")
    station.restart()


def test_old_logs_are_compressed(station):
    """By the service that the timer starts, as the daemon's user."""
    old = f"{ROOT}/logs/zev.dated/01-Jan-00:00"
    station.machine.run("setpriv", "--reuid=zevd", "--regid=zevd", "--clear-groups", "sh", "-c",
                        f"mkdir {old} && echo kept > {old}/box.log && "
                        f"touch --date='3 days ago' {old}/box.log {old}")
    station.machine.run("systemctl", "start", "zevd-logs.service")
    assert station.machine.output("ls", old) == "box.log.zst"
    assert station.current() != Path(old).name


def test_a_segment_that_the_daemon_has_left_is_sealed(station):
    """By the service that the timer starts, as the daemon's user."""
    station.machine.run("sh", "-c", f"echo ZEVD_JOURNAL=64 >> {QOR_CONF}")
    station.restart()
    wait_until(station.machine.path(f"{ROOT}/journal/{1:020}.seg").exists, what="a journal")
    station.restart()
    station.machine.run("systemctl", "start", "zevkeep.service")
    verified = station.machine.output("zevctl", "journal", "verify")
    assert "2 segments, 1 of them sealed" in verified and "nothing is wrong" in verified
    last = verified.rpartition("hash ")[2].strip()
    assert last in station.machine.journal("-t", "zevkeep")


# The service


def test_the_service_is_up_when_systemctl_returns(station):
    machine = station.machine
    machine.run("systemctl", "stop", "zevd.service", "zevd.socket")
    machine.run("systemctl", "start", "zevd.service")
    with station.call(MAIN_PORT) as user:
        user.send(b"box\r\n")
        user.expect(b"username: ")
    station.box.accept()


def test_a_killed_daemon_is_replaced_and_its_callers_wait(station):
    before = station.machine.daemon()
    station.machine.run("kill", "-KILL", str(before))
    wait_until(lambda: station.machine.daemon() == 0, what="the end of the daemon")
    with station.call(MAIN_PORT) as user:
        user.send(b"box\r\n")
        user.expect(b"username: ")
    station.wait_daemon(before)
    station.box.accept()


def test_a_daemon_that_hangs_is_replaced(station):
    assert station.machine.show("zevd.service", "WatchdogUSec") == "30s"
    station.drop_in("watchdog", "WatchdogSec=2s")
    station.restart()
    before = station.machine.daemon()
    station.machine.run("kill", "-STOP", str(before))
    station.wait_daemon(before)
    station.box.accept()
    assert "watchdog" in station.machine.journal("-u", "zevd.service")


@pytest.mark.parametrize("address", ["", "127.0.0.1", "0.0.0.0"])
def test_nobody_gets_the_port_while_the_daemon_is_stopped(station, address):
    station.machine.run("systemctl", "stop", "zevd.service")
    assert station.machine.daemon() == 0
    with station.machine.network():
        thief = socket.socket()
    with thief:
        thief.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        with pytest.raises(OSError) as refused:
            thief.bind((address, MAIN_PORT))
            thief.listen()
        assert refused.value.errno == errno.EADDRINUSE
    station.machine.run("systemctl", "start", "zevd.service")
    station.box.accept()


def test_the_daemon_has_no_privileges(station):
    machine = station.machine
    daemon = machine.daemon()
    status = dict(row.split(":\t", 1) for row in
                  machine.output("cat", f"/proc/{daemon}/status").splitlines() if ":\t" in row)
    user = machine.output("id", "-u", "zevd")
    assert status["Uid"].split() == [user] * 4
    assert status["Groups"].split() in ([], [machine.output("id", "-g", "zevd")])
    assert all(int(status[f"Cap{kind}"], 16) == 0 for kind in ("Inh", "Prm", "Eff", "Bnd", "Amb"))
    assert status["NoNewPrivs"] == "1"
