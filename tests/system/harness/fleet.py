"""A fleet in one test: etcd servers and stations, each on a machine of its own, and consoles that
take one connection each."""

import contextlib
import json
import os
import signal
import subprocess
import threading
from base64 import b64decode
from pathlib import Path

from harness import settings
from harness.nats import NatsCluster
from harness.realm import HERE, RACK, Machine, Realm
from harness.sole_consoles import SoleRack
from harness.station import assert_no_sanitizer_report
from harness.waiting import stretched, wait_until

SITE = "hall"
PREFIX = f"/zevfleet/{SITE}/"
LEASE = 5  # seconds, the least that is allowed
TAKE_OVER = LEASE + 5.0
LASTING = 20  # seconds of a lease that a busy machine does not let end
ENDS_WITHIN = 120.0  # what ends by itself
RUN = Path("/run/zevfleet")
CLIENT_PORT = 2379
DATA = "/run/etcd"  # in memory: a busy disk would make leases late


def _lines(values: dict) -> str:
    """Settings, as TOML has them."""
    return "".join(f"{key} = {json.dumps(value)}\n" for key, value in values.items())


class Kept:
    """A program that is started again whenever it ends, as a unit does it."""

    def __init__(self, machine: Machine, words: list, output: Path, before: list | None = None,
                 pause: float = 0.2, env: dict[str, str] | None = None) -> None:
        self._machine, self._words, self._before = machine, words, before
        self._env = env
        self._output, self._pause = output, pause
        self._ending = threading.Event()
        self.process: subprocess.Popen | None = None
        self._thread = threading.Thread(target=self._keep, daemon=True)
        self._thread.start()

    def _keep(self) -> None:
        while not self._ending.is_set():
            with open(self._output, "ab") as output:
                streams = {"stdin": subprocess.DEVNULL, "stdout": output, "stderr": output}
                if self._before and self._machine.run(self._before, check=False,
                                                      **streams).returncode != 0:
                    self._ending.wait(self._pause)
                    continue
                self.process = self._machine.popen(self._words, env=self._env, **streams)
            if self._ending.is_set():
                self.process.kill()
            self.process.wait()
            self._ending.wait(self._pause)

    @property
    def pid(self) -> int:
        """Of the process that runs now."""
        wait_until(lambda: self.process is not None and self.process.poll() is None,
                   what=f"{self._words[0]} to run")
        return self.process.pid

    def signal(self, number: int) -> None:
        """Send a signal to what runs now."""
        os.kill(self.pid, number)

    def stop(self) -> None:
        """End it for good, and let it end in good order."""
        self._ending.set()
        self.process.terminate()
        self._thread.join()

    def end(self) -> None:
        """End it for good."""
        self._ending.set()
        if self.process is not None and self.process.poll() is None:
            self.process.kill()
        self._thread.join()

    def text(self) -> str:
        """What it has printed."""
        return self._output.read_text(encoding="utf-8", errors="replace")


class EtcdServer:
    """One etcd of a cluster."""

    def __init__(self, machine: Machine, scratch: Path) -> None:
        self.machine = machine
        self.scheme = "http"
        self.options: list[str] = []  # further ones
        self._log = scratch / f"{machine.name}.log"
        self.process: subprocess.Popen | None = None

    @property
    def url(self) -> str:
        """Where it is reached."""
        return f"{self.scheme}://{self.machine.address}:{CLIENT_PORT}"

    def start(self, cluster: list[Machine]) -> None:
        """Start it; it is found again by its data."""
        peers = ",".join(f"{one.name}=http://{one.address}:2380" for one in cluster)
        mine = f"http://{self.machine.address}"
        words = ["etcd", "--name", self.machine.name, "--data-dir", DATA,
                 "--listen-client-urls", self.url, "--advertise-client-urls", self.url,
                 "--listen-peer-urls", f"{mine}:2380",
                 "--initial-advertise-peer-urls", f"{mine}:2380",
                 "--initial-cluster", peers, "--initial-cluster-state", "new",
                 "--heartbeat-interval", "100", "--election-timeout", "1000",
                 "--logger", "zap", *self.options]
        with open(self._log, "ab") as log:
            self.process = self.machine.popen(words, stdin=subprocess.DEVNULL, stdout=log,
                                              stderr=log)

    def signal(self, number: int) -> None:
        """Send it a signal."""
        self.process.send_signal(number)

    def end(self) -> None:
        """End it; what was written stays."""
        if self.process is not None:
            self.process.kill()
            self.process.wait()
            self.process = None


