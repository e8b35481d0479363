"""zevweb's page, as a person with only a browser uses it."""

import http.server
import os
import re
import subprocess
import threading

import pytest

# `browser`, `groups`, `rack` and `web` are fixtures.
from harness import journals, settings
from harness.access import reload
from harness.browser import DRIVER, attached, browser, rack
from harness.cookies import local_user
from harness.helpers import groups
from harness.waiting import wait_until
from harness.web import admit, web
from journal_writer import Kind

pytestmark = pytest.mark.needs_namespace

BREAK = b"\xff\xf3"


def test_a_person_logs_in_filters_and_watches_a_booting_console(station, rack, web, browser):
    station.console_line("off", 1, enable=0)
    reload(station)
    browser.open()
    browser.log_in("root", "wrong")
    browser.see(".login", "the daemon does not accept the name and password; type them again")
    browser.log_in()
    browser.see("#count", "3 of 3")
    browser.press("/")
    browser.type("WEB")
    browser.see("#count", "1 of 3")
    assert "db1" not in browser.text("#rows")
    browser.press("Enter")
    rack["web1"].send(b"BIOS ok\r\n\x1b[31mno disk\x1b[0m\r\n\x1b[38;2;9;200;9mkernel\x1b[0m\r\n")
    browser.see(browser.screen("web1"), "no disk\nkernel")
    browser.see(browser.status("web1"), "You watch, and the other users are not told of it.")
    browser.type("x")  # nobody types at it: it means nothing
    rack["web1"].send(b"login: ")
    browser.see(browser.screen("web1"), "login: ")
    assert b"x" not in rack["web1"].received


def test_output_cannot_become_markup(rack, web, browser):
    browser.enter("#/consoles/web1")
    hostile = b"<img src=x onerror=alert(1)><script>document.title='taken'</script>"
    rack["web1"].send(hostile + b"\r\n\x1b]8;;http://192.0.2.1/\x1b\\link\x1b]8;;\x1b\\ "
                      b"\x1b]0;taken\x07\x1b[6n\x1b[c done\r\n")
    browser.see(browser.screen("web1"), hostile.decode())
    browser.see(browser.screen("web1"), "link  done")
    journals.wait_output(web.station, "web1", b" done\r\n")
    browser.press("h")
    browser.see(".lines", hostile.decode())
    browser.go("#/search?q=onerror")
    browser.see(".lines", hostile.decode())
    assert browser.do("count", selector="main img, main script") == 0
    assert browser.do("evaluate", script="document.title") == "Search"


def test_a_person_types_pastes_and_sends_a_break(rack, web, browser):
    web1 = rack["web1"]
    browser.enter("#/consoles/web1")
    browser.see(browser.status("web1"), "You watch")
    browser.press("2")
    browser.see(browser.status("web1"), "You type, together with other shared users.")
    browser.type("g?1")
    browser.press("Control+c", "Enter")
    web1.expect(b"g?1\x03\r")
    browser.leader("]")  # not the leader itself: it means nothing
    browser.see(browser.status("web1"), "] means nothing here.")
    browser.leader("p")
    browser.click("#paste-text")
    browser.type("one\ntwo\x07\n")
    browser.see("#paste-look", "two^G")
    browser.see("dialog", "3 lines, 9 bytes. It has control or invisible characters.")
    browser.click("dialog button", "Paste")
    web1.expect(b"one\rtwo\x07\r")
    browser.see(browser.status("web1"), "Pasted.")
    browser.leader("b")
    browser.see("dialog", "Some machines stop at a break")
    browser.click("dialog button", "Send it")
    web1.expect(BREAK)
    web1.send(b"\r\nechoed\r\n")
    browser.see(browser.screen("web1"), "echoed")
    browser.leader("0")
    browser.see(browser.status("web1"), "You watch")
    web1.send(b"after\r\n")
    browser.see(browser.screen("web1"), "echoed\nafter")
    journals.wait_for(web.station, Kind.ATTACHED, "web1", given_user="root")


