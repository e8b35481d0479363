"""zevkeep: segments are sealed, compressed and removed, whatever happens meanwhile."""

import datetime
import fcntl
import os
import random
import re
import shutil
import subprocess
import time

import pytest

from harness import settings, zevctl
from harness.isolation import mount_tmpfs, unmount
from harness.keeper import PROGRAM, keep, names, unpacked
from harness.station import assert_no_sanitizer_report
# `system_log` is a fixture.
from harness.system_log import system_log
from harness.waiting import stretched
from journal_writer import JournalWriter, cut, flip, nanoseconds

MEBIBYTE = 1 << 20
NOW = "2026-11-22 12:00:00"


def ago(days: float) -> datetime.datetime:
    """A time before the present."""
    return datetime.datetime.now(datetime.timezone.utc) - datetime.timedelta(days=days)


def write(station, segments: int = 3, size: int = 2000, begin=NOW) -> JournalWriter:
    """A journal of some segments, each with so many bytes of output that do not compress."""
    chance = random.Random(segments)
    journal = JournalWriter(station.root / "journal", begin=begin)
    box = journal.console("box")
    for number in range(segments):
        if number > 0:
            journal.new_segment()
        for place in range(0, size, 50000):
            journal.output(box, chance.randbytes(min(50000, size - place)))
    journal.close()
    return journal


def limit(station, mebibytes: object, days: object = 0) -> None:
    """Set the limits."""
    (station.config / "qor.conf").write_text(
        f"ZEVD_ARCH_INT=7\nZEVD_JOURNAL={mebibytes}\nZEVD_JOURNAL_DAYS={days}\n")


def verify(station, status: int = zevctl.OK) -> str:
    """Verify the journal; the answer is what is said about it."""
    done = zevctl.run(None, "journal", "verify")
    assert done.returncode == status, done
    return done.stderr


# A pass


def test_segments_are_sealed_and_compressed(station):
    journal = write(station, 3, 700000)
    raw = [journal.segment(number).read_bytes() for number in (1, 2, 3)]
    assert keep().stdout == "sealed 3, compressed 2, removed 0 segments\n"
    assert names(journal.directory) == [
        "1.idx", "1.seg.zst", "2.idx", "2.seg.zst", "3.idx", "3.seg", "chain", "id"]
    packed = [journal.segment(number).with_suffix(".seg.zst") for number in (1, 2)]
    assert [unpacked(path) for path in packed] == raw[:2]
    assert journal.segment(3).read_bytes() == raw[2]
    for path in journal.directory.iterdir():
        assert path.stat().st_mode & 0o777 == 0o640
    assert verify(station) == ""
    # There is nothing left to do.
    before = {path: path.stat().st_mtime_ns for path in journal.directory.iterdir()}
    assert keep().stdout == ""
    assert {path: path.stat().st_mtime_ns for path in journal.directory.iterdir()} == before


def test_the_table_is_that_of_the_seekable_format(station):
    journal = write(station, 2, 700000)
    raw = journal.segment(1).read_bytes()
    keep()
    path = journal.segment(1).with_suffix(".seg.zst")
    packed = path.read_bytes()
    assert packed[-4:] == 0x8F92EAB1.to_bytes(4, "little")
    count = int.from_bytes(packed[-9:-5], "little")
    table = packed[-9 - 8 * count:-9]
    assert packed[-9 - 8 * count - 8:][:4] == 0x184D2A5E.to_bytes(4, "little")
    sizes = [(int.from_bytes(table[at:at + 4], "little"),
              int.from_bytes(table[at + 4:at + 8], "little")) for at in range(0, 8 * count, 8)]
    assert count >= 4 and sum(size for size, _ in sizes) == len(packed) - 8 * count - 17
    # A frame can be unpacked alone, and begins and ends with records.
    begin, place = sizes[0][0], sizes[0][1]
    part = subprocess.run(["zstd", "-dc"], input=packed[begin:begin + sizes[1][0]],
                          capture_output=True, check=True).stdout
    assert part == raw[place:place + sizes[1][1]]
    subprocess.run(["zstd", "-t", "-q", path], check=True)


