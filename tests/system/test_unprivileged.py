"""The daemon as a user without any right: what it did as root, it still does."""

import os
import stat
import subprocess

import pytest

from harness.access import bring_up, refused
# `accounts`, `groups` and those of harness.managed and harness.system_log are fixtures.
from harness.accounts import BLANKS, UID, accounts
from harness.collectors import Collector
from harness.commands import Tool
from harness.door import NAME, TRY_AGAIN, Door, give_name, log_in
from harness.helpers import groups
from harness.logs import add_waker, current, directories, log_of, rotate, wait_records
from harness.managed import password_service, run_directory, unprivileged, zevd_user
from harness.system_log import system_log
from harness.waiting import free_port, wait_listening, wait_until

pytestmark = pytest.mark.needs_namespace


@pytest.fixture
def door(unprivileged, groups, accounts):
    """A station where alice may log in on the port of a console."""
    groups.write(f"qoruser:x:{UID + 1}:alice\n")
    port = free_port()
    box = unprivileged.console("box", mapped_port=port, auth=1)
    bring_up(unprivileged, box, options=("-S", "1"))
    wait_listening(port)
    return Door(unprivileged, None, box, port).note_rest()


def test_the_daemon_has_no_right_and_owns_what_it_writes(unprivileged):
    box = unprivileged.console("box")
    bring_up(unprivileged, box, options=("-S", "1"))
    with open(f"/proc/{unprivileged.pid}/status", encoding="ascii") as status:
        words = dict(line.split(":", 1) for line in status)
    assert words["Uid"].split() == [str(unprivileged.uid)] * 4
    for key in ("CapPrm", "CapEff", "CapAmb", "CapBnd"):
        assert int(words[key], 16) == 0, key
    for path, mode in (("config/zev.lock", 0o660), ("config/.cookie", 0o660),
                       ("config/qor.conf", 0o770), ("logs/zev.dated", 0o770),
                       ("logs/zev.dated/current", 0o770)):
        found = os.stat(unprivileged.root / path)
        assert (found.st_uid, found.st_gid) == (unprivileged.uid, UID), path
        assert stat.S_IMODE(found.st_mode) == mode, path


@pytest.mark.usefixtures("password_service")
def test_a_member_logs_in_through_the_password_service(door, system_log):
    """Whoever logged in on a console's own port is shown under the name that was checked."""
    system_log.path.chmod(0o666)
    user = door.call()
    log_in(user, b"alice", BLANKS)
    door.admitted(user)
    door.station.wait_log('ConnectUserToConsole: Connected user "alice" to console "box" with '
                          "mode = shared.")
    attached = system_log.wait("attach")[0]
    assert attached["user"] == "alice" and "given_user" not in attached
    cookie = (door.station.config / ".cookie").read_text(encoding="ascii").strip()
    tool = Tool(door.station, sent=f"token {cookie} @@@@ user=op\n".encode())
    assert tool.command("who box").records[0][0] == "alice"
    shown = tool.objects("status box")[0]["users"][0]
    assert (shown["user"], shown["given_user"]) == ("alice", None)
    tool.command("msg box hello")
    user.expect(b"Message from op@127.0.0.1: \n\n\rhello")


def test_without_the_service_the_helper_is_on_its_own(door, run_directory):
    """It may not read the password of another user then."""
    user = door.call()
    log_in(user, b"alice", BLANKS)
    user.expect_exactly(TRY_AGAIN + NAME)


@pytest.mark.usefixtures("password_service")
def test_whoever_is_not_a_member_is_not_admitted(door, groups):
    groups.write("")
    user = door.call()
    give_name(user, b"alice")
    user.send(b"wrong\r\0")
    user.expect_exactly(b"\r\n\r\n" + TRY_AGAIN + NAME)
    log_in(user, b"alice", BLANKS)
    refused(user, 14)


def test_events_rotation_and_reload(unprivileged):
    (unprivileged.events / "disk").write_text("disk_error 300 0 disk.*error\n", encoding="ascii")
    collector = Collector(unprivileged)
    collector.path.chmod(0o666)
    box, waker = unprivileged.console("box", events=1, event_file="disk"), add_waker(unprivileged)
    bring_up(unprivileged, box, waker)
    collector.accept()
    box.send(b"a disk has an error\n")
    assert collector.wait_events(1)[0]["name"] == "qor.zevd.console.box"
    wait_records(log_of(unprivileged, "box"), [b"readya disk has an error\n"])
    rotate(unprivileged, waker)
    box.send(b"after it\n")
    wait_until(lambda: b"after it" in log_of(unprivileged, "box").read_bytes(), what="the record")
    for directory in directories(unprivileged):
        assert directory.stat().st_uid == unprivileged.uid
    assert current(unprivileged).stat().st_gid == UID


def test_the_interval_is_written_to_a_file_of_its_own(unprivileged):
    file = unprivileged.config / "qor.conf"
    file.write_text("OTHER=1\nZEVD_ARCH_INT=7\n", encoding="ascii")
    os.chown(file, unprivileged.uid, UID)
    before = file.stat()
    unprivileged.start("-a", "2w")
    assert file.read_text(encoding="ascii") == "OTHER=1\nZEVD_ARCH_INT=14\n"
    after = file.stat()
    assert (after.st_ino, after.st_uid, after.st_mode) == \
        (before.st_ino, before.st_uid, before.st_mode)


def test_a_second_daemon_is_refused(unprivileged):
    unprivileged.start()
    done = subprocess.run([unprivileged.program, "-f", "-S", "0", "-p", str(free_port())],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 1 and "zevd is already running on" in done.stderr