def test_a_person_is_refused_and_takes_over(station, rack, web, browser):
    bob = attached(station, b"web1 mode=sh user=bob addr=desk")
    browser.enter("#/consoles/web1")
    browser.see('.pane .state', "in-use, 1 attached")
    browser.press("w")
    browser.see("dialog", "bob")
    browser.press("Escape", "3")
    browser.see(browser.status("web1"),
                "007 - Cannot grant exclusive access. Console in use. Others are typing at it.")
    browser.click(".status button", "Take over")
    browser.see("dialog", "bob")
    browser.see("dialog", "All of its users are disconnected")
    browser.click("dialog button", "Cancel")
    browser.press("l")
    browser.see("dialog", "Take web1 over?")
    browser.click("dialog button", "Take over")
    browser.see(browser.status("web1"), "You are the only one who types.")
    bob.expect(b"Your session has been terminated by root@127.0.0.1\r\n\r\n" + 78 * b"*"
               + b"\r\n\r\n")
    bob.expect_closed()
    browser.type("mine")
    rack["web1"].expect(b"mine")
    refused = local_user(station, b"web1 mode=sh user=bob")
    refused.expect(b"006 - Console is locked exclusively.\r\n")


def test_a_browser_does_what_the_client_does_when_it_attaches(station, rack, web, browser):
    web1 = rack["web1"]
    web1.send(b"printed before\r\n")
    journals.wait_output(station, "web1", b"printed before\r\n")
    browser.enter()
    browser.see_match("#rows", "web1(?s:.*)connected")
    browser.go("#/consoles/web1")
    browser.see(browser.status("web1"), "You watch")
    browser.press("1")  # read-only: the others see who watches
    browser.see(browser.status("web1"), "What you type is thrown away.")
    bob = attached(station, b"web1 mode=sh user=bob addr=desk")
    browser.press("2")  # shared, with bob
    browser.see(browser.status("web1"), "You type, together with other shared users.")
    browser.type("uptime")
    web1.expect(b"uptime")
    web1.send(b"up 9 days\r\n")
    browser.see(browser.screen("web1"), "up 9 days")
    bob.expect(b"up 9 days\r\n")
    browser.see(".pane .state", "in-use, 2 attached")
    browser.leader("w")
    browser.see_match("dialog", "bob from desk, shared(?s:.*)root from 127.0.0.1, shared")
    browser.press("Escape")
    browser.leader("?")
    browser.see("dialog", "At a console")
    browser.press("Escape")
    browser.leader("3")  # exclusive: not while bob types
    browser.see(browser.status("web1"),
                "007 - Cannot grant exclusive access. Console in use. Others are typing at it.")
    bob.close()
    browser.see_match(".pane .state", "in-use, 0 attached|connected")
    browser.press("3")
    browser.see(browser.status("web1"), "You are the only one who types. Only while")
    local_user(station, b"web1 mode=sh user=bob").expect(
        b"006 - Console is locked exclusively.\r\n")
    attached(station, b"web1 mode=ro user=eve").close()
    browser.leader("4")  # exclusive with revoke
    browser.click("dialog button", "Have it so")
    browser.see(browser.status("web1"), "until the next user asks for the console")
    attached(station, b"web1 mode=sh user=bob addr=desk")
    browser.see(browser.status("web1"), "bob@desk")
    browser.press("h")  # what was printed, with its times
    browser.see(".lines", "printed before")


def test_a_person_logs_out_here_and_everywhere(rack, web, browser):
    web.ensure_session()  # the same person, elsewhere
    browser.enter()
    browser.click("#logout")
    browser.press("Escape")
    browser.see("#who", "root")
    browser.click("#logout")
    browser.click("dialog button", "Here")
    browser.see("main", "Log in")
    assert web.get("/api/session").status == 200
    browser.log_in()
    browser.see("#who", "root")
    browser.click("#logout")
    browser.click("dialog button", "Everywhere")
    browser.see("main", "Log in")
    assert web.get("/api/session").status == 401


def test_a_person_disables_and_enables_a_console(rack, web, browser):
    browser.enter("#/consoles/web1")
    browser.see(".pane .state", "connected")
    browser.press("c")
    browser.see("dialog", "Command for web1")
    browser.press("ArrowDown", "ArrowDown", "Enter")
    browser.see("dialog", "disable web1?")
    browser.see("dialog", "Its users are disconnected")
    browser.click("dialog button", "Do it")
    browser.see(".pane .state", "disabled")
    rack["web1"].expect_closed()
    browser.press("2")
    browser.see(browser.status("web1"), "Enable it, and the daemon connects to it.")
    browser.press("c", "ArrowDown", "Enter")
    rack["web1"].accept()
    browser.see(".pane .state", "connected")
    browser.press("4")
    browser.see("dialog", "neither logged nor kept")
    browser.click("dialog button", "Have it so")
    browser.see(browser.status("web1"), "until the next user asks for the console")


