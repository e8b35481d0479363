"""The client's sessions among other people: who is here, who comes and goes, changes of the mode,
taking over; and by which names a console is found."""

import re

import pytest

# `box` is a fixture.
from harness.access import box, bring_up, terminated_by
from harness.commands import Tool
from harness.consoles import FakeConsole, Ser2netConsole
from harness.peers import OFFERS
from harness.scenes import attach_when_accessible, print_and_wait
from harness.seats import ATTACHED, LEFT, greeted, leave, seated
from harness.waiting import LIMIT, stretched, wait_until
from harness.zevctl import NO_SUCH_CONSOLE, OK, Terminal, refuse, run, start

SINCE = r"since (\d{4}-\d\d-\d\d )?\d\d:\d\d:\d\d"
MODES = {"ro": "read-only", "sh": "shared", "ex": "exclusive", "er": "exclusive-revoke"}
KEYS = ("Press r for read-only, s for shared, x for exclusive, e for exclusive until the next user "
        "comes; any other key changes nothing.")
WATCHING = ATTACHED.replace("shared", "read-only, what you type is not sent")


def told(person: Terminal, pattern: str) -> None:
    """Wait for a line of the client's own that matches the pattern."""
    person.child.expect(rf"(^|\n)zevctl: {pattern}\r\n".encode(), timeout=stretched(LIMIT))


def here(name: str, mode: str) -> str:
    """A pattern for how somebody is described."""
    return rf"{name} \({mode}, from 127\.0\.0\.1, {SINCE}\)"


def changed(person: Terminal, mode: str) -> None:
    """Wait until the person is attached again, in this mode."""
    person.expect(f"zevctl: Left box to attach again, now {mode}.\r\n")
    greeted(person.child, ATTACHED.replace("shared", mode))


def modes_at_box(station) -> list[tuple[str, str]]:
    """Who is at the console, and in which mode."""
    return [(record[0], record[2]) for record in Tool(station).command("who box").records]


# The greeting


def test_the_greeting_stands_below_the_replay_and_tells_its_age(station):
    console = station.console("box")
    bring_up(station, console, options=("-B", "100"))
    print_and_wait(station, console, b"\r\nlogin: ")
    with Terminal(station, "attach", "box") as person:
        person.expect("ready\r\nlogin: \r\nzevctl: Attached to box (shared), which last printed "
                      "something just now. Type ~. at the start of a line to leave, ~? for "
                      "help.\r\n")


def test_a_console_that_never_pauses_does_not_keep_the_greeting_away(station, box):
    with Terminal(station, "attach", "box") as person:
        shown = False
        while not shown:
            box.send(b"tick\r\n")
            shown = person.child.expect_exact(["tick\r\n", "zevctl: Attached to box (shared)"],
                                              timeout=stretched(LIMIT))


def test_over_ssh_the_escape_is_typed_twice(station, box):
    with Terminal(station, "attach", "box",
                  env={"SSH_CONNECTION": "10.0.0.1 40000 10.0.0.2 22"}) as person:
        greeted(person.child, ATTACHED.replace("~.", "~~.").replace("~?", "~~?"))
        person.type("~?")
        person.expect("\r\n  ~~.   leave the console\r\n")
        person.expect("\r\n  ~~~~  send ~ itself\r\n")
        person.type("~.")  # what is left of it behind the client of ssh
        person.expect_end(OK)


# Who is here


def test_those_who_are_here_are_named_at_the_start(station, box):
    station.attach("box", "ro", user="bob")
    station.attach("box", user="eve")
    with seated(station) as person:
        told(person, rf"Also here: {here('bob', 'read-only')} and {here('eve', 'shared')}\.")
        leave(person)


def test_those_who_come_and_go_are_told(station, box):
    with seated(station) as person:
        bob = station.attach("box", "ro", user="bob")
        told(person, rf"{here('bob', 'read-only')} has joined\.")
        box.send(b"login: ")
        person.expect("login: ")
        bob.close()
        assert person.expect("zevctl: bob has left.\r\n") == b"\r\n"
        leave(person)


