"""The client's "config apply": the daemon has the new consoles, or everything is as it was."""

import fcntl
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from harness import settings, zevctl
from harness.consoles import FakeConsole
from harness.helpers import private_copy
from harness.scenes import connected
from harness.waiting import free_port, is_listening, wait_until

FIRST_LINE = re.compile(r'# Written by "zevctl config apply" .*sha256=[0-9a-f]{64}\n')


@pytest.fixture
def boxes(station):
    """Consoles that no configuration names yet, and the daemon without any."""
    made = {name: FakeConsole(name) for name in ("box", "other")}
    station.start()
    yield made
    for box in made.values():
        box.shut()


def readable(station, text: str) -> None:
    """Replace the readable configuration."""
    (station.config / "consoles.toml").write_text(text)


def console(box: FakeConsole, **keys: str) -> str:
    """One console's part of the readable configuration."""
    lines = [f'name = "{box.name}"', f'tcp = "127.0.0.1:{box.port}"',
             *(f"{key} = {value}" for key, value in keys.items())]
    return "\n".join(["[[console]]", *lines, ""])


def names(station) -> set[str]:
    """The consoles that the daemon has."""
    return {entry["name"] for entry in zevctl.data(station, "list")}


def files(station) -> dict[str, bytes]:
    """What the directory of the configuration holds, without the daemon's lock."""
    return {path.name: path.read_bytes() for path in station.config.iterdir()
            if path.is_file() and path.name not in ("zev.lock", ".zevctl.lock", "qor.conf")}


def test_the_daemon_has_the_consoles_when_apply_ends(station, boxes):
    readable(station, console(boxes["box"]))
    said = zevctl.succeed(station, "config", "apply")
    assert said == ("1 console in zev.conf: 1 new, 0 gone, 0 changed; "
                    "the daemon has read it (reload 1)\n")
    assert names(station) == {"box"}
    connected(station, boxes["box"], "box")


def test_the_file_is_whole_and_belongs_to_the_owner_of_its_directory(station, boxes):
    os.chown(station.config, 7, 8)
    readable(station, console(boxes["box"], port="6501", model='"A200"', os='"Some OS 5"'))
    zevctl.succeed(station, "config", "apply")
    text = station.config_file.read_text()
    assert FIRST_LINE.match(text)
    assert text.splitlines()[1] == (f'box 127.0.0.1 {boxes["box"].port} 0 6501 A200 - "Some OS 5" '
                                    '1 1 1 1 "" ')
    info = station.config_file.stat()
    assert (info.st_uid, info.st_gid, info.st_mode & 0o777) == (7, 8, 0o640)
    assert not (station.config / ".zev.conf.new").exists()


def test_a_second_apply_does_not_disturb_the_daemon(station, boxes):
    readable(station, console(boxes["box"]))
    zevctl.succeed(station, "config", "apply")
    position = station.mark()
    assert zevctl.succeed(station, "config", "apply").endswith(
        "0 new, 0 gone, 0 changed; the daemon had read it before\n")
    zevctl.succeed(station, "list")
    assert "LoadConfigFile" not in station.log_text(position)


def test_json_tells_the_numbers(station, boxes):
    readable(station, "".join(console(box) for box in boxes.values()))
    zevctl.succeed(station, "config", "apply")
    readable(station, console(boxes["box"], platform='"p2"'))
    assert zevctl.data(station, "config", "apply") == {
        "consoles": 1, "come": 0, "go": 1, "change": 1, "daemon_runs": True, "reload": 2}


def test_without_a_daemon_the_file_is_written(station):
    box = FakeConsole("box")
    readable(station, console(box))
    assert zevctl.succeed(None, "config", "apply").endswith(
        "no daemon runs; it reads the file when it starts\n")
    station.start()
    connected(station, box, "box")
    box.shut()


def test_a_detached_daemon_is_found(station):
    box = FakeConsole("box")
    station.start(detached=True)
    readable(station, console(box))
    zevctl.succeed(station, "config", "apply")
    assert names(station) == {"box"}
    box.shut()


@pytest.mark.parametrize("change, message", [
    ("edited", "has been edited since the last apply; take the edits over into consoles.toml, "
               "then use --force"),
    ("foreign", "was not made by apply; make consoles.toml from it (zevctl config import), then "
                "use --force"),
])
def test_a_file_of_somebody_else_needs_force(station, boxes, change, message):
    readable(station, console(boxes["box"]))
    if change == "edited":
        zevctl.succeed(station, "config", "apply")
        station.console_line("mine", 2001)
    else:
        station.write_config('mine 127.0.0.1 2001 0 0 A p "o" 1 0 1 0 "" \n')
    before = files(station)
    zevctl.refuse(station, zevctl.FAILED, f"{station.config_file} {message}", "config", "apply")
    assert files(station) == before
    zevctl.succeed(station, "config", "apply", "--force")
    assert names(station) == {"box"}


def test_an_empty_result_needs_force(station, boxes):
    readable(station, console(boxes["box"]))
    zevctl.succeed(station, "config", "apply")
    readable(station, "# nothing\n")
    zevctl.refuse(station, zevctl.FAILED,
                  "the configuration has no consoles; use --force if that is meant",
                  "config", "apply")
    assert names(station) == {"box"}
    zevctl.succeed(station, "config", "apply", "--force")
    wait_until(lambda: names(station) == set(), what="the console to go")


