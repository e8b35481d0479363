"""Debug lines: their form, the threads' names, collapsed repeats, and the trace of the locks."""

import re
from datetime import datetime, timedelta

import pytest

from harness.debuglog import STAMP, messages, parse
from harness.peers import User
from harness.station import console_line
from harness.waiting import stretched, wait_until

LINE = re.compile(rf"^ZEV ({STAMP}):<(\w+)>: ([^\n]*)$", re.MULTILINE)
REQUEST = re.compile(r"^(\w+): Requesting write lock ([0-9a-f]+) at line \d+$")
ACQUIRED = re.compile(r"^(\w+): Aquired (read|write) lock ([0-9a-f]+)$")
RELEASE = re.compile(r"^(\w+): Releasing lock ([0-9a-f]+)$")


def said_by(station, thread: str) -> list[str]:
    """The messages of one thread, without their newlines."""
    return [line[3] for line in LINE.finditer(station.log_text()) if line[2] == thread]


def unknown_event_file(name: str, count: int, event_file: str = "nosuchfile") -> str:
    """Console lines that make the daemon print the same message `count` times."""
    return console_line(name, 1, enable=0, event_file=event_file) * count


# The form of a line


def test_a_line_carries_the_local_time_and_the_thread(station):
    station.write_config("bad\n")
    before = datetime.now().replace(microsecond=0)
    station.start("-d", "0")
    complaint = station.wait_log("LoadConfigFile: Missing IP address at line 1", thread="main")
    assert before <= datetime.strptime(complaint.stamp, "%y/%m/%d_%H:%M:%S") <= datetime.now()


def test_the_time_follows_the_time_zone(station):
    station.write_config("bad\n")
    station.start("-d", "0", env={"TZ": "XYZ-13:45"})
    complaint = station.wait_log("LoadConfigFile: Missing IP address at line 1")
    there = datetime.utcnow() + timedelta(hours=13, minutes=45)
    shown = datetime.strptime(complaint.stamp, "%y/%m/%d_%H:%M:%S")
    assert abs(there - shown) < timedelta(seconds=stretched(10))


def test_every_line_of_a_busy_daemon_has_the_form(station):
    console = station.console("c1")
    station.start()
    console.accept()
    station.wait_connected("c1")
    user = station.attach("c1")
    user.send(b"typed")
    console.expect_exactly(b"typed")
    console.send(b"printed")
    user.expect_exactly(b"printed")
    station.stop()
    # The argument line is shown with its newline, which makes an empty line.
    lines = station.log_text().replace("arguments: c1\n\n", "arguments: c1\n").splitlines()
    odd = [line for line in lines if not LINE.match(line)
           and not re.fullmatch(rf"ZEV {STAMP}: Last message repeated [1-9]\d* times", line)]
    assert len(lines) > 100 and odd == []


# Levels


SHOWN_FROM = {
    "LoadConfigFile: Missing IP address at line 2": -1,
    "Entering NewConsoleNode": 1,
    "ServiceConnectionRequestThreadStart: Closing connection.": 1,
    "ServiceConnectionRequestThreadStart: Received arguments: nobody": 2,
    'AcceptConnectionRequests: Connection request from IP address "127.0.0.1".': 2,
    "Entering LoadModels": 3,
    "ConnectUserToConsole: Requesting write lock ": 3,
}


@pytest.mark.parametrize("level", [-1, 0, 1, 2, 3])
def test_each_level_shows_the_messages_up_to_it(station, level):
    station.write_config(console_line("c1", 1, enable=0) + "bad\n")
    station.start("-d", str(level))
    user = station.ask("nobody")
    user.expect_exactly(b"004 - Console not found.\r\n")
    user.expect_closed()
    station.stop()
    said = messages(station.log_text())
    shown = {text for text in SHOWN_FROM if any(message.startswith(text) for message in said)}
    assert shown == {text for text, lowest in SHOWN_FROM.items() if lowest <= level}


def test_below_the_level_of_errors_nothing_is_written(station):
    station.write_config("bad\n")
    station.start("-d", "-2")
    station.stop()
    assert station.log_text() == ""


def test_only_the_creation_of_a_console_is_announced_at_level_1(station):
    station.write_config(console_line("c1", 1, enable=0))
    station.start("-d", "1")
    station.wait_log("ACCESSIBLE CONSOLES:")
    entered = {message for message in messages(station.log_text())
               if message.startswith("Entering ")}
    assert entered == {"Entering NewConsoleNode\n"}


# Repeats


def complaints_until(station, last: str) -> str:
    """The output from the first complaint about the configuration to this last one."""
    end = station.wait_log(last).end
    text = station.log_text()[:end]
    return text[text.rindex("ZEV ", 0, text.index("LoadConfigFile: ")):]


