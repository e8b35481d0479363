"""zevweb as a server: settings, sessions, logins, files, limits."""

import contextlib
import signal
import socket
import ssl
import subprocess

import pytest
from websocket import ABNF, WebSocketBadStatusException, WebSocketException

from harness.access import bring_up
from harness.helpers import groups
from harness.waiting import LIMIT, stretched, wait_until
from harness.web import NAME, PROGRAM, Web, admit, certificate, web

pytestmark = pytest.mark.needs_namespace


@pytest.fixture
def box(station, groups):
    """A connected console of a station with security on, where root and alice may log in."""
    groups.write("qoruser:x:64000:alice\n")
    admit(station, ("alice", "her own"))
    console = station.console("box")
    bring_up(station, console, options=("-S", "1"))
    return console


def test_a_person_logs_in_and_out(box, web):
    assert web.get("/api/session").status == 401
    answer = web.log_in("alice", "her own")
    assert answer.status == 204
    words = answer.headers["Set-Cookie"].split("; ")
    assert words[0].startswith("__Host-zevweb=")
    assert set(words[1:]) == {"Path=/", "HttpOnly", "SameSite=Strict", "Secure", "Max-Age=43200"}
    session = web.get("/api/session").json
    assert session["name"] == "alice" and session["address"] == "127.0.0.1"
    assert session["proof"] == "session"
    assert web.post("/api/logout").status == 204
    assert web.get("/api/session").status == 401


def test_a_wrong_password_is_refused_in_words(box, web):
    answer = web.log_in("alice", "not hers")
    assert answer.status == 401
    assert answer.error == "the daemon does not accept the name and password; type them again"
    assert answer.headers["Set-Cookie"] is None


def test_a_daemon_without_security_lets_nobody_log_in(station, web):
    bring_up(station, station.console("box"))
    answer = web.log_in()
    assert answer.status == 503
    assert answer.error == ("the daemon checks no passwords, so nobody can log in here; start it "
                            "with security on")


def test_logins_in_a_row_have_to_wait(box, web):
    web.tries_until_refused(lambda: web.log_in("alice", "not hers"), burst=3, pause=10)
    answer = web.log_in("alice", "her own")
    assert answer.status == 429
    assert 1 <= int(answer.headers["Retry-After"]) <= 10
    assert answer.error == ("too many logins were tried; wait "
                            f"{answer.headers['Retry-After']} seconds")
    assert web.log_in().status == 204  # another name


def test_sessions_outlive_a_restart_and_their_file_is_worth_nothing(box, web):
    assert web.log_in().status == 204
    secret = web.cookie.partition("=")[2]
    web.restart()
    assert web.get("/api/session").json["name"] == NAME
    kept = web.directory / "sessions"
    assert kept.stat().st_mode & 0o777 == 0o600
    text = kept.read_text()
    assert secret not in text
    web.cookie = f"__Host-zevweb={text.split()[0]}"
    assert web.get("/api/session").status == 401


def test_a_session_ends_after_its_hours_and_when_it_is_idle(box, web):
    assert web.log_in().status == 204
    web.stop()
    kept = web.directory / "sessions"
    digest, begun, used, address, name = kept.read_text().split()
    for begin, use in ((int(begun) - 12 * 3600, used), (begun, int(used) - 3600)):
        kept.write_text(f"{digest} {begin} {use} {address} {name}\n")
        web.start()
        assert web.get("/api/session").status == 401
        web.stop()


def test_a_stolen_session_is_ended_everywhere(box, web):
    assert web.log_in().status == 204
    stolen = web.cookie
    assert web.log_in().status == 204
    assert web.post("/api/logout?everywhere=1").status == 204
    web.cookie = stolen
    answer = web.get("/api/session")
    assert answer.status == 401
    assert answer.error == "nobody is logged in, or the session has ended; log in"


