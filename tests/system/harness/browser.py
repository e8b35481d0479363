"""A real browser before zevweb's page: headless Chromium, driven by tests/web/driver.mjs."""

import json
import re
import subprocess
from pathlib import Path

import pytest

from harness import journals, settings
from harness.cookies import local_user
from harness.peers import OFFERS
from harness.waiting import LIMIT, wait_until
from harness.web import NAME, PASSWORD, Web, admit

DRIVER = Path(__file__).resolve().parents[2] / "web" / "driver.mjs"
PACKAGES = settings.build_directory() / "page"
LEADER = "Control+]"  # while a person types, it makes the next key the page's


class Browser:
    """One browser with one page."""

    def __init__(self, web: Web, scratch: Path) -> None:
        self.web = web
        self.errors = open(scratch / "browser.err", "wb")
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", "--", "node", str(DRIVER), str(PACKAGES),
             str(scratch / "profile")],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors, text=True)

    def do(self, what: str, **values):
        """Have the driver do something; its answer."""
        self.process.stdin.write(json.dumps({"what": what, **values}) + "\n")
        self.process.stdin.flush()
        line = self.process.stdout.readline()
        assert line, Path(self.errors.name).read_text(encoding="utf-8", errors="replace")
        answer = json.loads(line)
        assert "error" not in answer, f"{what} {values}: {answer['error']}\n{self.text('body')}"
        return answer["value"]

    def open(self, hash_: str = "") -> None:
        """Open the page."""
        self.web.start()
        self.do("open", address=f"{self.web.origin}/{hash_}", guarded=True)

    def log_in(self, name: str = NAME, password: str = PASSWORD) -> None:
        """Fill in the form."""
        self.see("main", "Log in")
        self.do("click", selector="input[name=name]")
        self.press("Control+a")
        self.type(name)
        self.press("Tab")
        self.type(password)
        self.press("Enter")

    def enter(self, hash_: str = "") -> None:
        """Open the page and log in."""
        self.open(hash_)
        self.log_in()
        self.see("#who", NAME)

    def go(self, hash_: str) -> None:
        """Follow a link within the page."""
        self.do("go", hash=hash_)

    def press(self, *keys: str) -> None:
        """Press these, one after the other."""
        for key in keys:
            self.do("press", keys=key)

    def type(self, text: str) -> None:
        """Type it, wherever the keyboard is."""
        self.do("type", text=text)

    def click(self, selector: str, text: str | None = None) -> None:
        """Click on this; `text` chooses the one that says so."""
        if text is None:
            self.do("click", selector=selector)
        else:
            self.do("clickText", selector=selector, text=text)

    def text(self, selector: str) -> str:
        """What can be read there."""
        return self.do("text", selector=selector)

    def see(self, selector: str, wanted: str, limit: float = 3 * LIMIT) -> str:
        """Wait until it says so somewhere."""
        return self._wait(selector, lambda text: wanted in text, wanted, limit)

    def see_match(self, selector: str, pattern: str) -> re.Match:
        """Wait until the pattern is found there."""
        text = self._wait(selector, lambda text: re.search(pattern, text), pattern, 3 * LIMIT)
        return re.search(pattern, text)

    def see_gone(self, selector: str) -> None:
        """Wait until nothing of it is there."""
        wait_until(lambda: self.do("count", selector=selector) == 0, 3 * LIMIT, f"no {selector}")

    def _wait(self, selector: str, is_there, wanted: str, limit: float) -> str:
        last = ""

        def found():
            nonlocal last
            last = self.text(selector)
            return bool(is_there(last))

        try:
            wait_until(found, limit, f"{wanted!r} in {selector}")
        except AssertionError as error:
            raise AssertionError(f"{error}\nthere: {last}\npage: {self.text('body')}") from None
        return last

    def screen(self, console: str) -> str:
        """The selector of a console's terminal."""
        return f'.pane[data-console="{console}"] .xterm-rows'

    def status(self, console: str) -> str:
        """The selector of the line below a console's terminal."""
        return f'.pane[data-console="{console}"] .status'

    def leader(self, key: str) -> None:
        """A key of the page's while a person types."""
        self.press(LEADER, key)

    def findings(self) -> list[str]:
        """Requests to elsewhere, scripts that failed, and what the content policy has blocked."""
        return self.do("findings")

    def close(self) -> None:
        """Close it."""
        self.process.stdin.close()
        try:
            self.process.wait(3 * LIMIT)
        finally:
            self.process.kill()
            self.process.wait()
            self.errors.close()


@pytest.fixture
def browser(web, tmp_path):
    """A browser before `web`; nothing that must not happen may have happened in it."""
    made = Browser(web, tmp_path)
    try:
        yield made
        assert made.findings() == []
    finally:
        made.close()


@pytest.fixture
def rack(station, groups):
    """Two consoles, a journal, and a daemon with security on. The test imports `groups`, too."""
    groups.write("qoruser:x:64000:alice\n")
    admit(station, ("alice", "her own"))
    consoles = {name: station.console(name) for name in ("web1", "db1")}
    journals.begin(station, *consoles.values(), options=("-S", "1"))
    return consoles


def attached(station, line: bytes):
    """Another person at the station, attached."""
    user = local_user(station, line)
    user.expect(OFFERS)
    return user
