"""The client's sessions at a console: on a terminal, piped, refused, ended and retried."""

import contextlib
import hashlib
import os
import re
import select
import signal
import subprocess
import termios
import threading
import time
from typing import Iterator

import pexpect
import pytest

# `box` is a fixture.
from harness.access import box, bring_up, terminated_by, user_monitor_frozen
from harness.commands import DONE, Tool
from harness.consoles import NEGOTIATION, FakeConsole, ShellConsole, TelnetServerConsole
from harness.peers import OFFERS
from harness.scenes import attach_when_accessible, connected, numbered, print_and_wait
from harness.seats import ATTACHED, LEFT, greeted, leave, seated
from harness.slow_readers import gaps_in, mark
from harness.terminals import close_terminal
from harness.waiting import LIMIT, free_port, stretched, wait_until
from harness.zevctl import (IN_USE, NO_DAEMON, NO_SUCH_CONSOLE, NOT_ACCESSIBLE,
                            NOT_ADMITTED, OK, PROGRAM, SESSION_ENDED, USAGE, Terminal, environment,
                            refuse, run, start, words)
from harness.helpers import FakeHelper

HELP = ("zevctl: At the start of a line:\r\n"
        "  ~.    leave the console\r\n"
        "  ~b    send a break\r\n"
        "  ~w    tell who is here\r\n"
        "  ~m    change the mode\r\n"
        "  ~l    take the console over from others\r\n"
        "  ~r    show recent output again\r\n"
        "  ~^Z   suspend zevctl\r\n"
        "  ~?    show this help\r\n"
        "  ~~    send ~ itself\r\n")

CONSOLE_LOST = ("the console closed its connection, or that was lost; the daemon connects to it "
                'again, and "zevctl attach --retry box" waits for it')
DAEMON_ENDED = "the daemon ended; attach again when it runs, --retry waits for it"
CLEARED = 'op@127.0.0.1 cleared the console, which cut you off; "zevctl who box" tells who has it'
TAKEN_OVER = 'bob@127.0.0.1 took the console over; "zevctl who box" tells who is there now'
NO_LONGER_FOUND = 'refused: 004 - Console not found. "zevctl list" shows the names.'
NOT_FOUND = 'no console is named "lathe"; "zevctl list" shows the names'
OP_DISABLED = ('op@127.0.0.1 disabled the console; "zevctl enable box" lets the daemon connect to '
               "it again")
TAKEN_OUT = ("the console was taken out of the station's configuration; \"zevctl list\" shows "
             "those that are left")
INACCESSIBLE = ("refused: 005 - Console is not accessible. The daemon tries to connect to it every "
                "minute; --retry waits for it.")
DISABLED = ('refused: 012 - Console is disabled. "zevctl enable" lets the daemon connect to it.')
DELETED = ("refused: 011 - Console has been deleted. It was taken out of the station's "
           'configuration; "zevctl list" shows what is left.')
TRYING = "zevctl: Trying again every 2 seconds; Ctrl-C ends it.\r\n"

BREAK = b"\xff\xf3"

PACE = 32768


def expect_signal(person: Terminal, number: int) -> None:
    """Wait until the client has ended by the signal."""
    person.child.expect(pexpect.EOF, timeout=stretched(LIMIT))
    person.child.wait()
    assert (person.child.signalstatus, person.child.exitstatus) == (number, None)


def modes_of(person) -> list:
    """The modes of the terminal, as its user's side sees them."""
    return termios.tcgetattr(person.child_fd)


def fresh_modes() -> list:
    """The modes of a new terminal."""
    ours, theirs = os.openpty()
    try:
        return termios.tcgetattr(theirs)
    finally:
        os.close(ours)
        os.close(theirs)


@contextlib.contextmanager
def piped(station, *arguments: str, stdout=subprocess.PIPE):
    """The client with a pipe for its input, attached to "box"."""
    process = subprocess.Popen([PROGRAM, *words(station, ("attach", "box", *arguments))],
                               env=environment(), stdin=subprocess.PIPE, stdout=stdout,
                               stderr=subprocess.PIPE, start_new_session=True)
    try:
        assert process.stderr.readline() == b"Attached to box (shared).\n"
        yield process
    finally:
        process.kill()
        process.wait()
        for stream in (process.stdin, process.stdout, process.stderr):
            with contextlib.suppress(BrokenPipeError):
                stream.close()


def assert_small(pid: int) -> None:
    """The client has never held more than some megabytes.

    A sanitizer build is not judged: it keeps what was freed.
    """
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        held = next(int(line.split()[1]) for line in status if line.startswith("VmHWM:")) * 1024
    with open(f"/proc/{pid}/maps", encoding="latin-1") as maps:
        sanitized = re.search("lib[at]san", maps.read())
    assert sanitized or held < 20_000_000


