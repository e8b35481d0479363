"""NATS: real servers that keep streams, and a client that looks into them."""

import base64
import contextlib
import json
import re
import signal
import socket
import subprocess
from dataclasses import dataclass
from pathlib import Path

from harness.realm import Machine
from harness.waiting import LIMIT, free_port, stretched, wait_until

SITE, STATION = "hall1", "st1"
STREAM = f"{SITE}+{STATION}"

# What can be asked for at once without filling the buffers on the way.
_AHEAD = 200


@dataclass(frozen=True)
class Message:
    """A message of a stream."""

    sequence: int
    subject: str
    headers: dict[str, str]
    data: bytes

    @property
    def record(self) -> int:
        """The running number of the journal's record."""
        return int(self.headers["Zev-Record"])

    @property
    def id(self) -> str:
        """What makes it this message."""
        return self.headers["Nats-Msg-Id"]

    @property
    def json(self) -> dict:
        """Its content, where it is no output."""
        return json.loads(self.data)


class NatsError(AssertionError):
    """The server refused what it was asked."""


def parse_headers(block: bytes) -> dict[str, str]:
    """The lines behind the first one, and that one's status."""
    first, *lines = block.decode("ascii").split("\r\n")
    headers = {}
    for line in lines:
        name, colon, value = line.partition(":")
        if colon:
            headers[name] = value.strip()
    status = first.removeprefix("NATS/1.0").strip()
    if status:
        headers["Status"] = status
    return headers


