"""The recipe with haproxy: TLS, how many connections an address may have, and how fast."""

import contextlib
import re
import shutil
import socket
import ssl
import subprocess
from pathlib import Path

import pytest

from harness.access import bring_up
from harness.cookies import cookie
# `groups` and `system_log` are fixtures.
from harness.helpers import FakeHelper, groups, private_copy
from harness.recipes import MAIN_PORT, STATION, Recipe, Running, tls_context
from harness.system_log import system_log
from harness.waiting import LIMIT, connections_of, stretched, wait_listening, wait_until

pytestmark = pytest.mark.needs_namespace

TLS_PORT = 6600
MOST_AT_A_TIME = 10
MOST_IN_A_MINUTE = 30
ADDRESS, OTHER_ADDRESS = "127.0.1.1", "127.0.1.2"
CONFIGURATION = Path("/etc/haproxy/haproxy.cfg")


class Front:
    """The station behind haproxy."""

    def __init__(self, station, box, scratch: Path) -> None:
        self.station = station
        self.box = box
        self.scratch = scratch
        self.authority = scratch / "authority"
        paths = {"./zevd-ca": f"ZEVD_CA={self.authority} ./zevd-ca",
                 "/root/zevd-ca": str(self.authority)}
        Recipe("stunnel", paths).follow("The authority")
        self.recipe = Recipe("haproxy", paths)
        self.recipe.follow("The station")

    def run(self) -> Running:
        """haproxy itself, in the foreground."""
        program = shutil.which("haproxy", path="/usr/sbin:/usr/bin")
        started = Running([program, "-db", "-f", str(CONFIGURATION)], self.scratch / "haproxy.out")
        wait_listening(TLS_PORT)
        return started

    def call(self, address: str = ADDRESS, name: str | None = None) -> ssl.SSLSocket:
        """Connect through TLS from the address, maybe with somebody's certificate."""
        pair = [self.authority / f"{name}.{end}" for end in ("pem", "key")] if name else []
        plain = socket.create_connection(("127.0.0.1", TLS_PORT), stretched(LIMIT),
                                         source_address=(address, 0))
        try:
            context = tls_context(self.authority / "ca.pem", *pair)
            return context.wrap_socket(plain, server_hostname=STATION)
        except BaseException:
            plain.close()
            raise

    def asked(self, address: str = ADDRESS) -> ssl.SSLSocket:
        """A caller who has been asked for a name."""
        caller = self.call(address)
        caller.sendall(b"box\n")
        assert caller.recv(64) == b"username: "
        return caller

    def refused(self, address: str = ADDRESS) -> None:
        """The connection ends before the handshake."""
        with pytest.raises((ssl.SSLError, ConnectionResetError)):
            self.call(address)


@pytest.fixture
def front(system_log, groups, station, tmp_path):
    """A station that follows the recipe but has not started haproxy; alice may log in."""
    groups.write("qoruser:x:64000:alice\n")
    FakeHelper(station).accept(b"alice", b"two words")
    box = station.console("box")
    bring_up(station, box, options=("-S", "1", "-p", str(MAIN_PORT)))
    with private_copy(Path("/etc/haproxy"), tmp_path):
        yield Front(station, box, tmp_path)


@pytest.fixture
def limited(front):
    """The same with haproxy running."""
    with front.run():
        yield front


def log_in(caller: ssl.SSLSocket) -> None:
    """Give alice's name and password."""
    for line, answer in ((b"alice\n", b"password: "), (b"two words\n", b"\xff\xfc\x01\r\n")):
        caller.sendall(line)
        taken = b""
        while answer not in taken:
            more = caller.recv(64)
            assert more, taken
            taken += more


def types(front: Front, caller: ssl.SSLSocket, keys: bytes) -> None:
    """What the user types arrives at the console."""
    caller.sendall(keys)
    front.box.expect(keys)


def test_one_connection_too_many_is_refused_and_the_attached_user_stays(limited):
    with limited.asked() as user, contextlib.ExitStack() as others:
        log_in(user)
        types(limited, user, b"first")
        calls = [others.enter_context(limited.asked()) for _ in range(MOST_AT_A_TIME - 1)]
        limited.refused()
        types(limited, user, b"second")
        others.enter_context(limited.asked(OTHER_ADDRESS))
        # One that leaves makes room. Its own end comes first: haproxy counts it until then.
        calls[0].close()
        wait_until(lambda: connections_of(TLS_PORT) == MOST_AT_A_TIME, what="one to have left")
        others.enter_context(limited.asked())
        limited.refused()
        types(limited, user, b"third")


def test_an_address_that_comes_too_fast_is_refused_and_the_attached_user_stays(limited):
    with limited.asked() as user:
        log_in(user)
        for _ in range(MOST_IN_A_MINUTE - 1):
            limited.call().close()
        for _ in range(3):
            limited.refused()
        types(limited, user, b"still here")
        limited.asked(OTHER_ADDRESS).close()


def test_the_daemon_sees_an_address_that_is_not_the_stations(limited, system_log):
    """The real one is in haproxy's own message."""
    with limited.call() as caller:
        caller.sendall(b"token " + cookie(limited.station) + b" @@@@ user=alice\n")
        assert caller.recv(64) == b"username: "
    limited.station.wait_log(re.compile('Servicing request coming from "127.66.0.2" on port 6500'))
    told = re.compile(rb"haproxy\[\d+\]: 127\.0\.1\.1:\d+ .* zevd_tls")
    wait_until(lambda: any(told.search(entry) for entry in system_log.raw()), what="the message")


def test_an_idle_user_outlives_the_time_for_the_handshake(front):
    """With all the short times of the recipe a hundred times shorter."""
    text = CONFIGURATION.read_text()
    shorter, count = re.subn(r"(timeout (?:client|server) )30s", r"\g<1>300ms", text)
    assert count == 2
    CONFIGURATION.write_text(shorter)
    with front.run(), front.asked() as user:
        log_in(user)
        silent = socket.create_connection(("127.0.0.1", TLS_PORT), stretched(LIMIT),
                                          source_address=(ADDRESS, 0))
        with silent:
            for _ in range(3):  # three times as long as the others may be silent
                with socket.create_connection(("127.0.0.1", TLS_PORT), stretched(LIMIT),
                                              source_address=(OTHER_ADDRESS, 0)) as next_one:
                    assert next_one.recv(64) == b""
            assert silent.recv(64) == b""
        types(front, user, b"still here")


def test_a_peer_that_vanished_will_be_noticed(limited):
    def probed() -> bool:
        shown = subprocess.run(["ss", "-tnoH", "sport", "=", f":{TLS_PORT}"], check=True,
                               capture_output=True, text=True).stdout
        return "timer:(keepalive," in shown

    with limited.asked():
        wait_until(probed, what="the timer for probes")


def test_certificates_for_people(front):
    front.recipe.follow("Certificates for people, too")
    with front.run():
        with pytest.raises(ssl.SSLError, match="CERTIFICATE_REQUIRED"):
            front.asked()
        with front.call(name="alice") as caller:
            caller.sendall(b"box\n")
            assert caller.recv(64) == b"username: "
