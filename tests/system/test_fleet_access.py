"""etcd that lets nobody in without a certificate or a login."""


import pytest

from harness.fleet import LASTING, PREFIX, Fleet
from harness.waiting import wait_until
from harness.web import certificate

pytestmark = pytest.mark.needs_namespace

NAME, PASSWORD = "stations", "secret words"


@pytest.fixture
def fleet(tmp_path, isolated):
    """One station and one server of etcd, which does not run yet."""
    made = Fleet(tmp_path, 1, 1)
    yield made
    made.end()
    made.assert_never_two()


def endpoints(fleet: Fleet) -> list[str]:
    """Where etcd is reached."""
    return [server.url for server in fleet.etcd]


def configure(fleet: Fleet, **etcd: str | int) -> None:
    """Give the station's settings for etcd anew; what runs reads them when it starts again."""
    station = fleet.stations[0]
    station.configure(endpoints(fleet), etcd)
    if station.run is not None:
        station.run.process.kill()


def wait_problem(fleet: Fleet, text: str) -> None:
    """Wait until the station says what is wrong; it has no consoles meanwhile."""
    station = fleet.stations[0]
    wait_until(lambda: text in station.map().get("problem", ""), what=text)
    assert fleet.owners() == {"box01": None}


# ---- Certificates --------------------------------------------------------------------------------


@pytest.fixture
def files(fleet, tmp_path):
    """Those of the server and of the station; etcd runs and wants to see the station's."""
    server = fleet.etcd[0]
    names = {}
    names["ca"], names["server_key"] = certificate(tmp_path, "server", server.machine.address)
    names["certificate"], names["key"] = certificate(tmp_path, "client")
    believed = tmp_path / "believed.pem"  # its own, too: its interface is a client of its own
    believed.write_text(names["ca"].read_text() + names["certificate"].read_text())
    server.scheme = "https"
    server.options = ["--cert-file", str(names["ca"]), "--key-file", str(names["server_key"]),
                      "--client-cert-auth", "--trusted-ca-file", str(believed)]
    fleet.etcdctl_options = ["--cacert", str(names["ca"]), "--cert", str(names["certificate"]),
                             "--key", str(names["key"])]
    fleet.start_etcd()
    return {key: str(path) for key, path in names.items()}


def test_both_sides_show_their_certificates(fleet, files):
    configure(fleet, **{key: files[key] for key in ("ca", "certificate", "key")})
    fleet.apply()
    fleet.stations[0].start()
    fleet.wait_owned()


def test_a_server_that_is_not_believed(fleet, files, tmp_path):
    other, _ = certificate(tmp_path, "other", fleet.etcd[0].machine.address)
    configure(fleet, ca=str(other), certificate=files["certificate"], key=files["key"])
    done = fleet.apply(check=False)
    assert done.returncode == 1 and "SSL certificate problem" in done.stderr, done.stderr
    fleet.stations[0].start()
    wait_problem(fleet, f"{fleet.etcd[0].url}: SSL certificate problem")


def test_a_station_without_its_certificate(fleet, files):
    configure(fleet, ca=files["ca"])
    fleet.stations[0].start()
    wait_problem(fleet, f"{fleet.etcd[0].url}: ")
    configure(fleet, **{key: files[key] for key in ("ca", "certificate", "key")})
    fleet.apply()
    fleet.wait_owned()


def test_a_server_of_another_name_is_not_believed(fleet, files, tmp_path):
    other, other_key = certificate(tmp_path, "elsewhere", "192.0.2.1")
    server = fleet.etcd[0]
    server.end()
    server.options[1], server.options[3] = str(other), str(other_key)
    server.start([server.machine])
    configure(fleet, ca=str(other), certificate=files["certificate"], key=files["key"])
    fleet.stations[0].start()
    wait_problem(fleet, "no alternative certificate subject name matches")


def test_a_file_that_is_not_there(fleet, files, tmp_path):
    nowhere = str(tmp_path / "nowhere.pem")
    configure(fleet, ca=nowhere)
    done = fleet.apply(check=False)
    assert done.returncode == 1 and nowhere in done.stderr, done.stderr


