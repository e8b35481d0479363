"""The station in a browser: the program zevweb, and clients of it."""

import contextlib
import http.client
import json
import socket
import ssl
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

import pytest
import websocket

from harness import settings, zevctl
from harness.helpers import FakeHelper
from harness.station import Station, assert_no_sanitizer_report
from harness.waiting import LIMIT, free_port, stretched, wait_until

PROGRAM = settings.build_directory() / "bin" / "zevweb"

# Who logs in unless the test says otherwise; root may without being in any group.
NAME, PASSWORD = "root", "two words"


class Answer:
    """What the server answered."""

    def __init__(self, response: http.client.HTTPResponse) -> None:
        self.status = response.status
        self.headers = response.headers
        self.body = response.read()

    @property
    def json(self):
        """The body, which is JSON."""
        return json.loads(self.body)

    @property
    def error(self) -> str:
        """What went wrong, in words."""
        return self.json["error"]


class LocalConnection(http.client.HTTPConnection):
    """HTTP over the socket of the proxy."""

    def __init__(self, path: Path) -> None:
        super().__init__("station.example.org", timeout=stretched(LIMIT))
        self.path = path

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(str(self.path))


def certificate(directory: Path, name: str = "station",
                address: str = "127.0.0.1") -> tuple[Path, Path]:
    """A certificate for an address of the test's that signs itself, and its key."""
    files = directory / f"{name}.pem", directory / f"{name}.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", f"/CN={name}",
                    "-addext", f"subjectAltName=IP:{address},DNS:localhost", "-keyout", files[1],
                    "-out", files[0]], check=True, capture_output=True)
    return files


