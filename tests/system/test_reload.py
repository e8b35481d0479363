"""Reading the configuration again: what stays, changes and goes, and the messages about it."""

import re
import signal

import pytest

from harness.access import banner, user_monitor_frozen
from harness.debuglog import messages
from harness.logs import log_of, records
from harness.peers import User
# `box` is a fixture.
from harness.scenes import (DISABLED, NOT_FOUND, Usage, assert_flat, box, connected, numbered,
                            refused, reload, serves, wait_reloaded)
from harness.station import console_line
from harness.waiting import free_port, is_listening, wait_listening, wait_until

DELETED = banner("Console has been deleted.")
GONE = "DeleteMarkedConsoles: Console {} is being deleted."
SERVICE = "ServiceConnectionRequestThreadStart"

# The bytes of a numbered line: as printed, and as logged, with its time and without its CR.
LINE = 40
RECORD = len("26/11/21_09:00:00 ") + LINE - 1

# The main thread's lines while it reads its files again: the functions and the locks.
STEP = re.compile(r"^ZEV \S+:<main>: (?:Entering (\w+)|MonitorConsoleOutput: (Aquired|Releasing) "
                  r"(?:write )?lock (\w+))$", re.MULTILINE)


def configure(station, *lines: str) -> int:
    """Make these lines the configuration; return the position before the change."""
    station.write_config("".join(lines))
    position = station.mark()
    reload(station)
    return position


def listing(name: str, console, mapped_port: int = 0, logging: int = 1, events: int = 0,
            enable: int = 1, auth: int = 0, deleted: int = 0, mgmt_port: int = 23) -> list[str]:
    """How one console is printed."""
    return [f"name = {name}\n", "addr = 127.0.0.1\n", f"cons_port = {console.port}\n",
            f"mgmt_port = {mgmt_port}\n", f"mapped_port = {mapped_port}\n",
            f"logging = {logging}\n", f"events = {events}\n", f"enable = {enable}\n",
            f"auth = {auth}\n", f"deleted = {deleted}\n", "\n"]


# What stays


def test_a_reload_without_a_change_changes_nothing(station, box):
    user = station.attach("box")
    for _ in range(3):
        reload(station)
        serves(user, box)
    assert not box.called()


def test_a_rename_keeps_connection_and_users(station, box):
    user = station.attach("box", mode="ex")
    configure(station, console_line("chest", box.port))
    refused(station, "box", NOT_FOUND)
    refused(station, "chest", b"006 - Console is locked exclusively.\r\n")
    reader = station.attach("chest", mode="ro")
    serves(user, box)
    reader.expect_exactly(b"printed")
    assert not box.called()


def test_names_differ_by_case(station, box):
    refused(station, "BOX", NOT_FOUND)
    configure(station, console_line("BOX", box.port))
    refused(station, "box", NOT_FOUND)
    serves(station.attach("BOX"), box)


def test_a_rename_takes_the_log_file_with_it(station, box):
    current = station.logs / "zev.dated" / "current"
    current.mkdir(parents=True, exist_ok=True)
    (current / "box.log").write_text("what was logged\n")
    configure(station, console_line("chest", box.port))
    assert "what was logged\n" in (current / "chest.log").read_text()
    assert not (current / "box.log").exists()


def test_a_log_file_that_cannot_be_renamed_does_no_harm(station, box):
    current = station.logs / "zev.dated" / "current"
    (current / "chest.log").mkdir(parents=True)
    (current / "box.log").write_text("what was logged\n")
    user = station.attach("box")
    position = configure(station, console_line("chest", box.port))
    station.wait_log(f'OpenLogFile: open() failed for "{station.logs}//zev.dated/current/chest.log"'
                     " : Is a directory", after=position)
    assert (current / "box.log").read_text().startswith("what was logged\n")
    serves(user, box)
    station.attach("chest")


def test_the_replay_ring_is_kept(station):
    box = station.console("box")
    station.start("-B", "100")
    connected(station, box, "box")
    user = station.attach("box")
    box.send(b"printed before")
    user.expect_exactly(b"printed before")
    configure(station, console_line("chest", box.port))
    station.attach("chest").expect_exactly(b"printed before")


def test_the_later_of_two_lines_with_one_address_wins(station, box):
    user = station.attach("box")
    configure(station, console_line("first", box.port), console_line("second", box.port))
    refused(station, "first", NOT_FOUND)
    serves(station.attach("second"), box)
    assert not user.closed and not box.called()


