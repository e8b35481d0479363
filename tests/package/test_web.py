"""zevweb from its package, under systemd: it is started, serves, restarts, and is purged."""

import json

import pytest

from harness.web_stream import Stream

from machines.machine import Machine
from machines.station import MEMBER, PASSWORD, ROOT, STRANGER
from machines.web import CERTIFICATE, KEY, PORT, PROXY_SOCKET, SETTINGS, UNIT, StationWeb

pytestmark = pytest.mark.needs_machine

DOCUMENTS = "/usr/share/doc/zevweb"


def listening(machine: Machine) -> list[str]:
    """The addresses at which somebody listens on zevweb's port, as the kernel writes them."""
    rows = machine.output("cat", "/proc/net/tcp", "/proc/net/tcp6").splitlines()
    places = [row.split()[1] for row in rows if row.split()[3] == "0A"]
    return [place.partition(":")[0] for place in places if place.endswith(f":{PORT:04X}")]


@pytest.fixture(scope="module")
def furnished(station):
    """The station with a journal; zevweb has not been started yet."""
    station.machine.run("sh", "-c", f"echo ZEVD_JOURNAL=64 >> {ROOT}/config/qor.conf")
    station.restart()
    return station


@pytest.fixture(scope="module")
def browser(furnished, tmp_path_factory):
    """A browser at zevweb, which has been started as docs/web.md tells."""
    furnished.machine.run("systemctl", "enable", "--now", UNIT)
    made = StationWeb(furnished, tmp_path_factory.mktemp("browser"))
    made.believe()
    return made


def test_it_does_not_run_until_it_is_started(furnished):
    machine = furnished.machine
    assert machine.show(UNIT, "ActiveState") == "inactive"
    assert machine.show(UNIT, "UnitFileState") == "disabled"
    assert listening(machine) == []


def test_there_is_a_certificate_whose_key_nobody_else_reads(furnished):
    machine = furnished.machine
    modes = machine.output("stat", "--format=%U:%G %a", "/etc/zevweb", CERTIFICATE, KEY)
    assert modes.splitlines() == ["root:root 755", "root:root 644", "root:zevweb 640"]
    assert machine.output("id", "-Gn", "zevweb").split() == ["zevweb", "zevd"]
    for name, status in ((MEMBER, 1), ("zevd", 1), ("zevweb", 0)):
        read = machine.run("setpriv", f"--reuid={name}", f"--regid={name}", "--init-groups",
                           "test", "-r", KEY, check=False)
        assert read.returncode == status, name
    for check in ("-checkip 127.0.0.1", "-checkhost localhost"):
        said = machine.output("sh", "-c", f"openssl x509 -noout -in {CERTIFICATE} {check}")
        assert said.endswith("does match certificate")


def test_the_monitoring_finds_its_files(furnished):
    machine = furnished.machine
    assert machine.output("ls", f"{DOCUMENTS}/prometheus").split() == [
        "zevd.rules.test.yml", "zevd.rules.yml", "zevd.scrape.yml"]
    json.loads(machine.output("cat", f"{DOCUMENTS}/grafana/zevd.json"))


def test_a_browser_on_the_station_gets_the_page(browser):
    assert listening(browser.machine) == ["0100007F"]
    page = browser.get("/")
    assert page.status == 200 and page.body.startswith(b"<!doctype html>")
    assert browser.get("/page.js").status == 200
    assert browser.get("/readyz").json == {"ready": True, "journal": "on"}


def test_a_stranger_and_a_wrong_password_are_refused(browser):
    for name, password in ((STRANGER, PASSWORD), (MEMBER, "wrong")):
        assert browser.log_in(name, password).status == 401


