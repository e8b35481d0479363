"""What the system log tells: who did what, from where, with which result."""

import socket

import pytest

from harness.access import LOOPBACK, bring_up, refused
from harness.commands import Tool
from harness.cookies import local_user, tell
from harness.door import NAME, fail, log_in
from harness.fortress import open_door
from harness.hall import Hall, give
# `groups` and `system_log` are fixtures.
from harness.helpers import groups
from harness.peers import OFFERS
from harness.scenes import leave
from harness.system_log import system_log

pytestmark = pytest.mark.needs_namespace


@pytest.fixture
def open_station(system_log, station):
    """A station without security, its console connected."""
    box = station.console("box")
    bring_up(station, box)
    return station, box


@pytest.fixture
def fortress(system_log, groups, station):
    """A station with security on: "box" asks for a login on its own port."""
    groups.write("qoruser:x:64000:alice\n")
    door = open_door(station)
    door.helper.accept(b"alice", b"pw")
    door.helper.accept(b"bob", b"builder")
    return station, door, Hall(station, door.helper, door.box)


def test_security_that_is_off_is_reported_at_start_up(system_log, open_station):
    assert system_log.wait("security") == [{"what": "security", "result": "off"}]
    station, _ = open_station
    station.wait_log("main: Security is off: whoever reaches port "
                     f"{station.port} is attached without a login.")


def test_a_word_instead_of_a_number_turns_security_off_and_is_reported(system_log, station):
    station.start("-S", "on", "-d", "0")
    station.wait_log(f"main: Security is off: whoever reaches port {station.port} is attached "
                     "without a login.")
    assert system_log.wait("security") == [{"what": "security", "result": "off"}]


def test_security_that_is_on_is_not_reported(system_log, fortress):
    assert system_log.entries() == []
    assert "Security is off" not in fortress[0].log_text()


def test_a_main_port_that_is_taken_is_reported(system_log, station):
    with socket.create_server((LOOPBACK, 0)) as taken:
        port = taken.getsockname()[1]
        station.start("-p", str(port), wait=False)
        station.wait_log(f"GetPortsToListenOn: Nobody can connect through port {port}. "
                         "Another program may be listening there; the port is tried again at each "
                         "reload.")
        assert system_log.wait("listen") == [
            {"what": "listen", "result": "refused",
             "reason": "Nobody can connect through the main port."}]


def test_attaching_and_leaving_are_recorded(system_log, open_station):
    station, _ = open_station
    user = station.attach("box", mode="ex", user="anna", addr="10.0.0.9")
    (entry,) = system_log.wait("attach")
    who = {"given_user": "anna", "from": LOOPBACK, "given_from": "10.0.0.9", "console": "box",
           "mode": "ex"}
    assert entry == {"what": "attach", "result": "accepted", **who}
    user.close()
    assert system_log.wait("leave") == [
        {"what": "leave", "result": "done", **who, "reason": "The user left."}]


def test_users_who_keep_output_from_the_logs_are_recorded(system_log, open_station):
    station, _ = open_station
    hidden = station.attach("box", mode="er", user="VRQ")
    who = {"given_user": "VRQ", "from": LOOPBACK, "console": "box", "mode": "er"}
    assert system_log.wait("attach") == [{"what": "attach", "result": "accepted", **who}]
    station.attach("box", mode="ex", user="anna")
    assert system_log.wait("leave") == [
        {"what": "leave", "result": "done", **who,
         "reason": "Another user took the console over."}]
    hidden.close()


@pytest.mark.parametrize("line, entry", [
    (b"none user=anna\n", {"given_user": "anna", "console": "none", "mode": "sh",
                           "reason": "004 - Console not found."}),
    (b"box mode=xx\n", {"console": "box", "mode": "sh", "reason": "002 - Invalid argument."}),
    (b"\n", {"mode": "sh", "reason": "009 - Insufficient data."}),
    (b"box mode=er\n", {"console": "box", "mode": "er",
                        "reason": "007 - Cannot grant exclusive access. Console in use."})])
def test_refused_attachments_are_recorded(system_log, open_station, line, entry):
    station, _ = open_station
    station.attach("box", mode="sh")
    caller = station.caller()
    caller.send(line)
    attempts = system_log.wait("attach", 2)
    assert attempts[1] == {"what": "attach", "result": "refused", "from": LOOPBACK, **entry}


def test_the_address_is_the_real_one_whatever_is_claimed(system_log, open_station):
    station, _ = open_station
    user = tell(station, b"box addr=192.0.2.99\n", "127.0.0.7")
    user.expect_exactly(OFFERS)
    (entry,) = system_log.wait("attach")
    assert (entry["from"], entry["given_from"]) == ("127.0.0.7", "192.0.2.99")


def test_a_login_on_a_consoles_own_port_is_recorded(system_log, fortress):
    _, door, _ = fortress
    user = door.call()
    fail(user, b"mallory\x1b[2J", b"guess")
    log_in(user, b"root", b"secret")
    door.admitted(user)
    failed, accepted = system_log.wait("login", 2)
    assert failed == {"what": "login", "result": "refused", "given_user": "mallory\\x1B[2J",
                      "from": LOOPBACK, "console": "box",
                      "reason": "001 - Authentication failed."}
    assert accepted == {"what": "login", "result": "accepted", "user": "root", "from": LOOPBACK,
                        "console": "box", "reason": "by name and password"}
    (attached,) = system_log.wait("attach")
    assert attached == {"what": "attach", "result": "accepted", "user": "root", "from": LOOPBACK,
                        "console": "box", "mode": "sh"}