def test_every_seal_goes_to_the_systems_log(station, system_log):
    journal = write(station, 2)
    keep()
    told = [entry.decode() for entry in system_log.raw()]
    listed = zevctl.data(None, "journal", "list")
    assert [segment["state"] for segment in listed] == ["compressed", "sealed"]
    assert len(told) == 2
    for entry, segment in zip(told, listed):
        assert re.match(r"<85>.* zevkeep\[\d+\]: sealed ", entry)  # authpriv, notice
        assert entry.rstrip("\n\0").endswith(
            f'station="{journal.station:016x}" segment="{segment["segment"]}" '
            f'hash="{segment["hash"]}"')


def test_a_segment_that_is_written_is_left_alone(station):
    with JournalWriter(station.root / "journal", hold=True) as journal:
        box = journal.console("box")
        journal.output(box, b"one")
        journal.new_segment()
        journal.output(box, b"two")
        said = keep("-v").stdout
        assert "segment 2 is being written\n" in said
        assert said.endswith("sealed 1, compressed 1, removed 0 segments\n")
        assert names(journal.directory) == ["1.idx", "1.seg.zst", "2.seg", "chain", "id"]
        journal.output(box, b"three")
    assert verify(station) == ""
    keep()
    assert "2.idx" in names(journal.directory)
    assert verify(station) == ""


def test_a_readers_lock_holds_up_nothing_that_is_complete(station):
    journal = write(station, 2)
    with open(journal.segment(1), "rb") as first:
        fcntl.flock(first, fcntl.LOCK_SH)
        assert keep().stdout == "sealed 2, compressed 1, removed 0 segments\n"
    assert verify(station) == ""


def test_what_it_makes_belongs_to_the_directorys_group(station):
    journal = write(station, 2)
    os.chown(journal.directory, -1, 60)
    keep()
    groups = {name: path.stat().st_gid for name, path in (
        (path.name.lstrip("0"), path) for path in journal.directory.iterdir())}
    assert {name for name, group in groups.items() if group == 60} == {
        "1.idx", "1.seg.zst", "2.idx", "chain"}


def test_a_dry_run_changes_nothing(station):
    limit(station, 1, 1)
    journal = write(station, 3, begin="2020-01-01 00:00:00")
    before = {path.name: path.read_bytes() for path in journal.directory.iterdir()}
    assert keep("--dry-run").stdout == ("would seal segment 1\nwould seal segment 2\n"
                                        "would seal segment 3\n")
    assert {path.name: path.read_bytes() for path in journal.directory.iterdir()} == before
    limit(station, 0)
    keep()
    limit(station, 1, 1)
    before = names(journal.directory)
    assert keep("-n").stdout == (
        "would remove segment 1: it is older than ZEVD_JOURNAL_DAYS= allows\n"
        "would remove segment 2: it is older than ZEVD_JOURNAL_DAYS= allows\n")
    assert names(journal.directory) == before


def test_a_second_one_goes_away(station):
    journal = write(station)
    directory = os.open(journal.directory, os.O_RDONLY)
    try:
        fcntl.flock(directory, fcntl.LOCK_EX)
        assert keep("-v").stdout == "another zevkeep is at work\n"
        assert "1.idx" not in names(journal.directory)
    finally:
        os.close(directory)
    keep()
    assert "1.idx" in names(journal.directory)


def test_without_a_journal_there_is_nothing_to_do(station):
    done = keep("-v")
    assert (done.stdout, done.stderr) == ("", "")


# Limits


def test_the_oldest_go_when_the_journal_is_too_large(station, system_log):
    limit(station, 1)
    journal = write(station, 5, 400000)
    keep()
    # Two hold less than a mebibyte, and three hold more.
    assert names(journal.directory) == ["4.idx", "4.seg.zst", "5.idx", "5.seg", "chain", "id"]
    size = sum(path.stat().st_size for path in journal.directory.iterdir())
    assert size <= MEBIBYTE
    removed = [entry.decode() for entry in system_log.raw() if b" removed " in entry]
    assert [re.search(r'segment="(\d+)"', entry)[1] for entry in removed] == ["1", "2", "3"]
    assert verify(station) == ""


