"""The JSON interface of zevweb, with a real daemon behind it."""

import contextlib
import http.client
import time

import pytest

# `api`, `box` and `web` are fixtures.
from harness import journals, zevctl
from harness.access import box, reload
from harness.station import console_line
from harness.waiting import wait_until
from harness.web_interface import DESCRIPTION, PERSON, api, machine, web
from journal_writer import Kind

GREETING = "up now"
NO_JOURNAL = ("There is no journal: what consoles printed cannot be shown. The daemon keeps one "
              "when ZEVD_JOURNAL= in qor.conf says so.")


@pytest.fixture
def rack(station):
    """Two consoles and a journal."""
    consoles = {name: station.console(name) for name in ("db1", "db2")}
    journals.begin(station, *consoles.values())
    for name, console in consoles.items():
        printed(station, console, name, GREETING)
    return consoles


def printed(station, console, name, *lines):
    """Let a console print lines, and wait until the journal has them."""
    text = "".join(f"{line}\r\n" for line in lines).encode()
    console.send(text)
    journals.wait_output(station, name, text)


def texts(page):
    """What was printed, without the greetings of the consoles."""
    return [line["text"] for line in page["lines"]
            if line["kind"] == "output" and not line["text"].endswith(GREETING)]


# What there is now


def test_consoles_are_listed_with_their_users(station, box, api):
    station.console_line("off", 1, enable=0)
    reload(station)
    station.attach("box", user="anna", addr="desk", mode="ro")
    data = api.get("/api/consoles")
    assert data["daemon"] == {"answers": True, "problem": None}
    assert data["journal"] == {"state": "off", "readable": False, "problem": NO_JOURNAL,
                               "end": None}
    consoles = {console["name"]: console for console in data["consoles"]}
    assert list(consoles) == ["box", "off"]
    shown = consoles["box"]
    assert (shown["address"], shown["port"], shown["state"], shown["code"], shown["problem"]) == (
        "127.0.0.1", box.port, "in-use", "1", None)
    user, = shown["users"]
    assert (user["name"], user["address"], user["mode"]) == ("anna", "desk", "read-only")
    assert consoles["off"]["state"] == "disabled"
    listed = api.get("/api/users")["users"]
    assert listed == [{"console": "box", **user}]


def test_what_is_wrong_with_a_console_is_said(station, api):
    station.console("dead", listening=False)
    station.start()
    wait_until(lambda: api.get("/api/consoles/dead")["console"]["state"] == "refused",
               what="the refusal")
    shown = api.get("/api/consoles/dead")["console"]
    assert shown["problem"] == ("The console refuses the connection; look whether it is in use or "
                                "switched off.")
    api.refused(404, 'there is no console "deaf"; the list of consoles has the names',
                "/api/consoles/deaf")


def test_stats_are_the_daemons(station, box, api):
    stats = api.get("/api/stats")
    assert stats["console_connections"] == 1 and stats["journal"] == "off"


# The past


def test_history_has_what_was_printed_and_what_happened(station, rack, api):
    printed(station, rack["db1"], "db1", "booting", "login:")
    station.attach("db1", user="anna").close()
    journals.wait_for(station, Kind.LEFT, "db1")
    page = api.get("/api/consoles/db1/history")
    assert texts(page) == ["booting", "login:"]
    assert (page["complete"], page["previous"], page["remarks"]) == (True, None, [])
    assert "attached" not in [line["kind"] for line in page["lines"]]
    with_users = api.get("/api/consoles/db1/history", users=1)
    left, = [line for line in with_users["lines"] if line["kind"] == "left"]
    assert left["given_user"] == "anna" or left["user"] == "anna"


def test_pages_of_history_go_on_where_others_end(station, rack, api):
    printed(station, rack["db1"], "db1", *(f"line {i}" for i in range(50)))
    path, pages, query = "/api/consoles/db1/history", [], {}
    while not pages or pages[0]["previous"] is not None:
        pages.insert(0, api.get(path, last=7, **query))
        query = {"before": pages[0]["previous"]}
    assert [line for page in pages for line in texts(page)] == [f"line {i}" for i in range(50)]
    printed(station, rack["db1"], "db1", "afterwards", "at last")
    assert texts(api.get(path, after=pages[-1]["next"])) == ["afterwards", "at last"]
    assert texts(api.get(path, after=pages[0]["next"], last=7)) == texts(pages[1])


