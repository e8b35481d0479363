"""What a large fleet costs its etcd and each of its stations.

Usage: fleet_scale.py [STATIONS...]

One station is real: daemon, guard and `zevfleet run`. The others are what etcd sees of such ones:
each renews a lease as `zevfleet run` does, follows all keys of the fleet, and has claimed a
thousand consoles, for which the real station comes next. Then one of them stops: its consoles have
to be claimed by the real station, and be in its daemon. Nothing listens at their addresses.
"""

import http.client
import json
import os
import selectors
import socket
import sys
import tempfile
import threading
import time
from base64 import b64encode
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests/system"))

from harness import isolation, settings  # noqa: E402  (found through the line above)
from harness.fleet import CLIENT_PORT, PREFIX, Fleet  # noqa: E402
from harness.waiting import wait_until  # noqa: E402

STATIONS = (10, 30, 100)
CONSOLES = 1000  # of each station
LEASE = 10  # seconds
BETWEEN_BEATS = 2.0  # a quarter of what a lease has without its margin
TOGETHER = 60  # consoles in a transaction: etcd takes 128 changes
AT_REST = 20.0  # seconds that are measured
PATIENCE = 300.0


def text(value: str | bytes) -> str:
    """As etcd's interface wants it."""
    return b64encode(value.encode() if isinstance(value, str) else value).decode()


def put(key: str, value: dict, lease: int = 0) -> dict:
    """A change of a transaction."""
    return {"request_put": {"key": text(PREFIX + key), "value": text(json.dumps(value)),
                            "lease": str(lease)}}


class Etcd:
    """A connection to etcd's interface."""

    def __init__(self, address: str) -> None:
        self._connection = http.client.HTTPConnection(address, CLIENT_PORT, timeout=60)

    def ask(self, path: str, request: dict) -> dict:
        """One request and its answer."""
        self._connection.request("POST", f"/v3/{path}", json.dumps(request))
        return json.loads(self._connection.getresponse().read())

    def commit(self, changes: list[dict]) -> None:
        """One transaction."""
        assert "error" not in (answer := self.ask("kv/txn", {"success": changes})), answer


class OtherStation:
    """What etcd sees of a station."""

    def __init__(self, address: str, number: int) -> None:
        self.name = f"f{number:03}"
        self._address = address
        self._etcd = Etcd(address)
        self.lease = int(self._etcd.ask("lease/grant", {"TTL": LEASE})["ID"])
        self._beat = 0
        self._is_over = threading.Event()
        self._thread = threading.Thread(target=self._live, daemon=True)
        self._thread.start()

    def _write_beat(self) -> None:
        self._beat += 1
        self._etcd.commit([put(f"stations/{self.name}", {
            "instance": self.name, "address": self._address, "web": "", "version": "0.1.0",
            "ready": True, "beat": self._beat}, self.lease)])

    def _live(self) -> None:
        while not self._is_over.is_set():
            self._etcd.ask("lease/keepalive", {"ID": str(self.lease)})
            self._write_beat()
            self._is_over.wait(BETWEEN_BEATS)

    def names(self) -> list[str]:
        """Its consoles."""
        return [f"{self.name}-{number:04}" for number in range(CONSOLES)]

    def claim(self, host: str) -> None:
        """Write its consoles, and claim them."""
        etcd = Etcd(self._address)
        changes = []
        for number, name in enumerate(self.names()):
            line = f'{name} {host} {number + 1000} 0 0 A200 - "-" 1 1 0 0 ""'
            changes.append(put(f"consoles/{name}", {"line": line, "stations": [self.name, "st1"],
                                                    "others": True, "told": False}))
            changes.append(put(f"claims/{host}:{number + 1000}",
                               {"station": self.name, "instance": self.name}, self.lease))
        for begin in range(0, len(changes), 2 * TOGETHER):
            etcd.commit(changes[begin:begin + 2 * TOGETHER])

    def stop(self) -> None:
        """Renew the lease no more."""
        self._is_over.set()
        self._thread.join()


