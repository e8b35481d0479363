"""What the packet filter in front of the lines lets through in each direction, and what not."""

import socket

import pytest

from harness import lines
from harness.waiting import LIMIT

pytestmark = pytest.mark.needs_namespace

PORT = 10001
PATIENCE = 0.5  # for an answer that does not come; on the loopback it would within a millisecond


@pytest.fixture(autouse=True)
def loaded(isolated, tmp_path):
    """The filter, and the users whom it names."""
    with lines.users(tmp_path):
        lines.load_filter()
        yield


def made_by(user: str, family=socket.AF_INET, kind=socket.SOCK_STREAM) -> socket.socket:
    """A socket of this user's."""
    with lines.acting_as(user):
        made = socket.socket(family, kind)
    made.settimeout(LIMIT)
    made.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    return made


def listener(user: str, address: str = lines.ADDRESS, port: int = PORT) -> socket.socket:
    """A listener of this user's."""
    made = made_by(user, socket.AF_INET6 if ":" in address else socket.AF_INET)
    made.bind((address, port))
    made.listen()
    return made


@pytest.mark.parametrize("address", ["::1", "127.0.0.1"])
@pytest.mark.parametrize("kind", [socket.SOCK_STREAM, socket.SOCK_DGRAM], ids=["tcp", "udp"])
def test_other_traffic_is_left_alone(kind, address):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with made_by("nobody", family, kind) as server, made_by("nobody", family, kind) as client:
        server.bind((address, 0))
        if kind == socket.SOCK_STREAM:
            server.listen()
        client.connect(server.getsockname()[:2])
        client.send(b"through")
        arrived = server.accept()[0] if kind == socket.SOCK_STREAM else server
        with arrived:
            assert arrived.recv(100) == b"through"


@pytest.mark.parametrize("address", [lines.ADDRESS, f"::ffff:{lines.ADDRESS}"])
@pytest.mark.parametrize("user", ["nobody", "zevd-lines"])
def test_others_do_not_connect(user, address):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    with listener("zevd-lines"), made_by(user, family) as client:
        with pytest.raises(ConnectionRefusedError):
            client.connect((address, PORT))


def test_others_send_no_datagrams():
    with made_by("zevd-lines", kind=socket.SOCK_DGRAM) as server, \
            made_by("nobody", kind=socket.SOCK_DGRAM) as client:
        server.bind((lines.ADDRESS, PORT))
        with pytest.raises(PermissionError):
            client.sendto(b"typed", (lines.ADDRESS, PORT))


@pytest.mark.parametrize("user", ["zevd", "root"])
def test_the_daemon_and_root_connect_to_a_line(user):
    with listener("zevd-lines"), made_by(user) as client:
        client.connect((lines.ADDRESS, PORT))


@pytest.mark.parametrize("address", [lines.ADDRESS, "0.0.0.0", "::"])
@pytest.mark.parametrize("user", ["zevd", "root"])
def test_nobody_is_connected_to_a_stranger_at_a_lines_port(user, address):
    with listener("nobody", address), made_by(user) as client:
        client.settimeout(PATIENCE)
        with pytest.raises(TimeoutError):
            client.connect((lines.ADDRESS, PORT))


def test_a_stranger_opens_nothing_from_a_lines_port():
    with listener("zevd", "127.0.0.1"), made_by("nobody") as stranger:
        stranger.bind((lines.ADDRESS, PORT + 1))
        with pytest.raises(ConnectionRefusedError):
            stranger.connect(("127.0.0.1", PORT))
