"""The station in a browser: the program that serves it, and what a browser asks of it."""

import http.client
import json
import secrets
from pathlib import Path

from place import Place
from processes import Processes
from steps import HOST, PATIENCE, StepFailed, show, wait_until

NAME = "root"

# In place of the helper that asks the machine: the demo's people have the demo's own password. It
# reads the name, a blank and the password.
PASSWORD_HELPER = """#!/bin/sh
IFS= read -r pair
[ "$pair" = "{pair}" ]
"""

# The demo's page is reached from this machine alone, so it needs no certificate that a browser
# would warn of.
SETTINGS = """listen = "{host}:{port}"
tls = false
main_port = {main_port}
directory = "{directory}"
"""


def write_password_helper(root: Path) -> str:
    """Let the daemon know one pair, NAME and a password made up now, which is returned."""
    password = secrets.token_hex(4)
    helper = root / "bin/qor_pam_auth"
    helper.parent.mkdir()
    helper.write_text(PASSWORD_HELPER.format(pair=f"{NAME} {password}"))
    helper.chmod(0o755)
    return password


class Page:
    """zevweb, and a person with a browser."""

    def __init__(self, processes: Processes, place: Place, main_port: int, port: int) -> None:
        self._processes = processes
        self._place = place
        self._main_port = main_port
        self._port = port
        self._session = ""
        self.password = write_password_helper(place.root)

    @property
    def link(self) -> str:
        """What a browser on this machine opens."""
        return f"http://{HOST}:{self._port}/"

    def start(self) -> None:
        """Start zevweb, and wait until it is ready."""
        settings = self._place.root / "config/zevweb.toml"
        directory = self._place.root / "zevweb"
        directory.mkdir(mode=0o700)
        settings.write_text(SETTINGS.format(host=HOST, port=self._port, main_port=self._main_port,
                                            directory=directory))
        print("  $ zevweb")
        with (self._place.root / "logs/zevweb.out").open("wb") as sink:
            self._processes.start(str(self._place.web), "--page", str(self._place.page),
                                  stdout=sink, stderr=sink)
        wait_until(self._is_ready, "zevweb to be ready")

    def log_in(self) -> None:
        """Log in as the page does."""
        pair = json.dumps({"name": NAME, "password": self.password})
        headers = self._ask("POST", "/api/login", pair)[0]
        self._session = headers["Set-Cookie"].partition(";")[0]

    def consoles(self) -> dict[str, str]:
        """What the page lists: the state of each console."""
        listed = json.loads(self._ask("GET", "/api/consoles")[1])["consoles"]
        for console in listed:
            show("page", "shows", f"{console['name']:10} {console['state']}".encode())
        return {console["name"]: console["state"] for console in listed}

    def html(self) -> str:
        """The page itself."""
        return self._ask("GET", "/")[1].decode()

    def _is_ready(self) -> bool:
        try:
            self._ask("GET", "/readyz")
        except (OSError, StepFailed):
            return False
        return True

    def _ask(self, method: str, path: str, body: str = "") -> tuple[http.client.HTTPMessage, bytes]:
        """One request; whatever is not a success fails the step."""
        connection = http.client.HTTPConnection(HOST, self._port, timeout=PATIENCE)
        connection.request(method, path, body or None,
                           {"Origin": self.link.rstrip("/"), "Cookie": self._session})
        answer = connection.getresponse()
        content = answer.read()
        connection.close()
        if answer.status not in (200, 204):
            raise StepFailed(f"zevweb answered {answer.status} to {method} {path}: {content!r}")
        return answer.headers, content