def test_a_right_password_without_permission_is_recorded(system_log, fortress):
    _, door, _ = fortress
    user = door.call()
    log_in(user, b"bob", b"builder")
    refused(user, 14)
    assert system_log.wait("login") == [
        {"what": "login", "result": "refused", "user": "bob", "from": LOOPBACK, "console": "box",
         "reason": "014 - Not an authorized user."}]


def test_a_login_on_the_main_port_records_the_proved_name_and_the_given_one(system_log, fortress):
    _, _, hall = fortress
    user = hall.call(b"box user=root addr=10.1.1.1 mode=ro")
    give(user, b"alice", b"pw")
    user.expect_exactly(OFFERS)
    (login,) = system_log.wait("login")
    assert login == {"what": "login", "result": "accepted", "user": "alice", "from": LOOPBACK,
                     "reason": "by name and password"}
    (attached,) = system_log.wait("attach")
    assert attached == {"what": "attach", "result": "accepted", "user": "alice",
                        "given_user": "root", "from": LOOPBACK, "given_from": "10.1.1.1",
                        "console": "box", "mode": "ro"}


def test_a_refused_login_on_the_main_port_is_recorded(system_log, fortress):
    _, _, hall = fortress
    user = hall.call()
    for name in (b"x", b"y"):
        give(user, name, b"guess")
        user.expect_exactly(NAME)
    give(user, b"z", b"guess")
    refused(user, 1)
    assert system_log.wait("login", 3) == [
        {"what": "login", "result": "refused", "given_user": name, "from": LOOPBACK,
         "reason": "001 - Authentication failed."} for name in "xyz"]


def test_failed_attempts_before_a_success_are_recorded(system_log, fortress):
    _, _, hall = fortress
    user = hall.call()
    give(user, b"root", b"guess")
    user.expect_exactly(NAME)
    give(user, b"", b"guess")
    user.expect_exactly(NAME)
    give(user, b"alice", b"pw")
    user.expect_exactly(OFFERS)
    tries = [(entry["result"], entry.get("user"), entry.get("given_user"))
             for entry in system_log.wait("login", 2)]
    assert tries == [("refused", None, "root"), ("accepted", "alice", None)]


def test_the_cookie_is_distinguished_from_a_login(system_log, fortress):
    station, _, _ = fortress
    local_user(station, b"box user=anna").expect_exactly(OFFERS)
    assert system_log.wait("login") == [
        {"what": "login", "result": "accepted", "from": LOOPBACK, "reason": "by cookie"}]
    (attached,) = system_log.wait("attach")
    assert (attached["given_user"], "user" in attached) == ("anna", False)
    refused(tell(station, b"token 0123456789abcdef box\n"), 1)
    assert system_log.wait("login", 2)[1] == {
        "what": "login", "result": "refused", "from": LOOPBACK,
        "reason": "001 - Authentication failed."}


def test_every_control_command_is_recorded_with_its_object(system_log, open_station):
    station, _ = open_station
    tool = Tool(station, user="ops", addr="10.9.9.9")
    for command in ("msg box hello", "clear BOX", "force box", "disable box", "enable box",
                    "clear none", "msg - all of you", "console", "who box", "mapped_port",
                    "portholder box"):
        tool.command(command)
    tool.peer.close()
    system_log.wait("leave")
    who = {"given_user": "ops", "from": LOOPBACK, "given_from": "10.9.9.9"}
    told = [entry for entry in system_log.entries() if entry["what"] != "security"]
    assert told == [
        {"what": "attach", "result": "accepted", **who, "console": "@@@@"},
        {"what": "msg", "result": "done", **who, "console": "box"},
        {"what": "clear", "result": "done", **who, "console": "BOX"},
        {"what": "force", "result": "done", **who, "console": "box"},
        {"what": "disable", "result": "done", **who, "console": "box"},
        {"what": "enable", "result": "done", **who, "console": "box"},
        {"what": "clear", "result": "refused", **who, "console": "none",
         "reason": "Unrecognized console \\x22none\\x22."},
        {"what": "msg", "result": "done", **who, "console": "-"},
        {"what": "leave", "result": "done", **who, "console": "@@@@"}]


def test_a_cleared_and_a_lost_console_are_distinguished(system_log, open_station):
    station, box = open_station
    station.attach("box")
    Tool(station, user=None).command("clear box")
    (cleared,) = system_log.wait("leave")
    assert cleared["reason"] == "An operator cleared the console."
    station.attach("box")
    box.refuse()
    box.close()
    assert system_log.wait("leave", 2)[1]["reason"] == "The console's connection was closed."


def test_a_missing_system_log_loses_entries_and_nothing_else(system_log, open_station):
    station, box = open_station
    system_log.wait("security")
    system_log.close()
    user = station.attach("box")
    station.wait_log("Audit: The system log accepts no entries : No such file or directory")
    user.send(b"x")
    box.expect_exactly(b"x")
    leave(station, user)
    system_log.listen()
    station.attach("box")
    (lost,) = system_log.wait("audit")
    assert lost == {"what": "audit", "result": "lost", "reason": "2 entries were lost"}
    system_log.wait("attach")
    station.wait_log("Audit: The system log accepts entries again: 2 entries were lost")


def test_a_log_that_nobody_reads_delays_nobody(system_log, open_station):
    station, box = open_station
    tool = Tool(station, user=None)
    for _ in range(400):
        tool.command("force box")
    station.wait_log("Audit: The system log accepts no entries : Resource temporarily unavailable")
    user = station.attach("box")
    user.send(b"x")
    box.expect_exactly(b"x")
