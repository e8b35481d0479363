"""The recipe with stunnel: who gets to the main port through TLS, and what the daemon sees."""

import contextlib
import os
import shlex
import shutil
import signal
import socket
import ssl
import subprocess
import tempfile
from pathlib import Path

import pytest

from harness.access import bring_up
from harness.cookies import cookie, local_user
# `groups` and `system_log` are fixtures.
from harness.helpers import FakeHelper, groups, private_copy
from harness.impostors import STRANGER
from harness.recipes import MAIN_PORT, STATION, Recipe, Running, operator, tls_context
from harness.system_log import system_log
from harness.terminals import close_terminal
from harness.waiting import LIMIT, stretched, wait_listening, wait_until

pytestmark = pytest.mark.needs_namespace

TLS_PORT = 6600
OPERATORS_PORT = 16500
BEHIND_THE_TUNNEL = "127.66.0.1"
ALICES_FILES = {"me.pem": "alice.pem", "me.key": "alice.key", "ca.pem": "ca.pem"}
UNIT = Path("/lib/systemd/system/stunnel@.service")


class Tunnel:
    """The station with its end of the tunnel, and the authority that made the certificates."""

    def __init__(self, station, box, scratch: Path) -> None:
        self.station = station
        self.box = box
        self.authority = scratch / "authority"
        self.recipe = Recipe("stunnel", {"./zevd-ca": f"ZEVD_CA={self.authority} ./zevd-ca",
                                         "/root/zevd-ca": str(self.authority)})
        self.recipe.follow("The authority")
        self.recipe.follow("The station")
        self.server = Running(self.command(), scratch / "stunnel.out")
        wait_listening(TLS_PORT)

    @staticmethod
    def command() -> list[str]:
        """The command of the service stunnel@zevd."""
        line = next(line for line in UNIT.read_text().splitlines() if "ExecStart=" in line)
        return shlex.split(line.removeprefix("ExecStart=").replace("%i", "zevd"))

    def certificate(self, name: str, authority: Path | None = None) -> tuple[Path, Path]:
        directory = authority or self.authority
        return directory / f"{name}.pem", directory / f"{name}.key"

    def call(self, name: str | None, authority: Path | None = None) -> ssl.SSLSocket:
        """Connect with the person's certificate, or with none."""
        pair = self.certificate(name, authority) if name else ()
        plain = socket.create_connection(("127.0.0.1", TLS_PORT), stretched(LIMIT))
        context = tls_context(self.authority / "ca.pem", *pair)
        return context.wrap_socket(plain, server_hostname=STATION)

    def admitted(self, name: str) -> None:
        """The holder of this certificate reaches the daemon's login."""
        with self.call(name) as caller:
            caller.sendall(b"box\n")
            assert caller.recv(64) == b"username: "

    def turned_away(self, name: str | None, reason: str, authority: Path | None = None) -> None:
        """The caller is refused in the handshake, and the daemon does not hear of it."""
        callers = self.callers()
        refusals = self.server.said().count(reason)
        with pytest.raises(ssl.SSLError), self.call(name, authority) as caller:
            caller.sendall(b"box\n")
            caller.recv(64)
        wait_until(lambda: self.server.said().count(reason) > refusals, what=reason)
        assert self.callers() == callers

    def callers(self) -> int:
        return self.station.log_text().count("Servicing request coming from")


@pytest.fixture
def tunnel(system_log, groups, station, tmp_path):
    """A station that follows the recipe; alice may log in, and has a certificate."""
    groups.write("qoruser:x:64000:alice\n")
    station.system_log = system_log
    FakeHelper(station).accept(b"alice", b"two words")
    box = station.console("box")
    bring_up(station, box, options=("-S", "1", "-p", str(MAIN_PORT)))
    with private_copy(Path("/etc/stunnel"), tmp_path):
        made = Tunnel(station, box, tmp_path)
        yield made
        made.server.close()


@pytest.fixture
def hosts(tmp_path):
    """The station's name leads to this machine."""
    with private_copy(Path("/etc/hosts"), tmp_path) as copy:
        copy.write_text(f"127.0.0.1 localhost {STATION}\n")
        yield


@pytest.fixture
def alices_end(tunnel, hosts):
    """The directory of somebody without rights, with what the recipe says that she needs."""
    with tempfile.TemporaryDirectory(prefix="zevd-tests-alice.") as name:
        place = Path(name)
        for file, source in ALICES_FILES.items():
            shutil.copy(tunnel.authority / source, place / file)
        tunnel.recipe.install("client.conf", place / "client.conf")
        for path in (place, *place.iterdir()):
            os.chown(path, STRANGER, STRANGER)
        yield place