# ---- Logins --------------------------------------------------------------------------------------


@pytest.fixture
def login(fleet, tmp_path):
    """The login of the stations; etcd runs and knows it, and lets everybody in until it is told."""
    fleet.start_etcd()
    for words in (["user", "add", "root:root words"], ["user", "grant-role", "root", "root"],
                  ["role", "add", NAME], ["user", "add", f"{NAME}:{PASSWORD}"],
                  ["role", "grant-permission", "--prefix=true", NAME, "readwrite", PREFIX],
                  ["user", "grant-role", NAME, NAME]):
        fleet.etcdctl(*words)
    password = tmp_path / "password"
    password.write_text(f"{PASSWORD}\n", encoding="ascii")
    return {"user": NAME, "password_file": str(password)}


def want_logins(fleet: Fleet) -> None:
    """From now on etcd lets nobody in without."""
    fleet.etcdctl("auth", "enable")
    fleet.etcdctl_options = ["--user", "root:root words"]


def test_a_station_logs_in(fleet, login):
    want_logins(fleet)
    configure(fleet, **login)
    fleet.apply()
    fleet.stations[0].start()
    fleet.wait_owned()


def test_a_login_that_etcd_forgot_is_made_again(fleet, login):
    want_logins(fleet)
    configure(fleet, lease_seconds=LASTING, **login)
    fleet.apply()
    station, server = fleet.stations[0], fleet.etcd[0]
    station.start()
    fleet.wait_owned()
    connections = len(fleet.rack["box01"].owners)
    server.end()
    server.start([server.machine])
    wait_until(lambda: fleet.etcdctl("endpoint", "health", check=False).returncode == 0,
               what="etcd to answer")
    beat = fleet.beats()["st1"]
    wait_until(lambda: fleet.beats()["st1"] > beat + 1, what="the lease to be renewed")
    wait_until(lambda: station.map()["connected"], what="a map that is as of now")
    assert len(fleet.rack["box01"].owners) == connections


def test_logins_can_be_wanted_while_the_fleet_is_at_work(fleet, login):
    configure(fleet, lease_seconds=LASTING, **login)
    fleet.apply()
    station = fleet.stations[0]
    station.start()
    fleet.wait_owned()
    connections = len(fleet.rack["box01"].owners)
    want_logins(fleet)
    beat = fleet.beats()["st1"]
    wait_until(lambda: fleet.beats()["st1"] > beat + 1, what="the lease to be renewed")
    wait_until(lambda: station.map()["problem"] == "", what="all to be well")
    assert len(fleet.rack["box01"].owners) == connections


def test_a_wrong_password(fleet, login, tmp_path):
    want_logins(fleet)
    (tmp_path / "password").write_text("guess\n", encoding="ascii")
    configure(fleet, **login)
    refusal = (f'cannot log in to etcd as "{NAME}": etcdserver: authentication failed, '
               "invalid user ID or password")
    done = fleet.apply(check=False)
    assert done.returncode == 1 and refusal in done.stderr, done.stderr
    fleet.stations[0].start()
    wait_problem(fleet, refusal)
    (tmp_path / "password").write_text(f"{PASSWORD}\n", encoding="ascii")
    fleet.apply()
    fleet.wait_owned()


def test_no_login_where_one_is_wanted(fleet, login):
    want_logins(fleet)
    configure(fleet)
    fleet.stations[0].start()
    wait_problem(fleet, "user name is empty")


def test_a_login_without_the_rights(fleet, login):
    fleet.etcdctl("user", "revoke-role", NAME, NAME)
    want_logins(fleet)
    configure(fleet, **login)
    fleet.stations[0].start()
    wait_problem(fleet, "permission denied")


def test_a_password_file_that_is_not_there(fleet, login, tmp_path):
    want_logins(fleet)
    nowhere = str(tmp_path / "nowhere")
    configure(fleet, user=NAME, password_file=nowhere)
    done = fleet.apply(check=False)
    assert done.returncode == 1
    assert f"cannot read {nowhere}: No such file or directory" in done.stderr
