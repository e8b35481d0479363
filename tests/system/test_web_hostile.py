"""zevweb in bad company: who is slow, who takes nothing, too many, and what is forged."""

import contextlib
import itertools
import resource
import select
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest
from websocket import ABNF, WebSocketConnectionClosedException

from harness.access import bring_up
from harness.helpers import groups
from harness.waiting import LIMIT, stretched, wait_until
from harness.web import Web, admit, web

pytestmark = pytest.mark.needs_namespace

STREAM = "/api/consoles/box/stream"
HEAD = b"Host: station\r\n"


@pytest.fixture
def box(station, groups):
    """A connected console of a station with security on, where root and alice may log in."""
    groups.write("qoruser:x:64000:alice\n")
    admit(station, ("alice", "her own"))
    console = station.console("box")
    bring_up(station, console, options=("-S", "1"))
    return console


def all_that_comes(caller: socket.socket) -> bytes:
    """What the server says until it ends the connection."""
    caller.settimeout(stretched(LIMIT))
    taken = b""
    with contextlib.suppress(ConnectionResetError):
        while more := caller.recv(65536):
            taken += more
    return taken


def answer_to(web: Web, request: bytes) -> bytes:
    """What the server says to these bytes until it ends the connection."""
    with web.raw() as caller:
        caller.sendall(request)
        return all_that_comes(caller)


def resident(web: Web) -> int:
    """The bytes that the server takes of the memory."""
    with open(f"/proc/{web.pid}/statm", encoding="ascii") as file:
        return int(file.read().split()[1]) * resource.getpagesize()


def worked(web: Web) -> float:
    """The seconds that the server has worked so far."""
    with open(f"/proc/{web.pid}/stat", encoding="ascii") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / 100


def is_served(web: Web) -> bool:
    """Whether a new caller has an answer, and is not turned away."""
    try:
        return web.get("/healthz").status == 200
    except OSError:
        return False


# Slow ones, and many


def test_what_comes_by_drops_is_not_waited_for(box, web):
    """However steadily it drops: the head, the body, and the beginning of TLS."""
    assert web.log_in().status == 204
    begun = (b"GET /api/session HTTP/1.1\r\nX-Long: ",
             b"POST /api/login HTTP/1.1\r\nHost: a\r\nContent-Length: 60000\r\n\r\n{")
    with contextlib.ExitStack() as stack:
        slow = [stack.enter_context(web.raw()) for _ in range(20)]
        for i, caller in enumerate(slow):
            caller.sendall(begun[i % 2])
        slow.append(stack.enter_context(socket.create_connection(("127.0.0.1", web.port))))
        slow[-1].sendall(b"\x16\x03\x01\x02\x00")
        end = time.monotonic() + stretched(20)
        while slow:
            assert time.monotonic() < end, f"{len(slow)} are still waited for"
            assert web.get("/api/session").status == 200
            gone = select.select(slow, [], [], 0.3)[0]
            slow = [caller for caller in slow if caller not in gone]
            for caller in slow:
                with contextlib.suppress(OSError):
                    caller.send(b"a")


@pytest.fixture
def small_buffers():
    """The kernel of this network keeps little of what a program sends."""
    setting = Path("/proc/sys/net/ipv4/tcp_wmem")
    before = setting.read_text(encoding="ascii")
    setting.write_text("4096 8192 8192", encoding="ascii")
    yield
    setting.write_text(before, encoding="ascii")


def test_answers_that_nobody_takes_cost_little(box, web, small_buffers, tmp_path):
    """A file of the page is not copied for each of them."""
    size, count = 1 << 22, 50
    web.page = tmp_path / "page"
    web.page.mkdir()
    (web.page / "page.js").write_bytes(b"x" * size)
    assert web.log_in().status == 204
    before = resident(web)
    with contextlib.ExitStack() as stack:
        for _ in range(count):
            caller = stack.enter_context(web.raw(receive_buffer=4096))
            caller.sendall(b"GET /page.js HTTP/1.1\r\n" + HEAD + b"\r\n")
            assert caller.recv(9) == b"HTTP/1.1 "
        assert web.get("/api/session").status == 200
        assert resident(web) - before < size * count / 4
        web.stop()  # in less time than somebody who takes nothing has


