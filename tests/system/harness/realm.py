"""Several machines in one test: each with a mount and a network namespace of its own.

All of them have two links to the test's namespace: "eth0", on which they reach each other, and
"rack0", on which they reach the consoles. So one can be cut off from the others and still have its
consoles, as when a station's uplink fails.
"""

import os
import signal
import subprocess
from pathlib import Path

from harness import settings
from harness.waiting import wait_until

OFFICE = "10.77.0"  # the networks, of which the test has the first address
RACK = "10.78.0"
HERE = 1


# What comes from the links of one set, or would go to those of the other, is dropped.
_FILTER = """
add table bridge realm
add set bridge realm from { type ifname; }
add set bridge realm to { type ifname; }
add chain bridge realm passing { type filter hook forward priority 0; }
add rule bridge realm passing iifname @from drop
add rule bridge realm passing oifname @to drop
"""


def _ip(*words: str) -> None:
    subprocess.run(["ip", *words], check=True)


def _nft(script: str) -> None:
    subprocess.run(["nft", "-f", "-"], input=script, text=True, check=True)


class Machine:
    """One machine. What runs there was started by `popen` or `run`."""

    def __init__(self, realm: "Realm", name: str, number: int) -> None:
        self.name = name
        self.address = f"{OFFICE}.{number}"
        self.rack_address = f"{RACK}.{number}"
        self._realm = realm
        self._links = {"eth0": f"of{number}", "rack0": f"ra{number}"}
        self._deaf: dict[str, str] = {}  # links, by the way on which nothing passes
        # The process has nothing to do but to hold the namespaces.
        self._holder = subprocess.Popen(
            ["unshare", "--mount", "--net", "--propagation", "private", "sleep", "infinity"])
        wait_until(self._is_apart, what="namespaces of their own")
        self._connect(number)
        for place, size in ((settings.root(), "64m"), ("/run", "1g"), ("/var/lib", "64m")):
            self.run(["mount", "-t", "tmpfs", "-o", f"mode=0755,size={size}", "tmpfs", str(place)])

    def _is_apart(self) -> bool:
        def space(pid: int, kind: str) -> str:
            return os.readlink(f"/proc/{pid}/ns/{kind}")
        comm = Path(f"/proc/{self._holder.pid}/comm").read_text(encoding="ascii").strip()
        return comm == "sleep" and all(
            space(self._holder.pid, kind) != space(os.getpid(), kind) for kind in ("mnt", "net"))

    def _connect(self, number: int) -> None:
        for inner, network in (("eth0", OFFICE), ("rack0", RACK)):
            outer = self._links[inner]
            _ip("link", "add", outer, "type", "veth", "peer", "name", inner,
                "netns", str(self._holder.pid))
            _ip("link", "set", outer, "master", self._realm.bridge(network), "up")
            self.run(["ip", "address", "add", f"{network}.{number}/24", "dev", inner])
            self.run(["ip", "link", "set", inner, "up"])
        self.run(["ip", "link", "set", "lo", "up"])

    @property
    def pid(self) -> int:
        """A process that is in the machine's namespaces."""
        return self._holder.pid

    @property
    def root(self) -> Path:
        """The machine's root directory, as seen from the test."""
        return Path(f"/proc/{self._holder.pid}/root")

    def inside(self, words: list) -> list[str]:
        """The command line that runs the words there. The process that is started becomes them."""
        return ["nsenter", "--target", str(self._holder.pid), "--mount", "--net",
                *(str(word) for word in words)]

    def run(self, words: list, **options) -> subprocess.CompletedProcess:
        """Run a command there to its end, which must be a good one."""
        return subprocess.run(self.inside(words), check=options.pop("check", True), **options)

    def popen(self, words: list, **options) -> subprocess.Popen:
        """Start a command there."""
        return subprocess.Popen(self.inside(words), **options)

    def cut(self, link: str = "eth0") -> None:
        """Nothing passes the link any more, and nobody is told."""
        _ip("link", "set", self._links[link], "down")

    def cut_one_way(self, way: str, link: str = "eth0") -> None:
        """Nothing passes "from" the machine, or "to" it; what goes the other way does."""
        self._realm.filter()
        _nft(f"add element bridge realm {way} {{ {self._links[link]} }}")
        self._deaf[way] = link

    def heal(self, link: str = "eth0") -> None:
        """All is as before."""
        _ip("link", "set", self._links[link], "up")
        for way in [way for way, cut in self._deaf.items() if cut == link]:
            _nft(f"delete element bridge realm {way} {{ {self._links[link]} }}")
            del self._deaf[way]

    def end(self) -> None:
        """The namespaces go when the last process in them has ended; the links go now."""
        for link in self._links.values():
            _ip("link", "delete", link)
        self._holder.send_signal(signal.SIGKILL)
        self._holder.wait()


class Realm:
    """The machines of a test, and the networks between them."""

    def __init__(self) -> None:
        self.machines: list[Machine] = []
        self._filters = False
        for network in (OFFICE, RACK):
            bridge = self.bridge(network)
            _ip("link", "add", bridge, "type", "bridge")
            _ip("address", "add", f"{network}.{HERE}/24", "dev", bridge)
            _ip("link", "set", bridge, "up")

    @staticmethod
    def bridge(network: str) -> str:
        """The name of the network's bridge."""
        return "office" if network == OFFICE else "rack"

    def filter(self) -> None:
        """From now on the bridges look at what passes them."""
        if not self._filters:
            _nft(_FILTER)
        self._filters = True

    def add(self, name: str) -> Machine:
        """A machine more."""
        machine = Machine(self, name, HERE + 1 + len(self.machines))
        self.machines.append(machine)
        return machine

    def end(self) -> None:
        """End what holds the machines; their processes have to be ended before."""
        for machine in self.machines:
            machine.end()
        for network in (OFFICE, RACK):
            _ip("link", "delete", self.bridge(network))
        if self._filters:
            _nft("delete table bridge realm")