# At a terminal


def test_keys_go_to_the_console_and_output_comes_back(station, box):
    with seated(station) as person:
        person.type("show all\r")
        box.expect_exactly(b"show all\r")
        box.send(b"nothing\nto\r\nshow\r\n")
        person.expect("nothing\nto\r\nshow\r\n")
        leave(person)
        box.expect_exactly(b"\r")


def test_every_key_is_passed_on(station, box):
    """Even keys that a terminal or a shell would act on, and every byte above 127."""
    keys = bytes(byte for byte in range(256) if byte != ord("\r"))
    with seated(station) as person:
        person.type(keys)
        box.expect_exactly(keys.replace(b"\xff", b"\xff\xff"))


def test_every_byte_of_output_is_shown(station, box):
    shown = bytes(range(256))
    with seated(station) as person:
        box.send(b"<" + shown.replace(b"\xff", b"\xff\xff") + b">")
        person.expect(b"<" + shown + b">")


@pytest.mark.parametrize("mode, words_for_it", [
    ("sh", "shared"), ("ex", "exclusive"), ("er", "exclusive-revoke")])
def test_every_mode_but_read_only_can_type(station, box, mode, words_for_it):
    greeting = ATTACHED.replace("shared", words_for_it)
    with seated(station, "--mode", mode, "--user", "ann", greeting=greeting) as person:
        (record,) = Tool(station).command("who box").records
        assert (record[0], record[2]) == ("ann", {"sh": "2", "ex": "3", "er": "4"}[mode])
        person.type("x")
        box.expect_exactly(b"x")


def test_a_reader_sends_nothing(station, box):
    writer = station.attach("box")
    greeting = ATTACHED.replace("shared", "read-only, what you type is not sent")
    with seated(station, "--mode", "ro", greeting=greeting) as person:
        position = station.mark()
        person.type("unheard\rx")
        person.expect("zevctl: What you type is not sent: you are only watching. ~m at the start "
                      "of a line changes the mode.\r\n")
        person.type("still unheard\r~b")
        shown = person.expect("zevctl: No break was sent: you are only watching.\r\n")
        assert shown == b""
        box.send(b"shown")
        person.expect("shown")
        writer.send(b"heard")
        box.expect_exactly(b"heard")
        assert "ProcessUserInput: Received ->unheard" not in station.log_text(position)
        person.type("~.")
        person.expect(LEFT)
        person.expect_end(OK)


def test_the_login_name_is_shown_to_others(station, box):
    with seated(station):
        (record,) = Tool(station).command("who box").records
        assert record[0] == "root"


@pytest.mark.parametrize("last, gap", [("login: ", b"\r\n"), ("done\r\n", b"")])
def test_the_last_message_begins_a_line(station, box, last, gap):
    with seated(station) as person:
        box.send(last.encode())
        person.expect(last)
        person.type("~.")
        assert person.expect(LEFT) == gap
        person.expect_end(OK)


def test_what_the_console_printed_last_is_shown_first(station):
    console = station.console("box")
    bring_up(station, console, options=("-B", "100"))
    print_and_wait(station, console, b"the last words\r\n")
    with Terminal(station, "attach", "box") as person:
        assert greeted(person.child) == b"readythe last words\r\n"


# Escapes


def test_a_break_can_be_sent(station, box):
    with seated(station) as person:
        person.type("x\r~b~by")
        box.expect_exactly(b"x\r" + BREAK + BREAK + b"y")
        person.expect("zevctl: A break was sent.\r\nzevctl: A break was sent.\r\n")


def test_help_is_shown(station, box):
    with seated(station) as person:
        person.type("~?")
        person.expect(HELP)
        person.type("x")
        box.expect_exactly(b"x")


def test_the_escape_can_be_sent_and_other_keys_pass(station, box):
    with seated(station) as person:
        person.type("~~\r~x\r~/\r a~.")
        box.expect_exactly(b"~\r~x\r~/\r a~.")


def test_a_session_within_a_session_can_be_left(station, box):
    """The inner client is reached through the outer one by doubling the escape."""
    with ShellConsole() as shell:
        station.console_line("shell", shell.port)
        station.signal(signal.SIGHUP)
        attach_when_accessible(station, "shell").close()
        greeting = ATTACHED.replace("box", "shell")
        with seated(station, console="shell", greeting=greeting) as outer:
            outer.type(f"{PROGRAM} --port {station.port} attach box\r")
            outer.expect("zevctl: Attached to box (shared)")
            outer.type("x\r~~.")
            box.expect_exactly(b"x\r")
            outer.expect("zevctl: Left box.")
            outer.type("echo $((6 * 7))\r")
            outer.expect("42\r\n")
            outer.type("~.")
            outer.expect("Left shell.")
            outer.expect_end(OK)