def test_what_was_is_replayed_read_back_searched_and_accounted_for(station, rack, web, browser):
    lines = b"".join(b"line %d\r\n" % number for number in range(1500))
    rack["web1"].send(lines)
    journals.wait_output(station, "web1", b"line 1499\r\n")
    attached(station, b"web1 mode=ro user=bob").close()
    journals.wait_for(station, Kind.LEFT, "web1")
    rack["db1"].send(b"disk error here\r\n")
    journals.wait_output(station, "db1", b"disk error here\r\n")
    browser.enter("#/history/web1")
    browser.see(".lines", "line 1499")
    browser.see(".lines .note", "attached")

    def scrolled_to_the_first_line():
        browser.do("evaluate", script="void (document.querySelector('.lines').scrollTop = 0)")
        return re.search("line 0$", browser.text(".lines"), re.MULTILINE)

    wait_until(scrolled_to_the_first_line, 30, "the first line")
    texts = re.findall(r"line (\d+)$", browser.text(".lines"), re.MULTILINE)
    assert texts == [str(number) for number in range(1500)]
    browser.go("#/search")
    browser.type("disk error")
    browser.press("Enter")
    browser.see(".lines", "disk error here")
    browser.see(".status", "1 lines found.")
    browser.go("#/replay/web1")
    browser.see_match(".status", r"\d+ marks, 1 visits\.")
    browser.see("#play", "Play")
    assert browser.do("count", selector=".track .visit") == 1
    browser.press("n")  # the replay begins ten minutes ago, before all of it
    browser.see_match(".status", "^(connected|started): ")
    first = browser.text("#replay-time")
    browser.press("n")
    browser.press("p")
    browser.see("#replay-time", first)
    browser.go("#/audit")
    browser.see("tbody", "attach")
    browser.see("tbody", "bob")


def test_a_replay_plays(station, rack, web, browser):
    rack["web1"].send(b"\x1b[2J\x1b[Hfirst screen")
    journals.wait_output(station, "web1", b"first screen")
    rack["web1"].send(b"\x1b[2J\x1b[Hsecond screen")
    journals.wait_output(station, "web1", b"second screen")
    browser.enter("#/replay/web1?at=2020-01-01T00:00:00Z")
    browser.see(".view .bar", "2020-01-01")
    browser.click("#play")
    browser.see(".xterm-rows", "second screen")
    browser.see(".status", "This is the end.")
    assert "first" not in browser.text(".xterm-rows")


def test_a_replay_that_is_started_early_begins_when_the_screen_is_there(rack, web, browser):
    rack["web1"].send(b"what was printed")
    journals.wait_output(web.station, "web1", b"what was printed")
    browser.enter()
    browser.do("evaluate", script="""{
        const ask = window.fetch;
        window.fetch = async (what, ...more) => {
          if (String(what).includes('/replay/screen')) {
            await new Promise((go) => { window.answer = go; });
          }
          return ask(what, ...more);
        };
      }""")
    browser.go("#/replay/web1?at=2020-01-01T00:00:00Z")
    browser.see(".view .bar", "2020-01-01")
    browser.click("#play")
    browser.see("#play", "Pause")
    browser.do("evaluate", script="window.answer()")
    browser.see(".xterm-rows", "what was printed")
    browser.see(".status", "This is the end.")
    browser.see("#play", "Play")


def test_page_and_session_survive_restarts(station, rack, web, browser):
    browser.enter("#/consoles/web1/db1")
    rack["web1"].send(b"before\r\n")
    browser.see(browser.screen("web1"), "before")
    browser.press("2")
    browser.see(browser.status("web1"), "You type")
    web.stop()
    browser.see(browser.status("web1"), "The line to the station is broken. It is tried again.")
    browser.see("#banner", "The station does not answer.")
    rack["web1"].send(b"meanwhile\r\n")
    journals.wait_output(station, "web1", b"meanwhile\r\n")
    web.start()
    browser.see(browser.status("web1"), "You type", limit=60)
    rack["web1"].send(b"later\r\n")
    browser.see(browser.screen("web1"), "before\nmeanwhile\nlater")
    browser.type("typed")
    rack["web1"].expect(b"typed")
    station.stop()
    browser.see(browser.status("web1"), "You left")
    browser.see_match("#banner", "daemon")
    journals.begin(station, *rack.values(), options=("-S", "1", "-p", str(station.port)))
    rack["web1"].send(b"again\r\n")
    browser.see(browser.screen("web1"), "again")
    browser.press("2")
    browser.see(browser.status("web1"), "You type")
    browser.type("more")
    rack["web1"].expect(b"more")
    assert browser.text(browser.screen("web1")).count("meanwhile") == 1


