"""The fleet as zevweb shows it: what it makes of the map, and the page's view of it."""

import datetime
import json
import os
import time

import pytest

# `box`, `browser`, `groups` and `rack` are fixtures.
from harness.access import box
from harness.browser import browser, rack
from harness.helpers import groups
from harness.waiting import wait_until
from harness.web import Web
from harness.web_interface import machine, person

STATIONS = [
    {"name": "st1", "address": "192.0.2.1", "web": "https://192.0.2.1:8443", "alive": True,
     "ready": True, "version": "1.0"},
    {"name": "st2", "address": "192.0.2.2", "web": "https://192.0.2.2:8443/hall/", "alive": True,
     "ready": False, "version": "1.1"},
    {"name": "st3", "address": "192.0.2.3", "web": "", "alive": False, "ready": False,
     "version": ""},
]
NOT_UNDERSTOOD = ('the map of the fleet is not understood; "zevfleet run" writes it on each '
                  "station of a fleet")
OLD = 15  # seconds after which a map is stale


class Map:
    """The map that zevfleet would write."""

    def __init__(self, directory) -> None:
        self.path = directory / "fleet.json"
        self.data: dict = {}
        self.change(format=1, site="hall1", station="st1", as_of=int(time.time()), connected=True,
                    problem="", stations=STATIONS, consoles=[])

    def put(self, text: str | bytes) -> None:
        """Replace the file at once, as zevfleet does."""
        staged = self.path.with_suffix(".new")
        staged.write_bytes(text if isinstance(text, bytes) else text.encode())
        staged.rename(self.path)

    def change(self, **values) -> None:
        """Replace it by one with other values."""
        self.data.update(values)
        self.put(json.dumps(self.data))

    def consoles(self, *consoles: tuple[str, str, list[str]]) -> None:
        """Have it tell of these: name, station, stations."""
        self.change(as_of=int(time.time()), consoles=[
            {"name": name, "station": station, "stations": stations}
            for name, station, stations in consoles])


@pytest.fixture
def fleet_map(tmp_path):
    """A map of three stations."""
    return Map(tmp_path)


@pytest.fixture
def web(station, tmp_path):
    """zevweb, which reads that map; behind a proxy, too."""
    lines = (f'fleet_map = "{tmp_path}/fleet.json"\n'
             f'[proxy]\nsocket = "{tmp_path}/proxy.sock"\n')
    with Web(station, tmp_path, lines=lines) as made:
        yield made


@pytest.fixture
def api(web):
    """A person who asks it."""
    return person(web)


def in_utc(moment: int) -> str:
    """As the interface writes it."""
    return datetime.datetime.fromtimestamp(moment, datetime.timezone.utc).strftime(
        "%Y-%m-%dT%H:%M:%SZ")


# The interface


def test_the_map_is_told_letter_by_letter(box, fleet_map, web, api):
    fleet_map.consoles(("box", "st1", ["st1", "st2"]), ("far\u00e9", "st2", ["st1"]),
                       ("lost", "", []))
    status, kind, body = api.request("GET", "/api/fleet", [], None, {})
    assert (status, kind) == (200, "application/json")
    assert body.decode() == (
        '{"fleet":{"site":"hall1","station":"st1",'
        f'"as_of":"{in_utc(fleet_map.data["as_of"])}",'
        '"stale":false,"connected":true,"problem":null,"stations":['
        '{"name":"st1","address":"192.0.2.1","web":"https://192.0.2.1:8443","alive":true,'
        '"ready":true,"version":"1.0"},'
        '{"name":"st2","address":"192.0.2.2","web":"https://192.0.2.2:8443/hall/","alive":true,'
        '"ready":false,"version":"1.1"},'
        '{"name":"st3","address":"192.0.2.3","web":null,"alive":false,"ready":false,'
        '"version":""}],'
        '"consoles":[{"name":"box","station":"st1","stations":["st1","st2"]},'
        '{"name":"far\u00e9","station":"st2","stations":["st1"]},'
        '{"name":"lost","station":null,"stations":[]}]}}')
    assert machine(web).get("/api/fleet") == json.loads(body)
    api.refused(400, 'the parameter "q" is not known here; leave it out', "/api/fleet", q="x")