class NatsClient:
    """One connection to a server, in the protocol's own words."""

    def __init__(self, port: int, user: str = "", host: str = "127.0.0.1") -> None:
        self._socket = socket.create_connection((host, port), timeout=stretched(LIMIT))
        self._input = self._socket.makefile("rb")
        self.info = json.loads(self._line().removeprefix(b"INFO "))
        self._subscriptions = 0
        self._asked = 0
        words = {"verbose": False, "pedantic": False, "headers": True, "no_responders": True,
                 "lang": "test", "version": "0", "protocol": 1}
        if user:
            words["user"], _, words["pass"] = user.partition(":")
        self._send(f"CONNECT {json.dumps(words)}\r\nSUB answer.{id(self)}.* 1\r\nPING\r\n".encode())
        assert self._line() == b"PONG"

    def close(self) -> None:
        """Leave."""
        self._input.close()
        self._socket.close()

    def __enter__(self) -> "NatsClient":
        return self

    def __exit__(self, *_) -> None:
        self.close()

    def _send(self, data: bytes) -> None:
        self._socket.sendall(data)

    def _line(self) -> bytes:
        line = self._input.readline()
        if not line:
            raise ConnectionError("the server has closed the connection")
        return line.rstrip(b"\r\n")

    def publish(self, subject: str, data: bytes = b"", reply: str = "",
                headers: dict[str, str] | None = None) -> None:
        """Send a message."""
        block = b""
        if headers:
            lines = "".join(f"{name}: {value}\r\n" for name, value in headers.items())
            block = f"NATS/1.0\r\n{lines}\r\n".encode()
        words = ["HPUB" if headers else "PUB", subject, *([reply] if reply else []),
                 *([str(len(block))] if headers else []), str(len(block) + len(data))]
        self._send(" ".join(words).encode() + b"\r\n" + block + data + b"\r\n")

    def ask(self, subject: str, data: bytes = b"", headers: dict[str, str] | None = None) -> None:
        """Send a message whose answer `answer` takes."""
        self._asked += 1
        self.publish(subject, data, f"answer.{id(self)}.{self._asked}", headers)

    def answer(self) -> tuple[dict[str, str], bytes]:
        """The next answer: headers and data."""
        while True:
            line = self._line()
            if line == b"PING":
                self._send(b"PONG\r\n")
            elif line.startswith((b"MSG ", b"HMSG ")):
                return self._message(line.decode().split())
            else:
                assert line == b"PONG" or line.startswith((b"INFO ", b"+OK")), line

    def _message(self, words: list[str]) -> tuple[dict[str, str], bytes]:
        whole = self._input.read(int(words[-1]))
        assert self._input.read(2) == b"\r\n"
        size = int(words[-2]) if words[0] == "HMSG" else 0
        return parse_headers(whole[:size]), whole[size:]

    def request(self, subject: str, data: dict | bytes = b"") -> dict:
        """Ask for something that is answered in JSON. Throws NatsError."""
        self.ask(subject, json.dumps(data).encode() if isinstance(data, dict) else data)
        headers, text = self.answer()
        if headers.get("Status"):
            raise NatsError(f"{subject}: {headers['Status']}")
        answer = json.loads(text)
        if "error" in answer:
            raise NatsError(f"{subject}: {answer['error']}")
        return answer

    # Streams

    def api(self, words: str, data: dict | None = None) -> dict:
        """Ask what keeps the streams."""
        return self.request(f"$JS.API.{words}", data or b"")

    def state(self, stream: str = STREAM) -> dict:
        """How many messages there are, and so on."""
        return self.api(f"STREAM.INFO.{stream}")["state"]

    def config(self, stream: str = STREAM) -> dict:
        """How the stream was made."""
        return self.api(f"STREAM.INFO.{stream}")["config"]

    def make(self, name: str, *subjects: str, **config) -> dict:
        """Make a stream."""
        return self.api(f"STREAM.CREATE.{name}", {"name": name, "subjects": list(subjects),
                                                  "storage": "file", "retention": "limits",
                                                  "num_replicas": 1, **config})

    def messages(self, stream: str = STREAM, first: int = 0) -> list[Message]:
        """All messages of a stream, or those from a sequence number on."""
        state = self.state(stream)
        wanted = range(max(first, state["first_seq"]), state["last_seq"] + 1)
        found = []
        for start in range(0, len(wanted), _AHEAD):
            part = wanted[start:start + _AHEAD]
            for sequence in part:
                self.ask(f"$JS.API.STREAM.MSG.GET.{stream}",
                         json.dumps({"seq": sequence}).encode())
            found += [self._stored(self.answer()[1]) for _ in part]
        return [message for message in found if message is not None]

    @staticmethod
    def _stored(text: bytes) -> Message | None:
        answer = json.loads(text)
        if "error" in answer:
            if answer["error"]["err_code"] != 10037:  # it has been deleted
                raise NatsError(answer["error"])
            return None
        message = answer["message"]
        return Message(message["seq"], message["subject"],
                       parse_headers(base64.b64decode(message.get("hdrs", ""))),
                       base64.b64decode(message.get("data", "")))