def test_a_clock_far_ahead_keeps_nothing_for_ever(station):
    limit(station, 1000, 1)
    with JournalWriter(station.root / "journal", begin=ago(20)) as journal:
        box = journal.console("box")
        journal.output(box, b"one", at="2090-01-01 00:00:00")
        journal.new_segment()
        journal.output(box, b"two")
    keep()
    for path in journal.directory.glob("*1.*"):
        os.utime(path, (0, 0))
    assert keep().stdout == "sealed 0, compressed 0, removed 1 segment\n"
    assert names(journal.directory) == ["2.idx", "2.seg", "chain", "id"]


def test_old_ones_go_by_the_time_of_their_last_record(station):
    limit(station, 1000, 7)
    with JournalWriter(station.root / "journal", begin=ago(20)) as journal:
        box = journal.console("box")
        journal.output(box, b"one")
        journal.new_segment()
        journal.output(box, b"two", at=ago(8))
        journal.new_segment()
        journal.output(box, b"three", at=ago(7.5))
        journal.output(box, b"three", at=ago(6.5))
        journal.new_segment()
        journal.output(box, b"four", at=ago(30))
        journal.new_segment()
    assert keep().stdout == "sealed 5, compressed 4, removed 2 segments\n"
    # The clock was wrong in the fourth; it goes behind the third.
    assert names(journal.directory) == [
        "3.idx", "3.seg.zst", "4.idx", "4.seg.zst", "5.idx", "5.seg", "chain", "id"]
    assert verify(station) == ""


@pytest.mark.parametrize("text", ["ZEVD_JOURNAL=some\n", "ZEVD_JOURNAL=1\nZEVD_JOURNAL_DAYS=-1\n"])
def test_with_a_bad_limit_nothing_is_removed(station, text):
    journal = write(station, begin="2001-01-01 00:00:00")
    settings_file = station.config / "qor.conf"
    settings_file.write_text(text)
    said = keep(status=1).stderr
    assert re.fullmatch(rf"zevkeep: {settings_file}: ZEVD_JOURNAL(_DAYS)?= is not followed by a "
                        rf"number "
                        r"of (MiB|days); write one up to \d+; no segment is removed\n", said)
    assert names(journal.directory)[0] == "1.idx"


# What goes wrong


def test_killed_at_any_moment_it_leaves_everything_readable(station):
    seed = int(os.environ.get("ZEVD_TEST_SEED", random.randrange(1 << 32)))
    print("seed", seed)
    chance = random.Random(seed)
    limit(station, 1000)
    journal = write(station, 12, 300000)
    raw = {number: journal.segment(number).read_bytes() for number in range(1, 13)}
    fresh = shutil.copytree(journal.directory, station.root / "fresh")
    span = 0.1
    killed = 0
    for _ in range(60):
        if not any(journal.segment(number).exists() for number in range(1, 12)):
            shutil.rmtree(journal.directory)
            shutil.copytree(fresh, journal.directory)
        begin = time.monotonic()
        with subprocess.Popen([PROGRAM], stdout=subprocess.DEVNULL) as process:
            try:
                process.wait(chance.uniform(0, span))
                # As long as a pass that goes on where another was killed: rather too short.
                span = time.monotonic() - begin
            except subprocess.TimeoutExpired:
                process.kill()
                killed += 1
                span *= 1.1
        assert verify(station) == ""
        for number, content in raw.items():
            whole = journal.segment(number)
            assert (whole.read_bytes() if whole.exists()
                    else unpacked(whole.with_suffix(".seg.zst"))) == content
    assert killed > 5
    keep()
    assert names(journal.directory) == sorted(
        [f"{number}.idx" for number in range(1, 13)] +
        [f"{number}.seg.zst" for number in range(1, 12)] + ["12.seg", "chain", "id"])
    assert verify(station) == ""


def test_killed_while_it_removes_it_goes_on(station):
    limit(station, 0)
    journal = write(station, 40, 100, begin="2001-01-01 00:00:00")
    keep()
    limit(station, 1, 1)
    for _ in range(20):
        with subprocess.Popen([PROGRAM], stdout=subprocess.DEVNULL) as process:
            try:
                process.wait(random.uniform(0, stretched(0.02)))
            except subprocess.TimeoutExpired:
                process.kill()
        assert verify(station) == ""
    keep()
    assert names(journal.directory) == ["40.idx", "40.seg", "chain", "id"]
    assert verify(station) == ""