def test_each_new_map_is_read(box, fleet_map, api):
    for name in ("one", "two"):
        fleet_map.consoles((name, "st1", ["st1"]))
        assert [one["name"] for one in api.get("/api/fleet")["fleet"]["consoles"]] == [name]
    fleet_map.path.unlink()
    assert api.get("/api/fleet") == {"fleet": None}
    fleet_map.consoles(("three", "st1", ["st1"]))
    assert api.get("/api/fleet")["fleet"]["consoles"][0]["name"] == "three"


def test_without_a_map_there_is_no_fleet(box, fleet_map, api):
    fleet_map.path.unlink()
    assert api.request("GET", "/api/fleet", [], None, {})[2] == b'{"fleet":null}'
    api.get("/api/fleet")


def test_it_wants_a_login(box, fleet_map, web):
    answer = web.get("/api/fleet")
    assert (answer.status, answer.error) == (
        401, "nobody is logged in, or the session has ended; log in")


def test_an_old_map_is_told_as_one(box, fleet_map, api):
    fleet_map.change(as_of=int(time.time()) - OLD + 2)
    assert api.get("/api/fleet")["fleet"]["stale"] is False
    # The same file grows old.
    wait_until(lambda: api.get("/api/fleet")["fleet"]["stale"], 20, "the map to grow old")
    assert api.get("/api/fleet")["fleet"]["connected"] is True
    fleet_map.change(as_of=0, connected=False, problem="etcd: no answer")
    fleet = api.get("/api/fleet")["fleet"]
    assert (fleet["as_of"], fleet["stale"], fleet["connected"], fleet["problem"]) == (
        None, True, False, "etcd: no answer")


@pytest.mark.parametrize("text", [
    "", "[]", "{}", "null", '{"format": 1}', '{"format": 2, "site": "hall1"}', b"\xff\xfe",
    "[" * 100_000, '{"format": 1, "stations": [[[[[[[[1]]]]]]]]}',
])
def test_a_broken_map_is_told_in_words(box, fleet_map, api, text):
    fleet_map.put(text)
    api.refused(503, NOT_UNDERSTOOD, "/api/fleet")
    fleet_map.change()
    assert api.get("/api/fleet")["fleet"]["site"] == "hall1"


@pytest.mark.parametrize("values", [
    {"as_of": "now"}, {"as_of": 1e300}, {"as_of": -1}, {"as_of": 2**64}, {"connected": 1},
    {"problem": None}, {"site": ["hall1"]}, {"stations": {"st1": STATIONS[0]}},
    {"stations": [{**STATIONS[0], "alive": "yes"}]}, {"stations": [{"name": "st1"}]},
    {"consoles": [{"name": "a", "station": "st1"}]}, {"consoles": ["a"]},
    {"consoles": [{"name": "a", "station": None, "stations": []}]},
    {"consoles": [{"name": "a", "station": "st1", "stations": [["st1"]]}]},
])
def test_a_forged_map_is_refused(box, fleet_map, api, values):
    fleet_map.change(**values)
    api.refused(503, NOT_UNDERSTOOD, "/api/fleet")


def test_what_a_map_has_beside_what_is_known_is_left_out(box, fleet_map, api):
    web_pages = ("javascript:alert(1)", "data:text/html,x", "//192.0.2.9", "HTTPS://x", "ftp://x")
    fleet_map.change(more="</script>", stations=[
        {**STATIONS[0], "name": f"st{i}", "web": web, "extra": 1}
        for i, web in enumerate(web_pages)])
    fleet = api.get("/api/fleet")["fleet"]  # has the keys of the description and no others
    assert [station["web"] for station in fleet["stations"]] == [None] * len(web_pages)