def test_another_escape_can_be_chosen(station, box):
    greeting = ATTACHED.replace("~.", "^].").replace("~?", "^]?")
    with seated(station, "--escape", "^]", greeting=greeting) as person:
        person.type("~.\r\x1d?")
        person.expect("\r\n  ^]^Z  suspend zevctl\r\n")
        person.expect("\r\n  ^]^]  send ^] itself\r\n")
        person.type("\x1d.")
        person.expect(LEFT)
        person.expect_end(OK)
    box.expect_exactly(b"~.\r")


def test_the_escape_can_be_turned_off(station, box):
    greeting = ("zevctl: Attached to box (shared). There is no escape: to leave, end zevctl from "
                "outside.\r\n")
    with seated(station, "--escape", "none", greeting=greeting) as person:
        person.type("~.\r~?")
        box.expect_exactly(b"~.\r~?")
        person.child.kill(signal.SIGTERM)
        expect_signal(person, signal.SIGTERM)


# Telnet


def test_what_the_console_offers_is_answered_and_not_shown(station):
    console = station.console("box", greeting=NEGOTIATION + b"ready")
    bring_up(station, console)
    with seated(station) as person:
        console.expect_exactly(b"\xff\xfc\x1f\xff\xfd\x01\xff\xfd\x03")
        person.type("x\r")
        console.expect_exactly(b"x\r\0")
        console.send(b"<\xff\xfe\x01\xff\xfb\x05>")
        person.expect("<>")
        console.expect_exactly(b"\xff\xfe\x05")


def test_a_console_that_offers_nothing_gets_no_key_that_was_not_typed(station, box):
    with seated(station) as person:
        person.type("x\ry")
        box.expect_exactly(b"x\ry")


def test_keys_are_unchanged_once_binary_mode_is_agreed(station, box):
    with seated(station) as person:
        box.send(b"\xff\xfd\0")
        box.expect_exactly(b"\xff\xfb\0")
        person.type("x\r")
        box.expect_exactly(b"x\r")
        person.type("y")
        box.expect_exactly(b"y")


def test_a_real_telnet_server_can_be_used(station):
    with TelnetServerConsole() as server:
        station.console_line("server", server.port)
        station.start()
        station.wait_connected("server")
        with seated(station, console="server",
                    greeting=ATTACHED.replace("box", "server")) as person:
            person.type("\r")
            person.expect("# ")
            person.type("echo the answer is $((6 * 7))\r")
            shown = person.expect("the answer is 42\r\n")
            assert b"\xff" not in shown
            person.type("~.")
            person.expect_end(OK)


# Ends of a session, after which the terminal is restored


def end_by_escape(_station, _console, person: Terminal) -> None:
    """Leave by the escape."""
    leave(person)


def end_by_signal(number: int):
    """End the client from outside."""
    def end(_station, _console, person: Terminal) -> None:
        person.child.kill(number)
        expect_signal(person, number)
    return end


def end_by_console(_station, console, person: Terminal) -> None:
    """Close the console."""
    console.shut()
    person.expect(f"zevctl: {CONSOLE_LOST}\r\n")
    person.expect_end(SESSION_ENDED)


def end_by_daemon(station, _console, person: Terminal) -> None:
    """Kill the daemon."""
    station.signal(signal.SIGKILL)
    station.expect_exit(-signal.SIGKILL)
    person.expect(f"zevctl: {DAEMON_ENDED}\r\n")
    person.expect_end(SESSION_ENDED)


def end_by_clearing(station, _console, person: Terminal) -> None:
    """Have an operator disconnect the user."""
    assert Tool(station).command("clear box").type == DONE
    person.expect(terminated_by("op"))
    person.expect(f"zevctl: {CLEARED}\r\n")
    person.expect_end(SESSION_ENDED)


WAYS_OUT = {
    "escape": end_by_escape,
    "SIGTERM": end_by_signal(signal.SIGTERM),
    "SIGHUP": end_by_signal(signal.SIGHUP),
    "SIGINT": end_by_signal(signal.SIGINT),
    "console": end_by_console,
    "daemon": end_by_daemon,
    "clear": end_by_clearing,
}


@pytest.mark.parametrize("end", WAYS_OUT.values(), ids=WAYS_OUT.keys())
def test_the_terminal_is_restored(station, box, end):
    with Terminal(station, "attach", "box") as person:
        before = fresh_modes()
        greeted(person.child)
        assert modes_of(person.child)[3] & (termios.ICANON | termios.ECHO | termios.ISIG) == 0
        end(station, box, person)
        assert modes_of(person.child) == before


