"""Consoles over the WebSocket: watching, typing, broken lines, and what is refused."""

import base64
import contextlib
import random
import threading
import time

import pytest
import websocket

from harness import journals
from harness.access import READY, bring_up
from harness.cookies import local_user
from harness.helpers import groups
from harness.peers import OFFERS
from harness.waiting import LIMIT, stretched, wait_until
from harness.web import Web, admit, web
from harness.web_stream import Stream
from journal_writer import Kind

pytestmark = pytest.mark.needs_namespace

RING = ("-B", "64")


def station_with_journal(station, mebibytes: int = 100):
    """A connected console of a station with security on and a journal of this size."""
    admit(station, ("ann", "hers"))
    (station.config / "qor.conf").write_text(f"ZEVD_ARCH_INT=7\nZEVD_JOURNAL={mebibytes}\n")
    console = station.console("box")
    bring_up(station, console, options=("-S", "1", *RING))
    return console


@pytest.fixture
def box(station, groups):
    """The console of a station that keeps a journal."""
    groups.write("qoruser:x:64000:ann\n")
    return station_with_journal(station)


@pytest.fixture
def page(box, web):
    """A page that watches the console."""
    web.ensure_session()
    with Stream(web, "box", "?last=100") as stream:
        stream.wait("live")
        stream.expect(READY)
        stream.output = b""
        yield stream


def visitor(station, mode: str):
    """Bob, attached to the console in this mode."""
    user = local_user(station, f"box mode={mode} user=bob".encode())
    user.expect(OFFERS)
    return user


def records(stream: Stream, kind: str) -> list[dict]:
    """What it was told of this."""
    return [text for text in stream.of("record") if text["kind"] == kind]


def test_a_page_watches(station, box, web, page):
    assert page.of("start")[0]["console"] == "box" and page.of("start")[0]["problem"] is None
    box.send(b"login: ")
    page.expect(b"login: ")
    box.send(b"root\r\n")
    page.expect(b"login: root\r\n")
    with Stream(web, "BOX", "?last=1") as other:
        other.wait("live")
        assert other.output == READY + b"login: root\r\n"
    visitor(station, "ro")
    wait_until(lambda: records(page, "attached"), what="who came")
    assert records(page, "attached")[0]["given_user"] == "bob"


def test_a_page_types(station, box, page):
    box.send(b"one\r\n")
    page.expect(b"one\r\n")
    page.send(b"lost")
    assert page.wait("not-sent") == {"what": "not-sent", "bytes": 4,
                                     "text": "you are not attached; attach first"}
    attached = page.attach(mode=2)
    assert attached["mode"] == 2 and attached["position"]
    page.send(b"ls\r")
    box.expect(b"ls\r")
    begun = time.monotonic()
    box.send(b"two\r\n")
    page.expect(b"two\r\n")
    assert time.monotonic() - begun < stretched(2)
    page.ask("leave")
    assert page.wait("left") == {"what": "left", "reason": None}
    box.send(b"three\r\n")
    page.expect(b"three\r\n")
    assert page.output == b"one\r\ntwo\r\nthree\r\n"
    assert page.attached_output == b"two\r\n"
    [came] = records(page, "attached")
    assert came["given_user"] == "root" and came["given_from"] == "127.0.0.1"


def test_a_break_goes_to_the_console(box, page):
    page.ask("break")
    assert page.wait("problem")["text"] == "no break was sent: attach first"
    page.attach(mode=1)
    page.send(b"x")
    assert page.wait("not-sent")["text"] == "you are only watching; attach in another mode"
    page.ask("break")
    assert page.wait("problem", 2)["text"] == "no break was sent: you are only watching"
    page.attach(mode=2)
    assert len(page.of("left")) == 1
    page.ask("break")
    box.expect(b"\xff\xf3")


def test_a_held_console_is_refused_and_taken(station, box, page):
    holder = visitor(station, "ex")
    page.ask("attach", mode=2)
    assert page.wait("refused") == {"what": "refused", "number": 6,
                                    "text": "006 - Console is locked exclusively."}
    page.attach(mode=2, take=True)
    holder.expect(b"Your session has been terminated by root@127.0.0.1")
    page.send(b"mine")
    box.expect(b"mine")


