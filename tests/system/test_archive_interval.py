"""The archive interval: the option -a and the suite's configuration file."""

import os
import re
import signal
import stat
import subprocess
from pathlib import Path

import pytest

from harness.debuglog import messages
# `waker` is a fixture.
from harness.logs import (ARCHIVING, consolidated, reload_awake, set_interval, wait_awake,
                          waker)
from harness.waiting import free_port, wait_until

KEY = "ZEVD_ARCH_INT="


@pytest.fixture
def suite_file(station):
    """The suite's configuration file, not there yet."""
    return station.config / "qor.conf"


def never_archives(station, waker) -> None:
    """See the daemon make some passes without a rotation."""
    position = station.mark()
    wait_awake(station, waker, "Entering LogDirExpired", after=position, count=3)
    assert ARCHIVING not in station.log_text(position)


def archives(station, waker) -> None:
    """See a rotation from now on."""
    wait_awake(station, waker, ARCHIVING, after=station.mark())


def hang_up(station, waker) -> None:
    """Have the daemon read its files again, the interval last."""
    position = reload_awake(station, waker)
    position = station.wait_log("Entering GetZevdArchIntFromConfFile", after=position).end
    wait_awake(station, waker, "Entering LogDirExpired", after=position)


# The five cases


@pytest.mark.parametrize("options, written", [
    ([], b"ZEVD_ARCH_INT=7\n"),
    (["-a", "2w"], b"ZEVD_ARCH_INT=14\n"),
    (["-a", "3"], b"ZEVD_ARCH_INT=3\n"),
    (["-a", "90m"], b"ZEVD_ARCH_INT=0\n"),
    (["-a", "1440m"], b"ZEVD_ARCH_INT=1\n"),
])
def test_a_missing_file_is_created(station, suite_file, options, written):
    os.chown(station.root, -1, 12345)
    station.start(*options)
    assert suite_file.read_bytes() == written
    status = suite_file.stat()
    assert stat.S_IMODE(status.st_mode) == 0o770
    assert (status.st_uid, status.st_gid) == (os.geteuid(), 12345)


def test_the_value_in_the_file_is_used(station, suite_file, waker):
    suite_file.write_bytes(b"A=1\nZEVD_ARCH_INT=0\nB=2\n")
    station.start()
    waker.accept()
    archives(station, waker)
    assert suite_file.read_bytes() == b"A=1\nZEVD_ARCH_INT=0\nB=2\n"


OTHERS = (b"# suite\r\n\n \tKEY = \xff\xfe\nnul\0inside\n" + b"x" * 20000 + b"\n"
          + b"y" * 8191 + KEY.encode() + b"1\n" + b" ZEVD_ARCH_INT=1\nXZEVD_ARCH_INT=1\n")


@pytest.mark.parametrize("before, after", [
    (b"ZEVD_ARCH_INT=7\n", b"ZEVD_ARCH_INT=14\n"),
    (b"ZEVD_ARCH_INT=7", b"ZEVD_ARCH_INT=14\n"),
    (OTHERS + b"ZEVD_ARCH_INT=7 # weekly\r\nLAST=\0", OTHERS + b"ZEVD_ARCH_INT=14\nLAST=\0"),
    (b"ZEVD_ARCH_INT=1\nMORE\nZEVD_ARCH_INT=soon\n", b"ZEVD_ARCH_INT=14\nMORE\nZEVD_ARCH_INT=14\n"),
    (b"ZEVD_ARCH_INT=14\n", b"ZEVD_ARCH_INT=14\n"),
])
def test_the_value_from_the_command_line_is_written_to_the_file(station, suite_file, before, after,
                                                                waker):
    suite_file.write_bytes(before)
    suite_file.chmod(0o641)
    os.chown(suite_file, 4321, 12345)
    old = suite_file.stat()
    station.start("-a", "2w")
    waker.accept()
    assert suite_file.read_bytes() == after
    new = suite_file.stat()
    assert (new.st_ino, new.st_uid, new.st_gid, new.st_mode) == (
        old.st_ino, old.st_uid, old.st_gid, old.st_mode)
    never_archives(station, waker)


@pytest.mark.parametrize("content", [b"", b"A=1\n", b" ZEVD_ARCH_INT=0\n", b"zevd_arch_int=0",
                                     b"ZEVD_ARCH_INT 0\n", OTHERS])
@pytest.mark.parametrize("options", [[], ["-a", "2w"]])
def test_a_file_without_the_line_is_left_alone(station, suite_file, content, options, waker):
    suite_file.write_bytes(content)
    station.start(*options)
    waker.accept()
    assert suite_file.read_bytes() == content
    never_archives(station, waker)


def test_the_first_of_two_lines_sets_the_value(station, suite_file, waker):
    suite_file.write_bytes(b"ZEVD_ARCH_INT=30\nZEVD_ARCH_INT=0\n")
    station.start()
    waker.accept()
    never_archives(station, waker)


# Later


def test_ninety_minutes_apply_until_the_next_start(station, suite_file, waker):
    station.start("-a", "90m")
    waker.accept()
    never_archives(station, waker)
    station.stop()
    station.start()
    waker.accept()
    archives(station, waker)
    assert suite_file.read_bytes() == b"ZEVD_ARCH_INT=0\n"


def test_a_hangup_reads_the_value_from_the_file_again(station, suite_file, waker):
    station.start("-a", "2w")
    waker.accept()
    hang_up(station, waker)
    never_archives(station, waker)
    set_interval(station, 0)
    archives(station, waker)
    suite_file.write_bytes(b"ZEVD_ARCH_INT=3\n")
    hang_up(station, waker)
    never_archives(station, waker)
    assert suite_file.read_bytes() == b"ZEVD_ARCH_INT=3\n"