def test_two_lines_with_one_new_address_make_one_console(station, box):
    other = station.console("other")
    configure(station, console_line("box", box.port), console_line("first", other.port),
              console_line("second", other.port))
    connected(station, other, "second")
    refused(station, "first", NOT_FOUND)
    assert not other.called()


def test_two_consoles_with_one_address_become_one(station):
    box = station.console("first")
    station.console_line("second", box.port)
    station.start()
    connected(station, box, "first")
    station.wait_connected("second")
    users = [station.attach(name) for name in ("first", "second")]
    position = station.mark()
    reload(station)
    users[1].expect_exactly(DELETED)
    users[1].expect_closed()
    station.wait_log(GONE.format("second"), after=position)
    # The first console is left, updated by both lines.
    refused(station, "first", NOT_FOUND)
    station.attach("second", mode="ro")
    serves(users[0], box)


# What is printed


def test_the_consoles_are_printed_before_and_after(station):
    on, off = station.console("on"), station.console("off", enable=0)
    station.start()
    connected(station, on, "on")
    mapped = free_port()
    position = configure(station, console_line("new", on.port, mgmt_port=7, mapped_port=mapped,
                                               logging=0, events=1, auth=1))
    printed = [message for message in messages(station.log_text(position))
               if re.match(r"\w+ = |\n|(IN)?ACCESSIBLE CONSOLES:", message)]
    assert printed == [
        "INACCESSIBLE CONSOLES:\n", *listing("off", off, enable=0),
        "ACCESSIBLE CONSOLES:\n", *listing("on", on),
        "INACCESSIBLE CONSOLES:\n", *listing("off", off, enable=0, deleted=1),
        "ACCESSIBLE CONSOLES:\n",
        *listing("new", on, mgmt_port=7, mapped_port=mapped, logging=0, events=1, auth=1)]


# What comes and goes


def test_a_new_console_is_called(station, box):
    user = station.attach("box")
    other = station.console("other")
    reload(station)
    connected(station, other, "other")
    serves(station.attach("other"), other)
    serves(user, box)


def test_a_deleted_console_says_so_to_its_users_and_goes(station, box):
    other = station.console("other")
    reload(station)
    connected(station, other, "other")
    users = [station.attach("box", mode=mode) for mode in ("sh", "ro", "ro")]
    stays = station.attach("other")
    position = configure(station, console_line("other", other.port))
    for user in users:
        user.expect_exactly(b"\a\a\a\a\a\r\n\r\n" + b"*" * 78 + b"\r\n\r\n"
                            b"Console has been deleted.\r\n\r\n" + b"*" * 78 + b"\r\n\r\n")
        user.expect_closed()
    station.wait_log(GONE.format("box"), after=position)
    box.expect_closed()
    refused(station, "box", NOT_FOUND)
    serves(stays, other)


def test_several_consoles_can_be_deleted_at_once(station):
    consoles = {f"c{number}": station.console(f"c{number}", enable=number % 3)
                for number in range(9)}
    station.start()
    users = []
    for number, (name, console) in enumerate(consoles.items()):
        if number % 3:
            connected(station, console, name)
            users += [station.attach(name) for _ in range(number % 3)]
    position = configure(station, "")
    for user in users:
        user.expect_exactly(DELETED)
        user.expect_closed()
    for name in consoles:
        station.wait_log(GONE.format(name), after=position)


def test_a_deleted_console_may_come_back(station, box):
    user = station.attach("box")
    position = configure(station, "")
    user.expect_exactly(DELETED)
    station.wait_log(GONE.format("box"), after=position)
    configure(station, console_line("box", box.port))
    connected(station, box, "box", times=2)
    serves(station.attach("box"), box)


def test_a_broken_line_deletes_its_console(station, box):
    position = configure(station, f"box 127.0.0.1 {box.port}\n")
    station.wait_log("LoadConfigFile: Missing management port at line 1", after=position)
    station.wait_log(GONE.format("box"), after=position)


def test_another_port_makes_another_console(station, box):
    user = station.attach("box")
    moved = station.console("box", listening=False)
    moved.listen()
    position = configure(station, console_line("box", moved.port))
    user.expect_exactly(DELETED)
    user.expect_closed()
    station.wait_log(GONE.format("box"), after=position)
    box.expect_closed()
    connected(station, moved, "box", times=2)
    serves(station.attach("box"), moved)
    assert not box.called()


def test_another_address_makes_another_console(station, box):
    user = station.attach("box")
    configure(station, console_line("box", box.port, address="127.0.0.01"))
    user.expect_exactly(DELETED)
    connected(station, box, "box", times=2)