def operators_tunnel(tunnel: Tunnel, place: Path, scratch: Path) -> Running:
    """The operator's end, started with the recipe's line."""
    line = tunnel.recipe.lines("An operator").splitlines()[0]
    started = Running(shlex.split(line), scratch / "client.out", cwd=place, uid=STRANGER)
    wait_listening(OPERATORS_PORT)
    return started


def test_an_operator_logs_in_through_both_ends(tunnel, alices_end, tmp_path):
    """The line of the recipe is that of the test but for the console's name."""
    assert f"zevctl --port {OPERATORS_PORT} --tunnel attach lab1\n" in \
        tunnel.recipe.lines("An operator")
    with operators_tunnel(tunnel, alices_end, tmp_path):
        person = operator(OPERATORS_PORT, "--tunnel", "attach", "box")
        person.expect_exact("User name")
        person.send("alice\r")
        person.expect_exact("Password: ")
        person.send("two words\r")
        (entry,) = tunnel.station.system_log.wait("attach")
        assert (entry["result"], entry["user"], entry["from"]) == ("accepted", "alice",
                                                                   BEHIND_THE_TUNNEL)
        tunnel.box.send(b"through the tunnel\r\n")
        person.expect_exact("through the tunnel")
        person.send("hello")
        tunnel.box.expect(b"hello")
        close_terminal(person)
    tunnel.server.wait_said("CN=alice")


def test_an_operators_end_trusts_no_other_station(tunnel, alices_end, tmp_path):
    """Not even one with a certificate of the same authority."""
    tunnel.recipe.shell("./zevd-ca station other.example.net")
    for end in ("pem", "key"):
        shutil.copyfile(tunnel.authority / f"other.example.net.{end}",
                        f"/etc/stunnel/zevd/station.{end}")
    tunnel.server.close()
    with Running(tunnel.command(), tmp_path / "other.out"), \
            operators_tunnel(tunnel, alices_end, tmp_path) as end:
        wait_listening(TLS_PORT)
        with socket.create_connection(("127.0.0.1", OPERATORS_PORT), stretched(LIMIT)) as caller:
            end.wait_said("Rejected by CERT at depth=0: CN=other.example.net")
            with contextlib.suppress(ConnectionResetError):
                assert caller.recv(64) == b""
    assert tunnel.callers() == 0


def test_nobody_gets_in_without_a_certificate_of_the_authority(tunnel, tmp_path):
    other = tmp_path / "elsewhere"
    tunnel.recipe.shell(f"export ZEVD_CA={other}; {tunnel.recipe.directory}/zevd-ca init; "
                        f"{tunnel.recipe.directory}/zevd-ca person alice")
    tunnel.turned_away(None, "peer did not return a certificate")
    tunnel.turned_away("alice", "certificate verify failed", other)
    tunnel.turned_away(STATION, "certificate verify failed")
    tunnel.admitted("alice")


def test_a_revoked_certificate_ends_nothing_but_lets_nobody_in(tunnel):
    tunnel.recipe.shell("./zevd-ca person bob")
    with tunnel.call("alice") as seated:
        seated.sendall(b"box\n")
        assert seated.recv(64) == b"username: "
        kept = {end: (tunnel.authority / f"alice.{end}").read_bytes() for end in ("pem", "key")}
        tunnel.recipe.follow("When somebody leaves")
        for end, content in kept.items():
            (tunnel.authority / f"alice.{end}").write_bytes(content)
        tunnel.server.signal(signal.SIGHUP)
        # It closes its port and opens it again; the second time it has the new list.
        tunnel.server.wait_said(f"bound to 0[.]0[.]0[.]0:{TLS_PORT}", 2)
        tunnel.turned_away("alice", "certificate revoked")
        tunnel.admitted("bob")
        seated.sendall(b"alice\n")
        assert seated.recv(64).startswith(b"\xff\xfb\x01")


def test_the_cookie_is_worth_nothing_through_the_tunnel(tunnel):
    """The same line is a login on the station itself, and a request for a name elsewhere."""
    with tunnel.call("alice") as caller:
        caller.sendall(b"token " + cookie(tunnel.station) + b" @@@@ user=alice\n")
        assert caller.recv(64) == b"username: "
    with local_user(tunnel.station, b"@@@@ user=alice\nconsole") as tool:
        tool.expect(b"\x01\0\0\0\x01\0\0\0box")


def test_a_peer_that_vanished_will_be_noticed(tunnel):
    """The kernel probes the far end of the tunnel: its own timer runs on the connection."""
    def probed() -> bool:
        shown = subprocess.run(["ss", "-tnoH", "sport", "=", f":{TLS_PORT}"], check=True,
                               capture_output=True, text=True).stdout
        return "timer:(keepalive," in shown

    with tunnel.call("alice"):
        wait_until(probed, what="the timer for probes")