class FleetUser:
    """Somebody who is attached by zevctl."""

    def __init__(self, process: subprocess.Popen) -> None:
        self._process = process
        self._seen = b""
        os.set_blocking(process.stdout.fileno(), False)

    def read_until(self, end: bytes) -> bytes:
        """Wait until the bytes have come; everything up to there."""
        wait_until(lambda: self.has_seen(end), what=f"{end!r} of the console")
        return self._seen

    def has_seen(self, end: bytes) -> bool:
        """Whether the bytes have come."""
        self._seen += self._process.stdout.read() or b""
        return end in self._seen

    def leave(self) -> None:
        """Go away."""
        self._process.kill()
        self._process.wait()

    def wait_end(self) -> None:
        """Wait until the session has been ended by the other side."""
        wait_until(lambda: self._process.poll() is not None, what="the session to end")


class FleetStation:
    """A daemon and zevfleet, kept as their units keep them."""

    def __init__(self, machine: Machine, scratch: Path) -> None:
        self.machine, self.name = machine, machine.name
        self._scratch = scratch
        self._bin = settings.build_directory() / "bin"
        self.config = self.inside(settings.root() / "config")
        for place in ("config", "config/consoles.d", "events", "logs", "journal", "run"):
            self.inside(settings.root() / place).mkdir(mode=0o755, parents=True)
        self.inside(settings.root() / "journal").chmod(0o750)
        (self.config / "models").write_text("A|A200\n", encoding="ascii")
        (self.config / "zev.conf").write_text("", encoding="ascii")
        (self.config / "consoles.toml").write_text("", encoding="ascii")
        self.daemon: Kept | None = None
        self.run: Kept | None = None
        self.guard: Kept | None = None
        self.ship: Kept | None = None
        self._ships = False

    def inside(self, path: Path) -> Path:
        """A path of the machine, as seen from the test."""
        return self.machine.root / path.relative_to("/")

    def configure(self, endpoints: list[str], etcd: dict[str, str | int] | None = None,
                  nats: list[str] | None = None, **changed: str | int) -> None:
        """Write zevfleet.toml: with further settings for etcd, and with what ships to `nats`."""
        tables = {"etcd": {"endpoints": endpoints, "lease_seconds": LEASE} | (etcd or {})}
        if nats:
            tables["nats"] = {"urls": nats, "replicas": len(nats)}
        text = _lines({"site": SITE, "station": self.name, "address": self.machine.address,
                       "return_seconds": 1} | changed)
        text += "".join(f"[{name}]\n{_lines(values)}" for name, values in tables.items())
        (self.config / "zevfleet.toml").write_text(text, encoding="utf-8")

    def keep_journal(self) -> None:
        """Have the daemon write one, which is shipped from now on."""
        (self.config / "qor.conf").write_text("ZEVD_ARCH_INT=7\nZEVD_JOURNAL=100\n",
                                              encoding="ascii")
        self._ships = True

    def start_daemon(self, env: dict[str, str] | None = None) -> None:
        """Keep the daemon."""
        self.daemon = Kept(self.machine, [self._bin / "zevd", "-f", "-S", "0", "-d", "1"],
                           self._scratch / f"{self.name}.zevd",
                           before=[self._bin / "zevfleet", "prepare"], env=env)

    def start(self, env: dict[str, str] | None = None) -> None:
        """Keep everything; `env` is for all but the guard."""
        self.start_daemon(env)
        self.guard = self.keep("guard")
        self.run = self.keep("run", env)
        if self._ships:
            self.ship = self.keep("ship", env)

    def keep(self, command: str, env: dict[str, str] | None = None) -> Kept:
        """Keep one command of zevfleet."""
        return Kept(self.machine, [self._bin / "zevfleet", command],
                    self._scratch / f"{self.name}.{command}", env=env)

    def fleet(self, *words: str, check: bool = True) -> subprocess.CompletedProcess:
        """Run zevfleet there."""
        return self.machine.run([self._bin / "zevfleet", *words], check=check, text=True,
                                capture_output=True, stdin=subprocess.DEVNULL,
                                timeout=stretched(ENDS_WITHIN))

    def zevctl(self, *words: str, check: bool = True) -> subprocess.CompletedProcess:
        """Run zevctl there."""
        return self.machine.run([self._bin / "zevctl", *words], check=check, text=True,
                                capture_output=True, stdin=subprocess.DEVNULL,
                                timeout=stretched(ENDS_WITHIN))

    def answers(self) -> bool:
        """Whether its daemon does."""
        return self.zevctl("--json", "list", check=False).returncode == 0

    def consoles(self) -> dict[str, str]:
        """The states of the consoles that its daemon has; none while it does not answer."""
        done = self.zevctl("--json", "list", check=False)
        return {one["name"]: one["state"] for one in json.loads(done.stdout)} if not (
            done.returncode) else {}

    def map(self) -> dict:
        """The map that it publishes; nothing before the first."""
        try:
            return json.loads(self.inside(RUN / "fleet.json").read_text(encoding="utf-8"))
        except FileNotFoundError:
            return {}

    def users(self, console: str) -> int:
        """How many are attached to a console of its daemon."""
        done = self.zevctl("--json", "list", console, check=False)
        return 0 if done.returncode else json.loads(done.stdout)[0]["users"]

    def mapped(self) -> dict[str, str]:
        """Who has which console, as its map says."""
        return {one["name"]: one["station"] for one in self.map().get("consoles", [])}

    def attach(self, console: str) -> "FleetUser":
        """Attach to a console through its daemon."""
        return FleetUser(self.machine.popen(
            [self._bin / "zevctl", "attach", "--mode", "sh", console],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, bufsize=0))

    def processes(self) -> list[Kept]:
        """What is kept."""
        kept = self.run, self.guard, self.ship, self.daemon
        return [one for one in kept if one is not None]

    def freeze(self) -> None:
        """Stop everything at once, as a machine that stands still."""
        for one in self.processes():
            one.signal(signal.SIGSTOP)

    def thaw(self) -> None:
        """Let everything go on, but for what the guard has ended by then."""
        for one in self.processes():
            with contextlib.suppress(ProcessLookupError):
                one.signal(signal.SIGCONT)

    def end(self) -> None:
        """End everything."""
        for one in self.processes():
            one.end()
            assert_no_sanitizer_report(one.text())


