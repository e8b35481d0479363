"""The page for everybody: the keyboard alone, a screen reader, two themes, a telephone. And its
pictures in the documents."""

import os
from pathlib import Path

import pytest

# `browser`, `groups`, `rack` and `web` are fixtures.
from harness import journals
from harness.access import reload
from harness.browser import attached, browser, rack
from harness.helpers import groups
from harness.waiting import wait_until
from harness.web import web

pytestmark = pytest.mark.needs_namespace

IMAGES = Path(__file__).resolve().parents[2] / "docs" / "images"
SCREENSHOTS = "ZEVD_TEST_SCREENSHOTS"
BOOT = b"\x1b[2J\x1b[H" + b"".join(
    f"[    {seconds}] {text}\r\n".encode() for seconds, text in (
        ("0.000000", "Linux version 6.1.0 (gcc 12.2.0)"),
        ("0.000000", "Command line: root=/dev/sda2 ro console=ttyS0,115200"),
        ("0.412207", "smpboot: 8 processors, 39999 BogoMIPS"),
        ("0.903312", "tg3 0000:02:00.0 eth0: link is up at 1000 Mbit/s"),
        ("1.204113", "\x1b[32mext4\x1b[0m (sda2): mounted filesystem, ordered data"),
        ("1.871004", "systemd[1]: hostname set to \x1b[1mweb1\x1b[0m"),
    )) + b"".join(b"[\x1b[32m  OK  \x1b[0m] Started %s.\r\n" % name for name in (
        b"system log", b"network", b"secure shell", b"web server")) + b"\r\nweb1 login: "


def test_keyboard_screen_reader_themes_and_a_narrow_screen(rack, web, browser):
    browser.enter()
    browser.see("#rows", "web1")
    browser.press("?")
    browser.see("dialog", "In the list")
    browser.press("Escape")
    browser.see_gone("dialog")
    browser.press("Space", "ArrowDown", "Space", "Shift+Enter")
    browser.see(browser.status("db1"), "You watch")
    browser.see(browser.status("web1"), "You watch")
    labels = browser.do("evaluate", script="[...document.querySelectorAll('.pane')].map("
                        "(one) => one.getAttribute('aria-label')).sort()")
    assert labels == ["Console db1", "Console web1"]
    rack["web1"].send(b"heard by a screen reader\r\n")
    browser.see(browser.screen("web1"), "heard")
    browser.click("#screen-reader")
    wait_until(lambda: "heard" in browser.do("evaluate", script="[...document.querySelectorAll("
               "'.xterm-accessibility')].map((one) => one.textContent).join('')"),
               30, "the terminal's text for a screen reader")
    dark = "document.documentElement.classList.contains('dark')"
    browser.do("dark", on=True)
    wait_until(lambda: browser.do("evaluate", script=dark), 10, "the system's dark theme")
    browser.click("#theme")
    browser.see("#theme", "light")
    assert not browser.do("evaluate", script=dark)
    browser.do("viewport", width=360, height=700, mobile=True)
    browser.go("#/consoles/web1")
    browser.see_gone('.pane[data-console="db1"]')
    browser.see(".keys", "Esc")
    assert not browser.do("evaluate", script="document.documentElement.scrollWidth > 360")
    assert browser.text(".list") == ""
    assert browser.do("evaluate", script="{ const heading = document.querySelector('h1');"
                      " heading.checkVisibility() && heading.getBoundingClientRect().right <= 0; }")
    browser.do("evaluate", script="{ const modes = document.querySelector('.pane select');"
               " modes.value = '2'; modes.dispatchEvent(new Event('change')); }")
    browser.see(browser.status("web1"), "You type")
    browser.click(".keys button", "Ctrl")
    browser.press("d")
    browser.click(".keys button", "↑")
    rack["web1"].expect(b"\x04\x1b[A")


VIEWS = {
    "list": ("#/", "#rows", "web1"),
    "consoles": ("#/consoles/web1/db1", '.pane[data-console="web1"] .status', "You watch"),
    "history": ("#/history/web1", ".lines", "printed"),
    "replay": ("#/replay/web1", ".status", "marks"),
    "search": ("#/search?q=printed", ".lines", "printed"),
    "audit": ("#/audit", "tbody", "attach"),
}
WIDEST = "document.documentElement.scrollWidth"


