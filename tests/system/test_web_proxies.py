"""zevweb behind nginx and haproxy, which vouch for people or have them log in on the page."""

import contextlib
import re
import shutil
from pathlib import Path

import pytest

from harness import settings
from harness.access import bring_up
# `groups` is a fixture.
from harness.helpers import groups
from harness.recipes import Running
from harness.waiting import free_port, wait_listening
from harness.web import Web, admit

pytestmark = pytest.mark.needs_namespace

PAGE = settings.REPOSITORY / "docs" / "web.md"

# The proxy knows one person, by name and password.
PERSON = {"Authorization": "Basic YWxpY2U6cHJveHk="}  # alice:proxy

NGINX = """
user root;
daemon off;
pid {scratch}/nginx.pid;
error_log {scratch}/nginx.log;
events {{}}
http {{
    access_log off;
    client_body_temp_path {scratch}/body; proxy_temp_path {scratch}/proxied;
    fastcgi_temp_path {scratch}/f; uwsgi_temp_path {scratch}/u; scgi_temp_path {scratch}/s;
    map $http_upgrade $connection_upgrade {{ default upgrade; "" close; }}
    server {{
        listen 127.0.0.1:{port} ssl;
        ssl_certificate {certificate};
        ssl_certificate_key {key};
        auth_basic "station";
        auth_basic_user_file {scratch}/people;
        {location}
    }}
}}
"""

HAPROXY = """
global
    user root
userlist people
    user alice insecure-password proxy
defaults
    mode http
    timeout connect 5s
    timeout client 30s
    timeout server 30s
frontend station
    bind 127.0.0.1:{port} ssl crt {pair}
    http-request auth unless {{ http_auth(people) }}
    http-request set-var(txn.person) str(alice)
    default_backend zevweb
{backend}
"""


def recipe(language: str) -> str:
    """What docs/web.md tells."""
    return re.search(rf"```{language}\n(.*?)```", PAGE.read_text(encoding="utf-8"), re.DOTALL)[1]


def nginx(web: Web, port: int, scratch: Path) -> list[str]:
    """The command that runs nginx."""
    (scratch / "people").write_text("alice:{PLAIN}proxy\n", encoding="ascii")
    location = recipe("nginx").replace("/run/zevweb/proxy.sock", str(web.proxy_socket))
    config = scratch / "nginx.conf"
    config.write_text(NGINX.format(scratch=scratch, port=port, certificate=web.certificate,
                                   key=web.key, location=location), encoding="ascii")
    return [shutil.which("nginx", path="/usr/sbin:/usr/bin"), "-c", str(config)]


def haproxy(web: Web, port: int, scratch: Path) -> list[str]:
    """The command that runs haproxy."""
    pair = scratch / "pair.pem"
    pair.write_bytes(web.certificate.read_bytes() + web.key.read_bytes())
    backend = recipe("haproxy").replace("/run/zevweb/proxy.sock", str(web.proxy_socket))
    config = scratch / "haproxy.cfg"
    config.write_text(HAPROXY.format(port=port, pair=pair, backend=backend), encoding="ascii")
    return [shutil.which("haproxy", path="/usr/sbin:/usr/bin"), "-db", "-f", str(config)]


class Front(Web):
    """A client that comes through the proxy."""

    def behind(self, command, scratch: Path):
        """Run the proxy; from then on requests go to it."""
        self.start()
        port = free_port()
        running = Running(command(self, port, scratch), scratch / "proxy.out")
        wait_listening(port)
        self.port = port
        return running


@pytest.fixture(params=[nginx, haproxy], ids=["nginx", "haproxy"])
def front(request, station, groups, tmp_path):
    """A station whose page is behind a proxy."""
    groups.write("qoruser:x:64000:alice\n")
    admit(station)
    box = station.console("box")
    bring_up(station, box, options=("-S", "1"))
    with Front(station, tmp_path) as web:
        web.lines = f'[proxy]\nsocket = "{web.proxy_socket}"\n'
        with web.behind(request.param, tmp_path):
            web.box = box
            yield web


def test_the_person_of_the_proxy_types_and_controls_under_their_name(front):
    assert front.get("/api/session").status == 401
    session = front.get("/api/session", headers=PERSON).json
    assert (session["name"], session["address"]) == ("alice", "127.0.0.1")
    forged = {**PERSON, "X-Remote-User": "root", "X-Forwarded-For": "192.0.2.1"}
    session = front.get("/api/session", headers=forged).json
    assert (session["name"], session["address"]) == ("alice", "127.0.0.1")
    assert front.post("/api/consoles/box/disable", headers=PERSON).status == 200
    assert front.post("/api/consoles/box/enable",
                      headers={**PERSON, "Origin": "https://elsewhere.example.org"}).status == 403


def test_a_viewer_goes_through_the_proxy(front):
    with contextlib.closing(front.websocket("/api/consoles/box/stream", headers=PERSON)) as viewer:
        assert '"what":"start"' in viewer.recv()
    assert front.get("/healthz", headers=PERSON).json == {"alive": True}
