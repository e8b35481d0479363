"""Real programs at both ends: a shell on a terminal, a telnet server, the telnet client."""

import contextlib
import re
from collections.abc import Iterator

import pytest

from harness.consoles import ShellConsole, TelnetServerConsole
from harness.peers import OFFERS, User
from harness.scenes import removal
from harness.telnet import TelnetUser
from harness.waiting import free_port, wait_listening, wait_until

# The client's last answer: it asks the other end to suppress go-ahead, or offers its window size.
ANSWER = re.compile(r">: ProcessUserInput: Received ->[^\n]*\xff(\xfd\x03|\xfb\x1f)")


@pytest.fixture
def shell(station):
    """A station whose console "shell" is a shell on a terminal of its own."""
    with ShellConsole() as console:
        console.mapped_port = free_port()
        station.console_line("shell", console.port, mapped_port=console.mapped_port)
        station.start()
        station.wait_connected("shell")
        yield console


@pytest.fixture
def server(station):
    """A station whose console "server" is a shell behind a telnet server."""
    with TelnetServerConsole() as console:
        station.console_line("server", console.port)
        station.start()
        station.wait_connected("server")
        yield console


def sit_down(station, person, line: str) -> None:
    """Type the line that leads to a console, and wait until the client works key by key.

    It does so once it has answered the daemon's offers. A plain terminal takes the answers as
    keys, the last one as the interrupt key; so nothing is typed before they have arrived.
    """
    position = station.mark()
    person.type(line + "\r")
    wait_until(lambda: ANSWER.search(station.log_text(position)), what="the client's answers")
    person.type("\r")
    person.expect("# ")


@contextlib.contextmanager
def seated(station, line: str, port: int | None = None) -> Iterator[TelnetUser]:
    """A person with a telnet client who has sat down at a console."""
    with station.telnet(port) as person:
        sit_down(station, person, line)
        yield person


def type_command(user, number: int) -> None:
    """Type a command and see its answer, which is not part of the text typed."""
    user.type(f"echo the answer is $((6 * {number}))\r")
    user.expect(f"the answer is {6 * number}\r\n")


def negotiation_of(server: TelnetServerConsole) -> bytes:
    """What the server sends to each caller before any text."""
    with User.connect(server.port) as caller:
        return re.match(rb"(?:\xff[\xfb-\xfe].)*", caller.expect(b"# "), re.DOTALL)[0]


# A shell on a terminal


@pytest.mark.usefixtures("shell")
def test_a_person_with_a_telnet_client_uses_a_shell(station):
    with seated(station, "shell user=ann") as person:
        type_command(person, 7)
        person.type("tty\r")
        person.expect(re.compile(rb"/dev/pts/\d+"))
        type_command(person, 8)


def test_a_person_uses_a_shell_through_a_mapped_port(station, shell):
    wait_listening(shell.mapped_port)
    with seated(station, "", shell.mapped_port) as person:
        type_command(person, 7)


@pytest.mark.usefixtures("shell")
def test_two_people_share_a_shell(station):
    with station.telnet() as ann, station.telnet() as bob:
        sit_down(station, ann, "shell user=ann")
        type_command(ann, 7)
        bob.attach("shell", "user=bob", "mode=ro")
        station.wait_log('ConnectUserToConsole: Connected user "bob" to console "shell" with '
                         "mode = read-only.")
        ann.type("echo both see $((1000 + 1))\r")
        for person in (ann, bob):
            person.expect("both see 1001\r\n")
        position = station.mark()
        bob.type("u")
        station.wait_log("ProcessUserInput: Received ->u<- (1 bytes)", after=position)
        ann.type("echo only $((1000 + 2))\r")
        assert b"uecho" not in bob.expect("only 1002\r\n")


@pytest.mark.usefixtures("shell")
def test_a_person_interrupts_a_command(station):
    with seated(station, "shell") as person:
        type_command(person, 7)
        # Its word shows that the shell has handed the terminal to the command.
        person.type("sh -c 'echo re\"\"ady; exec sleep 1000'\r")
        person.expect("ready\r\n")
        person.type("\x03")
        type_command(person, 8)


@pytest.mark.usefixtures("shell")
def test_a_person_leaves_and_finds_the_shell_as_it_was(station):
    with seated(station, "shell user=ann") as person:
        type_command(person, 7)
        person.type("memory=kept\r")
        person.expect("memory=kept\r\n")  # telnet keeps to itself what it has not sent by then
        person.type("\x1d")
        person.expect("telnet> ")
        person.type("quit\r")
        person.expect("Connection closed.")
        station.wait_log(removal("ann", "shell"))
    with seated(station, "shell") as person:
        person.type("echo it is $memory\r")
        person.expect("it is kept\r\n")


@pytest.mark.usefixtures("shell")
def test_when_the_shell_ends_its_users_are_closed_and_a_new_one_starts(station):
    with seated(station, "shell") as person:
        type_command(person, 7)
        person.type("exit\r")
        person.expect_closed()
    station.wait_log("AddConsoleToList: Added console shell to a_cons_list.", count=2)
    with seated(station, "shell") as person:
        type_command(person, 8)


# A telnet server


def test_every_user_gets_the_negotiation_of_a_telnet_server(station, server):
    negotiation = negotiation_of(server)
    assert len(negotiation) >= 6
    for _ in range(2):
        user = station.ask("server", mode="ro")
        user.expect_exactly(negotiation + OFFERS)


def test_a_person_uses_a_telnet_server(station, server):
    with seated(station, "server") as person:
        type_command(person, 7)
        type_command(person, 8)


def test_a_telnet_server_called_again_negotiates_again(station, server):
    negotiation = negotiation_of(server)
    with seated(station, "server") as person:
        person.type("exit\r")
        person.expect_closed()
    station.wait_log("AddConsoleToList: Added console server to a_cons_list.", count=2)
    station.ask("server", mode="ro").expect_exactly(negotiation + OFFERS)
    with seated(station, "server") as person:
        type_command(person, 8)