def test_a_person_with_a_telephone_types(rack, web, browser):
    browser.do("viewport", width=390, height=844, mobile=True)
    browser.open()
    browser.log_in()
    browser.see("#rows", "web1")
    assert browser.do("evaluate", script=WIDEST) == 390
    browser.do("tap", selector="#rows .row:nth-child(2)")
    browser.see(browser.status("web1"), "You watch")
    rack["web1"].send(b"login: ")
    browser.see(browser.screen("web1"), "login:")
    browser.do("select", selector=".pane select", value="2")
    browser.see(browser.status("web1"), "You type")
    for key in ("Esc", "Tab", "Left", "Enter"):
        browser.do("tap", selector=f'.keys button[aria-label="{key}"]')
    rack["web1"].expect(b"\x1b\t\x1b[D\r")
    browser.do("tap", selector=".keys .control")
    browser.type("c")
    rack["web1"].expect(b"\x03")
    wide = {}
    for view in ("list", "consoles", "history", "replay", "search", "audit"):
        place, selector, text = VIEWS[view]
        browser.go(place.replace("printed", "login"))
        browser.see(selector, text.replace("printed", "login"))
        wide[view] = browser.do("evaluate", script=WIDEST)
    assert set(wide.values()) == {390}, wide


@pytest.mark.parametrize("theme", ["light", "dark"])
def test_every_view_can_be_read_by_a_screen_reader(station, rack, web, browser, theme):
    rack["web1"].send(b"printed\r\n")
    journals.wait_output(station, "web1", b"printed\r\n")
    attached(station, b"db1 mode=ro user=bob").close()
    browser.do("dark", on=theme == "dark")
    browser.open()
    browser.see("main", "Log in")
    found = {"login": browser.do("axe")}
    browser.log_in()
    browser.see("#who", "root")
    for view, (place, selector, text) in VIEWS.items():
        browser.go(place)
        browser.see(selector, text)
        found[view] = browser.do("axe")
    browser.press("?")
    browser.see("dialog", "In the list")
    found["help"] = browser.do("axe")
    assert {view: wrong for view, wrong in found.items() if wrong} == {}


@pytest.mark.parametrize("theme", ["light", "dark"])
def test_screenshots(station, rack, web, browser, tmp_path, theme):
    """Of list and terminals; with ZEVD_TEST_SCREENSHOTS set they are kept in docs/images."""
    station.console_line("backup1", 1)  # nobody listens there
    station.console_line("spare", 2, enable=0)
    others = [station.console(name) for name in ("db2", "web2")]
    reload(station)
    for other in others:
        other.accept()
    place = IMAGES if os.environ.get(SCREENSHOTS) else tmp_path
    place.mkdir(exist_ok=True)
    browser.do("viewport", width=1500, height=700, mobile=False)
    browser.do("dark", on=theme == "dark")
    attached(station, b"db1 mode=sh user=anna addr=desk")
    browser.enter("#/consoles/web1/db1")
    rack["web1"].send(BOOT)
    rack["db1"].send(b"\r\ndb1 login: "
                     b"[ 9127.553021] \x1b[31mI/O error\x1b[0m, dev sda, sector 2048\r\n"
                     b"[ 9127.553988] md0: disk failure on sda1, "
                     b"\x1b[33mdisabling device\x1b[0m\r\n"
                     b"[ 9127.554102] md0: operation continues on 1 device\r\n")
    browser.see("#rows", "backup1")
    browser.see_match("#count", "^6 of 6, 1 with problems$")
    browser.see(browser.screen("web1"), "web1 login:")
    browser.see(browser.screen("db1"), "sector 2048")
    browser.see("#rows", "anna (shared)")
    browser.press("2")
    browser.see("#rows", "root (shared)")
    image = place / f"zevweb-{theme}.png"
    browser.do("screenshot", path=str(image))
    assert image.read_bytes().startswith(b"\x89PNG") and image.stat().st_size < 150_000
    background = browser.do("evaluate", script="getComputedStyle(document.body).backgroundColor")
    assert background == {"light": "rgb(255, 255, 255)", "dark": "rgb(16, 19, 22)"}[theme]