def test_records_without_index_are_no_remainder_of_a_removal(station):
    journal = write(station, 3)
    keep()
    (journal.directory / "chain").unlink()
    journal.segment(1).with_suffix(".idx").unlink()
    before = names(journal.directory)
    said = keep(status=1).stderr
    assert ("zevkeep: segment 1 has been removed, but its records are there without their index; "
            "run \"zevctl journal verify\"\n") in said
    assert set(before) <= set(names(journal.directory))
    (journal.directory / "chain.damaged").unlink()
    assert "says that this segment has been removed, but it is there" in verify(
        station, zevctl.DAMAGED)


def fill(directory) -> None:
    """Take all of the room that is left."""
    with open(directory / "filler", "wb", buffering=0) as filler:
        for size in (65536, 4096, 1):
            try:
                while True:
                    filler.write(b"x" * size)
            except OSError:
                pass


def test_a_full_disk_loses_nothing(station):
    limit(station, 1000)
    directory = station.root / "journal"
    directory.mkdir()
    mount_tmpfs(directory, "1m", "0750")
    try:
        journal = write(station, 3, 100000)
        raw = journal.segment(1).read_bytes()
        fill(directory)
        before = names(directory)
        said = keep(status=1).stderr
        assert said.splitlines()[0] == (
            "zevkeep: the file \"chain\" cannot be brought up to date: No space left on device; "
            "make "
            "room on the disk, or lower ZEVD_JOURNAL= in qor.conf")
        assert names(directory) == before and journal.segment(1).read_bytes() == raw
        (directory / "filler").unlink()
        assert keep().stdout == "sealed 3, compressed 2, removed 0 segments\n"
        assert verify(station) == ""
    finally:
        unmount(directory)


def test_on_a_full_disk_the_oldest_beyond_the_limits_go_first(station):
    limit(station, 0)
    directory = station.root / "journal"
    directory.mkdir()
    mount_tmpfs(directory, "4m", "0750")
    try:
        journal = write(station, 4, 400000)
        keep()
        journal.new_segment()
        journal.output(1, b"more")
        journal.new_segment()
        journal.close()
        fill(directory)
        said = keep(status=1).stderr
        assert said == ("zevkeep: segment 5 cannot be sealed: No space left on device; make room "
                        "on "
                        "the disk, or lower ZEVD_JOURNAL= in qor.conf\n"
                        "zevkeep: segment 4 cannot be compressed: No space left on device; make "
                        "room "
                        "on the disk, or lower ZEVD_JOURNAL= in qor.conf\n")
        assert names(directory)[0] == "1.idx"
        limit(station, 1)
        done = keep(status=1)
        assert "segment 5 cannot be sealed: No space left on device" in done.stderr
        assert re.search(r"removed [1-9]", done.stdout)
        assert "1.idx" not in names(directory) and "5.idx" in names(directory)
        (directory / "filler").unlink()
        keep()
        assert verify(station) == ""
    finally:
        unmount(directory)


def test_a_link_and_anothers_directory_are_refused(station):
    journal = write(station)
    place = journal.directory
    aside = place.rename(place.with_name("elsewhere"))
    place.symlink_to(aside)
    assert keep(status=1).stderr == (f"zevkeep: {place} is a link or no directory; put the "
                                     f"journal's "
                                     "directory in its place\n")
    place.unlink()
    aside.rename(place)
    place.chmod(0o770)
    assert keep(status=1).stderr == (f"zevkeep: {place} can be written by others; look at what is "
                                     f"in "
                                     "it and set its mode to 0750\n")
    place.chmod(0o750)
    os.chown(place, 12345, 12345)
    assert keep(status=1).stderr == (f"zevkeep: {place} belongs to another user; run this as its "
                                     "owner (runuser -u zevd)\n")
    assert "1.idx" not in names(place)


def test_what_lies_in_the_way_is_not_followed(station, tmp_path):
    journal = write(station)
    outside = tmp_path / "outside"
    outside.write_text("mine")
    (journal.directory / ".zevkeep.tmp").symlink_to(outside)
    (journal.directory / "chain").symlink_to(outside)
    said = keep(status=1).stderr
    assert "chain" in said and outside.read_text() == "mine"
    assert "1.idx" not in names(journal.directory)
    (journal.directory / "chain").unlink()
    keep()
    assert verify(station) == ""


