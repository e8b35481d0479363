"""The history of what a real daemon has seen: journal, logs, and sessions at its consoles."""

import json

import pytest

from harness import zevctl
from harness.logs import log_of
from harness.scenes import connected, numbered, print_and_wait, reload
from harness.seats import greeted, leave
from harness.waiting import LIMIT, wait_until

BEFORE = b"zevctl: What was printed before, up to here:\r\n"


def configure(station, journal: int) -> None:
    """How many MiB the journal may have."""
    (station.config / "qor.conf").write_text(f"ZEVD_ARCH_INT=7\nZEVD_JOURNAL={journal}\n")


@pytest.fixture
def box(station):
    """A console of a daemon that keeps a journal."""
    made = station.console("box")
    configure(station, 100)
    station.start("-B", "64")
    return connected(station, made, "box")


def objects(*arguments: str) -> list[dict]:
    """What the client shows as JSON."""
    return [json.loads(line) for line in
            zevctl.succeed(None, "history", "--json", *arguments).splitlines()]


def wait_shown(text: str, *arguments: str) -> list[dict]:
    """Wait until a printed line with this text is shown from the journal."""
    def shown() -> list[dict] | None:
        found = objects(*arguments)
        return found if ("journal", text) in output(found) else None

    return wait_until(shown, LIMIT, f"{text!r} to be shown")


def output(found: list[dict]) -> list[tuple[str, str]]:
    """Where each printed line comes from, and its text."""
    return [(line["source"], line["text"]) for line in found if line["kind"] == "output"]


def test_what_a_console_prints_and_who_is_there_is_shown(station, box):
    box.send(b"one\r\nlog")
    user = station.attach("box", user="ann")
    user.expect(b"log")
    box.send(b"in: \r\n")
    user.close()
    found = wait_shown("login: ", "box")
    assert output(found) == [("journal", "one"), ("journal", "login: ")]
    wait_until(lambda: {"attached", "left"} <= {line["kind"] for line in objects("box", "--users")},
               what="who came and went")
    kinds = [line["kind"] for line in objects("box", "--users")]
    assert kinds[:2] == ["started", "connected"] and kinds.index("attached") < kinds.index("left")


def test_a_session_shows_what_was_before_once(station, box):
    printed = numbered(10) + b"login: "
    print_and_wait(station, box, printed)
    with zevctl.Terminal(station, "attach", "box", "--history", "30") as person:
        shown = greeted(person.child)
        assert shown.startswith(BEFORE) and shown.endswith(b"\r\n")
        lines = [line for line in shown[len(BEFORE):-2].splitlines(keepends=True)
                 if not line.startswith(b"* ")]
        assert b"".join(lines) == printed
        leave(person)


def test_a_session_shows_what_was_before_a_restart(station, box):
    print_and_wait(station, box, b"before the restart\r\n")
    station.stop()
    station.start()
    again = connected(station, box, "box")
    print_and_wait(station, again, b"after it\r\n")
    with zevctl.Terminal(station, "attach", "box", "--history", "30") as person:
        shown = greeted(person.child)
        assert shown.count(b"before the restart\r\n") == shown.count(b"after it\r\n") == 1
        assert shown.index(b"before the restart") < shown.index(b"the daemon stopped") \
            < shown.rindex(b"the daemon started") < shown.index(b"after it")
        leave(person)


def test_what_was_logged_while_the_journal_was_off_is_shown(station):
    box = station.console("box")
    configure(station, 0)
    station.start()
    connected(station, box, "box")
    print_and_wait(station, box, b"off\r\n")
    configure(station, 100)
    reload(station)
    print_and_wait(station, box, b"on\r\n")
    wait_shown("on", "box")
    configure(station, 0)
    reload(station)
    print_and_wait(station, box, b"off again\r\n")
    wait_until(lambda: b"off again" in log_of(station, "box").read_bytes(), what="the log")
    found = [text for _, text in output(objects("box"))]
    assert found == ["off", "on", "off again"]
    assert [source for source, _ in output(objects("box", "--grep", "^on$"))] == ["journal"]