def test_the_terminal_is_restored_when_the_output_breaks(station, box):
    """The output goes to a pipe whose reader ends."""
    line = f"{PROGRAM} --port {station.port} attach box | head -c 4; echo over"
    person = pexpect.spawn("/bin/sh", ["-c", line], timeout=stretched(LIMIT), env=environment())
    try:
        before = fresh_modes()
        greeted(person)
        assert modes_of(person) != before
        box.send(b"four and more")
        person.expect_exact("zevctl: the output cannot be written: Broken pipe; attach again where "
                            "it can\r\n")
        person.expect_exact("over\r\n")
        person.expect(pexpect.EOF)
        assert modes_of(person) == before
    finally:
        close_terminal(person)


def test_a_terminal_that_hangs_up_ends_the_session(station, box):
    """The client is no child of a shell and gets no signal; what it says goes elsewhere."""
    ours, theirs = os.openpty()
    client = start(station, "attach", "box", stdin=theirs, stdout=theirs)
    try:
        os.close(theirs)
        assert client.stderr.readline().startswith(b"zevctl: Attached to box (shared)")
        os.close(ours)
        assert client.stderr.read() == (b"zevctl: the terminal hung up, and the session was left; "
                                        b"attach again from another one\n")
        assert client.wait(stretched(LIMIT)) == SESSION_ENDED
    finally:
        client.kill()
        client.wait()
        client.stderr.close()


def test_signals_that_were_ignored_stay_ignored(station, box):
    line = f"trap '' HUP; exec {PROGRAM} --port {station.port} attach box"
    person = pexpect.spawn("/bin/sh", ["-c", line], timeout=stretched(LIMIT), env=environment())
    try:
        greeted(person)
        person.kill(signal.SIGHUP)
        person.send("still\r~.")
        box.expect_exactly(b"still\r")
        person.expect_exact(LEFT)
        person.expect(pexpect.EOF)
        person.wait()
        assert person.exitstatus == OK
    finally:
        close_terminal(person)


@contextlib.contextmanager
def at_a_shell(station):
    """A shell with job control that has started the client; the terminal is in raw mode."""
    shell = pexpect.spawn("/bin/bash", ["--norc", "--noprofile", "--noediting", "-i"],
                          timeout=stretched(LIMIT), env=environment(PS1="ready> "), echo=False)
    try:
        shell.expect_exact("ready> ")
        shell.sendline(f"{PROGRAM} --port {station.port} attach box")
        greeted(shell)
        yield shell
    finally:
        close_terminal(shell)


def client_of(shell) -> int:
    """The process that the shell has started."""
    with open(f"/proc/{shell.pid}/task/{shell.pid}/children", encoding="ascii") as children:
        return int(children.read())


def has_ended(pid: int) -> bool:
    """True when the process has ended, even if its parent has not waited for it yet."""
    try:
        with open(f"/proc/{pid}/stat", encoding="latin-1") as status:
            return status.read().rpartition(")")[2].split()[0] == "Z"
    except (FileNotFoundError, ProcessLookupError):
        return True


def expect_stopped(shell) -> None:
    """The shell has the terminal again, in the shell's modes."""
    shell.expect_exact("Stopped")
    shell.expect_exact("ready> ")
    assert modes_of(shell)[3] & termios.ICANON


def go_on(shell, box, raw: list) -> None:
    """Continue the client, see what was printed meanwhile, type and leave."""
    box.send(b"meanwhile")
    shell.sendline("fg")
    shell.expect_exact("meanwhile")
    wait_until(lambda: modes_of(shell) == raw, what="the terminal to be raw")
    shell.send("b\r~.")
    box.expect_exactly(b"b\r")
    shell.expect_exact(LEFT)
    shell.sendline("echo status $?")
    shell.expect_exact("status 0")


def test_a_session_can_be_suspended_and_continued(station, box):
    with at_a_shell(station) as shell:
        raw = modes_of(shell)
        shell.send("a\r~\x1a")
        expect_stopped(shell)
        box.expect_exactly(b"a\r")
        go_on(shell, box, raw)


def test_a_stopped_session_can_be_continued(station, box):
    with at_a_shell(station) as shell:
        raw = modes_of(shell)
        os.kill(client_of(shell), signal.SIGSTOP)
        expect_stopped(shell)
        go_on(shell, box, raw)


def test_a_stopped_session_can_be_ended(station, box):
    with at_a_shell(station) as shell:
        shell.send("~\x1a")
        expect_stopped(shell)
        client = client_of(shell)
        shell.sendline("kill %1")
        wait_until(lambda: has_ended(client), what="the client to end")


# Without a terminal


def test_a_pipe_is_sent_unchanged_and_its_end_ends_the_session(station, box):
    with piped(station) as client:
        client.stdin.write(b"~.\rshow\r\nall\n\xff\0")
        client.stdin.close()
        box.expect_exactly(b"~.\rshow\r\nall\n\xff\xff\0")
        box.send(b"here it is\r\n")
        assert client.stdout.read() == b"here it is\r\n"
        assert client.stderr.read() == b"Left box.\n"
        assert client.wait(stretched(LIMIT)) == OK