def test_a_page_elsewhere_can_do_nothing(box, web):
    assert web.log_in().status == 204
    for origin in ("https://elsewhere.example.org", "null", None,
                   web.origin.replace("https", "http"), web.origin + "0"):
        answer = web.post("/api/consoles/box/disable", headers={"Origin": origin})
        assert answer.status == 403, origin
        assert answer.error.startswith("this request comes from a page of another server; ")
    for origin in ("https://elsewhere.example.org", None):
        with pytest.raises(WebSocketBadStatusException) as refused:
            web.websocket("/api/consoles/box/stream", origin=origin)
        assert refused.value.status_code == 403
    assert web.get("/api/consoles/box").json["console"]["state"] == "connected"


def test_a_token_reads_and_does_nothing_else(box, web):
    bearer = {"Authorization": f"Bearer {web.token('probe')}"}
    assert web.get("/api/consoles", headers=bearer).status == 200
    answer = web.post("/api/consoles/box/disable", headers=bearer)
    assert answer.status == 403
    assert answer.error == "a token only reads; log in as a person to do this"
    answer = web.get("/api/consoles", headers={"Authorization": "Bearer nothing"})
    assert answer.status == 401


def test_every_answer_is_strict(box, web):
    for path in ("/", "/api/session", "/healthz", "/nowhere"):
        headers = web.get(path).headers
        policy = headers["Content-Security-Policy"]
        assert policy.startswith("default-src 'none'; script-src 'self'; ")
        assert "frame-ancestors 'none'" in policy and "unsafe" not in policy
        assert headers["X-Content-Type-Options"] == "nosniff"
        assert headers["Referrer-Policy"] == "no-referrer"
        assert headers["Cache-Control"] == ("no-cache" if path == "/" else "no-store")


def test_the_page_is_asked_for_anew_only_when_it_has_changed(box, web, tmp_path):
    web.page = tmp_path / "page"
    web.page.mkdir()
    (web.page / "index.html").write_bytes(b"<!doctype html>\n")
    (web.page / "index.html.gz").write_bytes(b"the same, packed")
    (web.page / "secret").write_bytes(b"no file of a page")
    whole = web.get("/")
    assert whole.body == b"<!doctype html>\n"
    assert whole.headers["Content-Type"] == "text/html; charset=utf-8"
    packed = web.get("/", headers={"Accept-Encoding": "br, gzip"})
    assert packed.body == b"the same, packed"
    assert (packed.headers["Content-Encoding"], packed.headers["Vary"]) == (
        "gzip", "Accept-Encoding")
    again = web.get("/", headers={"If-None-Match": whole.headers["ETag"]})
    assert again.status == 304 and again.body == b""
    head = web.ask("HEAD", "/")
    assert head.status == 200 and head.body == b""
    for path in ("/secret", "/../zevweb.toml", "/%2e%2e/zevweb.toml"):
        assert web.get(path).status in (401, 403, 404), path


def test_it_is_ready_while_the_daemon_answers(box, web):
    assert web.get("/healthz").json == {"alive": True}
    assert web.get("/readyz").json == {"ready": True, "journal": "off"}
    box_station = web.station
    box_station.stop()
    wait_until(lambda: web.get("/readyz").status == 503, what="the daemon to be missed")
    assert web.get("/readyz").error == "the daemon does not answer; see zevd.log"
    assert web.get("/healthz").status == 200


def test_a_channel_ends_with_its_session_and_with_the_server(box, web):
    assert web.log_in().status == 204
    for end, code in ((lambda: web.post("/api/logout"), 1008), (web.stop, 1001)):
        assert web.log_in().status == 204
        viewer = web.websocket("/api/consoles/box/stream")
        end()
        while True:
            opcode, frame = viewer.recv_data()
            if opcode == ABNF.OPCODE_CLOSE:
                break
        assert int.from_bytes(frame[:2], "big") == code