def test_nobody_is_told_to_a_pipe(station, box):
    with seated(station) as person:
        client = start(station, "attach", "box", "--user", "piped", stdin=-1)
        try:
            told(person, rf"{here('piped', 'shared')} has joined\.")
            station.attach("box", "ro", user="bob")
            told(person, rf"{here('bob', 'read-only')} has joined\.")
            box.send(b"all there is\r\n")
            person.expect("all there is\r\n")
            out, err = client.communicate(b"", timeout=stretched(LIMIT))
        finally:
            client.kill()
            client.wait()
        assert (out, err) == (b"all there is\r\n", b"Attached to box (shared).\nLeft box.\n")
        leave(person)


def test_the_escape_w_tells_who_is_here(station, box):
    with seated(station) as person:
        person.type("~w")
        told(person, r"At box: you \(shared\), and nobody else\.")
        station.attach("box", "ro", user="bob")
        person.type("~w")
        told(person, rf"At box: you \(shared\)\r\n  {here('bob', 'read-only')}")
        leave(person)


def test_a_session_goes_on_when_the_command_port_refuses(station):
    """The second connection gets a refusal; then a third one, that the escape makes."""
    with FakeConsole("daemon") as daemon, Terminal(daemon, "attach", "box") as person:
        session = daemon.take()
        assert session.recv(100) == b"box mode=sh user=root\n"
        session.sendall(OFFERS + b"shown")
        for keys in ("", "~w"):
            person.type(keys)
            with daemon.take() as port:
                assert port.recv(100).startswith(b"@@@@ user=root\n")
                port.sendall(b"016 - Too many pending client connections.\r\n")
            if not keys:
                assert greeted(person.child) == b"shown\r\n"
        told(person, r'The daemon does not tell who is here; "zevctl who box" asks it again\.')
        person.type("x")
        assert session.recv(10) == b"x"
        person.type("\r~.")
        person.expect(LEFT)
        session.close()


# Changing the mode


def test_the_mode_can_be_changed(station, box):
    with seated(station, "--user", "ann") as person:
        for key, mode, code in [("x", "exclusive", "3"), ("e", "exclusive-revoke", "4"),
                                ("s", "shared", "2")]:
            person.type("~m")
            person.expect(KEYS + "\r\n")
            person.type(key)
            changed(person, mode)
            assert modes_at_box(station) == [("ann", code)]
            person.type("typed\r")
            box.expect_exactly(b"typed\r")
        leave(person)


@pytest.mark.parametrize("key", ["s", "q", "\r"])
def test_another_key_keeps_the_mode(station, box, key):
    with seated(station) as person:
        person.type("~m" + key)
        person.expect("zevctl: The mode stays shared.\r\n")
        person.type("x")
        box.expect_exactly(b"x")
        leave(person)


def test_a_refused_mode_leads_back_to_the_old_one(station, box):
    bob = station.attach("box", user="bob")
    with seated(station, "--user", "ann") as person:
        person.type("~mx")
        told(person, "Left box to attach again, now exclusive\\.")
        told(person, r"refused: 007 - Cannot grant exclusive access\. Console in use\. Here: "
                     rf"{here('bob', 'shared')}\. Ask for --mode sh, [^\n]*")
        told(person, r"Attaching again as before, shared\.")
        greeted(person.child)
        assert modes_at_box(station) == [("bob", "2"), ("ann", "2")]
        person.type("x")
        box.expect_exactly(b"x")
        leave(person)
    bob.send(b"still here")
    box.expect(b"still here")


# Taking over


def ask_for_it(person: Terminal, cut_off: str) -> None:
    """Begin to take the console over; the question names those who are cut off."""
    person.type("~l")
    told(person, rf"Take box over\? This cuts off {cut_off}\. Press y to do it; any other key "
                 r"changes nothing\.")


def test_a_console_can_be_taken_over(station, box):
    bob, eve = station.attach("box", "ex", user="bob"), station.attach("box", "ro", user="eve")
    with seated(station, "--mode", "ro", "--user", "ann", greeting=WATCHING) as person:
        ask_for_it(person, f"{here('bob', 'exclusive')} and {here('eve', 'read-only')}")
        person.type("n")
        person.expect("zevctl: Nobody was cut off.\r\n")
        bob.send(b"mine")
        box.expect_exactly(b"mine")
        ask_for_it(person, f"{here('bob', 'exclusive')} and {here('eve', 'read-only')}")
        person.type("y")
        for user in (bob, eve):
            user.expect(terminated_by("ann"))
            user.expect_closed()
        changed(person, "exclusive-revoke")
        assert modes_at_box(station) == [("ann", "4")]
        person.type("x")
        box.expect_exactly(b"x")
        leave(person)