def test_an_empty_input_ends_the_session(station, box):
    done = run(station, "attach", "box")
    assert (done.returncode, done.stdout) == (OK, "")
    assert done.stderr == "Attached to box (shared).\nLeft box.\n"


@pytest.mark.slow
def test_a_console_that_never_stops_does_not_keep_the_client(station, box):
    printing = threading.Event()

    def print_on() -> None:
        while not printing.wait(0.1):
            box.send(b"tick\r\n")

    printer = threading.Thread(target=print_on)
    printer.start()
    try:
        done = run(station, "attach", "box")
    finally:
        printing.set()
        printer.join()
    assert done.returncode == OK
    assert done.stdout.startswith("tick\r\ntick\r\n")


def paced(text: bytes) -> list[bytes]:
    """The text in pieces, each of which the daemon has room for: it leaves out what it has not."""
    return [text[start:start + PACE] for start in range(0, len(text), PACE)]


def test_a_megabyte_passes_through_a_pipe(station, box):
    text = numbered(25_000)
    *pieces, last = paced(text)
    with piped(station) as client:
        for piece in pieces:
            box.send(piece)
            assert client.stdout.read(len(piece)) == piece
        box.send(last)
        client.stdin.close()
        assert client.stdout.read() == last
        assert client.wait(stretched(LIMIT)) == OK


def test_a_megabyte_of_input_arrives(station, box):
    text = numbered(25_000)
    with piped(station) as client:
        client.stdin.write(text)
        client.stdin.close()
        box.expect_exactly(text, limit=3 * LIMIT)
        assert client.wait(stretched(LIMIT)) == OK


def test_a_megabyte_is_shown_on_a_terminal(station, box):
    text = numbered(25_000)
    with seated(station) as person:
        for piece in paced(text):
            box.send(piece)
            assert read_terminal(person, len(piece)) == piece
        leave(person)


def test_a_lost_session_is_reported_without_a_terminal_too(station, box):
    with piped(station) as client:
        box.send(b"half a line")
        assert client.stdout.read(11) == b"half a line"
        box.shut()
        assert client.stderr.read() == f"zevctl: {CONSOLE_LOST}\n".encode()
        assert client.wait(stretched(LIMIT)) == SESSION_ENDED


# Ends that stop reading


def read_terminal(person: Terminal, count: int) -> bytes:
    """Read this many bytes from the screen."""
    taken = b""
    while len(taken) < count:
        taken += person.child.read_nonblocking(65536, timeout=stretched(LIMIT))
    return taken


def print_all(station, console, text: bytes) -> None:
    """Have the console print all of it, and the daemon read it."""
    position = station.mark()
    console.flood(text, 1).join()
    last_line = text.splitlines()[-1].decode()
    wait_until(lambda: last_line in station.log_text(position), what="the daemon to read it all")


def test_a_stalled_terminal_loses_no_key_and_no_output(station, box):
    text = numbered(15_000)
    with seated(station) as person:
        print_all(station, box, text)
        for number in range(100):
            person.type(f"{number}\r")
            box.expect_exactly(f"{number}\r".encode())
        assert read_terminal(person, len(text)) == text
        leave(person)


def test_a_stalled_terminal_can_be_left(station, box):
    with Terminal(station, "attach", "box") as person:
        before = fresh_modes()
        greeted(person.child)
        print_all(station, box, numbered(15_000))
        person.type("\r~.")
        wait_until(lambda: not person.child.isalive(), what="the client to end")
        assert person.child.exitstatus == OK
        assert modes_of(person.child) == before


def shown_until(descriptor: int, end: bytes) -> bytes:
    """All that the client shows, with this end."""
    shown = bytearray()
    while not shown.endswith(end):
        assert select.select([descriptor], [], [], stretched(LIMIT))[0], bytes(shown[-200:])
        shown += os.read(descriptor, 65536)
    return bytes(shown)


def test_a_terminal_stalled_for_long_fills_no_memory(station):
    """The daemon leaves out what there is no room for; what it keeps is still shown."""
    console = station.console("box")
    station.start("-d", "1")
    connected(station, console, "box")
    text, end = numbered(25_000), b"and that is the end of it\r\n"
    with Terminal(station, "attach", "box") as person:
        greeted(person.child)
        console.flood(text, 20).join(limit=3 * LIMIT)
        console.send(end)
        assert_small(person.child.pid)
        assert gaps_in(shown_until(person.child.child_fd, end), text * 20 + end)
        assert_small(person.child.pid)
        leave(person)


def nothing_is_taken(pipe) -> bool:
    """True when the pipe is full and stays so for a while."""
    writable = select.poll()
    writable.register(pipe, select.POLLOUT)
    return not writable.poll(300)