def test_a_crowd_of_callers_leaves_descriptors_for_the_server(box, web):
    """It turns away who is too many, without being busy with that, and goes on for the others."""
    least, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (160, most))
    try:
        web.start()
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (least, most))
    assert web.log_in().status == 204
    with contextlib.closing(web.connection()) as early:
        def ask() -> int:
            early.request("GET", "/api/consoles/box", headers={"Cookie": web.cookie})
            with early.getresponse() as answer:
                answer.read()
                return answer.status

        assert ask() == 200
        with contextlib.ExitStack() as stack:
            crowd = [stack.enter_context(socket.create_connection(("127.0.0.1", web.port)))
                     for _ in range(300)]
            wait_until(lambda: len(select.select(crowd, [], [], 0)[0]) > 150,
                       what="some to be turned away")
            before, since = worked(web), time.monotonic()
            while time.monotonic() - since < 1:
                assert ask() == 200
                time.sleep(0.1)
            assert worked(web) - before < 0.5 * (time.monotonic() - since)
        wait_until(lambda: is_served(web), what="room for others")
    assert "errno" not in web.text()


# Forged requests


@pytest.mark.parametrize("lines", [
    b"POST /api/logout HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4\r\n",
    b"POST /api/logout HTTP/1.1\r\nContent-Length: -1\r\n",
    b"POST /api/logout HTTP/1.1\r\nContent-Length: +3\r\n",
    b"POST /api/logout HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n",
    b"POST /api/logout HTTP/1.1\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n",
])
def test_a_second_request_cannot_hide_in_a_first(box, web, lines):
    web.start()
    hidden = b"GET /healthz HTTP/1.1\r\n" + HEAD + b"\r\n"
    taken = answer_to(web, lines + HEAD + b"\r\n" + b"0\r\n\r\n" + hidden)
    assert taken.startswith((b"HTTP/1.1 400 ", b"HTTP/1.1 411 ", b"HTTP/1.1 413 ")), taken
    assert taken.count(b"HTTP/1.1 ") == 1 and b"alive" not in taken


@pytest.mark.parametrize("path", [
    "/api/consoles/%0d%0aSet-Cookie:%20a=b/history", "/%0d%0aSet-Cookie:%20a=b",
    "/api/consoles/box/history?%0d%0aSet-Cookie:%20a=b", "/api/consoles/..%2f..%2fetc/history",
    "/..%2f..%2fetc%2fpasswd", "/api/consoles/%00box", "/%2e%2e/%2e%2e/etc/passwd"])
def test_a_path_is_no_header_and_no_file(box, web, path):
    assert web.log_in().status == 204
    said = len(web.text())
    answer = web.get(path)
    assert answer.status in (400, 404), answer.body
    assert answer.headers["Set-Cookie"] is None
    assert b"root:" not in answer.body
    assert web.text()[said:] == ""


def test_no_parameter_is_too_long_to_be_seen(box, web):
    assert web.log_in().status == 204
    answer = web.get(f"/api/consoles?x={'a' * 9000}")
    assert answer.status == 400
    assert answer.error == 'the parameter "x" is not known here; leave it out'


@pytest.mark.parametrize("cookie", [
    "__Host-zevweb=" + "0" * 64, "__Host-zevweb=", "__Host-zevweb=" + "a" * 8000,
    "{mine}; __Host-zevweb=" + "0" * 64, "zevweb={secret}", "{mine}0", "{upper}"])
def test_a_forged_session_is_nobodys(box, web, cookie):
    assert web.log_in().status == 204
    secret = web.cookie.partition("=")[2]
    forged = cookie.format(mine=web.cookie, secret=secret, upper=web.cookie.upper())
    assert web.get("/api/session", headers={"Cookie": forged}).status == 401
    assert web.get("/api/session").status == 200


def test_a_request_that_is_sent_again_after_the_logout_does_nothing(box, web):
    assert web.log_in().status == 204
    again = (b"POST /api/consoles/box/disable HTTP/1.1\r\nHost: 127.0.0.1:%d\r\nOrigin: %s\r\n"
             b"Cookie: %s\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"
             % (web.port, web.origin.encode(), web.cookie.encode()))
    assert answer_to(web, again).startswith(b"HTTP/1.1 200 ")
    assert web.post("/api/consoles/box/enable").status == 200
    wait_until(lambda: web.get("/api/consoles/box").json["console"]["state"] == "connected",
               what="the console")
    # A connection that was there before is no better than a new one.
    with web.raw() as early:
        early.sendall(b"GET /api/session HTTP/1.1\r\nHost: a\r\nCookie: %s\r\n\r\n"
                      % web.cookie.encode())
        assert early.recv(12) == b"HTTP/1.1 200"
        assert web.post("/api/logout").status == 204
        early.sendall(again)
        assert b"HTTP/1.1 401 " in all_that_comes(early)
    assert answer_to(web, again).startswith(b"HTTP/1.1 401 ")
    assert web.log_in().status == 204
    assert web.get("/api/consoles/box").json["console"]["state"] == "connected"