def test_a_station_without_a_journal_is_watched_by_attaching(station, groups, web, browser):
    groups.write("qoruser:x:64000:\n")
    admit(station)
    console = station.console("web1")
    journals.begin(station, console, lines=(), options=("-S", "1"))
    browser.enter("#/consoles/web1")
    browser.see("#banner", "There is no journal")
    browser.see(browser.status("web1"), "You watch as a user whom the others see.")
    console.send(b"seen\r\n")
    browser.see(browser.screen("web1"), "seen")


def test_a_session_that_has_ended_asks_for_a_login(rack, web, browser):
    browser.enter("#/consoles/web1")
    browser.see(browser.status("web1"), "You watch")
    browser.do("evaluate", script="fetch('/api/logout', {method: 'POST'}).then(() => 0)")
    browser.see(".login", "Your session has ended. Log in again.")
    browser.log_in("alice", "her own")
    browser.see("#who", "alice from 127.0.0.1")
    browser.see(browser.status("web1"), "You watch")


class Elsewhere(http.server.BaseHTTPRequestHandler):
    """A page of another origin, in the browser of somebody who is logged in."""

    def do_GET(self) -> None:
        """Any page."""
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.end_headers()
        self.wfile.write(b"<!doctype html><title>elsewhere</title>")

    def log_message(self, *_) -> None:
        """Say nothing."""


def opened(browser, web):
    """Whether the page that the browser shows can open a console's stream."""
    return browser.do("evaluate", script=f"""new Promise((done) => {{
        const socket = new WebSocket('wss://127.0.0.1:{web.port}/api/consoles/web1/stream');
        socket.onopen = () => done('open');
        socket.onclose = () => done('refused');
      }})""")


def commanded(browser, web, command):
    """Whether it is answered when it sends a command without any more rights than a form has."""
    return browser.do("evaluate", script=f"""fetch(
        'https://127.0.0.1:{web.port}/api/consoles/web1/{command}',
        {{method: 'POST', credentials: 'include', mode: 'no-cors', body: '{{}}'}})
        .then((answer) => answer.status, () => 'refused')""")


def test_a_page_elsewhere_cannot_type(station, rack, web, browser):
    browser.enter()
    assert opened(browser, web) == "open"
    assert commanded(browser, web, "reconnect") == 200
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Elsewhere) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        browser.do("open", address=f"http://127.0.0.1:{server.server_port}/", guarded=False)
        assert opened(browser, web) == "refused"
        assert commanded(browser, web, "disable") == "refused"
        server.shutdown()
    rack["web1"].send(b"still here\r\n")
    browser.open("#/consoles/web1")
    browser.see(browser.screen("web1"), "still here")
    browser.see(".pane .state", "connected")


def test_the_modules_of_the_page(tmp_path):
    packages = settings.build_directory() / "page"
    sources = sorted((packages / "src").glob("*.ts"))
    subprocess.run([packages / "node_modules/.bin/esbuild", *sources, "--format=esm",
                    f"--outdir={tmp_path}", "--log-level=warning",
                    "--out-extension:.js=.mjs"], check=True)
    for made in tmp_path.glob("*.mjs"):
        made.write_text(re.sub(r"(from '[^']*|from \"[^\"]*)\.ts(['\"])", r"\1.mjs\2",
                               made.read_text(encoding="utf-8")), encoding="utf-8")
    tests = sorted(DRIVER.parent.glob("*.test.mjs"))
    done = subprocess.run(["node", "--test", *tests], capture_output=True, text=True, check=False,
                          env=os.environ | {"ZEVWEB_MODULES": str(tmp_path)})
    assert done.returncode == 0, done.stdout + done.stderr
    assert re.search(r"^# pass [1-9]", done.stdout, re.MULTILINE), done.stdout