def test_a_daemon_that_takes_no_input_does_not_stop_the_output(station, box):
    with piped(station) as client, user_monitor_frozen(station):
        def feed() -> None:
            with contextlib.suppress(BrokenPipeError):
                for _ in range(500):
                    client.stdin.write(bytes(100_000))

        feeder = threading.Thread(target=feed)
        feeder.start()
        wait_until(lambda: nothing_is_taken(client.stdin), what="the client to take nothing more")
        for number in range(50):
            box.send(b"line %d\n" % number)
            assert client.stdout.readline() == b"line %d\n" % number
        assert feeder.is_alive()
        assert_small(client.pid)
        client.kill()
        feeder.join()


# A console that prints far more than is read in time


BLOCK = numbered(25_000) + bytes(range(256)) * 100
BLOCKS = 100  # more than 100 MB in all


def gaps() -> Iterator[bytes]:
    """What is shown behind each block: numbers of every length, and two gaps in a row."""
    yield mark(1) + mark((1 << 64) - 1)
    for number in range(1, BLOCKS):
        yield mark(7 ** (number % 20) + number)


def flooded_output() -> tuple[str, int]:
    """The digest and the length of all that is shown."""
    digest, length = hashlib.sha256(), 0
    for gap in gaps():
        digest.update(BLOCK + gap)
        length += len(BLOCK) + len(gap)
    return digest.hexdigest(), length


class FloodingDaemon(FakeConsole):
    """The daemon's side of one session, at a console that prints more than is read."""

    def __init__(self) -> None:
        super().__init__("daemon")
        self._admission = threading.Thread(target=self._admit)
        self._admission.start()

    def _admit(self) -> None:
        self.accept()
        self.expect(b"\n")
        self.send(OFFERS)

    @contextlib.contextmanager
    def flooding(self):
        """Print it all meanwhile; at the start, the client takes nothing more."""
        self._admission.join()
        printer = threading.Thread(target=self._print)
        printer.start()
        try:
            wait_until(lambda: nothing_is_taken(self.socket), what="the client to be full")
            yield
        finally:
            printer.join()

    def _print(self) -> None:
        block = BLOCK.replace(b"\xff", b"\xff\xff")
        with contextlib.suppress(OSError):  # the client has been ended
            for gap in gaps():
                self.send(block + gap)


def shown_of(descriptor: int, length: int) -> str:
    """The digest of this many bytes that the client shows."""
    digest = hashlib.sha256()
    while length > 0:
        assert select.select([descriptor], [], [], stretched(LIMIT))[0], f"{length} bytes missing"
        taken = os.read(descriptor, min(length, 65536))
        assert taken, f"the end, with {length} bytes missing"
        digest.update(taken)
        length -= len(taken)
    return digest.hexdigest()


def test_a_hundred_megabytes_and_gaps_are_shown_on_a_terminal():
    digest, length = flooded_output()
    with FloodingDaemon() as daemon, Terminal(daemon, "attach", "box") as person:
        greeted(person.child)
        with daemon.flooding():
            assert shown_of(person.child.child_fd, length) == digest
        assert_small(person.child.pid)
        person.type("typed")
        daemon.expect_exactly(b"typed")
        leave(person)
        daemon.expect_exactly(b"\r")
        daemon.expect_closed()


def test_a_hundred_megabytes_and_gaps_pass_through_a_pipe():
    digest, length = flooded_output()
    with FloodingDaemon() as daemon, piped(daemon) as client:
        with daemon.flooding():
            assert shown_of(client.stdout.fileno(), length) == digest
        assert_small(client.pid)
        client.stdin.write(b"typed")
        client.stdin.close()
        daemon.expect_exactly(b"typed")
        assert client.stdout.read() == b""
        assert client.stderr.read() == b"Left box.\n"
        assert client.wait(stretched(LIMIT)) == OK


def test_a_terminal_is_left_in_the_middle_of_a_flood():
    with FloodingDaemon() as daemon, Terminal(daemon, "attach", "box") as person:
        before = fresh_modes()
        greeted(person.child)
        with daemon.flooding():
            shown_of(person.child.child_fd, 10 * len(BLOCK))
            person.type("\r~.")
            wait_until(lambda: not person.child.isalive(), what="the client to end")
        assert person.child.exitstatus == OK
        assert modes_of(person.child) == before


# Refusals


def test_an_unknown_name_is_refused(station, box):
    refuse(station, NO_SUCH_CONSOLE, NOT_FOUND, "attach", "lathe")
    refuse(station, NO_SUCH_CONSOLE, NOT_FOUND, "attach", "lathe", "--retry")


