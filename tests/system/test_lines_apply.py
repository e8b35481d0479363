"""What the service of the lines does with a configuration: which lines it ends and starts."""

import resource
import shutil
import subprocess
from pathlib import Path

import pytest

from harness import lines, settings
from harness.isolation import mount_tmpfs, unmount

pytestmark = pytest.mark.needs_namespace

PROGRAM = settings.REPOSITORY / "packaging/libexec/zevd-lines-apply"
FIRST = 10001
PLACE = Path("/run")  # where the daemon's user may read


def line(port: int, program: str = "/bin/cat") -> str:
    """A line as the client writes it."""
    return (f"connection: &line-{port}_{port}\n  accepter: tcp,127.65.0.1,{port}\n"
            f"  connector: exec,{program}\n")


def service(port: int) -> str:
    """The service of a line."""
    return f"zevd-lines@{port}.service"


class Lines:
    """The directory of the lines, and a system manager that notes what it is told."""

    def __init__(self) -> None:
        self.directory = PLACE / "lines"
        self.directory.mkdir()
        self._source = PLACE / "lines.yaml"
        self._notes = PLACE / "notes"
        self._manager = PLACE / "systemctl"
        self._refused = ""

    def refuse(self, verb: str) -> None:
        """Fail with commands that have this word; with none if it is empty."""
        self._refused = verb

    def apply(self, *wanted: str, succeeds: bool = True, open_files: int = 1024) -> list[str]:
        """Run the program with these lines; what the system manager was told."""
        self._source.write_text("".join(wanted))
        shutil.chown(self._source, "zevd", "zevd")
        self._notes.write_text("")
        self._manager.write_text(f'#!/bin/sh\necho "$*" >> {self._notes}\n'
                                 f'case " $* " in *" {self._refused} "*) exit 1 ;; esac\n')
        self._manager.chmod(0o755)
        done = subprocess.run(
            [PROGRAM, self._source, self.directory], stderr=subprocess.PIPE, text=True, check=False,
            env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "ZEVD_LINES_SYSTEMCTL": self._manager},
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (open_files,) * 2))
        assert (done.returncode == 0) == succeeds, done.stderr
        return self._notes.read_text().splitlines()

    def files(self) -> dict[str, str]:
        """What each line was given, by the file's name."""
        return {path.name: path.read_text() for path in self.directory.glob("*.yaml")}


@pytest.fixture
def given(isolated, tmp_path):
    """Lines of a machine that has had none."""
    mount_tmpfs(PLACE)
    PLACE.chmod(0o755)
    try:
        with lines.users(tmp_path):
            yield Lines()
    finally:
        unmount(PLACE)


def test_a_thousand_lines_need_few_open_files(given):
    ports = range(FIRST, FIRST + 1100)
    told = given.apply(*map(line, ports), open_files=256)
    assert given.files() == {f"{port}.yaml": f"%YAML 1.1\n---\n{line(port)}" for port in ports}
    assert told == [" ".join(["--no-block start", *map(service, ports)])]


def test_only_lines_that_changed_or_are_gone_are_ended(given):
    same, changed, gone, new = range(FIRST, FIRST + 4)
    given.apply(line(same), line(changed), line(gone))
    told = given.apply(line(same), line(changed, "/bin/sh"), line(new))
    assert told == [f"stop {service(changed)} {service(gone)}",
                    f"reset-failed {service(changed)} {service(gone)}",
                    f"--no-block start {service(same)} {service(changed)} {service(new)}"]
    assert given.files()[f"{changed}.yaml"].endswith("exec,/bin/sh\n")
    assert sorted(given.files()) == [f"{port}.yaml" for port in (same, changed, new)]


def test_the_last_line_is_ended(given):
    given.apply(line(FIRST))
    assert given.apply() == [f"stop {service(FIRST)}", f"reset-failed {service(FIRST)}"]
    assert given.files() == {}


def test_what_could_not_be_ended_is_ended_by_the_next_run(given):
    changed, gone = FIRST, FIRST + 1
    given.apply(line(changed), line(gone))
    before = given.files()
    given.refuse("stop")
    given.apply(line(changed, "/bin/sh"), succeeds=False)
    assert given.files() == before
    given.refuse("")
    assert given.apply(line(changed, "/bin/sh")) == [
        f"stop {service(changed)} {service(gone)}",
        f"reset-failed {service(changed)} {service(gone)}", f"--no-block start {service(changed)}"]
    assert list(given.files()) == [f"{changed}.yaml"]


def test_after_a_failure_the_lines_of_before_are_started_again(given):
    """As when the client puts the configuration back: some may have ended by then."""
    kept, changed = FIRST, FIRST + 1
    given.apply(line(kept), line(changed))
    given.refuse("stop")
    given.apply(line(kept), line(changed, "/bin/sh"), succeeds=False)
    given.refuse("")
    assert given.apply(line(kept), line(changed)) == [
        f"--no-block start {service(kept)} {service(changed)}"]