def test_a_hangup_creates_a_missing_file(station, suite_file, waker):
    station.start("-a", "2w")
    waker.accept()
    suite_file.unlink()
    hang_up(station, waker)
    wait_until(lambda: suite_file.exists() and suite_file.read_bytes() == b"ZEVD_ARCH_INT=14\n",
               what="the file")


def test_a_value_without_a_line_applies_and_is_written_when_the_line_appears(station, suite_file,
                                                                             waker):
    suite_file.write_bytes(b"A=1\n")
    station.start("-a", "0d")
    waker.accept()
    hang_up(station, waker)
    archives(station, waker)
    assert suite_file.read_bytes() == b"A=1\n"
    suite_file.write_bytes(b"A=1\nZEVD_ARCH_INT=9\n")
    hang_up(station, waker)
    wait_until(lambda: suite_file.read_bytes() == b"A=1\nZEVD_ARCH_INT=0\n", what="the rewriting")
    archives(station, waker)
    # From now on the value in the file counts.
    suite_file.write_bytes(b"A=1\nZEVD_ARCH_INT=9\n")
    hang_up(station, waker)
    never_archives(station, waker)
    assert suite_file.read_bytes() == b"A=1\nZEVD_ARCH_INT=9\n"


def test_a_refused_instance_still_writes_its_value(station, suite_file):
    station.start()
    assert station.run("-f", "-S", "0", "-p", str(free_port()), "-a", "3d").returncode == 1
    assert suite_file.read_bytes() == b"ZEVD_ARCH_INT=3\n"


def test_a_negative_interval_has_always_expired(station, suite_file):
    suite_file.write_bytes(b"ZEVD_ARCH_INT=-1\n")
    station.start()
    station.wait_log(ARCHIVING, count=2)
    # Every pass begins a new directory, because the old one has expired.
    wait_until(consolidated(station).exists, what="the log of a new directory")


# Failures


def loop(path) -> str:
    """Put something in the file's place that can be neither opened nor created."""
    path.unlink(missing_ok=True)
    path.symlink_to(path.name)
    return (f'GetZevdArchIntFromConfFile: fopen( "{path}", ...) failed : '
            "Too many levels of symbolic links\n")


@pytest.mark.parametrize("options", [[], ["-a", "2w"]])
def test_a_file_that_cannot_be_opened_ends_the_daemon_at_start_up(station, suite_file, options):
    reason = loop(suite_file)
    done = station.run("-f", "-S", "0", "-d", "1", "-p", str(free_port()), *options)
    assert done.returncode == 1
    said = messages(done.stdout)
    assert said[0] == reason
    assert said[1].startswith("Exiting with code 1 from file archive_time.cpp line ")


def test_a_file_that_cannot_be_opened_ends_the_daemon_at_a_hangup(station, suite_file):
    station.start()
    reason = loop(suite_file)
    station.signal(signal.SIGHUP)
    station.expect_exit(1)
    assert reason in messages(station.log_text())


def test_a_directory_in_its_place_ends_the_daemon_at_start_up(station, suite_file):
    suite_file.mkdir()
    done = station.run("-f", "-S", "0", "-p", str(free_port()), "-a", "2w")
    assert done.returncode == 1
    assert messages(done.stdout) == [
        f'GetZevdArchIntFromConfFile: fopen( "{suite_file}", ...) failed : Is a directory\n']
    assert list(suite_file.iterdir()) == []


# A full disk


@pytest.fixture
def full_disk(station, suite_file):
    """Puts the configuration on a disk of its own; returns a function that fills the disk."""
    kept = {path: path.read_bytes() for path in station.config.iterdir()}
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64k,mode=0755", "tmpfs", station.config],
                   check=True)
    for path, content in kept.items():
        path.write_bytes(content)

    def fill() -> None:
        with open(station.config / "filler", "wb", buffering=0) as filler, \
                pytest.raises(OSError):
            while True:
                filler.write(b"x" * 4096)

    return fill


@pytest.mark.needs_namespace
def test_a_file_that_cannot_be_written_back_is_saved_elsewhere(station, suite_file, full_disk):
    """One more digit makes the file a page larger, and no page is free."""
    others = b"OTHER=" + b"o" * (4096 - len("ZEVD_ARCH_INT=7\nOTHER=\n")) + b"\n"
    suite_file.write_bytes(b"ZEVD_ARCH_INT=7\n" + others)
    full_disk()
    done = station.run("-f", "-S", "0", "-d", "1", "-a", "2w")
    assert done.returncode == 1
    rescued, failed, _ = messages(done.stdout)
    copy = re.fullmatch(f'GetZevdArchIntFromConfFile: The lines of "{suite_file}" are in '
                        '"(/tmp/qorconf[^"]+)"\n', rescued)[1]
    assert failed == (f'GetZevdArchIntFromConfFile: write( "{suite_file}", ...) failed : '
                      "No space left on device\n")
    assert Path(copy).read_bytes() == b"ZEVD_ARCH_INT=14\n" + others
    os.unlink(copy)


@pytest.mark.needs_namespace
def test_a_new_file_that_cannot_be_written_is_not_left_empty(station, suite_file, full_disk):
    full_disk()
    done = station.run("-f", "-S", "0", "-d", "1")
    assert done.returncode == 1
    assert messages(done.stdout)[0] == (f'GetZevdArchIntFromConfFile: write( "{suite_file}", ...) '
                                        "failed : No space left on device\n")
    assert not suite_file.exists()