class NatsServer:
    """A server in a process of its own, or on a machine. What it keeps stays when it ends."""

    def __init__(self, scratch: Path, name: str = "n1", settings: str = "",
                 limit: str = "400MB", machine: Machine | None = None) -> None:
        self.name = name
        self.machine = machine
        self.host = machine.address if machine else "127.0.0.1"
        self.port = free_port()
        self.cluster_port = free_port()
        self.routes: list[str] = []
        self.settings = settings
        self.user = ""  # "NAME:PASSWORD" of the test's own connections
        self.limit = limit
        self.directory = scratch / f"nats-{name}"
        self.directory.mkdir()
        self.output = self.directory / "output"
        self.process: subprocess.Popen | None = None

    @property
    def url(self) -> str:
        """Where it is reached."""
        return f"nats://{self.host}:{self.port}"

    @property
    def route(self) -> str:
        """Where the others of its cluster reach it."""
        return f"nats-route://{self.host}:{self.cluster_port}"

    def write_settings(self) -> Path:
        """Write the file with its settings."""
        text = (f'server_name: {self.name}\nlisten: "{self.host}:{self.port}"\n'
                f'jetstream {{ store_dir: "{self.directory}/store", max_memory_store: 16MB, '
                f"max_file_store: {self.limit} }}\n{self.settings}\n")
        if self.routes:
            text += (f'cluster {{ name: hall, listen: "{self.host}:{self.cluster_port}", '
                     f"routes: {json.dumps(self.routes)} }}\n")
        path = self.directory / "nats.conf"
        path.write_text(text)
        return path

    def start(self, wait: bool = True) -> "NatsServer":
        """Start it, and wait until it answers."""
        words = ["setpriv", "--pdeathsig", "KILL", "--", "nats-server", "-c",
                 str(self.write_settings())]
        if self.machine:
            words = self.machine.inside(words)
        with open(self.output, "ab") as output:
            self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=output,
                                            stderr=output)
        if wait:
            wait_until(self.answers, what=f"{self.name} to answer; see {self.output}")
        return self

    def answers(self) -> bool:
        """Whether it keeps streams now."""
        assert self.process.poll() is None, self.output.read_text()
        try:
            with self.client() as client:
                client.api("INFO")
        except (OSError, NatsError):
            return False
        return True

    def client(self) -> NatsClient:
        """A connection to it."""
        return NatsClient(self.port, self.user, self.host)

    def kill(self) -> None:
        """End it without a warning."""
        self.process.kill()
        self.process.wait()
        self.process = None

    def stop(self) -> None:
        """End it in order."""
        self.process.terminate()
        self.process.wait(stretched(LIMIT))
        self.process = None

    @contextlib.contextmanager
    def held(self):
        """It does nothing meanwhile, while its connections stand."""
        self.process.send_signal(signal.SIGSTOP)
        try:
            yield
        finally:
            self.process.send_signal(signal.SIGCONT)

    def close(self) -> None:
        """End it if it still runs."""
        if self.process is not None:
            self.process.send_signal(signal.SIGCONT)
            self.kill()


class NatsCluster:
    """Servers that keep their streams together."""

    def __init__(self, scratch: Path, count: int = 3,
                 machines: list[Machine] | None = None) -> None:
        where = machines or [None] * count
        self.servers = [NatsServer(scratch, f"n{number}", machine=machine)
                        for number, machine in enumerate(where, start=1)]
        for server in self.servers:
            server.routes = [other.route for other in self.servers]

    @property
    def urls(self) -> list[str]:
        """Where its servers are reached."""
        return [server.url for server in self.servers]

    def start(self) -> "NatsCluster":
        """Start them, and wait until they have agreed on one that leads."""
        for server in self.servers:
            server.start(wait=False)
        for server in self.servers:
            wait_until(server.answers, 3 * LIMIT, f"{server.name} to answer")
        return self

    def running(self) -> list[NatsServer]:
        """Those that have not been killed."""
        return [server for server in self.servers if server.process is not None]

    def leader_of(self, stream: str = STREAM) -> NatsServer:
        """The one that leads where the stream is concerned; waits until there is one."""
        def found() -> NatsServer | None:
            for server in self.running():
                with contextlib.suppress(OSError, NatsError), server.client() as client:
                    leader = client.api(f"STREAM.INFO.{stream}")["cluster"].get("leader")
                    for one in self.running():
                        if one.name == leader:
                            return one
            return None
        return wait_until(found, 3 * LIMIT, "a leader")

    def close(self) -> None:
        """End those that still run."""
        for server in self.servers:
            server.close()


_ESCAPED = re.compile(r"%([0-9A-F]{2})")


def name_in(token: str) -> bytes:
    """The name that a word of a subject stands for."""
    return _ESCAPED.sub(lambda found: chr(int(found[1], 16)), token).encode("latin-1")


def output_of(messages: list[Message], console: str) -> bytes:
    """All that a console printed."""
    return b"".join(message.data for message in messages
                    if message.subject == f"{SITE}.{STATION}.{console}.out")


def assert_each_once(messages: list[Message]) -> None:
    """Every record is there once and in the journal's order."""
    numbers = [message.record for message in messages if "Zev-Gap" not in message.headers]
    assert numbers == sorted(set(numbers))
    ids = [message.id for message in messages]
    assert len(ids) == len(set(ids))