def test_what_cannot_be_read_is_told(box, fleet_map, api):
    def refused(why: str) -> None:
        api.refused(503, f"the map of the fleet cannot be read: {why}; tell the station's "
                    "administrator", "/api/fleet")

    with open(fleet_map.path, "ab") as file:
        file.truncate(16 * 2**20 + 1)
    refused("it is too large")
    fleet_map.path.unlink()
    os.mkfifo(fleet_map.path)
    refused("it is no plain file")
    fleet_map.path.unlink()
    fleet_map.path.symlink_to(fleet_map.path)
    refused("Too many levels of symbolic links")
    fleet_map.path.unlink()
    fleet_map.path.mkdir()
    refused("it is no plain file")


# The page


NAV = "#nav"
ROWS = "#fleet-rows .row"


def names(browser) -> list[str]:
    """Of the rows."""
    return browser.text("#fleet-rows .row > :nth-child(2)").splitlines()


def link(browser, name: str) -> list[str | None]:
    """Where the row of this console leads, and how."""
    return browser.do("evaluate", script="{ const found = [...document.querySelectorAll('"
                      f"{ROWS} a')].find((one) => one.textContent === '{name}');"
                      " ['href', 'target', 'rel'].map((one) => found?.getAttribute(one) ?? null) }")


def at(browser) -> str:
    """The console at which the keyboard is."""
    return browser.do("evaluate", script="document.activeElement.children[1].textContent")


def see_current(browser, fleet_map: Map) -> None:
    """Wait until the page has a map that is confirmed again and again, as zevfleet does it."""
    def is_shown() -> bool:
        fleet_map.change(as_of=int(time.time()))
        return browser.text("#fleet-status") == "This map is as of now."

    wait_until(is_shown, 30, "a map as of now")


@pytest.mark.needs_namespace
def test_the_page_shows_the_fleet(rack, fleet_map, browser):
    fleet_map.consoles(
        ("web1", "st1", ["st1", "st2"]), ("db1", "st1", ["st2", "st1"]),
        ("far10", "st2", ["st2", "st1"]), ("far9", "st2", ["st2", "st1"]),
        ("deep", "st3", ["st3"]), ("lost", "", ["st1"]), ("<img src=x>", "st2", ["st2"]))
    browser.enter()
    browser.see(NAV, "Fleet")
    browser.press("f")
    see_current(browser, fleet_map)
    browser.see("#fleet-count", "7 of 7, 2 with problems")
    stations = [line.split("\t") for line in browser.text(".stations tr").splitlines()]
    assert stations == [
        ["Station", "State", "Address", "Version", "Consoles", "Page"],
        ["st1 (this station)", "ready", "192.0.2.1", "1.0", "2", ""],
        ["st2", "not ready", "192.0.2.2", "1.1", "3", "192.0.2.2:8443"],
        ["st3", "away", "192.0.2.3", "", "1", ""]]
    assert names(browser) == ["lost", "db1", "<img src=x>", "deep", "far9", "far10", "web1"]
    assert link(browser, "far9") == [
        "https://192.0.2.2:8443/hall/#/consoles/far9", "_blank", "noopener"]
    assert link(browser, "<img src=x>")[0] == (
        "https://192.0.2.2:8443/hall/#/consoles/%3Cimg%20src%3Dx%3E")
    assert link(browser, "web1") == ["#/consoles/web1", None, None]
    assert link(browser, "lost") == [None, None, None]
    rows = browser.text(ROWS)
    assert "no station has it" in rows and "should be at st2" in rows
    assert "zevctl --fleet attach deep" in rows and "zevctl --fleet attach lost" not in rows
    assert browser.do("axe") == []
    browser.do("dark", on=True)
    assert browser.do("axe") == []
    browser.do("viewport", width=390, height=844, mobile=True)
    assert browser.do("evaluate", script="document.documentElement.scrollWidth") == 390