def test_history_is_searched(station, rack, api):
    printed(station, rack["db1"], "db1", "one", "TWO", "three (3)", "four")
    path = "/api/consoles/db1/history"
    assert texts(api.get(path, grep="t.o", ignore_case=1)) == ["TWO"]
    assert texts(api.get(path, grep="(3)", plain=1)) == ["three (3)"]
    around = api.get(path, grep="TWO", context=1)
    assert [(line["text"], line["match"]) for line in around["lines"]] == [
        ("one", False), ("TWO", True), ("three (3)", False)]
    api.refused(400, "the pattern would take too long on each line; use one with fewer repetitions "
                "and without back-references", path, grep="((a{1,255}){1,255}){1,255}")
    api.refused(404, 'there is no console "db" in the journal and the logs; the list of consoles '
                "has the names", "/api/consoles/db/history")
    api.refused(400, 'the parameter "lsat" is not known here; there are since, until, last, grep, '
                "ignore_case, plain, invert, context, users, before, after", path, lsat=3)
    api.refused(400, 'the parameter "before" is no place; give one that an answer had in '
                '"previous" or "next"', path, before="x")
    api.refused(400, "the position is one of another station; use positions of this station only",
                path, before="0000000000000001:1:64")


def test_many_consoles_are_searched_at_once(station, rack, api):
    printed(station, rack["db1"], "db1", "disk error 1", "fine")
    printed(station, rack["db2"], "db2", "disk error 2")
    printed(station, rack["db1"], "db1", "disk error 3")
    page = api.get("/api/search", q="disk error [0-9]")
    assert [(line["console"], line["text"]) for line in page["lines"]] == [
        ("db1", "disk error 1"), ("db2", "disk error 2"), ("db1", "disk error 3")]
    newest = api.get("/api/search", q="disk error", limit=1)
    assert texts(newest) == ["disk error 3"]
    assert texts(api.get("/api/search", q="disk error", limit=1, before=newest["previous"])) == [
        "disk error 2"]
    assert texts(api.get("/api/search", ("console", "db2"), q="disk")) == ["disk error 2"]
    api.refused(400, 'the parameter "q" is missing: say what to search for', "/api/search")


def test_without_a_journal_the_logs_are_the_history(station, box, api):
    box.send(b"\r\nonly in the log\r\n")
    wait_until(lambda: "only in the log" in texts(api.get("/api/consoles/box/history")),
               what="the line")
    page = api.get("/api/consoles/box/history", last=1)
    assert page["lines"][-1]["source"] == "log"
    assert page["remarks"] == ["There is no journal: only the logs are shown, without what users "
                               "did."]
    api.refused(503, "there is no journal, so the past cannot be replayed; the daemon keeps one "
                "when ZEVD_JOURNAL= in qor.conf says so", "/api/consoles/box/marks")
    api.refused(503, "there is no journal; who did what is only in the system's log then. The "
                "daemon keeps a journal when ZEVD_JOURNAL= in qor.conf says so", "/api/audit")


def test_marks_tell_who_was_there(station, rack, api):
    anna = station.attach("db1", user="anna", mode="ro")
    journals.wait_for(station, Kind.ATTACHED, "db1")
    visit, = api.get("/api/consoles/db1/marks")["visits"]
    assert (visit["user"], visit["mode"], visit["end"]) == ("anna", "ro", None)
    anna.close()
    journals.wait_for(station, Kind.LEFT, "db1")
    marks = api.get("/api/consoles/db1/marks", since="1h")
    assert marks["visits"][0]["end"] is not None and marks["complete"] is True
    kinds = [mark["kind"] for mark in marks["marks"]]
    assert kinds[:2] == ["started", "connected"] and kinds[-2:] == ["attached", "left"]
    assert [mark["kind"] for mark in api.get(
        "/api/consoles/db1/marks", since="1h", until="30m")["marks"]] == []


# What people do


def test_commands_are_given_in_the_persons_name(station, rack, api):
    user = station.attach("db1", user="anna")
    assert api.post("/api/consoles/db1/msg", {"text": "off soon"}) == (200, "told")
    user.expect(b"off soon")
    assert api.post("/api/consoles/db1/clear") == (200, "1 user was disconnected: anna")
    journals.wait_for(station, Kind.LEFT, "db1")
    status, text = api.post("/api/consoles/DB1/disable")
    assert (status, text) == (200, "disabled, until it is enabled or the daemon reloads or "
                              "restarts")
    assert api.get("/api/consoles/db1")["console"]["state"] == "disabled"
    assert api.post("/api/consoles/db1/reconnect") == (
        409, 'not tried: it is disabled; "zevctl enable" it first')
    assert api.post("/api/consoles/db1/enable")[0] == 200
    assert api.post("/api/msg", {"text": "to all"}) == (200, "told")
    journals.wait_for(station, Kind.AUDIT, what="enable")
    acts = [act for act in api.get("/api/audit")["acts"] if act["what"] in ("clear", "disable")]
    assert [(act["what"], act["console"].lower(), act["given_user"], act["given_from"])
            for act in acts] == [("clear", "db1", "root", PERSON["X-Forwarded-For"]),
                                 ("disable", "db1", "root", PERSON["X-Forwarded-For"])]
    assert [act["what"] for act in api.get("/api/audit", ("what", "enable"))["acts"]] == ["enable"]
    api.refused(400, 'the parameter "since" is no time; write "2026-11-21 08:05" or '
                '"2026-11-21 08:05:30", 2026-11-21, today, yesterday, "yesterday 08:05", 08:05 or '
                "08:05:30 (the last one), 2026-11-21T08:05:30+01:00, or an age such as 30s, 15m, "
                "1h30m, 3d, 1w", "/api/audit", since="then")