def test_consoles_that_are_not_connected_are_refused(station):
    station.console("dead", listening=False)
    station.console("off", enable=0, listening=False)
    station.start()
    refuse(station, NOT_ACCESSIBLE, INACCESSIBLE, "attach", "dead")
    refuse(station, NOT_ACCESSIBLE, DISABLED, "attach", "off")


@pytest.mark.parametrize("held, wanted, message", [
    ("ex", "sh", "006 - Console is locked exclusively. Here: HOLDER. Watch it with --mode ro, or "
                 "wait; OTHERS"),
    ("sh", "ex", "007 - Cannot grant exclusive access. Console in use. Here: HOLDER. Ask for "
                 "--mode sh, or wait; OTHERS"),
    ("sh", "er", "007 - Cannot grant exclusive access. Console in use. Here: HOLDER. Ask for "
                 "--mode sh, or wait; OTHERS"),
])
def test_consoles_that_somebody_holds_are_refused(station, box, held, wanted, message):
    station.attach("box", held, user="bob")
    station.attach("box", "ro", user="eve")
    words_for_it = {"ex": "exclusive", "sh": "shared"}[held]
    for name, value in {
            "HOLDER": f"bob ({words_for_it}, from 127.0.0.1, since TIME)",
            "OTHERS": '"zevctl msg box TEXT" asks them, "zevctl clear box" cuts everybody off.',
    }.items():
        message = message.replace(name, value)
    for more in ((), ("--retry",)):
        done = run(station, "attach", "box", "--mode", wanted, *more)
        assert (done.returncode, done.stdout) == (IN_USE, "")
        told = re.sub(r"(?<=since )(\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d", "TIME", done.stderr)
        assert told == f"zevctl: refused: {message}\n"


def test_a_missing_daemon_is_reported():
    port = free_port()
    refuse(None, NO_DAEMON,
           f"no daemon answers at 127.0.0.1 port {port}: Connection refused. Is zevd running? See "
           "--host and --port.", "--port", str(port), "attach", "box")


@pytest.mark.parametrize("arguments, message", [
    ((), "NAME is required"),
    (("a b",), "NAME: must be one word, without blanks"),
    (("",), "NAME: must be one word, without blanks"),
    (("@@@@",), "NAME: is not the name of a console"),
    (("n" * 65,), "NAME: is too long for the name of a console"),
    (("box", "--mode", "EX"), "--mode: EX not in {ro,sh,ex,er}"),
    (("box", "--escape", "~~"),
     '--escape: must be one printable character, ^ and a letter, or "none"'),
    (("box", "--escape", "."), "--escape: has another meaning already"),
])
def test_mistakes_in_the_command_line_are_reported(arguments, message):
    done = run(None, "attach", *arguments)
    assert (done.returncode, done.stdout) == (USAGE, "")
    assert done.stderr == f'zevctl: {message}; "zevctl attach --help" shows what there is\n'


# With security


@pytest.fixture
def hall(station):
    """A station that wants a login; root's password is "secret"."""
    station.helper = FakeHelper(station)
    station.helper.accept(b"root", b"secret")
    station.box = station.console("box")
    bring_up(station, station.box, options=("-S", "1"))
    return station


def answer(person: Terminal, name: str, password: str, offered: str = "root") -> bytes:
    """Give a name and a password when asked; return what the screen showed meanwhile."""
    shown = person.expect(f"User name [{offered}]: ")
    person.type(name + "\r")
    shown += person.expect("Password: ")
    person.type(password + "\r")
    return shown


def test_the_cookie_is_enough(hall):
    with seated(hall) as person:
        person.type("x")
        hall.box.expect_exactly(b"x")
    assert hall.helper.pairs() == []


def test_without_the_cookie_a_name_and_password_are_needed(hall):
    (hall.config / ".cookie").unlink()
    with Terminal(hall, "attach", "box", "--user", "ann") as person:
        before = fresh_modes()
        shown = answer(person, "root", "secret", offered="ann")
        shown += greeted(person.child)
        assert b"secret" not in shown
        person.type("x")
        hall.box.expect_exactly(b"x")
        leave(person)
        assert modes_of(person.child) == before
    # The command port is asked who else is here, and has a login of its own.
    assert set(hall.helper.pairs()) == {b"root secret"}


def test_three_wrong_passwords_end_the_session(hall):
    (hall.config / ".cookie").unlink()
    with Terminal(hall, "attach", "box") as person:
        before = fresh_modes()
        for number in range(3):
            shown = answer(person, "root", f"guess{number}")
            assert b"guess" not in shown
            if number < 2:
                person.expect("zevctl: Name or password is wrong. Try again.\r\n")
        person.expect("zevctl: refused: 001 - Authentication failed. Try again with the name and "
                      "password that you have there.\r\n")
        person.expect_end(NOT_ADMITTED)
        assert modes_of(person.child) == before
    assert hall.helper.pairs() == [b"root guess%d" % number for number in range(3)]