def test_an_operator_types_and_stands_in_the_audit(browser, furnished):
    assert browser.log_in(MEMBER, PASSWORD).status == 204
    consoles = browser.get("/api/consoles").json["consoles"]
    assert [(console["name"], console["state"]) for console in consoles] == [("box", "connected")]
    with Stream(browser, "box", "?last=10") as stream:
        stream.wait("live")
        stream.attach()
        stream.send(b"from the browser")
        furnished.box.expect(b"from the browser")
        furnished.box.send(b"to the browser\r\n")
        stream.expect(b"to the browser")
        stream.ask("leave")
        stream.wait("left")
    acts = json.loads(browser.machine.output("zevctl", "--json", "audit", "box", "--what",
                                            "attach"))
    assert [(act["given_user"], act["given_from"], act["mode"], act["result"])
            for act in acts] == [(MEMBER, "127.0.0.1", "sh", "accepted")]


def test_a_restart_keeps_sessions(browser):
    assert browser.log_in(MEMBER, PASSWORD).status == 204
    before = browser.machine.show(UNIT, "MainPID")
    browser.machine.run("systemctl", "restart", UNIT)
    assert browser.machine.show(UNIT, "MainPID") != before
    assert browser.get("/api/session").json["name"] == MEMBER


def test_a_token_reads(browser):
    secret = browser.machine.output("sh", "-c", "zevctl token create probe 2>/dev/null")
    answer = browser.get("/metrics", cookie=False, headers={"Authorization": f"Bearer {secret}"})
    assert answer.status == 200 and b'zevd_consoles{state="connected"} 1' in answer.body


def test_it_has_no_privileges(browser):
    machine = browser.machine
    process = machine.show(UNIT, "MainPID")
    status = dict(row.split(":\t", 1) for row in
                  machine.output("cat", f"/proc/{process}/status").splitlines() if ":\t" in row)
    assert status["Uid"].split() == [machine.output("id", "-u", "zevweb")] * 4
    assert all(int(status[f"Cap{kind}"], 16) == 0 for kind in ("Inh", "Prm", "Eff", "Bnd", "Amb"))
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")
    kept = machine.output("stat", "--format=%U:%G %a", "/var/lib/zevweb",
                          "/var/lib/zevweb/sessions").splitlines()
    assert kept == ["zevweb:zevweb 700", "zevweb:zevweb 600"]


def test_a_proxy_is_served_at_the_socket_of_its_group(browser):
    machine = browser.machine
    machine.run("usermod", "--append", "--groups", "www-data", "zevweb")
    machine.run("sh", "-c", f"cat > {SETTINGS}", given='[proxy]\ngroup = "www-data"\n')
    machine.run("systemctl", "restart", UNIT)
    assert machine.output("stat", "--format=%U:%G %a", PROXY_SOCKET) == "zevweb:www-data 660"
    session = browser.get("/api/session", local=True, cookie=False, headers={
        "X-Remote-User": MEMBER, "X-Forwarded-For": "192.0.2.7"}).json
    assert (session["name"], session["proof"]) == (MEMBER, "proxy")
    machine.run("rm", SETTINGS)
    machine.run("systemctl", "restart", UNIT)


def test_a_mistake_in_the_settings_is_told(browser):
    machine = browser.machine
    machine.run("sh", "-c", f"cat > {SETTINGS}", given='colour = "red"\n')
    assert machine.run("systemctl", "restart", UNIT, check=False).returncode == 1
    assert (f'{SETTINGS}:1:1: error: unknown key "colour"; zevweb(8) lists the keys'
            in machine.journal("-u", UNIT))
    machine.run("rm", SETTINGS)
    machine.run("systemctl", "reset-failed", UNIT)
    machine.run("systemctl", "start", UNIT)
    assert browser.get("/healthz").status == 200


def test_purging_leaves_nothing_and_the_daemon_goes_on(browser):
    machine = browser.machine
    daemon = machine.daemon()
    machine.run("apt-get", "purge", "--yes", "zevweb")
    assert machine.run("pgrep", "-x", "zevweb", check=False).returncode == 1
    for path in ("/etc/zevweb", "/var/lib/zevweb", "/run/zevweb", "/usr/share/zevweb", DOCUMENTS):
        assert not machine.path(path).exists(), path
    assert "zevweb" not in machine.output("ls", "-R", "/etc/systemd", "/lib/systemd")
    assert machine.run("systemctl", "--failed", "--quiet").stdout == ""
    assert machine.daemon() == daemon