@pytest.mark.needs_namespace
def test_the_keyboard_finds_a_console_of_the_fleet(rack, fleet_map, browser):
    fleet_map.consoles(("web1", "st1", ["st1"]), ("web2", "st2", ["st2"]), ("db1", "st1", ["st1"]),
                       ("web3", "", ["st2"]))
    browser.enter()
    browser.see("#rows", "web1")
    assert browser.text("#elsewhere") == ""
    browser.see(NAV, "Fleet")
    browser.press("/")
    browser.type("web")
    browser.see("#elsewhere", "In the fleet: 1 at other stations, 1 at no station")
    browser.click("#elsewhere a")
    browser.see("#fleet-count", "3 of 4, 1 with problems")
    assert names(browser) == ["web3", "web1", "web2"]
    assert browser.do("evaluate", script="location.hash") == "#/fleet?q=web"
    browser.press("/")
    browser.type("web -st2")
    browser.see("#fleet-count", "2 of 4, 1 with problems")
    browser.press("Escape")
    browser.see("#fleet-count", "4 of 4, 1 with problems")
    browser.press("ArrowDown", "j", "k", "End", "PageUp", "ArrowDown", "ArrowDown")
    assert at(browser) == "web1"
    fleet_map.consoles(*[(one["name"], one["station"], one["stations"])
                         for one in fleet_map.data["consoles"]], ("last", "st2", ["st2"]))
    browser.see("#fleet-count", "5 of 5")
    assert names(browser) == ["web3", "db1", "last", "web1", "web2"]
    assert at(browser) == "web1", "the keyboard stays at its console"
    browser.press("/", "Control+a")
    browser.type("web1")
    browser.press("Enter")
    browser.see(browser.status("web1"), "You watch")
    browser.go("#/fleet?q=st2")
    browser.see("#fleet-count", "2 of 5")
    browser.press("Escape")
    browser.see("#rows", "web1")


@pytest.mark.needs_namespace
def test_the_page_says_what_is_wrong_with_the_map(rack, fleet_map, browser):
    fleet_map.consoles(("web1", "st1", ["st1"]))
    browser.enter("#/fleet")
    see_current(browser, fleet_map)
    fleet_map.change(as_of=int(time.time()) - 3600, connected=False,
                     problem="no answer \u202eof <b>etcd</b>\x1b[2J")
    browser.see_match("#fleet-status", r"^This map is of \d{4}-\d\d-\d\d \d\d:\d\d:\d\d: consoles "
                      r"may be elsewhere by now\. no answer \u00b7of <b>etcd</b>\u00b7\[2J$")
    assert names(browser) == ["web1"]
    fleet_map.put("half a m")
    browser.see("#fleet-status", "the map of the fleet is not understood")
    assert names(browser) == ["web1"]
    browser.see(NAV, "Fleet")
    fleet_map.path.unlink()
    browser.see("#fleet-status", "This station is in no fleet.")
    assert names(browser) == [] and "Fleet" not in browser.text(NAV)
    browser.go("#/")
    browser.see("#rows", "web1")
    browser.press("f")
    assert browser.do("evaluate", script="location.hash") == "#/"


@pytest.mark.needs_namespace
def test_a_hundred_thousand_consoles_are_quick(rack, fleet_map, browser):
    fleet_map.consoles(*[(f"c{i:06}", f"st{1 + i % 3}", [f"st{1 + i % 3}"])
                         for i in range(100_000)])
    browser.enter("#/fleet")
    browser.see("#fleet-count", "100000 of 100000, 0 with problems. "
                "99700 more are not shown: filter")
    assert len(names(browser)) == 300
    browser.press("/")
    browser.type("c09999 st1")
    browser.see("#fleet-count", "4 of 100000")
    assert names(browser) == ["c099990", "c099993", "c099996", "c099999"]
    took = browser.do("evaluate", script="{ const field = document.querySelector('#fleet-filter');"
                      " field.value = 'c0'; const begin = performance.now();"
                      " field.dispatchEvent(new Event('input')); performance.now() - begin }")
    assert took < 5000