def test_ten_equal_messages_are_one_line_and_a_count_of_nine(station):
    station.write_config(unknown_event_file("c1", 10) + "bad\n")
    station.start("-d", "0")
    first, repeats, last = parse(
        complaints_until(station, "LoadConfigFile: Missing IP address at line 11"))
    assert first.message == "LoadConfigFile: Event file nosuchfile not found for console c1\n"
    assert repeats.repeats == 9
    assert last.message == "LoadConfigFile: Missing IP address at line 11\n"
    assert repeats.stamp == last.stamp


def test_only_repeated_messages_are_counted(station):
    station.write_config(unknown_event_file("c1", 2) + unknown_event_file("c2", 1)
                         + unknown_event_file("c1", 1) + "bad\n")
    station.start("-d", "0")
    records = parse(complaints_until(station, "LoadConfigFile: Missing IP address at line 5"))
    assert [record.repeats for record in records] == [0, 1, 0, 0, 0]


def test_the_repeat_line_to_the_letter(station):
    station.write_config(unknown_event_file("c1", 2) + "bad\n")
    station.start("-d", "0")
    station.wait_log("LoadConfigFile: Missing IP address at line 3")
    assert re.search(rf"^ZEV {STAMP}: Last message repeated 1 times\nZEV {STAMP}:<main>: ",
                     station.log_text(), re.MULTILINE)


# Long messages


def test_a_message_is_cut_to_8191_bytes(station):
    around = len(unknown_event_file("c", 1, ""))
    event_file = "e" * (8191 - around)
    station.write_config(unknown_event_file("c", 1, event_file) + "bad\n")
    station.start("-d", "0")
    wait_until(lambda: "Missing IP address" in station.log_text(), what="the second message")
    whole = f"LoadConfigFile: Event file {event_file} not found for console c\n"
    cut = re.search(r"<main>: (LoadConfigFile: .*?)"
                    rf"ZEV {STAMP}:<main>: LoadConfigFile: Missing IP address at line 2\n",
                    station.log_text())[1]
    assert len(whole) > 8191 and cut == whole[:8191]


# Exit trace


@pytest.mark.parametrize("level, traced", [("0", False), ("1", True)])
def test_the_exit_trace_is_shown_from_level_1(station, level, traced):
    done = station.run("-f", "-S", "0", "-d", level, "-c", "/nowhere")
    assert done.returncode == 1
    found = re.search(rf"^ZEV {STAMP}:<main>: Exiting with code 1 from file (\S+) line (\d+)\n\Z",
                      done.stdout, re.MULTILINE)
    assert bool(found) == traced
    assert not traced or (found[1].partition(".")[0] == "load" and int(found[2]) > 0)


# Threads


def test_every_thread_is_named(station):
    station.start()
    with User.connect(station.port):
        for thread in ("main", "cons_conn", "user_conn", "user_mon", "cmd_mon", "serv_conn"):
            station.wait_log(re.compile("^Entering "), thread=thread)


def test_the_output_monitor_keeps_the_first_name_of_its_thread(station):
    console = station.console("c1")
    station.start()
    console.accept()
    station.wait_connected("c1")
    console.send(b"hello")
    station.wait_log("ProcessConsoleOutput: Received ->hello<- (5 bytes)", thread="main")
    assert "<cons_mon>" not in station.log_text()


def test_service_threads_free_their_names(station):
    station.start("-d", "1")
    for number in range(60):
        with User.connect(station.port) as user:
            user.send(f"nobody{number}\n".encode())
            user.expect_exactly(b"004 - Console not found.\r\n")
            user.expect_closed()
    station.wait_log("ServiceConnectionRequestThreadStart: Exiting thread.", thread="serv_conn")
    assert "<unknown>" not in station.log_text()


def test_a_thread_that_finds_no_slot_is_unknown(station):
    station.start()
    serving = re.compile("^ServiceConnectionRequestThreadStart: Servicing request coming from ")
    position = 0
    for _ in range(60):
        station.caller()
        position = station.wait_log(serving, after=position).end
    by_thread = [sum(1 for text in said_by(station, thread) if serving.search(text))
                 for thread in ("serv_conn", "unknown")]
    assert sum(by_thread) == 60
    # Of the 50 slots the main thread has two and each other long-lived thread has one.
    assert by_thread == [44, 16]


# Entry lines


def test_every_function_announces_itself_at_level_3(station):
    console = station.console("c1")
    station.start("-B", "100")
    console.accept()
    station.wait_connected("c1")
    with station.attach("c1") as user:
        user.send(b"typed")
        console.expect_exactly(b"typed")
        console.send(b"printed")
        user.expect_exactly(b"printed")
    console.close()
    station.wait_log("AddConsoleToList: Added console c1 to i_cons_list.", count=2)
    station.wait_log("Entering IsUserInUserList")  # the last call for a user who has left
    entered = set(re.findall(r">: Entering (\w+)$", station.log_text(), re.MULTILINE))
    assert ENTERED - entered == set()