# Retrying


def restart(station, console, *options: str) -> None:
    """End the daemon and start another one on the same port, with the console connected."""
    station.stop()
    second = int(time.time())  # the client knows in which one a daemon was started, no more
    wait_until(lambda: int(time.time()) > second, what="the next second")
    position = station.mark()
    station.start("-p", str(station.port), *options)
    console.accept()
    station.wait_connected("box", after=position)


def retrying(person: Terminal, reason: str) -> None:
    """The client says why it is waiting, and that it will try again."""
    person.expect(f"zevctl: {reason}\r\n{TRYING}")


def test_retry_waits_for_a_console_that_comes_back(station, box):
    with seated(station, "--retry") as person:
        box.send(b"going\r\n")
        person.expect("going\r\n")
        box.close()
        retrying(person, CONSOLE_LOST)
        person.type("unheard\r")
        box.accept()
        greeted(person.child)
        person.type("heard\r")
        box.expect_exactly(b"heard\r")
        leave(person)


def test_retry_survives_a_restart_of_the_daemon(station, box):
    with seated(station, "--retry") as person:
        before = station.port
        restart(station, box)
        assert station.port == before
        retrying(person, DAEMON_ENDED)
        greeted(person.child)
        leave(person)


def test_retry_keeps_the_name_and_the_password(hall):
    (hall.config / ".cookie").unlink()
    with Terminal(hall, "attach", "box", "--retry") as person:
        answer(person, "root", "secret")
        greeted(person.child)
        hall.stop()
        retrying(person, DAEMON_ENDED)
        person.expect(f"zevctl: no daemon answers at 127.0.0.1 port {hall.port}: ")
        hall.start("-S", "1", "-p", str(hall.port))
        (hall.config / ".cookie").unlink()
        hall.box.accept()
        shown = greeted(person.child)
        assert b"assword" not in shown
        leave(person)


def test_retry_may_begin_without_console_or_daemon(station):
    """First the console is missing, then the daemon; then both are there."""
    box = station.console("box", listening=False)
    station.start()
    with Terminal(station, "attach", "box", "--retry") as person:
        retrying(person, INACCESSIBLE)
        box.listen()
        restart(station, box)
        shown = greeted(person.child)
        assert TRYING.encode() not in shown
        leave(person)


def test_retry_waits_for_a_disabled_console(station, box):
    with seated(station, "--retry") as person:
        tool = Tool(station)
        assert tool.command("disable box").type == DONE
        person.expect("Console has been disabled by op@127.0.0.1")
        retrying(person, OP_DISABLED)
        person.expect(f"zevctl: {DISABLED}\r\n")
        box.expect_closed()
        assert tool.command("enable box").type == DONE
        box.accept()
        greeted(person.child)
        leave(person)


@pytest.mark.parametrize("mode", ["sh", "er"])
def test_retry_does_not_undo_what_somebody_did(station, box, mode):
    greeting = ATTACHED.replace("shared", "exclusive-revoke") if mode == "er" else ATTACHED
    with seated(station, "--retry", "--mode", mode, greeting=greeting) as person:
        if mode == "er":
            station.attach("box", user="bob")
            person.expect(terminated_by("bob"))
            person.expect(f"zevctl: {TAKEN_OVER}\r\n")
        else:
            assert Tool(station).command("clear box").type == DONE
            person.expect(terminated_by("op"))
            person.expect(f"zevctl: {CLEARED}\r\n")
        person.expect_end(SESSION_ENDED)


def test_a_holder_is_told_who_cleared_the_console(station, box):
    greeting = ATTACHED.replace("shared", "exclusive-revoke")
    with seated(station, "--mode", "er", greeting=greeting) as person:
        end_by_clearing(station, box, person)


def test_retry_ends_when_the_console_is_gone_for_good(station, box):
    with seated(station, "--retry") as person:
        station.write_config("")
        station.signal(signal.SIGHUP)
        retrying(person, TAKEN_OUT)
        # The daemon knows the console for a moment longer.
        gone = {f"zevctl: {DELETED}\r\n": NOT_ACCESSIBLE,
                f"zevctl: {NO_LONGER_FOUND}\r\n": NO_SUCH_CONSOLE}
        found = person.child.expect_exact(list(gone), timeout=stretched(LIMIT))
        person.expect_end(list(gone.values())[found])


def test_the_interrupt_key_ends_retrying(station):
    station.console("box", listening=False)
    station.start()
    with Terminal(station, "attach", "box", "--retry") as person:
        before = fresh_modes()
        retrying(person, INACCESSIBLE)
        assert modes_of(person.child) == before
        person.type("\x03")
        expect_signal(person, signal.SIGINT)
        assert modes_of(person.child) == before