def test_a_page_is_told_why_it_was_cut_off(station, box, page):
    page.attach(mode=4)
    box.send(b"secret")
    page.expect(b"secret")
    visitor(station, "er")
    assert page.wait("left")["reason"].startswith("bob@")
    box.send(b"unseen")
    wait_until(lambda: len(records(page, "attached")) == 2, what="who came")
    assert page.output.startswith(b"secret\a") and b"unseen" not in page.output
    assert b"Your session has been terminated by bob@127.0.0.1" in page.output


def flood(console, text: bytes, pace: float) -> threading.Thread:
    """Print it in pieces meanwhile."""
    def run() -> None:
        for begin in range(0, len(text), 700):
            console.send(text[begin:begin + 700])
            time.sleep(pace)

    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    return thread


def numbered(count: int) -> bytes:
    """Lines of which no two are equal."""
    return b"".join(b"%06d the quick brown fox\r\n" % number for number in range(count))


def test_no_byte_is_lost_or_doubled_when_lines_break(box, web):
    web.ensure_session()
    text = numbered(20_000)
    shown = b""
    position = ""
    dice = random.Random(1)
    box.send(b"begin\r\n")
    with Stream(web, "box", "?last=1") as stream:
        stream.expect(b"begin\r\n")
        shown, position = stream.output.removeprefix(READY), stream.position
    printing = flood(box, text, 0.002)
    end = time.monotonic() + stretched(LIMIT)
    cuts = 0
    while len(shown) < len(text) + len(b"begin\r\n") and time.monotonic() < end:
        with Stream(web, "box", f"?from={position}") as stream:
            time.sleep(dice.uniform(0.0, 0.3))
        cuts += 1
        assert not stream.of("missed")
        shown += stream.output
        position = stream.position or position
    printing.join()
    assert shown == b"begin\r\n" + text
    assert cuts > 3


def test_no_byte_is_lost_or_doubled_by_coming_and_going(box, page):
    text = numbered(8_000)
    printing = flood(box, text, 0.005)
    for mode in (2, 1, 3):
        page.attach(mode)
        size = len(page.attached_output)
        wait_until(lambda size=size: len(page.attached_output) > size, what="output")
        page.ask("leave")
        page.wait("left", len(page.of("attached")))
    printing.join()
    page.expect(text[-28:])
    assert page.output == text


def test_what_was_shown_while_typing_is_left_out_after_a_broken_line(box, web):
    web.ensure_session()
    with Stream(web, "box") as stream:
        stream.wait("live")
        place = stream.attach(mode=2)["position"]
        box.send(b"seen, ")
        stream.expect(b"seen, ")
    box.send(b"unseen, and more\r\n")
    with Stream(web, "box", f"?from={place}&skip={len(b'seen, ')}") as stream:
        stream.expect(b"unseen, and more\r\n")
        assert stream.output == b"unseen, and more\r\n"


def test_a_page_survives_a_restart_of_the_daemon(station, box, page):
    page.attach(mode=2)
    station.stop()
    assert page.wait("left")["reason"]
    station.start("-S", "1", "-p", str(station.port), *RING)
    box.accept()
    wait_until(lambda: records(page, "connected"), what="the console")
    box.send(b"again\r\n")
    page.expect(b"again\r\n")

    def attached() -> bool:
        page.ask("attach", mode=2)
        answers = len(page.of("attached")) + len(page.of("refused"))
        wait_until(lambda: len(page.of("attached")) + len(page.of("refused")) > answers,
                   what="an answer")
        return len(page.of("attached")) == 2

    wait_until(attached, what="the daemon's new cookie to be used")
    page.send(b"typed")
    box.expect(b"typed")


def test_without_a_journal_a_page_can_attach(station, groups, web):
    box = station_with_journal(station, 0)
    web.ensure_session()
    with Stream(web, "box") as stream:
        start = stream.wait("start")
        assert start["journal"] is False and start["position"] is None
        assert start["problem"] == ("there is no journal; the daemon keeps one when ZEVD_JOURNAL= "
                                    "in qor.conf says so")
        assert stream.attach(mode=1)["position"] is None
        box.send(b"seen\r\n")
        stream.expect(b"seen\r\n")
        stream.ask("leave")
        stream.wait("left")