@pytest.mark.parametrize("body", [{}, {"text": ""}, {"text": "a\nclear db1"}, {"text": 5},
                                  {"text": "x" * 801}, {"text": "x", "more": 1}])
def test_a_message_is_one_line(station, rack, api, body):
    status, text = api.post("/api/consoles/db1/msg", body)
    assert status == 400
    assert text in ('the body must be {"text": "..."}',
                    "the text must be one line of 1 to 800 bytes; shorten it, and leave out line "
                    "ends")


def test_a_name_is_one_word_to_the_daemon(station, rack, api):
    for name in ("db1 x", "db1\tx", "@@@@", "db1\x7f"):
        assert api.post(f"/api/consoles/{name}/clear")[0] == 404, name
    # These do not get past the server.
    for name in ("db1\nclear db2", "db1\r\nclear db2", "db1\0"):
        with contextlib.suppress(http.client.RemoteDisconnected):
            assert api.request("POST", f"/api/consoles/{name}/clear", [], b"", {})[0] >= 400
    assert api.get("/api/audit", ("what", "clear"))["acts"] == []


# What machines do


def test_a_token_reads_and_does_nothing_else(station, rack, web):
    printed(station, rack["db1"], "db1", "for all")
    reader = machine(web)
    listed = reader.get("/api/consoles")["consoles"]
    assert [console["name"] for console in listed] == ["db1", "db2"]
    assert texts(reader.get("/api/consoles/db1/history")) == ["for all"]
    for path, body in (("/api/consoles/db1/clear", None), ("/api/msg", {"text": "x"})):
        assert reader.post(path, body) == (403, "a token only reads; log in as a person to do this")
    zevctl.succeed(None, "token", "withdraw", "machine")
    reader.refused(401, 'this token is not valid; make one with "zevctl token"', "/api/users")


# A daemon that is away


def test_while_the_daemon_is_away_the_journal_is_read(station, rack, api):
    printed(station, rack["db1"], "db1", "last words")
    station.stop()
    time.sleep(0.6)  # the answer of the daemon has been forgotten then
    data = api.get("/api/consoles")
    away = (f"the daemon does not answer on port {station.port}; look whether zevd runs, and try "
            "again")
    assert data["daemon"] == {"answers": False, "problem": away}
    assert [(console["name"], console["state"]) for console in data["consoles"]] == [
        ("db1", "unknown"), ("db2", "unknown")]
    assert texts(api.get("/api/consoles/db1/history")) == ["last words"]
    assert api.post("/api/consoles/db1/clear") == (503, away)
    api.refused(503, away, "/api/users")


def test_a_daemon_that_was_restarted_is_asked_again(station, box, api):
    before = api.get("/api/stats")["connections"]
    for _ in range(3):
        api.get("/api/consoles/box")
    assert api.get("/api/stats")["connections"] == before, "one connection serves all"
    station.stop()
    station.start("-p", str(station.port))
    station.wait_connected("box")
    time.sleep(0.6)
    assert api.get("/api/stats")["tools_attached"] == 1
    assert api.post("/api/consoles/box/clear")[0] == 200


# The description


# What is no question with one answer has tests of its own.
OTHERS = {"/metrics", "/api/events", "/api/consoles/{name}/stream", "/api/login", "/api/logout"}


def test_every_operation_of_the_description_is_answered(station, rack, api):
    begin = api.get("/api/consoles/db1")["console"]["position"]
    needed = {"/api/search": {"q": "x"}, "/api/consoles/db1/replay/screen": {"at": begin},
              "/api/consoles/db1/replay/records": {"from": begin}}
    operations = {(method, path) for path, operations in DESCRIPTION["paths"].items()
                  for method in operations if path not in OTHERS}
    for method, path in operations:
        asked = path.replace("{name}", "db1").replace("{command}", "clear")
        if method == "post":
            assert api.post(asked, {"text": "x"} if asked.endswith("msg") else None)[0] == 200
        else:
            api.get(asked, **needed.get(asked, {}))
    assert api.seen == {(method.upper(), path) for method, path in operations}