def test_disabling_and_enabling(station, box):
    user = station.attach("box")
    position = configure(station, console_line("box", box.port, enable=0))
    user.expect_exactly(banner("Console has been disabled."))
    user.expect_closed()
    box.expect_closed()
    station.wait_log("AddConsoleToList: Added console box to i_cons_list.", after=position)
    refused(station, "box", DISABLED)
    assert not box.called()
    configure(station, console_line("box", box.port))
    connected(station, box, "box", times=2)
    serves(station.attach("box"), box)


# Mapped ports


def test_mapped_ports_open_and_close(station, box):
    first, second = free_port(), free_port()
    configure(station, console_line("box", box.port, mapped_port=first))
    wait_listening(first)
    user = station.mapped(first)
    user.expect(b'Connected to console "box" in shared mode.\r\n\n')
    silent = station.caller(first)
    station.wait_log(re.compile(f"^{SERVICE}: Servicing .* port {first}$"),
                     count=2)
    position = configure(station, console_line("box", box.port, mapped_port=second))
    wait_listening(second)
    station.wait_log(f"CleanUpStalePorts: Port {first} is no longer mapped to console",
                     after=position, thread="user_conn")
    wait_until(lambda: not is_listening(first), what="the old port to close")
    silent.expect_closed()
    serves(user, box)
    station.mapped(second).expect(b'Connected to console "box" in shared mode.\r\n\n')
    configure(station, console_line("box", box.port))
    wait_until(lambda: not is_listening(second), what="the second port to close")
    serves(user, box)


def test_a_mapped_port_may_pass_to_another_console(station, box):
    port = free_port()
    other = station.console("other")
    configure(station, console_line("box", box.port, mapped_port=port),
              console_line("other", other.port))
    connected(station, other, "other")
    wait_listening(port)
    before = station.mapped(port)
    before.expect(b'Connected to console "box" in shared mode.\r\n\n')
    position = configure(station, console_line("box", box.port),
                         console_line("other", other.port, mapped_port=port))
    station.wait_log("Entering SetupMappedPorts", after=position, thread="user_conn")
    after = station.mapped(port)
    after.expect(b'Connected to console "other" in shared mode.\r\n\n')
    serves(before, box)
    serves(after, other)
    assert "is no longer mapped" not in station.log_text(position)


@pytest.fixture
def dropped(station, box):
    """A second console, with a port of its own, which the test drops."""
    station.own_port = free_port()
    other = station.console("other")
    configure(station, console_line("box", box.port),
              console_line("other", other.port, mapped_port=station.own_port))
    connected(station, other, "other")
    wait_listening(station.own_port)
    return other


def closes_at_once(station) -> None:
    """The port of the dropped console is closed, though nobody has called it."""
    station.wait_log(GONE.format("other"))
    wait_until(lambda: not is_listening(station.own_port), what="the port to close")
    station.wait_log(f"CleanUpStalePorts: Port {station.own_port} is no longer mapped to console",
                     thread="user_conn")


def test_the_mapped_port_of_a_deleted_console_closes_at_once(station, box, dropped):
    user = station.attach("box")
    configure(station, console_line("box", box.port))
    closes_at_once(station)
    serves(user, box)


def test_the_mapped_port_of_a_deleted_console_with_users_closes_at_once(station, box, dropped):
    user = station.mapped(station.own_port)
    user.expect(b'Connected to console "other" in shared mode.\r\n\n')
    with user_monitor_frozen(station):  # until the ports have been checked
        position = configure(station, console_line("box", box.port))
        found = station.wait_log("Entering GetPortsToListenOn", after=position)
        station.wait_log("Entering CheckForConnectionRequests", after=found.end)
        user.expect_exactly(DELETED)
        assert is_listening(station.own_port)
    user.expect_closed()
    closes_at_once(station)


def test_the_mapped_port_of_a_deleted_console_that_is_not_connected_closes_at_once(station, box):
    station.own_port = free_port()
    configure(station, console_line("box", box.port),
              console_line("other", 1, mapped_port=station.own_port, enable=0))
    wait_listening(station.own_port)
    configure(station, console_line("box", box.port))
    closes_at_once(station)