def test_what_makes_no_sense_is_refused(web, page):
    page.ask("dance")
    page.ask("attach", mode=5)
    page.ask("attach", mode=2, take=1)
    assert page.wait("problem", 3)
    assert [text["text"] for text in page.of("problem")] == [
        '"what" is none of attach, leave and break; send one of them',
        '"mode" is none; give a number from 1 to 4',
        '"take" is neither true nor false; give one of them']
    for query in ("?from=17", "?last=x", "?form=1"):
        with pytest.raises(websocket.WebSocketBadStatusException, match="400"):
            Stream(web, "box", query)
    with pytest.raises(websocket.WebSocketBadStatusException, match="404"):
        Stream(web, "box%20mode=er")


def test_replay_shows_the_screen_and_what_followed(box, web, page):
    box.send(b"\x1b[2J\x1b[Hone\r\n\x1b[31mtwo")
    page.expect(b"two")
    place = page.position
    box.send(b"\x1b[Hthree\r\n")
    page.expect(b"three\r\n")
    screen = web.get(f"/api/consoles/box/replay/screen?at={place}&rows=4&columns=20").json
    assert (screen["rows"], screen["columns"], screen["position"]) == (4, 20, place)
    picture = base64.b64decode(screen["screen"])
    assert b"one" in picture and b"\x1b[0;31mtwo" in picture and b"three" not in picture
    rest = web.get(f"/api/consoles/box/replay/records?from={place}").json
    output = [record for record in rest["records"] if record["kind"] == "output"]
    assert b"".join(base64.b64decode(record["data"]) for record in output) == b"\x1b[Hthree\r\n"
    assert rest["complete"] is True
    assert web.get(f"/api/consoles/none/replay/screen?at={place}").error == \
        'the journal knows no console "none"; the list of consoles has the names'
    assert web.get("/api/consoles/box/replay/screen").error == \
        'the parameter "at" is missing; give a time or a position'


def test_events_are_streamed(station, box, web, page):
    with contextlib.closing(web.connection()) as connection:
        connection.request("GET", "/api/events", headers={"Cookie": web.cookie})
        answer = connection.getresponse()
        assert answer.headers["Content-Type"] == "text/event-stream"
        assert answer.readline() == b": events\n"
        visitor(station, "ro").close()
        found = b""
        while b'"console":"box","kind":"attached"' not in found:
            line = answer.readline()
            assert line, found
            found += line
    assert b"event: record\nid: " in found and b'"given_user":"bob"' in found


def ids_of_events(web, path: str, count: int, headers: dict[str, str] | None = None) -> list[str]:
    """Of the first events of the stream."""
    with contextlib.closing(web.connection()) as connection:
        connection.request("GET", path, headers={"Cookie": web.cookie} | (headers or {}))
        answer = connection.getresponse()
        assert answer.status == 200
        found = []
        while len(found) < count:
            line = answer.readline().decode()
            assert line, found
            if line.startswith("id: "):
                found.append(line[4:].rstrip("\n"))
        return found


def test_a_stream_of_events_goes_on_where_it_broke_off(station, box, web, page):
    begin = web.get("/api/consoles").json["journal"]["end"]
    visitor(station, "ro").close()
    journals.wait_for(station, Kind.LEFT, "box")
    path = f"/api/events?from={begin}"
    first, second = ids_of_events(web, path, 2)
    assert first != second
    assert ids_of_events(web, path, 1, {"Last-Event-ID": first}) == [second]
    wrong = web.get("/api/events", headers={"Last-Event-ID": "7"})
    assert (wrong.status, wrong.error) == (
        400, 'the header "Last-Event-ID" is no position; give the id of an event')
    wrong = web.get("/api/events?from=7")
    assert (wrong.status, wrong.error) == (
        400, 'the parameter "from" is no position; give the id of an event')
