"""The recipes of packaging/recipes: their own files and lines, and the programs that they set up.

A recipe is written for a station of its own, with the standard paths and ports. A test has all of
that in its namespaces, with `private_copy` over the directories of the machine; what still differs
is replaced in one place, `Recipe.replace`.
"""

import re
import signal
import ssl
import subprocess
from pathlib import Path

import pexpect

from harness import settings, zevctl
from harness.closing import Closing
from harness.impostors import STRANGER
from harness.waiting import LIMIT, stretched, wait_until

MAIN_PORT = 6500
STATION = "station.example.net"  # as in the recipes

# Packages are there before the tests are, and a test starts the services itself.
_NOT_FOLLOWED = re.compile(r"(apt|systemctl|useradd) ")


class Recipe:
    """One recipe; `replace` says what stands in place of its texts in files and lines."""

    def __init__(self, name: str, replace: dict[str, str] | None = None) -> None:
        self.directory = settings.REPOSITORY / "packaging" / "recipes" / name
        self.replace = replace or {}

    def adapted(self, text: str) -> str:
        """The text with the replacements, each of which must be needed somewhere."""
        for old, new in self.replace.items():
            text = text.replace(old, new)
        return text

    def text(self, name: str) -> str:
        """One of the recipe's files."""
        return self.adapted((self.directory / name).read_text(encoding="utf-8"))

    def install(self, name: str, place: Path) -> None:
        """Put a file where the test needs it."""
        place.write_text(self.text(name), encoding="utf-8")

    def lines(self, heading: str) -> str:
        """The lines to copy under a heading of the page."""
        parts = re.split(r"^## (.*)\n", self.text("README.md"), flags=re.MULTILINE)
        sections = dict(zip(parts[1::2], parts[2::2]))
        blocks = re.findall(r"^```sh\n(.*?)^```$", sections[heading], re.MULTILINE | re.DOTALL)
        assert blocks, f"nothing to copy under {heading!r}"
        return "".join(blocks)

    def follow(self, heading: str) -> None:
        """Run the lines under a heading, in the recipe's directory; each must succeed."""
        kept = "\n".join(line for line in self.lines(heading).split("\n")
                         if not _NOT_FOLLOWED.match(line))
        self.shell(kept)

    def shell(self, lines: str) -> None:
        """Run some lines in the recipe's directory."""
        done = subprocess.run(["bash", "-e", "-c", self.adapted(lines)], cwd=self.directory,
                              stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=stretched(3 * LIMIT), check=False)
        assert done.returncode == 0, (lines, done.stdout, done.stderr)


class Running(Closing):
    """A program in the foreground, with its output in a file."""

    def __init__(self, command: list[str], output: Path, cwd: Path | None = None,
                 env: dict[str, str] | None = None, uid: int | None = None) -> None:
        self.output = output
        words = ["setpriv", "--pdeathsig", "KILL"]
        if uid is not None:
            words += ["--reuid", str(uid), "--regid", str(uid), "--clear-groups"]
        with open(output, "ab") as file:
            self.process = subprocess.Popen([*words, "--", *command], stdin=subprocess.DEVNULL,
                                            stdout=file, stderr=file, cwd=cwd, env=env)

    def said(self) -> str:
        """Its output so far."""
        return self.output.read_text(encoding="utf-8", errors="replace")

    def wait_said(self, pattern: str, count: int = 1) -> None:
        """Wait until it has said something that matches, so many times."""
        wait_until(lambda: self._count(pattern) >= count, what=f"{count} of {pattern!r}")

    def _count(self, pattern: str) -> int:
        assert self.process.poll() is None, self.said()
        return len(re.findall(pattern, self.said()))

    def signal(self, number: int) -> None:
        self.process.send_signal(number)

    def close(self) -> None:
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(stretched(LIMIT))


def tls_context(authority: Path, certificate: Path | None = None,
                key: Path | None = None) -> ssl.SSLContext:
    """What a person brings to the TLS port: trust in an authority, and maybe a certificate."""
    context = ssl.create_default_context(cafile=str(authority))
    if certificate is not None:
        context.load_cert_chain(certificate, key)
    return context


def operator(port: int, *arguments: str) -> pexpect.spawn:
    """zevctl on a terminal of a person with no rights on this machine."""
    words = ["--reuid", str(STRANGER), "--regid", str(STRANGER), "--clear-groups", "--",
             str(zevctl.PROGRAM), "--port", str(port), *arguments]
    child = pexpect.spawn("setpriv", words, timeout=stretched(LIMIT), env=zevctl.environment(),
                          dimensions=(24, 200))
    child.delaybeforesend = None
    return child