ENTERED = {
    # start-up
    "Lock", "ConnectToJix", "Initialize", "InitConsoleList", "InitUserList", "InitEventSetList",
    "InitMappedPortList", "BlockSignal", "LoadConfigFile", "PrintConsoles", "LoadModels",
    "CreateConsoleConnectionsThread", "CreateUserConnectionsThread", "CreateUserMonitorThread",
    "CreateCommandMonitorThread", "InitCommandList", "GetZevdArchIntFromConfFile",
    "LoadEventFiles", "LogDirExpired", "OpenConsolidatedLogFile",
    # consoles
    "NewConsoleNode", "AddConsoleToList", "RemoveConsoleFromList", "MoveConsolesToList",
    "DeleteMarkedConsoles", "LocateConsoleInList", "ConsoleConnectionsThreadStart",
    "ConnectToConsoles", "ConnectToConsole", "UpdateConnectionStatus", "CheckConnectionStatus",
    "IsPellox", "DrainTelnetControlSequence",
    # console output
    "MonitorConsoleOutput", "CheckForConsoleOutput", "ProcessConsoleOutput",
    "SendConsoleOutputToUsers", "BufferConsoleOutput", "SendBufferedConsoleOutputToUser",
    "CloseConsoleConnection", "CheckForClosedConnections", "CleanUpClosedConnections",
    "CloseUserConnections",
    # users
    "UserConnectionsThreadStart", "SetupMappedPorts", "CleanUpStalePorts", "GetPortsToListenOn",
    "ConfigurePort", "ListenOnPort", "NewMappedPortNode", "AddMappedPortToList",
    "WaitForConnectionRequests", "CheckForConnectionRequests", "AcceptConnectionRequests",
    "ServiceConnectionRequestThreadStart", "IncrementPendingLogins", "DecrementPendingLogins",
    "ReadLineWithTimeout", "ParseConsoleArgs", "ConnectUserToConsole", "SetTelnetOptions",
    "NewUserNode", "AddUserToList", "RemoveUserFromList", "IsUserInUserList", "ModeNumToName",
    # user input
    "UserMonitorThreadStart", "MonitorUserInput", "CheckForUserInput", "ProcessUserInput",
    "CloseUserConnection", "GetClosedConnection",
    # logs and commands
    "OpenLogFile", "WriteLogFile", "CloseLogFile", "CommandMonitorThreadStart", "MonitorCommands",
    "CheckForCommand",
}


# The trace of the locks


@pytest.fixture
def traced(station):
    """A station on which every step that takes a lock has happened at least once."""
    console = station.console("c1")
    station.start()
    console.accept()
    station.wait_connected("c1")
    with station.attach("c1"):
        pass
    station.wait_log(re.compile("^RemoveUserFromList: Removed user from user_list "))
    console.close()
    station.wait_log("AddConsoleToList: Added console c1 to i_cons_list.", count=2)
    return station


@pytest.mark.parametrize("thread", ["main", "cons_conn", "user_conn", "user_mon", "cmd_mon",
                                    "serv_conn"])
def test_a_lock_is_requested_then_acquired_then_released(traced, thread):
    traced.stop()
    held: list[tuple[str, str]] = []
    requested = None
    uses = 0
    for message in said_by(traced, thread):
        if found := REQUEST.match(message):
            requested = (found[1], found[2])
        elif found := ACQUIRED.match(message):
            assert requested == (found[1], found[3]), message
            held.append(requested)
            uses += 1
        elif found := RELEASE.match(message):
            assert (found[1], found[2]) in held, message
            held.remove((found[1], found[2]))
        assert len(held) <= 2
    assert uses > 0


def lock_of(station, function: str, kind: str = "write") -> str:
    """The lock that a function has acquired, where it acquires only one in this way."""
    pattern = re.compile(f"^{function}: Aquired {kind} lock ([0-9a-f]+)$")
    found = station.wait_log(pattern)
    return pattern.match(found.message)[1]


def trace_of(station, function: str, after: int = 0) -> list[str]:
    """A function's trace of its locks, without line numbers and the function's name."""
    texts = re.findall(rf">: {function}: ((?:Requesting|Aquired|Releasing) .*)$",
                       station.log_text(after), re.MULTILINE)
    return [re.sub(r" at line \d+$", "", text) for text in texts]


def single(kind: str, lock: str) -> list[str]:
    """The trace of one lock; the request always says "write"."""
    return [f"Requesting write lock {lock}", f"Aquired {kind} lock {lock}",
            f"Releasing lock {lock}"]