def test_the_port_of_a_deleted_console_that_another_one_takes_stays_open(station, box, dropped):
    position = configure(station, console_line("box", box.port, mapped_port=station.own_port))
    found = station.wait_log(GONE.format("other"), after=position)
    found = station.wait_log("Entering RefreshMappedPorts", after=found.end)
    found = station.wait_log("Entering SetupMappedPorts", after=found.end, thread="user_conn")
    station.wait_log("Entering CheckForConnectionRequests", after=found.end, thread="user_conn")
    assert "is no longer mapped" not in station.log_text(position)
    station.mapped(station.own_port).expect(
        b'Connected to console "box" in shared mode.\r\n\n')


# Failure


def test_a_missing_file_ends_the_daemon(station, box):
    user = station.attach("box")
    station.config_file.unlink()
    station.signal(signal.SIGHUP)
    station.expect_exit(1)
    assert ("LoadConfigFile: open() failed : No such file or directory\n"
            in messages(station.log_text()))
    user.expect_closed()


# Traffic


def test_the_steps_of_a_reload_are_in_order(station):
    box = station.console("box")
    station.start()
    connected(station, box, "box")
    position = configure(station, console_line("box", box.port, enable=0))
    end = station.wait_log("Entering GetZevdArchIntFromConfFile", after=position).end
    said = STEP.findall(station.log.text(position)[:end - position])
    first = next(number for number, step in enumerate(said) if step[0] == "ReloadEventFiles")
    locks = [lock for _, _, lock in said[first - 2:first]]
    assert [action for _, action, _ in said[first - 2:first]] == ["Aquired"] * 2
    steps = [entered or f"{action} {locks.index(lock)}" for entered, action, lock in said[first:]]
    assert [step for step in steps if step in (
        "ReloadEventFiles", "ReloadConfigFile", "MergeConsoleLists",
        "CloseDisabledConsoleConnections", "Releasing 0", "Releasing 1", "RefreshMappedPorts",
        "GetZevdArchIntFromConfFile")] == [
        "ReloadEventFiles", "ReloadConfigFile", "MergeConsoleLists",
        "CloseDisabledConsoleConnections", "Releasing 0", "Releasing 1", "RefreshMappedPorts",
        "GetZevdArchIntFromConfFile"]
    # The first one is acl_lock, under which output is read.
    station.wait_log(f"MonitorConsoleOutput: Aquired write lock {locks[0]}", after=end)


def test_a_hundred_reloads_under_full_load_lose_nothing(station):
    """One console prints all the time, another is renamed each time, and users type."""
    box, other, loud = (station.console(name) for name in ("box", "other", "loud"))
    station.start("-d", "1")
    for name, console in (("box", box), ("other", other), ("loud", loud)):
        connected(station, console, name)
    before = Usage.of(station)
    users = [station.attach("box", mode=mode) for mode in ("sh", "ro", "ro")]
    lines = (console_line("box", box.port), console_line("other", other.port),
             console_line("loud", loud.port))
    printing = loud.flood(numbered(1000), 10**6, rate=4 << 20)  # the logs have half a gigabyte
    down = up = 0
    for number in range(100):
        box.send(numbered(50, start=down))
        down += 50
        users[0].send(numbered(20, start=up))
        up += 20
        # The names change, the addresses stay.
        station.write_config("".join(lines).replace("other", f"other{number}"))
        reload(station)
    assert printing.running
    printing.stop()
    for user in users:
        user.expect_exactly(numbered(down))
    box.expect_exactly(numbered(up))
    refused(station, "other", NOT_FOUND)
    users.append(station.attach("other99"))
    serves(users[-1], other)
    assert not any(console.called() for console in (box, other, loud))
    logged = numbered(1000).replace(b"\r", b"").splitlines(True)
    for name, count in (("box", down), ("loud", printing.sent // LINE)):
        log = log_of(station, name)
        wait_until(lambda: log.stat().st_size == count * RECORD, what=f"{count} lines in {log}")
    assert records(log_of(station, "box")) == numbered(down).replace(b"\r", b"").splitlines(True)
    assert all(record == logged[number % 1000]
               for number, record in enumerate(records(log_of(station, "loud"))))
    for user in users:
        user.close()
    assert_flat(station, before, memory=4 << 20)


def test_rapid_hangups_do_not_disturb_users(station):
    box = station.console("box")
    station.start("-d", "1")
    connected(station, box, "box")
    stays = station.attach("box", mode="ro")
    for number in range(100):
        station.signal(signal.SIGHUP)
        box.send(b"%d " % number)
        with User.attach(station.port, "box"):
            stays.expect_exactly(b"%d " % number)
    position = station.mark()
    reload(station)
    wait_reloaded(station, position)
    serves(station.attach("box"), box)