def test_a_holder_who_lets_it_is_cut_off_alone(station, box):
    bob, eve = station.attach("box", "er", user="bob"), station.attach("box", "ro", user="eve")
    with seated(station, "--mode", "ro", "--user", "ann", greeting=WATCHING) as person:
        ask_for_it(person, here("bob", "exclusive-revoke"))
        person.type("y")
        bob.expect(terminated_by("ann"))
        bob.expect_closed()
        changed(person, "exclusive-revoke")
        assert modes_at_box(station) == [("eve", "1"), ("ann", "4")]
        leave(person)
    box.send(b"seen")
    eve.expect(b"seen")


def test_nothing_is_taken_over_where_nobody_else_can_type(station, box):
    station.attach("box", "ro", user="eve")
    with seated(station) as person:
        person.type("~l")
        told(person, "Nobody else can type here, so there is nothing to take over; ~m changes the "
                     "mode\\.")
        person.type("y")
        box.expect_exactly(b"y")


# Recent output


def test_recent_output_is_shown_again(station, box):
    with seated(station) as person:
        person.type("~r")
        person.expect('zevctl: Nothing has been printed since you attached; "zevctl log box" shows '
                      "what was before.\r\n")
        box.send(b"first\r\nsecond\r\n# ")
        person.expect("# ")
        person.type("~r")
        person.expect("\r\nzevctl: What was printed last:\r\nfirst\r\nsecond\r\n# \r\n"
                      "zevctl: That was printed before; what follows is new.\r\n")
        leave(person)


# Binary mode


@pytest.mark.parametrize("offers, answers", [
    (b"\xff\xfb\x03\xff\xfd\0\xff\xfb\0", b"\xff\xfd\x03\xff\xfb\0"),
    (b"\xff\xfb\0\xff\xfd\0\xff\xfb\x03", b"\xff\xfd\0\xff\xfb\0"),
    (b"\xff\xfd\0", b"\xff\xfb\0"),
])
def test_enter_is_a_carriage_return_alone_where_binary_mode_is_asked_for(station, offers, answers):
    console = station.console("box", greeting=offers + b"ready")
    bring_up(station, console)
    with seated(station) as person:
        console.expect_exactly(answers)
        person.type("x\ry\r")
        console.expect_exactly(b"x\ry\r")
        leave(person)


@pytest.mark.needs_namespace
def test_enter_is_a_carriage_return_alone_at_a_real_terminal_server(station):
    """What is typed comes back byte by byte, from a program without a terminal."""
    with Ser2netConsole() as server:
        station.console_line("server", server.port)
        station.start()
        station.wait_connected("server")
        with seated(station, console="server",
                    greeting=ATTACHED.replace("box", "server")) as person:
            person.type("one\rtwo\rend")
            assert person.expect("end") == b"one\rtwo\r"


# Names


@pytest.fixture
def rack(station):
    """A station with some consoles, of which two are connected."""
    consoles = [station.console(name) for name in ("Rack7-db1", "box")]
    for name in ("rack7-web1", "rack7-web2"):
        station.console(name, listening=False)
    bring_up(station, *consoles)
    return station


@pytest.mark.parametrize("typed", ["rack7-DB1", "rack7-d", "*db*", "rack7_db1", "?ack7-db[0-9]"])
def test_a_console_is_found_by_what_is_clear(rack, typed):
    done = run(rack, "attach", typed)
    assert (done.returncode, done.stderr) == (OK, "Attached to Rack7-db1 (shared).\n"
                                                  "Left Rack7-db1.\n")


@pytest.mark.parametrize("typed, message", [
    ("rack7", '"rack7" may mean Rack7-db1, rack7-web1, rack7-web2; type more of the name'),
    ("*web*", '"*web*" may mean rack7-web1, rack7-web2; type more of the name'),
    ("bix", 'no console is named "bix"; did you mean box? "zevctl list" shows the names'),
])
def test_what_is_not_clear_is_refused(rack, typed, message):
    refuse(rack, NO_SUCH_CONSOLE, message, "attach", typed)