def test_the_certificate_is_taken_anew(box, web):
    assert web.get("/healthz").status == 200
    old = web.certificate.read_bytes()
    web.certificate.write_bytes(b"no certificate")
    web.signal(signal.SIGHUP)
    wait_until(lambda: "cannot be used; the former ones stay" in web.text(), what="the complaint")
    web.certificate.write_bytes(old)
    assert web.get("/healthz").status == 200
    certificate(web.scratch)
    with pytest.raises(ssl.SSLError):
        web.get("/healthz")
    web.signal(signal.SIGHUP)
    wait_until(lambda: "is in use" in web.text(), what="the new certificate")
    assert web.get("/healthz").status == 200


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion.TLSv1")
def test_old_tls_is_refused(box, web):
    """By the server: this client would take it."""
    web.start()
    context = web.tls_context()
    context.set_ciphers("DEFAULT:@SECLEVEL=0")
    context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_1
    with socket.create_connection(("127.0.0.1", web.port), stretched(LIMIT)) as plain:
        with pytest.raises(ssl.SSLError) as refused:
            context.wrap_socket(plain, server_hostname="127.0.0.1")
    assert refused.value.reason == "TLSV1_ALERT_PROTOCOL_VERSION"


# Bad input


def answer_to(web, request: bytes) -> bytes:
    """All that the server says to these bytes until it ends the connection."""
    with web.raw() as caller:
        caller.settimeout(stretched(LIMIT))
        caller.sendall(request)
        taken = b""
        while True:
            try:
                more = caller.recv(65536)
            except (ssl.SSLError, ConnectionResetError):
                return taken
            if not more:
                return taken
            taken += more


@pytest.mark.parametrize("head, body, status", [
    (b"POST /api/login HTTP/1.1\r\nContent-Length: 65537\r\n", b"", b"413"),
    (b"POST /api/login HTTP/1.1\r\nContent-Length: 1e3\r\n", b"", b"400"),
    (b"POST /api/login HTTP/1.1\r\n", b"", b"411"),
    (b"POST /api/login HTTP/1.1\r\nTransfer-Encoding: chunked\r\n", b"0\r\n\r\n", b"411"),
    (b"GET /api/session HTTP/1.1\r\nContent-Length: 3\r\n", b"abc", b"400"),
])
def test_a_request_that_cannot_be_taken_is_refused(box, web, head, body, status):
    web.start()
    taken = answer_to(web, head + b"Host: station\r\n\r\n" + body)
    assert taken.startswith(b"HTTP/1.1 " + status), taken
    assert taken.count(b"HTTP/1.1") == 1
    assert web.get("/healthz").status == 200


@pytest.mark.parametrize("body", [b"", b"{", b"[]", b'{"name":"root"}', b"\xff" * 100,
                                  b'{"name":"ro ot","password":"x"}', b"[" * 60000,
                                  b'{"name":"root","password":"a\\nb"}'])
def test_a_login_that_is_none_is_refused(box, web, body):
    answer = web.post("/api/login", body)
    assert answer.status == 400
    assert answer.error == 'a login is {"name": "...", "password": "..."}, each one line'


@pytest.mark.parametrize("noise", [b"\x00" * 4096, b"\x16\x03\x01" * 500, b"GET / HTTP/9\r\n\r\n",
                                   b"GET /" + b"a" * 40000 + b" HTTP/1.1\r\n\r\n",
                                   b"\r\n" * 5000, bytes(range(256)) * 64])
def test_noise_ends_its_connection_alone(box, web, noise):
    assert web.log_in().status == 204
    with web.raw() as caller:
        try:
            caller.sendall(noise)
        except OSError:
            pass
        assert web.get("/api/session").status == 200


def test_half_a_request_costs_nobody_anything(box, web):
    assert web.log_in().status == 204
    with contextlib.ExitStack() as silent:
        for half in (b"", b"GET / HT",
                     b"POST /api/login HTTP/1.1\r\nHost: a\r\nContent-Length: 9\r\n\r\nabc"):
            for _ in range(20):
                silent.enter_context(web.raw()).sendall(half)
        assert web.get("/api/session").status == 200