class Fleet:
    """All of it."""

    def __init__(self, scratch: Path, stations: int, consoles: int, etcds: int = 1,
                 ships: bool = False, lease: int = LEASE) -> None:
        """With `ships` each machine of etcd has NATS, too, and the stations ship to it.

        The least lease (seconds) may end by itself when the machine is busy: a test that counts
        on one that lasts takes a longer one.
        """
        self.scratch = scratch
        self.realm = Realm()
        self.etcd = [EtcdServer(self.realm.add(f"e{i + 1}"), scratch) for i in range(etcds)]
        self.stations = [FleetStation(self.realm.add(f"st{i + 1}"), scratch)
                         for i in range(stations)]
        self.names = [f"box{i + 1:02}" for i in range(consoles)]
        self.rack = SoleRack(self.names)
        self.etcdctl_options: list[str] = []  # further ones
        machines = [server.machine for server in self.etcd]
        self.nats = NatsCluster(scratch, machines=machines) if ships else None
        for station in self.stations:
            station.configure([server.url for server in self.etcd], {"lease_seconds": lease},
                              nats=self.nats.urls if self.nats else None)
            if self.nats:
                station.keep_journal()

    def start_etcd(self) -> None:
        """Start the cluster, and wait until it answers."""
        for server in self.etcd:
            server.start([one.machine for one in self.etcd])
        wait_until(lambda: self.etcdctl("endpoint", "health", check=False).returncode == 0,
                   what="etcd to answer")

    def etcdctl(self, *words: str, check: bool = True, given: str = "") -> (
            subprocess.CompletedProcess):
        """Ask etcd from a machine that is always there."""
        endpoints = ",".join(server.url for server in self.etcd)
        return subprocess.run(["etcdctl", "--endpoints", endpoints, "--command-timeout", "5s",
                               *self.etcdctl_options, *words], check=check, text=True,
                              capture_output=True, input=given,
                              env={**os.environ, "ETCDCTL_API": "3"})

    def file(self, stations: dict[str, list[str]] | None = None) -> str:
        """The text of a fleet file; without `stations` each console prefers one in turn."""
        text = f'fleet = "{SITE}"\n[defaults]\nlogin = false\nevents = false\nmodel = "A200"\n'
        for number, name in enumerate(self.names):
            first = self.stations[number % len(self.stations)].name
            listed = (stations or {}).get(name, [first, "*"])
            text += (f'[[console]]\nname = "{name}"\ntcp = "{RACK}.{HERE}:'
                     f'{self.rack[name].port}"\nstations = {json.dumps(listed)}\n')
        return text

    def apply(self, text: str | None = None, station: FleetStation | None = None,
              check: bool = True) -> subprocess.CompletedProcess:
        """Put a fleet file into etcd."""
        path = self.scratch / "fleet.toml"
        path.write_text(self.file() if text is None else text, encoding="utf-8")
        return (station or self.stations[0]).fleet("apply", "-y", str(path), check=check)

    def preferred(self) -> dict[str, str]:
        """Each console's first station, as the usual fleet file has it."""
        return {name: self.stations[number % len(self.stations)].name
                for number, name in enumerate(self.names)}

    def keys(self, kind: str) -> dict[str, dict]:
        """The values of one kind of keys in etcd, by name."""
        return {name: json.loads(b64decode(one["value"]))
                for name, one in self.listing(kind).items()}

    def listing(self, kind: str) -> dict[str, dict]:
        """One kind of keys as etcd's JSON describes them, by name."""
        prefix = f"{PREFIX}{kind}/"
        answer = json.loads(self.etcdctl("get", "--prefix", prefix, "-w", "json").stdout)
        return {b64decode(one["key"]).decode()[len(prefix):]: one
                for one in answer.get("kvs", [])}

    def value(self, key: str) -> str:
        """The value of a key."""
        return self.etcdctl("get", "--print-value-only", PREFIX + key).stdout

    def put(self, key: str, value: str) -> None:
        """Write a key as somebody else would."""
        self.etcdctl("put", PREFIX + key, value)

    def record(self, name: str) -> dict:
        """What etcd has of a console."""
        return self.keys("consoles")[name]

    def beats(self) -> dict[str, int]:
        """How often each station has renewed its lease."""
        return {name: value["beat"] for name, value in self.keys("stations").items()}

    def leader(self, without: EtcdServer | None = None) -> EtcdServer | None:
        """The server of etcd that leads."""
        for server in self.etcd:
            if server is without:
                continue
            done = subprocess.run(["etcdctl", "--endpoints", server.url, "--command-timeout", "2s",
                                   "endpoint", "status", "-w", "json"], text=True, check=False,
                                  capture_output=True, env={**os.environ, "ETCDCTL_API": "3"})
            if done.returncode == 0:
                status = json.loads(done.stdout)[0]["Status"]
                if status.get("leader") == status["header"]["member_id"]:
                    return server
        return None

    def start(self, envs: list[dict[str, str] | None] | None = None) -> "Fleet":
        """etcd, NATS, the fleet file and all stations, with an environment for each."""
        self.start_etcd()
        if self.nats:
            self.nats.start()
        self.apply()
        for station, env in zip(self.stations, envs or [None] * len(self.stations)):
            station.start(env)
        return self

    def station_of(self, address: str | None) -> str | None:
        """The station that has the address."""
        return next((one.name for one in self.stations if one.machine.rack_address == address),
                    None)

    def owners(self) -> dict[str, str | None]:
        """Who is connected to each console."""
        return {name: self.station_of(address) for name, address in self.rack.owners().items()}

    def wait_owned(self, by: list[str] | None = None, limit: float = 30.0) -> dict:
        """Wait until somebody (of these) is connected to every console."""
        def owned() -> dict | None:
            owners = self.owners()
            fits = all(owner and (by is None or owner in by) for owner in owners.values())
            return owners if fits else None

        return wait_until(owned, limit, f"every console to be connected ({by})")

    def assert_never_two(self) -> None:
        """No console has ever had two connections at once."""
        assert self.rack.doubles == []

    def end(self) -> None:
        """End everything."""
        for station in self.stations:
            station.end()
        for server in self.etcd:
            server.end()
        if self.nats:
            self.nats.close()
        self.rack.end()
        self.realm.end()