def test_another_host_is_another_origin(box, web):
    assert web.log_in().status == 204
    for host, origin in (("elsewhere.example.org", web.origin), ("", ""),
                         (f"127.0.0.1:{web.port}", "https://elsewhere.example.org")):
        answer = web.post("/api/consoles/box/disable", headers={"Host": host, "Origin": origin})
        assert answer.status == 403, (host, origin)


def test_an_address_that_tries_many_names_has_to_wait(box, web):
    guesses = (f"guess{number}" for number in itertools.count())
    web.tries_until_refused(lambda: web.log_in(next(guesses), "wrong"), burst=20, pause=3)


# Frames that are none


@pytest.mark.parametrize("frame", [
    b"\x83\x80\0\0\0\0",                                        # of a kind that there is not
    b"\xf2\x80\0\0\0\0",                                        # with bits that mean nothing here
    b"\x09\x80\0\0\0\0",                                        # a ping in parts
    b"\x89\xfe\x01\x00\0\0\0\0" + b"a" * 256,                   # a ping that is too long
    b"\x82\xff" + struct.pack(">Q", 1 << 63) + b"\0\0\0\0",     # longer than there can be
    b"\x80\x83\0\0\0\0abc",                                     # the end of nothing
], ids=["kind", "bits", "ping-in-parts", "long-ping", "endless", "end-of-nothing"])
def test_a_frame_that_is_none_ends_the_viewer_alone(box, web, frame):
    assert web.log_in().status == 204
    with contextlib.closing(web.websocket(STREAM)) as other, \
            contextlib.closing(web.websocket(STREAM)) as viewer:
        viewer.sock.sendall(frame)
        with contextlib.suppress(WebSocketConnectionClosedException, ConnectionResetError):
            while viewer.recv_data()[0] != ABNF.OPCODE_CLOSE:
                pass
        other.send('{"what":"nothing"}')
        while '"what":"problem"' not in other.recv():
            pass
    assert web.get("/api/session").status == 200


# The certificate


def test_a_certificate_with_a_key_of_another_type_is_taken(box, web):
    """Both would be there for the library, and the former one might be shown."""
    web.start()
    with web.raw() as early:
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                        "-subj", "/CN=station", "-addext", "subjectAltName=IP:127.0.0.1",
                        "-keyout", web.key, "-out", web.certificate], check=True,
                       capture_output=True)
        for count in (1, 2):
            web.signal(signal.SIGHUP)
            wait_until(lambda count=count: web.text().count("is in use") == count,
                       what="the new certificate")
            assert web.get("/healthz").status == 200
        early.sendall(b"GET /healthz HTTP/1.1\r\nHost: a\r\n\r\n")
        assert early.recv(12) == b"HTTP/1.1 200"


# Behind a proxy


@pytest.fixture
def behind(station, tmp_path):
    """zevweb with a socket for a proxy."""
    with Web(station, tmp_path) as made:
        made.lines = f'[proxy]\nsocket = "{made.proxy_socket}"\n'
        yield made


@pytest.mark.parametrize("forwarded, address", [
    ("2001:db8::7", "2001:db8::7"), ("203.0.113.1,192.0.2.7", "192.0.2.7"),
    ("unknown", None), ("192.0.2.7:4711", None), ("192.0.2.7,", None), ("::1 addr=192.0.2.1", None),
    ("fe80::1%eth0", None), ("", None)])
def test_the_proxys_address_is_one_or_nothing_is_done(box, behind, forwarded, address):
    headers = {"X-Remote-User": "alice", "X-Forwarded-For": forwarded}
    answer = behind.get("/api/session", local=True, headers=headers)
    if address:
        assert answer.json["address"] == address
    else:
        assert answer.status == 400
        assert answer.error == ("the proxy gives no address of the browser; have it set the header "
                                "x-forwarded-for")


def test_nobody_logs_in_through_a_proxy_that_gives_no_address(box, behind):
    answer = behind.post("/api/login", {"name": "alice", "password": "her own"}, local=True)
    assert answer.status == 400
    assert answer.error == ("the proxy gives no address of the browser; have it set the header "
                            "x-forwarded-for")


@pytest.mark.parametrize("name", ["ali ce", "alice\tuser=root", "root:x", "\xe4lice", "ROOT", "."])
def test_a_name_of_the_proxys_that_is_nobodys_is_refused(box, behind, name):
    answer = behind.get("/api/session", local=True,
                        headers={"X-Remote-User": name, "X-Forwarded-For": "192.0.2.7"})
    assert answer.status == 403