class Followers:
    """Connections that are sent every change, and throw it away."""

    def __init__(self, address: str) -> None:
        self._address = address
        self._selector = selectors.DefaultSelector()
        self.received = 0
        threading.Thread(target=self._read, daemon=True).start()

    def add(self) -> None:
        """One more."""
        end = PREFIX[:-1] + chr(ord(PREFIX[-1]) + 1)
        body = json.dumps({"create_request": {"key": text(PREFIX), "range_end": text(end)}})
        sock = socket.create_connection((self._address, CLIENT_PORT))
        sock.sendall(f"POST /v3/watch HTTP/1.1\r\nHost: etcd\r\nContent-Length: {len(body)}\r\n\r\n"
                     f"{body}".encode())
        self._selector.register(sock, selectors.EVENT_READ)

    def _read(self) -> None:
        while True:
            for key, _ in self._selector.select(0.1):
                self.received += len(key.fileobj.recv(1 << 20))


class Cost:
    """What a process uses while it is measured."""

    def __init__(self, pid: int) -> None:
        self._pid = pid
        self._begin = self._processor()
        self._time = time.monotonic()

    @property
    def seconds(self) -> float:
        """Of the processor."""
        return self._processor() - self._begin

    def _processor(self) -> float:
        fields = Path(f"/proc/{self._pid}/stat").read_text(encoding="ascii").rpartition(")")[2]
        user, system = fields.split()[11:13]
        return (int(user) + int(system)) / os.sysconf("SC_CLK_TCK")

    @property
    def share(self) -> float:
        """Percent of a core."""
        return 100 * self.seconds / (time.monotonic() - self._time)

    @property
    def mebibytes(self) -> float:
        """Resident memory."""
        status = Path(f"/proc/{self._pid}/status").read_text(encoding="ascii")
        return int(status.partition("VmRSS:")[2].split()[0]) / 1024


def owned(fleet: Fleet) -> int:
    """How many consoles the real station has claimed, as its map says."""
    return sum(station == "st1" for station in fleet.stations[0].mapped().values())


def measure(scratch: Path, stations: int) -> None:
    """One size."""
    fleet = Fleet(scratch, 1, 0)
    try:
        station, address = fleet.stations[0], fleet.etcd[0].machine.address
        station.configure([fleet.etcd[0].url], {"lease_seconds": LEASE})
        fleet.start()
        begin = time.monotonic()
        followers = Followers(address)
        others = [OtherStation(address, number) for number in range(1, stations)]
        for number, other in enumerate(others):
            followers.add()
            other.claim(f"10.{number // 250 + 100}.{number % 250}.1")
        written = time.monotonic() - begin
        wait_until(lambda: len(station.mapped()) == CONSOLES * len(others), PATIENCE,
                   "the station to know all consoles")
        known = time.monotonic() - begin
        etcd, run = Cost(fleet.etcd[0].process.pid), Cost(station.run.pid)
        received = followers.received
        time.sleep(AT_REST)
        each = (followers.received - received) / AT_REST / len(others) / 1e6
        print(f"{stations} stations, {CONSOLES * len(others)} consoles: claimed in "
              f"{written:.0f} s, all known after {known:.0f} s; at rest: "
              f"etcd {etcd.share:.0f} % of a core, "
              f"{etcd.mebibytes:.0f} MiB; zevfleet run {run.share:.0f} %, {run.mebibytes:.0f} MiB; "
              f"to each station {each:.2f} MB/s", flush=True)
        others[0].stop()
        begin = time.monotonic()
        wait_until(lambda: owned(fleet) == CONSOLES, PATIENCE, "the consoles to be claimed")
        claimed = time.monotonic() - begin
        wait_until(lambda: len(station.consoles()) == CONSOLES, PATIENCE, "them in the daemon")
        print(f"  a station stops renewing: {claimed:.1f} s until its consoles are claimed, "
              f"{time.monotonic() - begin:.1f} s until the daemon has them", flush=True)
        for other in others[1:]:
            other.stop()
    finally:
        fleet.end()


def main() -> None:
    sizes = [int(word) for word in sys.argv[1:]] or list(STATIONS)
    mount_point = isolation.MountPoint(settings.root())
    mount_point.hold()
    isolation.adopt_orphans()
    isolation.enter_private_namespaces(settings.root())
    try:
        for stations in sizes:
            with tempfile.TemporaryDirectory() as scratch:
                measure(Path(scratch), stations)
    finally:
        mount_point.release()


if __name__ == "__main__":
    main()
