"""Strangers' text on an operator's screen: zevctl shows it, and it cannot control the terminal."""

import json
import socket
import struct

import pytest

from harness import zevctl
from harness.impostors import FakeDaemon, console_record
from harness.waiting import wait_until
from harness.zevctl import Terminal

# A window title, a screen cleared by eight-bit controls, bare and in UTF-8, direction marks, line
# and paragraph separators, and letters that are harmless.
HOSTILE = (b"\x1b]0;x\x07\x9b2J\xc2\x9b2J\x7f"
           + "a\u202eb\u2066c\u2069d\u200fe\u061cf\u2028g\u2029h\u200eiü€😀".encode())
SHOWN = "?]0;x??2J?2J?a?b?c?d?e?f?g?h?iü€😀"

# The same in JSON: bytes that are not UTF-8 have become U+FFFD.
DATA = HOSTILE.decode(errors="replace")

HARMFUL = [*range(0x20), *range(0x7F, 0xA0), 0x61C, 0x200E, 0x200F, *range(0x2028, 0x202F),
           *range(0x2066, 0x206A)]


def assert_harmless(shown: str) -> None:
    """It holds no control but line ends and the client's own colours."""
    for colour in ("\x1b[32m", "\x1b[31m", "\x1b[33m", "\x1b[2m", "\x1b[0m"):
        shown = shown.replace(colour, "")
    assert not set(shown.replace("\r\n", "")) & {chr(code) for code in HARMFUL}, shown


def on_terminal(station, status: int, *arguments: str) -> str:
    """What the client shows on a terminal until it ends with this status."""
    with Terminal(station, *arguments, columns=200) as terminal:
        shown = terminal.expect_end(status).decode()
    assert_harmless(shown)
    return shown


def test_a_refusal_is_shown_harmlessly():
    with FakeDaemon(opening=b"002 - " + HOSTILE + b"\r\n") as daemon:
        shown = on_terminal(daemon, zevctl.REFUSED, "attach", "box")
    assert shown == (f"zevctl: refused: 002 - {SHOWN} Look for odd characters in the names that "
                     "you gave.\r\n")


def test_an_error_that_ends_a_command_is_shown_harmlessly():
    with FakeDaemon(console=HOSTILE) as daemon:
        shown = on_terminal(daemon, zevctl.FAILED, "list")
    assert shown == f"zevctl: {SHOWN}\r\n"


@pytest.mark.parametrize("command", ["enable", "holder"])
def test_an_error_of_one_console_is_shown_harmlessly(command):
    answers = {"console": [console_record(b"box")], "enable": HOSTILE, "portholder": HOSTILE}
    with FakeDaemon(**answers) as daemon:
        shown = on_terminal(daemon, zevctl.FAILED, command, "box")
    assert f"zevctl: box: {SHOWN}\r\n" in shown


def test_a_table_is_shown_harmlessly():
    with FakeDaemon(console=[console_record(HOSTILE, HOSTILE)]) as daemon:
        shown = on_terminal(daemon, zevctl.OK, "list")
    assert shown.splitlines()[1].count(SHOWN) == 2


def test_a_question_is_shown_harmlessly():
    consoles = [console_record(HOSTILE), console_record(b"box")]
    with FakeDaemon(console=consoles) as daemon, \
            Terminal(daemon, "clear", "*", columns=200) as terminal:
        shown = terminal.expect("[y/N] ").decode()
        assert_harmless(shown)
        assert SHOWN in shown


def test_the_users_are_shown_harmlessly():
    user = struct.pack("<32s64s2s", b"\x1b[2Jx", HOSTILE, b"2")
    answers = {"console": [console_record(b"box", state=b"1")], "who": [user]}
    with FakeDaemon(**answers) as daemon:
        shown = on_terminal(daemon, zevctl.OK, "who")
    assert "?[2Jx" in shown and SHOWN in shown


def test_json_is_harmless_and_the_same_data():
    answers = {"console": [console_record(HOSTILE)], "enable": HOSTILE, "who": []}
    with FakeDaemon(**answers) as daemon:
        for arguments, key in ((["list"], "name"), (["who"], None),
                               (["enable", "-y", "*"], "text")):
            status = zevctl.FAILED if "enable" in arguments else zevctl.OK
            shown = on_terminal(daemon, status, "--json", *arguments)
            data = json.loads(shown.splitlines()[0])
            assert key is None or data[0][key] == DATA


def test_a_line_that_is_not_an_event_is_shown_harmlessly(station):
    path = station.root / "run" / "jix.sock"
    with Terminal(None, "events", columns=200) as terminal:
        terminal.expect("Waiting for events")
        wait_until(path.exists, what="the socket")
        with socket.socket(socket.AF_UNIX) as poster:
            poster.connect(str(path))
            event = {"time": "now", "name": DATA, "priority": 1, "vars": {"message": DATA}}
            poster.sendall(HOSTILE + b"\n" + json.dumps(event, ensure_ascii=False).encode() + b"\n")
            shown = terminal.expect(b": ?]0;x").decode()
            shown += terminal.expect("😀\r\n".encode()).decode()
            assert_harmless(shown)


def test_events_are_harmless_as_json(station):
    with zevctl.start(None, "--json", "events") as process:
        process.stderr.readline()
        with socket.socket(socket.AF_UNIX) as poster:
            poster.connect(str(station.root / "run" / "jix.sock"))
            poster.sendall(json.dumps({"name": DATA}, ensure_ascii=False).encode() + b"\n")
            shown = process.stdout.readline().decode()
        process.terminate()
    assert_harmless(shown.removesuffix("\n"))
    assert json.loads(shown) == {"name": DATA}


@pytest.fixture
def log(station):
    """Writes a console's log with a hostile record; returns the record without its line end."""
    place = station.root / "logs" / "zev.dated" / "01-Nov-00:00"
    place.mkdir(parents=True)
    record = b"26/11/21_08:00:00 " + HOSTILE
    (place / "box.log").write_bytes(record + b"\n")
    return record


def test_a_log_on_a_terminal(log):
    assert on_terminal(None, zevctl.OK, "log", "box") == f"26/11/21_08:00:00 {SHOWN}\r\n"


def test_a_log_in_a_pipe_is_unchanged(log):
    with zevctl.start(None, "log", "box") as process:
        assert process.stdout.read() == log + b"\n"


def test_a_log_is_harmless_as_json(log):
    shown = on_terminal(None, zevctl.OK, "--json", "log", "box")
    assert json.loads(shown)["text"] == DATA


def test_the_name_from_the_environment_is_shown_harmlessly():
    opening = b"username: "
    with FakeDaemon(opening=opening) as daemon, \
            Terminal(daemon, "list", env={"SUDO_USER": "x\x1b[2J\u202e"}) as terminal:
        assert terminal.expect("User name [x?[2J?]: ") == b""
