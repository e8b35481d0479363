"""zevd-logs: old logs are compressed and removed, and `zevctl log` shows the same as before."""

import fcntl
import os
import random
import re
import shutil
import subprocess
import time
from pathlib import Path

import pytest

from harness import settings, zevctl
from harness.isolation import mount_tmpfs, unmount
# `box` and `waker` are fixtures.
from harness.logs import age_directory, box, current, dated, log_of, read, rotate, waker
from harness.station import assert_no_sanitizer_report
from harness.waiting import LIMIT, stretched, wait_until

PROGRAM = settings.build_directory() / "bin" / "zevd-logs"
OLD = "01-Nov-00:00"
NOTHING = "compressed 0 logs from 0 to 0 bytes, removed 0 logs and 0 directories\n"


def keep(*arguments: str, status: int = zevctl.OK, **options) -> subprocess.CompletedProcess[str]:
    """Run zevd-logs and see that it ends with the status."""
    done = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, check=False,
                          timeout=stretched(2 * LIMIT), **options)
    assert_no_sanitizer_report(done.stderr)
    assert done.returncode == status, done
    return done


def set_age(path: Path, days: float) -> None:
    """Let the last change of a file be so many days ago."""
    then = time.time() - days * 86400
    os.utime(path, (then, then))


def make_log(station, text: bytes, name: str = "box", directory: str = OLD,
             days: float = 2) -> Path:
    """Make an old log; `current` leads to another directory."""
    place = dated(station) / directory
    place.mkdir(parents=True, exist_ok=True)
    log = place / f"{name}.log"
    log.write_bytes(text)
    set_age(log, days)
    newest = dated(station) / "22-Nov-00:00"
    newest.mkdir(exist_ok=True)
    if not current(station).is_symlink():
        current(station).symlink_to(newest)
    return log


def files(station, directory: str = OLD) -> list[str]:
    """The names in a dated directory; none when it is gone."""
    place = dated(station) / directory
    return sorted(path.name for path in place.iterdir()) if place.exists() else []


def records(count: int, seed: int) -> bytes:
    """Records of all kinds, which do not compress well, over some hours."""
    chance = random.Random(seed)
    parts = []
    for number in range(count):
        text = chance.randbytes(chance.randrange(120)).translate(None, b"\n\r")
        end = chance.choice([b"\n", b"\n", b"\n", b"\r"])
        if chance.random() < 0.01:
            text, end = b"x" * 1024, b""
        second = number * 3
        stamp = f"26/11/{1 + second // 86400:02}_{second // 3600 % 24:02}:{second // 60 % 60:02}:" \
                f"{second % 60:02} "
        parts.append(stamp.encode() + text + end)
    return b"".join(parts)


def log_bytes(*arguments: str) -> tuple[int, bytes, bytes]:
    """What `zevctl log` gives, byte for byte."""
    done = subprocess.run([zevctl.PROGRAM, "log", *arguments], capture_output=True, check=False,
                          env=zevctl.environment())
    return done.returncode, done.stdout, done.stderr


# Reading


def test_the_compressed_are_shown_as_the_originals(station):
    originals = [make_log(station, records(20000, 1)),
                 make_log(station, records(9000, 2), "other"),
                 make_log(station, records(15, 3), directory="02-Nov-00:00"),
                 make_log(station, records(5000, 4), directory="22-Nov-00:00")]
    ways = [["box"], ["box", "other"], ["*", "-n", "20"], ["box", "-n", "12345"],
            ["box", "--since", "2026-11-01 09:30"], ["o*", "--until", "2026-11-01 01:00"],
            ["box", "--since", "2026-11-01 16:00", "--until", "2026-11-01 16:05", "--json"],
            ["*", "--grep", "ab", "-C", "2"], ["box", "--grep", "[a-z]", "-v", "-i", "-n", "100"],
            ["other", "--grep", "no such text"]]
    before = [log_bytes(*way) for way in ways]
    assert len(before[0][1]) > 1_500_000 and before[-1][0] == zevctl.FAILED
    done = keep()
    assert done.stderr == "" and done.stdout.startswith("compressed 3 logs from ")
    assert [log.exists() for log in originals] == [False, False, False, True]
    assert [log_bytes(*way) for way in ways] == before
    # Any other tool can read them, too.
    unpacked = subprocess.run(["zstd", "-dc", dated(station) / OLD / "box.log.zst"],
                              capture_output=True, check=True).stdout
    assert unpacked == records(20000, 1)


