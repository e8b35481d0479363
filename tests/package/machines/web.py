"""The station in a browser, as a browser on the station reaches it."""

from pathlib import Path

from harness.web import Answer, Web

from machines.machine import Machine
from machines.station import Station

PORT = 8443
UNIT = "zevweb.service"
CERTIFICATE, KEY = "/etc/zevweb/certificate.pem", "/etc/zevweb/key.pem"
SETTINGS = "/usr/opt/qor/config/zevweb.toml"
PROXY_SOCKET = "/run/zevweb/proxy.sock"


class StationWeb(Web):
    """zevweb in a machine. Its service manager starts and stops it, not the test."""

    def __init__(self, station: Station, scratch: Path) -> None:
        super().__init__(None, scratch)
        self.machine: Machine = station.machine
        self.port = PORT
        self.proxy_socket = Path(f"/proc/{self.machine.first}/root{PROXY_SOCKET}")

    def believe(self) -> None:
        """Believe the certificate that the package made, and no other."""
        self.certificate.write_bytes(self.machine.path(CERTIFICATE).read_bytes())

    def start(self) -> "StationWeb":
        return self

    def stop(self) -> None:
        """The machine ends it."""

    def ask(self, method: str, path: str, *arguments, **options) -> Answer:
        with self.machine.network():
            return super().ask(method, path, *arguments, **options)

    def websocket(self, *arguments, **options):
        with self.machine.network():
            return super().websocket(*arguments, **options)