def test_with_an_error_nothing_is_changed(station, boxes):
    readable(station, console(boxes["box"], port="80"))
    before = files(station)
    done = zevctl.run(station, "config", "apply")
    path = station.config / "consoles.toml"
    assert (done.returncode, done.stdout) == (zevctl.FAILED, "")
    assert done.stderr == (
        f"{path}:4:8: error: the user port 80 is one of the system's, below 1024; use 1024 to "
        "65535\n"
        "zevctl: 1 error in the configuration, and nothing was changed; mend what is named above\n")
    assert files(station) == before


def test_a_second_apply_at_the_same_time_is_refused(station, boxes):
    readable(station, console(boxes["box"]))
    before = files(station)
    with open(station.config / ".zevctl.lock", "wb") as held:
        fcntl.flock(held, fcntl.LOCK_EX)
        zevctl.refuse(station, zevctl.FAILED, "somebody else is changing the configuration just "
                      "now; try again later", "config", "apply")
    assert files(station) == before
    zevctl.succeed(station, "config", "apply")


def test_the_lock_is_not_taken_through_a_link(station, boxes, tmp_path):
    readable(station, console(boxes["box"]))
    (tmp_path / "far").write_text("")
    (station.config / ".zevctl.lock").symlink_to(tmp_path / "far")
    done = zevctl.run(station, "config", "apply")
    assert done.returncode == zevctl.FAILED and "Too many levels of symbolic links" in done.stderr


def test_a_daemon_on_another_port_is_not_surprised(station, boxes):
    readable(station, console(boxes["box"]))
    before = files(station)
    done = zevctl.run(None, "--port", "1", "config", "apply")
    assert done.returncode == zevctl.NO_DAEMON
    assert f"the daemon (process {station.pid}) cannot be asked, and nothing was changed" in (
        done.stderr)
    assert files(station) == before


def test_another_host_is_refused(station):
    readable(station, '[[console]]\nname = "a"\ntcp = "192.0.2.1"\n')
    zevctl.refuse(None, zevctl.USAGE, "a configuration is applied on the station itself; leave "
                  "out --host", "--host", "192.0.2.1", "config", "apply")


@pytest.mark.needs_namespace
def test_a_full_disk_leaves_everything_as_it_was(station, boxes):
    readable(station, console(boxes["box"]))
    zevctl.succeed(station, "config", "apply")
    many = "".join(f'[[console]]\nname = "c{number}"\ntcp = "192.0.2.1:{number}"\n'
                   for number in range(1, 3001))
    readable(station, many)
    # As much as is free, but for less than the new file takes.
    free = os.statvfs(station.config)
    with open(station.root / "filler", "wb") as filler:
        os.posix_fallocate(filler.fileno(), 0, free.f_bavail * free.f_frsize - 32768)
    before = files(station)
    done = zevctl.run(station, "config", "apply")
    assert done.returncode == zevctl.FAILED
    assert done.stderr.startswith(f"zevctl: cannot write {station.config_file}: "
                                  "No space left on device; nothing was changed")
    assert files(station) == before
    assert names(station) == {"box"}


def test_a_reload_that_fails_is_reported(station, boxes):
    readable(station, console(boxes["box"]))
    (station.events / "gone").symlink_to("/nowhere")
    done = zevctl.run(station, "config", "apply")
    assert done.returncode == zevctl.FAILED
    assert f"{station.events}/gone: error: cannot be opened: No such file or directory" in (
        done.stderr)


def test_a_daemon_that_could_not_read_its_file_is_not_made_to(station):
    """It would end; so the file stays as it is."""
    for path in (station.root, station.config, station.events, station.logs):
        path.chmod(0o777)
    os.chown(station.root, -1, 7)
    readable(station, '[[console]]\nname = "a"\ntcp = "192.0.2.1"\n')
    (station.config / "zev.lock").touch()
    (station.config / "zev.lock").chmod(0o666)
    port = free_port()
    held = subprocess.Popen(
        ["setpriv", "--reuid", "7", "--regid", "7", "--clear-groups", "--",
         settings.daemon(), "-f", "-S", "0", "-p", str(port)],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        wait_until(lambda: is_listening(port), what="the daemon to listen")
        before = files(station)
        done = zevctl.run(None, "--port", str(port), "config", "apply")
        assert done.returncode == zevctl.FAILED
        assert "the daemon could not read the new zev.conf and would end" in done.stderr
        assert files(station) == before
    finally:
        held.send_signal(signal.SIGTERM)
        held.wait()
        held.stdout.close()


@pytest.mark.needs_namespace
def test_without_a_user_database_all_goes_on(station, boxes, tmp_path):
    readable(station, console(boxes["box"]))
    with private_copy(Path("/etc/passwd"), tmp_path) as users, \
            private_copy(Path("/etc/group"), tmp_path) as groups:
        users.write_text("")
        groups.write_text("")
        zevctl.succeed(station, "config", "check")
        zevctl.succeed(station, "config", "apply")
    assert names(station) == {"box"}


@pytest.mark.parametrize("text", ['[[console]]\nname = "bo',
                                  '[[console]]\nname = "box"\ntcp ='])
def test_a_half_written_file_changes_nothing(station, boxes, text):
    readable(station, console(boxes["box"]))
    zevctl.succeed(station, "config", "apply")
    readable(station, text)
    before = files(station)
    done = zevctl.run(station, "config", "apply")
    assert done.returncode == zevctl.FAILED
    assert re.match(rf"{station.config}/consoles.toml:[23]:\d+: error: ", done.stderr)
    assert (files(station), names(station)) == (before, {"box"})