def test_frames_that_are_too_large_end_the_viewer_alone(box, web):
    assert web.log_in().status == 204
    viewer = web.websocket("/api/consoles/box/stream")
    viewer.send_binary(b"x" * 65537)
    with pytest.raises((WebSocketException, OSError)):
        while True:
            opcode, frame = viewer.recv_data()
            if opcode == ABNF.OPCODE_CLOSE:
                assert int.from_bytes(frame[:2], "big") == 1009
                raise WebSocketException("closed")
    assert web.get("/api/session").status == 200


# Behind a proxy


@pytest.fixture
def behind(station, tmp_path):
    """zevweb with a socket for a proxy."""
    with Web(station, tmp_path) as made:
        made.lines = f'[proxy]\nsocket = "{made.proxy_socket}"\n'
        yield made


def vouched(name: str, address: str | None = "192.0.2.7") -> dict[str, str | None]:
    """What the proxy says."""
    return {"X-Remote-User": name, "X-Forwarded-For": address}


def test_a_proxy_vouches_on_the_local_socket_alone(box, behind):
    web = behind
    session = web.get("/api/session", local=True, headers=vouched("alice")).json
    assert (session["name"], session["address"], session["proof"]) == (
        "alice", "192.0.2.7", "proxy")
    assert web.get("/api/session", headers=vouched("alice")).status == 401
    answer = web.get("/api/session", local=True, headers=vouched("bob"))
    assert answer.status == 403
    assert answer.error == (
        "the person whom the proxy names is neither root nor in the group qoruser; the "
        'administrator can add them with "zevctl setup"')
    answer = web.get("/api/session", local=True, headers=vouched("alice", None))
    assert answer.status == 400
    assert answer.error == ("the proxy gives no address of the browser; have it set the header "
                            "x-forwarded-for")
    assert web.get("/api/session", headers={**vouched("alice"), "Host": "proxy"}).status == 401
    assert web.proxy_socket.stat().st_mode & 0o777 == 0o660


def test_what_a_browser_adds_to_the_list_of_addresses_does_not_count(box, behind):
    session = behind.get("/api/session", local=True,
                         headers=vouched("alice", "203.0.113.1, 192.0.2.7")).json
    assert session["address"] == "192.0.2.7"


# Settings


@pytest.mark.parametrize("lines, told", [
    ('colour = "red"\n', ':5:1: error: unknown key "colour"; zevweb(8) lists the keys'),
    ("[sessions]\nhours = 0\n", ':6:9: error: bad "hours"; write a number from 1 to 720'),
    ("[proxy]\nsocket = 3\n",
     ':6:10: error: bad "socket"; write a path that begins with "/", in quotes'),
])
def test_a_mistake_in_the_settings_is_named_with_its_place(station, web, lines, told):
    web.tls, web.lines = False, lines
    web.main_port = 6500
    web.write_config()
    done = subprocess.run([PROGRAM, "--config", web.config, "--check"], capture_output=True,
                          text=True, check=False)
    assert done.returncode == 1
    assert done.stderr == f"{web.config}{told}\n"


def test_good_settings_are_told_so(station, web):
    web.main_port = 6500
    web.write_config()
    done = subprocess.run([PROGRAM, "--config", web.config, "--check"], capture_output=True,
                          text=True, check=False)
    assert (done.returncode, done.stdout) == (0, f"{web.config}: no mistakes\n")


# What changes in the middle of a session


def test_whoever_leaves_the_group_is_let_in_no_more(box, groups, web):
    assert web.log_in("alice", "her own").status == 204
    groups.write("qoruser:x:64000:\n")
    web.restart()  # what it has looked up counts for a minute
    assert web.get("/api/session").status == 401


def test_a_daemon_that_restarts_has_another_cookie_and_the_session_goes_on(box, station, web):
    assert web.log_in().status == 204
    assert web.post("/api/consoles/box/disable").status == 200
    port = station.port
    station.stop()
    answer = web.post("/api/consoles/box/enable")
    assert answer.status == 503
    bring_up(station, box, options=("-S", "1", "-p", str(port)))
    assert web.post("/api/consoles/box/disable").status == 200
    assert web.get("/api/session").json["name"] == NAME