class Web:
    """zevweb, beside a station. It starts when it is first used; by then the daemon runs."""

    def __init__(self, station: Station, scratch: Path, tls: bool = True, main_port: int = 0,
                 lines: str = "", page: Path | None = None) -> None:
        self.station = station
        self.scratch = scratch
        self.tls = tls
        self.main_port = main_port
        self.lines = lines
        self.page = page or settings.build_directory() / "share" / "zevweb"
        self.port = free_port()
        self.directory = scratch / "zevweb"
        self.directory.mkdir(exist_ok=True)
        self.config = scratch / "zevweb.toml"
        self.output = scratch / "zevweb.out"
        self.proxy_socket = scratch / "proxy.sock"
        self.process: subprocess.Popen | None = None
        self.cookie: str | None = None
        if tls:
            self.certificate, self.key = certificate(scratch)

    # The program

    @property
    def scheme(self) -> str:
        """Of the addresses."""
        return "https" if self.tls else "http"

    @property
    def origin(self) -> str:
        """What the browser calls the page's origin."""
        return f"{self.scheme}://127.0.0.1:{self.port}"

    @property
    def pid(self) -> int:
        """The process id."""
        return self.start().process.pid

    def write_config(self) -> None:
        """Write the settings; `lines` come last, so they may begin a table."""
        text = (f'listen = "127.0.0.1:{self.port}"\ndirectory = "{self.directory}"\n'
                f"main_port = {self.main_port or self.station.port}\n")
        if self.tls:
            text += f'certificate = "{self.certificate}"\nkey = "{self.key}"\n'
        else:
            text += "tls = false\n"
        self.config.write_text(text + self.lines, encoding="utf-8")

    def start(self) -> "Web":
        """Start it unless it runs, and wait until it serves."""
        if self.process is not None:
            return self
        self.write_config()
        with open(self.output, "ab") as output:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "--", str(PROGRAM), "--config",
                 str(self.config), "--page", str(self.page)],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        wait_until(self._is_up, what="zevweb to serve")
        return self

    def _is_up(self) -> bool:
        assert self.process.poll() is None, self.text()
        try:
            return self.ask("GET", "/healthz", cookie=False).status == 200
        except OSError:
            return False

    def stop(self) -> None:
        """End it in order."""
        if self.process is None:
            return
        self.process.terminate()
        try:
            assert self.process.wait(stretched(LIMIT)) == 0, self.text()
        finally:
            self.process.kill()
            self.process.wait()
            self.process = None
        assert_no_sanitizer_report(self.text())

    def restart(self) -> None:
        """End it, and start it again with the same settings."""
        self.stop()
        self.start()

    def signal(self, number: int) -> None:
        """Send it a signal."""
        self.process.send_signal(number)

    def text(self) -> str:
        """What it has said."""
        return self.output.read_text(encoding="utf-8", errors="replace")

    # HTTP

    def tls_context(self) -> ssl.SSLContext:
        """Believes this server alone."""
        context = ssl.create_default_context(cafile=str(self.certificate))
        return context

    def connection(self) -> http.client.HTTPConnection:
        """A connection to the port."""
        if not self.tls:
            return http.client.HTTPConnection("127.0.0.1", self.port, timeout=stretched(LIMIT))
        return http.client.HTTPSConnection("127.0.0.1", self.port, timeout=stretched(LIMIT),
                                           context=self.tls_context())

    def raw(self, receive_buffer: int = 0) -> socket.socket:
        """A connection on which the test writes the bytes itself. With a small buffer, what the
        test does not take stays at the server."""
        plain = socket.socket()
        plain.settimeout(stretched(LIMIT))
        if receive_buffer:
            plain.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        plain.connect(("127.0.0.1", self.port))
        return self.tls_context().wrap_socket(plain, server_hostname="127.0.0.1") \
            if self.tls else plain

    def ask(self, method: str, path: str, body=None, headers: dict[str, str] | None = None,
            cookie: bool = True, local: bool = False) -> Answer:
        """One request on a connection of its own. A dictionary as body goes as JSON. The page's own
        origin is added where the method wants it; a header None is left out."""
        self.start()
        sent = {}
        if method not in ("GET", "HEAD"):
            sent["Origin"] = "https://station.example.org" if local else self.origin
        if cookie and self.cookie:
            sent["Cookie"] = self.cookie
        sent.update(headers or {})
        data = json.dumps(body).encode() if isinstance(body, dict) else body
        with contextlib.closing(
                LocalConnection(self.proxy_socket) if local else self.connection()) as connection:
            connection.request(method, path, data,
                               {name: text for name, text in sent.items() if text is not None})
            return Answer(connection.getresponse())

    def get(self, path: str, **options) -> Answer:
        """Ask for this."""
        return self.ask("GET", path, **options)

    def post(self, path: str, body=b"", **options) -> Answer:
        """Have this done."""
        return self.ask("POST", path, body, **options)

    def log_in(self, name: str = NAME, password: str = PASSWORD) -> Answer:
        """Log in as a person; what comes later has the session's cookie."""
        answer = self.post("/api/login", {"name": name, "password": password}, cookie=False)
        if answer.status == 204:
            self.cookie = answer.headers["Set-Cookie"].partition(";")[0]
        return answer

    @staticmethod
    def tries_until_refused(log_in: Callable[[], Answer], burst: int, pause: int) -> None:
        """Log in with a wrong password until there is a wait.

        `burst` tries are allowed at once, and one more for each `pause` (seconds) that they take.
        """
        begin = time.monotonic()
        tries = 0
        while (status := log_in().status) != 429:
            assert status == 401
            tries += 1
            assert tries <= burst + (time.monotonic() - begin) / pause
        assert tries >= burst

    def send(self, method: str, path: str, body=None, headers: dict[str, str] | None = None
             ) -> tuple[int, str | None, bytes]:
        """As `ask`, logged in; gives status, type and body."""
        self.ensure_session()
        answer = self.ask(method, path, body, headers)
        return answer.status, answer.headers["Content-Type"], answer.body

    def ensure_session(self) -> None:
        """Log in unless that has been done."""
        self.start()
        if self.cookie is None:
            answer = self.log_in()
            assert answer.status == 204, answer.body

    def token(self, name: str) -> str:
        """The secret of a new token."""
        made = zevctl.run(None, "token", "create", name)
        return made.stdout.strip()

    # WebSockets

    def websocket(self, path: str, headers: dict[str, str] | None = None, origin: str | None = "",
                  cookie: bool = True) -> websocket.WebSocket:
        """A WebSocket at this path, of the session; `origin=None` leaves it out."""
        self.start()
        options = {"ca_certs": str(self.certificate)} if self.tls else {}
        return websocket.create_connection(
            f"{'wss' if self.tls else 'ws'}://127.0.0.1:{self.port}{path}",
            timeout=stretched(LIMIT), sslopt=options, suppress_origin=origin is None,
            origin=origin or self.origin, header=[f"{name}: {text}"
                                                  for name, text in (headers or {}).items()],
            cookie=self.cookie if cookie else None)

    def __enter__(self) -> "Web":
        return self

    def __exit__(self, *_) -> None:
        self.stop()


def admit(station: Station, *people: tuple[str, str]) -> None:
    """Have the station's password helper accept these, and NAME. Before the daemon starts."""
    helper = FakeHelper(station)
    for name, password in ((NAME, PASSWORD), *people):
        helper.accept(name.encode(), password.encode())


@pytest.fixture
def web(station, tmp_path):
    """zevweb beside the station; start that first, with security on after `admit(station)`."""
    with Web(station, tmp_path) as made:
        yield made
