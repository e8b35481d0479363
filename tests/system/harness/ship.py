"""The program that ships the journal, beside NATS servers of the test's own."""

import os
import signal
import subprocess
from pathlib import Path

import pytest

from harness import settings
from harness.nats import SITE, STATION, STREAM, NatsCluster, NatsServer
from harness.station import assert_no_sanitizer_report
from harness.waiting import LIMIT, stretched, wait_until

PROGRAM = settings.build_directory() / "bin" / "zevfleet"


class Ship:
    """`zevfleet ship`, and what it is set to."""

    def __init__(self, scratch: Path, urls: list[str]) -> None:
        self.urls = urls
        self.station = STATION
        self.journal = settings.root() / "journal"
        self.config = scratch / "zevfleet.toml"
        self.state = scratch / "state"
        self.output = scratch / "zevfleet.out"
        self.nats_lines: list[str] = []
        self.env: dict[str, str] = {}
        self.process: subprocess.Popen | None = None

    @property
    def shipped(self) -> Path:
        """The file that says how far it has come."""
        return self.state / "shipped"

    def write_config(self) -> None:
        """Write the settings."""
        urls = ", ".join(f'"{url}"' for url in self.urls)
        lines = [f'site = "{SITE}"', f'station = "{self.station}"',
                 f'state_directory = "{self.state}"', "[nats]", f"urls = [{urls}]",
                 *self.nats_lines]
        self.config.write_text("".join(f"{line}\n" for line in lines), encoding="utf-8")

    def command(self, *options: str) -> list[str]:
        """The words of a call."""
        return [str(PROGRAM), "--config", str(self.config), "ship", "--journal-dir",
                str(self.journal), *options]

    def start(self) -> "Ship":
        """Start it in the background."""
        self.write_config()
        with open(self.output, "ab") as output:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "--", *self.command()],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                env={**os.environ, **self.env})
        return self

    def run(self, *options: str) -> subprocess.CompletedProcess[str]:
        """Run it until it ends by itself."""
        self.write_config()
        done = subprocess.run(self.command(*options), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=stretched(6 * LIMIT),
                              check=False)
        assert_no_sanitizer_report(done.stdout + done.stderr)
        return done

    def once(self) -> int:
        """Ship what there is; how many messages that took."""
        done = self.run("--once")
        assert done.returncode == 0, done.stderr
        assert done.stdout.startswith("messages: ")
        return int(done.stdout.split()[1])

    def kill(self) -> None:
        """End it without a warning."""
        self.process.kill()
        self.process.wait()
        self.process = None

    def stop(self) -> None:
        """End it in order."""
        self.process.send_signal(signal.SIGTERM)
        assert self.process.wait(stretched(LIMIT)) == 0, self.text()
        self.process = None
        assert_no_sanitizer_report(self.text())

    def text(self) -> str:
        """What it has said."""
        return self.output.read_text(encoding="utf-8", errors="replace")

    def wait_said(self, text: str, count: int = 1, limit: float = LIMIT) -> None:
        """Wait until it has said this so often."""
        def said() -> bool:
            assert self.process.poll() is None, self.text()
            return self.text().count(text) >= count
        wait_until(said, limit, f"{text!r}, {count} times")

    def close(self) -> None:
        """End it if it still runs; it must not have ended by itself."""
        if self.process is not None:
            assert self.process.poll() is None, self.text()
            self.process.send_signal(signal.SIGCONT)
            self.stop()


@pytest.fixture
def nats(isolated, tmp_path):
    """A server that keeps streams."""
    server = NatsServer(tmp_path).start()
    yield server
    server.close()


@pytest.fixture
def cluster(isolated, tmp_path):
    """Three servers that keep streams together."""
    servers = NatsCluster(tmp_path).start()
    yield servers
    servers.close()


@pytest.fixture
def cluster_ship(cluster, tmp_path):
    """What ships the journal to those servers, which are to keep it each."""
    made = Ship(tmp_path, cluster.urls)
    made.nats_lines.append("replicas = 3")
    yield made
    made.close()


@pytest.fixture
def ship(nats, tmp_path):
    """What ships the journal to that server; it does not run yet."""
    made = Ship(tmp_path, [nats.url])
    yield made
    made.close()


def wait_shipped(server: NatsServer, count: int, stream: str = STREAM,
                 limit: float = 3 * LIMIT) -> None:
    """Wait until the stream has had so many messages."""
    def has_come() -> bool:
        with server.client() as client:
            names = client.api("STREAM.NAMES")["streams"] or []
            return stream in names and client.state(stream)["last_seq"] >= count
    wait_until(has_come, limit, f"{count} messages in {stream}")