def test_the_four_locks_differ(traced):
    acl = lock_of(traced, "MonitorConsoleOutput", "read")
    icl = lock_of(traced, "ConsoleConnectionsThreadStart")
    ul = lock_of(traced, "MonitorUserInput", "read")
    cmd = lock_of(traced, "MonitorCommands", "read")
    assert len({acl, icl, ul, cmd}) == 4


def test_one_pass_over_the_inaccessible_consoles_takes_their_lock_three_times(station):
    station.start()
    icl = lock_of(station, "ConsoleConnectionsThreadStart")
    station.wait_log(f"ConsoleConnectionsThreadStart: Releasing lock {icl}", count=6)
    assert trace_of(station, "ConsoleConnectionsThreadStart")[:9] == single("write", icl) * 3


def test_one_pass_over_idle_consoles_takes_their_lock_three_times(station):
    station.start()
    acl = lock_of(station, "MonitorConsoleOutput")
    station.wait_log("CheckForConsoleOutput: Calling select( -1 + 1, fdset, 0, 0, (2,0))")
    station.wait_log(f"MonitorConsoleOutput: Releasing lock {acl}", count=3)
    assert trace_of(station, "MonitorConsoleOutput")[:9] == (
        single("write", acl) + single("read", acl) * 2)


def test_one_pass_over_idle_users_reads_their_list_twice(station):
    station.start()
    ul = lock_of(station, "MonitorUserInput", "read")
    station.wait_log(f"MonitorUserInput: Releasing lock {ul}", count=2)
    assert trace_of(station, "MonitorUserInput")[:6] == single("read", ul) * 2


def assert_taken_together(station, function: str, taken: tuple[str, str],
                          released: tuple[str, str]) -> None:
    """The function has acquired both locks in this order, and released them in that one."""
    wanted = [f"Requesting write lock {taken[0]}", f"Aquired write lock {taken[0]}",
              f"Requesting write lock {taken[1]}", f"Aquired write lock {taken[1]}",
              f"Releasing lock {released[0]}", f"Releasing lock {released[1]}"]
    trace = trace_of(station, function)
    assert any(trace[start:start + len(wanted)] == wanted for start in range(len(trace))), trace


def test_pairs_of_locks_are_taken_in_a_fixed_order(traced):
    acl = lock_of(traced, "MonitorConsoleOutput", "read")
    icl = lock_of(traced, "ConsoleConnectionsThreadStart")
    ul = lock_of(traced, "MonitorUserInput", "read")
    for function, taken, released in [
            ("ConsoleConnectionsThreadStart", (icl, acl), (acl, icl)),
            ("GetPortsToListenOn", (acl, icl), (acl, icl)),
            ("MonitorUserInput", (ul, acl), (ul, acl)),
            ("MonitorConsoleOutput", (ul, acl), (ul, acl)),
            ("MonitorConsoleOutput", (icl, acl), (acl, icl))]:
        assert_taken_together(traced, function, taken, released)


def test_an_attaching_user_takes_one_lock_after_the_other(station):
    console = station.console("c1")
    station.start()
    console.accept()
    station.wait_connected("c1")
    acl = lock_of(station, "MonitorConsoleOutput", "read")
    ul = lock_of(station, "MonitorUserInput", "read")
    with station.attach("c1"):
        wanted = single("write", acl) + single("write", ul)
        wait_until(lambda: len(trace_of(station, "ConnectUserToConsole")) >= len(wanted),
                   what="the locks of attaching")
        assert trace_of(station, "ConnectUserToConsole") == wanted


def test_a_user_of_an_inaccessible_console_takes_both_console_locks_in_turn(station):
    station.write_config(console_line("off", 1, enable=0))
    station.start()
    acl = lock_of(station, "MonitorConsoleOutput", "read")
    icl = lock_of(station, "ConsoleConnectionsThreadStart")
    user = station.ask("off")
    user.expect_exactly(b"012 - Console is disabled.\r\n")
    assert trace_of(station, "ConnectUserToConsole") == (
        single("write", acl) + single("write", icl))


def test_an_unknown_console_is_looked_for_twice_on_each_list(station):
    """A console may be on its way from one list to the other, so one look is not enough."""
    station.start()
    acl = lock_of(station, "MonitorConsoleOutput", "read")
    icl = lock_of(station, "ConsoleConnectionsThreadStart")
    user = station.ask("nobody")
    user.expect_exactly(b"004 - Console not found.\r\n")
    assert trace_of(station, "ConnectUserToConsole") == 2 * (
        single("write", acl) + single("write", icl))


def test_no_lock_is_traced_below_level_3(station):
    console = station.console("c1")
    station.start("-d", "2")
    console.accept()
    station.wait_log(re.compile("^UpdateConnectionStatus: Connected to c1 "))
    user = station.ask("nobody")
    user.expect_exactly(b"004 - Console not found.\r\n")
    station.stop()
    assert not re.search("Requesting|Aquired|Releasing", station.log_text())