def test_what_the_daemon_wrote_is_followed_from_compressed_directories_on(station, box, waker):
    box.send(b"old\n")
    wait_until(lambda: b"old" in read(log_of(station, "box")), what="the record")
    old = age_directory(station)
    rotate(station, waker)
    for log in old.iterdir():
        set_age(log, 2)
    client = zevctl.start(None, "log", "-f", "-n", "99", "box")
    os.set_blocking(client.stdout.fileno(), False)
    shown = b""

    def texts() -> list[bytes]:
        nonlocal shown
        shown += client.stdout.read() or b""
        return re.findall(rb" (\S+)\n", shown)

    try:
        wait_until(lambda: texts() == [b"old"], what="the old record")
        assert keep().stdout.startswith("compressed ")
        assert "box.log.zst" in files(station, old.name)
        box.send(b"new\n")
        wait_until(lambda: b"new" in texts(), what="the new record")
        assert texts() == [b"old", b"new"]
    finally:
        client.kill()
        client.communicate()
    assert re.findall(rb" (\S+)\n", log_bytes("box")[1]) == [b"old", b"new"]


def test_a_damaged_log_is_reported_and_the_rest_is_shown(station):
    make_log(station, records(20000, 1))
    make_log(station, b"26/11/20_08:00:00 last\n", directory="02-Nov-00:00")
    whole = log_bytes("box")[1]
    keep()
    packed = dated(station) / OLD / "box.log.zst"
    content = bytearray(packed.read_bytes())
    content[len(content) // 2] ^= 0xff
    packed.write_bytes(content)
    status, shown, said = log_bytes("box")
    assert status == zevctl.OK
    assert re.fullmatch(rb"zevctl: the compressed log of box is damaged at byte \d+ of the file, "
                        rb"and what can be read is shown; restore the file from a copy to have all "
                        rb"of it\n", said)
    assert shown.endswith(b" last\n") and whole.startswith(shown[:100000])
    assert len(whole) // 2 < len(shown) < len(whole)


# Compressing


def test_only_closed_directories_are_compressed_after_a_day(station):
    make_log(station, b"1\n", days=1.1)
    make_log(station, b"2\n", directory="02-Nov-00:00", days=0.9)
    make_log(station, b"3\n", directory="22-Nov-00:00", days=9)
    make_log(station, b"4\n", directory="mine", days=9)
    done = keep()
    assert re.fullmatch(r"compressed 1 log from 2 to \d+ bytes, removed 0 logs and 0 directories\n",
                        done.stdout)
    assert files(station) == ["box.log.zst"]
    for other in ("02-Nov-00:00", "22-Nov-00:00", "mine"):
        assert files(station, other) == ["box.log"]
    assert keep().stdout == NOTHING


def test_a_log_that_the_daemon_still_writes_is_left_alone(station, box):
    box.send(b"text\n")
    wait_until(lambda: b"text" in read(log_of(station, "box")), what="the record")
    old = current(station).resolve()
    make_log(station, b"", directory="22-Nov-00:00")
    # As when a directory is changed under a running daemon.
    for log in old.iterdir():
        set_age(log, 99)
    current(station).unlink()
    current(station).symlink_to(dated(station) / "22-Nov-00:00")
    (station.config / "qor.conf").write_text("ZEVD_KEEP_DAYS=1\n")
    assert keep().stdout == NOTHING
    assert "box.log" in files(station, old.name)


def test_owner_group_mode_and_times_stay(station):
    log = make_log(station, b"text\n")
    os.chown(log, 1234, 5678)
    log.chmod(0o770)
    before = log.stat()
    keep()
    after = log.with_suffix(".log.zst").stat()
    for what in ("st_uid", "st_gid", "st_mode", "st_mtime_ns"):
        assert getattr(after, what) == getattr(before, what)


@pytest.mark.needs_namespace
def test_it_runs_as_the_daemons_user(station):
    log = make_log(station, b"text\n")
    stranger = make_log(station, b"text\n", "stranger")
    for path in (station.config, dated(station), log.parent, log, current(station).resolve()):
        os.chown(path, 1234, 5678)
    # The build tree may be closed to others.
    program = shutil.copy(PROGRAM, station.root / "zevd-logs")
    done = subprocess.run([program], capture_output=True, text=True, check=False, user=1234,
                          group=5678, extra_groups=[])
    assert_no_sanitizer_report(done.stderr)
    assert (done.returncode, done.stderr) == (
        zevctl.FAILED, f"zevd-logs: {stranger} stays as it is: it belongs to another user; give it "
        "to the user zevd with chown\n")
    assert files(station) == ["box.log.zst", "stranger.log"]


@pytest.mark.needs_namespace
def test_a_full_disk_leaves_the_original(station):
    mount_tmpfs(station.logs, "1m")
    try:
        large = make_log(station, random.Random(1).randbytes(700_000))
        make_log(station, b"text\n" * 1000, "small")
        done = keep(status=zevctl.FAILED)
        assert done.stderr == (f"zevd-logs: {large} stays as it is: writing failed: No space left "
                               "on device\n")
        assert files(station) == ["box.log", "small.log.zst"]
        assert large.stat().st_size == 700_000
    finally:
        unmount(station.logs)


def test_a_killed_run_loses_nothing(station):
    text = records(40000, 1)
    log = make_log(station, text)
    for _ in range(20):
        if not log.exists():
            break
        with subprocess.Popen([PROGRAM], stdout=subprocess.DEVNULL) as run:
            wait_until(lambda: ".zevd-logs.tmp" in files(station) or run.poll() is not None,
                       what="the temporary file")
            run.kill()
        assert (log.read_bytes() if log.exists() else text) == text
    keep()
    assert files(station) == ["box.log.zst"]
    assert log_bytes("box")[1].count(b"\n") >= text.count(b"\n")


def test_two_runs_exclude_each_other(station):
    make_log(station, b"text\n")
    directory = os.open(dated(station), os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(directory, fcntl.LOCK_EX)
        done = keep(status=zevctl.FAILED)
        assert done.stderr == (f"zevd-logs: another run is at work in {dated(station)}; wait for "
                               "its end\n")
    finally:
        os.close(directory)
    assert files(station) == ["box.log"]
    keep()
    assert files(station) == ["box.log.zst"]


def test_links_are_not_followed(station, tmp_path):
    outside = tmp_path / "outside.log"
    outside.write_bytes(b"kept\n")
    set_age(outside, 99)
    log = make_log(station, b"text\n", days=99)
    log.with_name("link.log").symlink_to(outside)
    log.with_name(".zevd-logs.tmp").symlink_to(outside)
    (dated(station) / "03-Nov-00:00").symlink_to(tmp_path)
    keep()
    assert files(station) == ["box.log.zst", "link.log"]
    (station.config / "qor.conf").write_text("ZEVD_KEEP_DAYS=1\n")
    keep()
    assert files(station) == ["link.log"]
    assert outside.read_bytes() == b"kept\n" and (dated(station) / "03-Nov-00:00").is_symlink()


# Removing


def test_what_is_older_than_the_setting_is_removed(station):
    (station.config / "qor.conf").write_text("ZEVD_ARCH_INT=7\nZEVD_KEEP_DAYS=60\n")
    make_log(station, b"1\n", days=61)
    make_log(station, b"2\n", "other", days=99)
    make_log(station, b"3\n", directory="02-Nov-00:00", days=59)
    make_log(station, b"4\n", directory="22-Nov-00:00", days=99)
    done = keep()
    assert done.stdout.endswith("removed 2 logs and 1 directory\n")
    assert files(station) == [] and not (dated(station) / OLD).exists()
    assert files(station, "02-Nov-00:00") == ["box.log.zst"]
    assert files(station, "22-Nov-00:00") == ["box.log"]


@pytest.mark.parametrize("setting", [None, "", "ZEVD_KEEP_DAYS=0\n", "ZEVD_ARCH_INT=7\n",
                                     "#ZEVD_KEEP_DAYS=1\n"])
def test_nothing_is_removed_without_the_setting(station, setting):
    if setting is not None:
        (station.config / "qor.conf").write_text(setting)
    make_log(station, b"1\n", days=9999)
    assert keep().stderr == ""
    assert files(station) == ["box.log.zst"]


@pytest.mark.parametrize("value", ["", "x", "-1", "60d", "1e3", "99999"])
def test_a_setting_that_makes_no_sense_is_reported_and_removes_nothing(station, value):
    settings_file = station.config / "qor.conf"
    settings_file.write_text(f"ZEVD_KEEP_DAYS={value}\n")
    make_log(station, b"1\n", days=99999)
    done = keep(status=zevctl.FAILED)
    assert done.stderr == (f"zevd-logs: {settings_file}: ZEVD_KEEP_DAYS= is not followed by a "
                           "number of days; write a number up to 36500, where 0 keeps all logs; no "
                           "log is removed\n")
    assert files(station) == ["box.log.zst"]


def test_the_daemon_keeps_the_setting(station):
    (station.config / "qor.conf").write_text("ZEVD_KEEP_DAYS=60\nZEVD_ARCH_INT=7\n")
    station.start("-a", "2w")
    station.wait_log("ACCESSIBLE CONSOLES:")
    assert (station.config / "qor.conf").read_text() == "ZEVD_KEEP_DAYS=60\nZEVD_ARCH_INT=14\n"


# Messages


def test_what_it_needs_is_reported(station):
    shutil.rmtree(dated(station), ignore_errors=True)
    done = keep(status=zevctl.FAILED)
    assert done.stderr.startswith(f"zevd-logs: cannot read {dated(station)}: No such file or "
                                  "directory; ")
    make_log(station, b"1\n")
    current(station).unlink()
    done = keep(status=zevctl.FAILED)
    assert done.stderr == (f"zevd-logs: cannot tell which directories are closed: there is no "
                           f"{current(station)}; start zevd, which makes it\n")
    assert keep("-h").stdout.startswith("Usage: zevd-logs [-l DIR]\n")
    for arguments in (["-x"], ["extra"], ["-l"]):
        assert "Usage: zevd-logs" in keep(*arguments, status=zevctl.USAGE).stderr


def test_another_log_directory_can_be_given(station, tmp_path):
    make_log(station, b"1\n")
    moved = tmp_path / "moved"
    shutil.copytree(station.logs, moved, symlinks=True)
    place = moved / "zev.dated"
    (place / "current").unlink()
    (place / "current").symlink_to("22-Nov-00:00")
    assert keep("-l", str(moved)).stdout.startswith("compressed 1 log ")
    assert files(station) == ["box.log"]


# The units


@pytest.mark.parametrize("unit", ["zevd-logs.service", "zevd-logs.timer"])
def test_the_units_are_valid(unit, tmp_path):
    for name in ("zevd-logs.service", "zevd-logs.timer"):
        text = (settings.REPOSITORY / "packaging/systemd" / name).read_text()
        (tmp_path / name).write_text(text.replace("/usr/libexec/zevd/zevd-logs", str(PROGRAM)))
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", tmp_path / unit],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_the_service_is_confined():
    unit = settings.REPOSITORY / "packaging/systemd/zevd-logs.service"
    done = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=20", unit],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout
