"""zevctl's question for a password: the terminal is restored whatever happens, and no copy of what
was typed is left."""

import os
import signal
import termios

import pexpect
import pytest

from harness import zevctl
from harness.access import bring_up
from harness.helpers import FakeHelper
from harness.memory import copies
from harness.terminals import close_terminal
from harness.waiting import LIMIT, stretched, wait_until
from harness.zevctl import Terminal

PASSWORD = "correct horse battery staple"
NAME_QUESTION = "User name [root]: "
QUESTION = "Password: "


@pytest.fixture
def hall(station):
    """A station that wants a login, and no cookie."""
    station.helper = FakeHelper(station)
    station.helper.accept(b"root", PASSWORD.encode())
    station.box = station.console("box")
    bring_up(station, station.box, options=("-S", "1"))
    (station.config / ".cookie").unlink()
    return station


def modes(child: pexpect.spawn) -> list:
    return termios.tcgetattr(child.child_fd)


def shows_typing(child: pexpect.spawn) -> bool:
    return bool(modes(child)[3] & termios.ECHO)


def asked(person: Terminal) -> list:
    """Go on to the question for the password; return the terminal's modes from before it."""
    person.expect(NAME_QUESTION)
    before = modes(person.child)
    person.type("\r")
    person.expect(QUESTION)
    wait_until(lambda: not shows_typing(person.child), what="the typing to be hidden")
    return before


def ended_by(person: Terminal) -> int | None:
    """Wait until the client ends; return the signal that ended it."""
    person.child.expect(pexpect.EOF, timeout=stretched(LIMIT))
    person.child.wait()
    return person.child.signalstatus


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGHUP, signal.SIGINT, signal.SIGQUIT])
def test_a_signal_restores_the_terminal(hall, number):
    with Terminal(hall, "list") as person:
        before = asked(person)
        person.type(PASSWORD)
        os.kill(person.child.pid, number)
        assert ended_by(person) == number
        assert modes(person.child) == before


@pytest.mark.parametrize("key, number", [("\x03", signal.SIGINT), ("\x1c", signal.SIGQUIT)])
def test_a_key_restores_the_terminal(hall, key, number):
    with Terminal(hall, "list") as person:
        before = asked(person)
        person.type(PASSWORD + key)
        assert ended_by(person) == number
        assert modes(person.child) == before


def test_a_signal_that_was_ignored_from_the_start_is_ignored(hall):
    """As under nohup."""
    program = f"trap '' HUP; exec {zevctl.PROGRAM} --port {hall.port} list"
    child = pexpect.spawn("sh", ["-c", program], timeout=stretched(LIMIT),
                          env=zevctl.environment())
    child.delaybeforesend = None
    child.expect_exact(NAME_QUESTION)
    child.send("\r")
    child.expect_exact(QUESTION)
    os.kill(child.pid, signal.SIGHUP)
    child.send(PASSWORD + "\r")
    child.expect_exact("NAME ")
    close_terminal(child)


def test_the_end_of_the_input_restores_the_terminal(hall):
    with Terminal(hall, "list") as person:
        before = asked(person)
        person.type("\x04")
        shown = person.expect_end(zevctl.NOT_ADMITTED)
        assert b"zevctl: no password was given; try again and type it\r\n" in shown
        assert modes(person.child) == before


def test_a_stop_restores_the_terminal_and_the_question_comes_again(hall):
    """The client is stopped by its key and continued by a shell with job control."""
    child = pexpect.spawn("bash", ["--norc", "--noprofile", "-i"], timeout=stretched(LIMIT),
                          env=zevctl.environment(PS1="ready> ", TERM="dumb"), dimensions=(24, 200))
    child.delaybeforesend = None
    child.expect_exact("ready> ")
    child.send(f"{zevctl.PROGRAM} --port {hall.port} list\r")
    child.expect_exact(NAME_QUESTION)
    child.send("\r")
    child.expect_exact(QUESTION)
    child.send("some of it\x1a")
    child.expect_exact("Stopped")
    child.expect_exact("ready> ")
    child.send("stty -a; echo done-$((1 + 1))\r")
    child.expect_exact("done-2")
    assert b" echo " in child.before and b"-echo " not in child.before
    child.expect_exact("ready> ")
    child.send("fg\r")
    child.expect_exact(QUESTION)
    wait_until(lambda: not shows_typing(child), what="the typing to be hidden")
    child.send(PASSWORD + "\r")
    child.expect_exact("NAME ")
    assert PASSWORD.encode() not in child.before
    close_terminal(child)


def test_the_typing_is_hidden_again_after_a_stop(hall):
    """SIGSTOP cannot be caught: the question comes again, and hides what is typed."""
    with Terminal(hall, "list") as person:
        asked(person)
        os.kill(person.child.pid, signal.SIGSTOP)
        changed = modes(person.child)
        changed[3] |= termios.ECHO
        termios.tcsetattr(person.child.child_fd, termios.TCSANOW, changed)
        os.kill(person.child.pid, signal.SIGCONT)
        person.expect(QUESTION)
        wait_until(lambda: not shows_typing(person.child), what="the typing to be hidden")
        person.type(PASSWORD + "\r")
        assert PASSWORD.encode() not in person.expect("NAME ")
        person.expect_end(zevctl.OK)


def test_a_stop_without_a_shell_changes_nothing(hall):
    """Nobody could continue it, so the system does not stop it."""
    with Terminal(hall, "list") as person:
        asked(person)
        os.kill(person.child.pid, signal.SIGTSTP)
        person.expect(QUESTION)
        person.type(PASSWORD + "\r")
        person.expect("NAME ")
        person.expect_end(zevctl.OK)


# The allocator overwrites the first bytes of freed memory, so the end of a password is looked for.
# The cases have names, because pytest would put the passwords in the client's environment.
LENGTHS = pytest.mark.parametrize("password", ["short 1", "0123456789abcdef" * 2 + "of some length",
                                               "0123456789abcdef" * 14 + "very long"],
                                  ids=["short", "longer", "long"])


def ends(person: Terminal, password: str) -> int:
    """How often the end of the password is in the client's memory."""
    return copies(person.child.pid, password[-14:].encode())


@LENGTHS
def test_a_password_is_in_memory_once(hall, password):
    """It is kept for further connections of this run; every other copy is wiped."""
    hall.helper.accept(b"root", password.encode())
    with Terminal(hall, "attach", "box") as person:
        asked(person)
        person.type(password + "\r")
        person.expect("Attached to box")
        assert ends(person, password) == 1


@LENGTHS
def test_a_wrong_password_is_nowhere_in_memory(hall, password):
    with Terminal(hall, "attach", "box") as person:
        asked(person)
        person.type(password + "\r")
        person.expect("zevctl: Name or password is wrong. Try again.\r\n")
        person.expect(NAME_QUESTION)
        assert ends(person, password) == 0