def test_a_damaged_segment_is_sealed_as_it_is(station):
    journal = write(station)
    flip(journal.segment(2), 300)
    said = keep(status=1).stderr
    assert said == ("zevkeep: segment 2 is damaged in 1 place; it is sealed as it is: run \"zevctl "
                    "journal verify\"\n")
    said = verify(station, zevctl.DAMAGED)
    assert re.fullmatch(r"zevctl: 0{19}2\.seg\.zst, byte \d+: \d+ bytes were no records when it "
                        r"was "
                        r"sealed; the records there are lost, .*\n", said)


def test_a_torn_end_is_left_to_the_daemon(station):
    journal = write(station, 1)
    cut(journal.segment(1), -5)
    assert "ends in the middle of a record" in keep("-v").stdout
    assert names(journal.directory) == ["1.seg", "chain", "id"]
    assert verify(station) == ""


def test_a_segment_of_another_version_stays(station):
    journal = write(station, 1)
    journal.new_segment()
    old, new = b"\n\x01\0", b"\n\x02\0"
    journal.segment(1).write_bytes(journal.segment(1).read_bytes().replace(old, new, 1))
    assert keep(status=1).stderr == ("zevkeep: segment 1 has the format of another version; run "
                                     "the "
                                     "zevkeep of the daemon's version\n")
    journal.close()


def test_without_its_number_nothing_is_sealed(station):
    journal = write(station)
    (journal.directory / "id").write_text("5a45\n")
    assert keep(status=1).stderr.startswith(f"zevkeep: {journal.directory}/id is damaged; ")
    assert "1.idx" not in names(journal.directory)


def test_times_before_1970_and_far_ahead_are_kept(station):
    with JournalWriter(station.root / "journal", begin="1969-12-31 23:59:59") as journal:
        box = journal.console("box")
        journal.output(box, b"early", at=nanoseconds("1950-01-01 00:00:00"))
        journal.output(box, b"late", at=nanoseconds("2200-01-01 00:00:00"))
    keep()
    listed = zevctl.data(None, "journal", "list")[0]
    assert listed["first"] == -631152000 and listed["last"] == 7258118400
    assert verify(station) == ""


# The command line and the units


def test_the_command_line(station):
    assert keep("--help").stdout.startswith("Usage: zevkeep [OPTION]...\n")
    assert re.fullmatch(r"zevkeep \d+\.\d+\.\d+\n", keep("--version").stdout)
    for arguments in (["--nonsense"], ["more"], ["-d"]):
        assert "see \"zevkeep --help\"" in keep(*arguments, status=2).stderr
    elsewhere = station.root / "elsewhere"
    with JournalWriter(elsewhere) as journal:
        journal.console("box")
    keep("-d", str(elsewhere), "--config", "/nonexistent")
    assert "1.idx" in names(elsewhere)


@pytest.mark.parametrize("unit", ["zevkeep.service", "zevkeep.timer"])
def test_the_units_are_valid(unit, tmp_path):
    for name in ("zevkeep.service", "zevkeep.timer"):
        text = (settings.REPOSITORY / "packaging/systemd" / name).read_text()
        (tmp_path / name).write_text(text.replace("/usr/bin/zevkeep", str(PROGRAM)))
    done = subprocess.run(["systemd-analyze", "verify", "--man=no", tmp_path / unit],
                          capture_output=True, text=True, check=False)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")


def test_the_service_is_confined():
    unit = settings.REPOSITORY / "packaging/systemd/zevkeep.service"
    done = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=20", unit],
                          capture_output=True, text=True, check=False)
    assert done.returncode == 0, done.stdout


def test_the_page_tells_every_option():
    path = settings.REPOSITORY / "zevkeep/zevkeep.8"
    page = path.read_text()
    options = set(re.findall(r"--([a-z-]+)", keep("--help").stdout))
    assert options == set(re.findall(r"(?:Fl |, )-([a-z-]+)", page))
    done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", path], capture_output=True,
                          text=True, check=False)
    assert (done.returncode, done.stdout) == (0, "")
