"""Console logs: the records byte for byte, which log they go to, and that none is lost."""

import os
import re
import stat
from concurrent.futures import ThreadPoolExecutor
from datetime import datetime, timedelta, timezone

import pytest

from harness.logs import (bring_up, consolidated, consolidated_records, current, dated, difference,
                          empty_logs, log_of, of_console, read, records, wait_records)
from harness.scenes import (disable_and_enable, leave, numbered, print_and_wait, reload,
                            removal)
from harness.station import console_line
from harness.waiting import wait_until


@pytest.fixture
def box(station):
    """A console that is connected and whose logs are empty; nobody watches it."""
    made = station.console("box")
    bring_up(station, made)
    station.wait_connected("box")
    return made


def without_cr(printed: bytes) -> list[bytes]:
    """The records of whole lines when carriage returns are suppressed."""
    return printed.replace(b"\r", b"").splitlines(keepends=True)


# The record


def test_the_two_formats_byte_for_byte(station):
    box = station.console("box")
    bring_up(station, box, options=("-d", "0"))
    before = datetime.now().replace(microsecond=0)
    box.send(b"Disk 1 is \xe9teint\r\n")
    wait_until(lambda: read(consolidated(station)), what="the record")
    after = datetime.now()
    own = re.fullmatch(rb"(\d\d/\d\d/\d\d_\d\d:\d\d:\d\d) Disk 1 is \xe9teint\n",
                       read(log_of(station, "box")))
    stamp = datetime.strptime(own[1].decode(), "%y/%m/%d_%H:%M:%S")
    assert before <= stamp <= after
    assert re.fullmatch(rb"\d\d/\d\d/\d\d_\d\d:\d\d:\d\d box Disk 1 is \xe9teint\n",
                        read(consolidated(station)))


def test_stamps_and_directories_are_in_local_time(station):
    zone = timezone(timedelta(hours=-11, minutes=-30))
    box = station.console("box", greeting=b"up\r\n")
    before = datetime.now(zone).replace(microsecond=0, tzinfo=None)
    station.start(env={"TZ": "FAR+11:30"})
    box.accept()
    wait_until(lambda: read(consolidated(station)), what="the record")
    after = datetime.now(zone).replace(tzinfo=None)
    stamp = datetime.strptime(read(log_of(station, "box"))[:17].decode(), "%y/%m/%d_%H:%M:%S")
    assert before <= stamp <= after
    assert current(station).resolve().name in {before.strftime("%d-%b-%H:%M"),
                                               after.strftime("%d-%b-%H:%M")}


@pytest.mark.parametrize("suppress, chunks, expected", [
    ("1", [b"abc\r\ndef\r\n"], [b"abc\n", b"def\n"]),
    ("0", [b"abc\r\ndef\r\n"], [b"abc\r", b"\n", b"def\r", b"\n"]),
    ("1", [b"one\rtwo\n"], [b"onetwo\n"]),
    ("0", [b"one\rtwo\n"], [b"one\r", b"two\n"]),
    ("1", [b"a\0b\0\n"], [b"ab\n"]),
    ("0", [b"a\0b\0\n"], [b"ab\n"]),
    ("1", [b"on\xff\xfb\x01e\n"], [b"one\n"]),
    ("0", [b"on\xff\xfb\x01e\n"], [b"on\xff\xfb\x01e\n"]),
    ("1", [b"a\xff\r\nb\n"], [b"ab\n"]),
    ("1", [b"a\xff\xff\xffb\xff\xf1cd\n"], [b"abd\n"]),
    # The bytes that a 255 at the end of a chunk refers to are in the next chunk.
    ("1", [b"one\xff", b"two\n"], [b"onetwo\n"]),
    ("1", [b"one\xff\xfb", b"two\n"], [b"onetwo\n"]),
    ("0", [b"one\xff", b"two\n"], [b"one\xfftwo\n"]),
    ("1", [b"in ", b"pie", b"ces\r", b"\nnext\n"], [b"in pieces\n", b"next\n"]),
    ("1", [b"\n\n"], [b"\n", b"\n"]),
])
def test_bytes_of_output_become_records(station, suppress, chunks, expected):
    box = station.console("box")
    bring_up(station, box, options=("-s", suppress))
    if suppress == "0":
        # The greeting's last byte was a record of its own, which may have come late.
        wait_until(lambda: read(log_of(station, "box")).endswith(b" \n")
                   or read(log_of(station, "box")) == b"", what="the end of the greeting")
        box.send(b"ready\n")
        empty_logs(station, "box")
    for chunk in chunks:
        print_and_wait(station, box, chunk)
    wait_records(log_of(station, "box"), expected)
    wait_until(lambda: len(consolidated_records(consolidated(station))) >= len(expected))
    assert consolidated_records(consolidated(station)) == [("box", line) for line in expected]


def test_a_line_without_an_end_is_cut_after_1024_bytes(station, box):
    box.send(b"x" * 2000)
    wait_records(log_of(station, "box"), [b"x" * 1024])
    box.send(b"y\n")
    wait_records(log_of(station, "box"), [b"x" * 1024, b"x" * 976 + b"y\n"])


def test_closing_writes_an_unfinished_line_and_an_empty_record(station, box):
    print_and_wait(station, box, b"done\nbegun")
    wait_records(log_of(station, "box"), [b"done\n"])
    box.close()
    expected = [b"done\n", b"begun", b"\n"]
    wait_records(log_of(station, "box"), expected)
    wait_until(lambda: len(of_console(consolidated_records(consolidated(station)), "box")) >= 3)
    assert of_console(consolidated_records(consolidated(station)), "box") == expected


def test_a_console_that_comes_back_continues_its_log(station, box):
    print_and_wait(station, box, b"before\n")
    box.greeting = b"after\n"
    disable_and_enable(station, box)
    wait_records(log_of(station, "box"), [b"before\n", b"after\n"])


# Who is attached


@pytest.mark.parametrize("modes, logged", [
    (["ro"], True), (["sh"], True), (["ex"], True), (["er"], False),
    (["sh", "sh", "ro"], True),
    (["er", "ro"], False),   # the first user counts
    (["ro", "er"], True),
])
def test_watched_output_is_logged_unless_the_first_user_is_revocable(station, box, modes, logged):
    users = [station.attach("box", mode=mode, user=f"user{number}")
             for number, mode in enumerate(modes)]
    box.send(b"watched\n")
    for user in users:
        user.expect(b"watched\n")
    for user in users:
        leave(station, user)
    print_and_wait(station, box, b"alone\n")
    wait_records(log_of(station, "box"), [b"watched\n"] * logged + [b"alone\n"])
    wait_until(lambda: read(consolidated(station)), what="the consolidated record")
    assert consolidated_records(consolidated(station)) == [("box", b"alone\n")]


def test_a_console_that_is_taken_over_is_logged_again(station, box):
    first = station.attach("box", mode="er", user="first")
    box.send(b"hidden\n")
    first.expect(b"hidden\n")
    second = station.attach("box", mode="sh", user="second")
    first.expect(b"Your session has been terminated by second@")
    # Until the first user's record is removed, that user still counts as attached.
    station.wait_log(removal("first"))
    box.send(b"logged\n")
    second.expect(b"logged\n")
    wait_records(log_of(station, "box"), [b"logged\n"])


def test_other_consoles_are_logged_while_one_is_watched(station):
    box, other = station.console("box"), station.console("other")
    bring_up(station, box, other)
    station.wait_connected("box")
    user = station.attach("box")
    box.send(b"watched\n")
    user.expect(b"watched\n")
    other.send(b"alone\n")
    wait_until(lambda: read(consolidated(station)), what="the consolidated record")
    assert consolidated_records(consolidated(station)) == [("other", b"alone\n")]
    wait_records(log_of(station, "box"), [b"watched\n"])
    wait_records(log_of(station, "other"), [b"alone\n"])


# What is not logged


def test_a_console_with_its_logging_flag_off_is_not_logged(station):
    box, quiet = station.console("box"), station.console("quiet", logging=0, greeting=b"up\n")
    bring_up(station, box)
    quiet.accept()
    station.wait_log("ProcessConsoleOutput: Received ->up")
    print_and_wait(station, quiet, b"unlogged\n")
    print_and_wait(station, box, b"logged\n")
    wait_records(log_of(station, "box"), [b"logged\n"])
    assert read(log_of(station, "quiet")) == b""
    wait_until(lambda: read(consolidated(station)), what="the consolidated record")
    assert consolidated_records(consolidated(station)) == [("box", b"logged\n")]


def test_a_chunk_with_a_high_first_byte_is_lost_only_while_nobody_watches(station, box):
    print_and_wait(station, box, b"\xe9tat\n")
    user = station.attach("box", user="ann")
    box.send(b"\xe9tat vu\n")
    user.expect(b"\xe9tat vu\n")
    leave(station, user)
    print_and_wait(station, box, b"end\n")
    wait_records(log_of(station, "box"), [b"\xe9tat vu\n", b"end\n"])


def test_notices_of_a_management_port_are_not_logged(station, box):
    for notice in (b"~NET-E-X Session is already open to the partition/CLI held by 1.2.3.4\r\n",
                   b'~NET-I-X Enter "YES" within 5 seconds to disconnect the existing user\r\n',
                   b"~NET-I-X Timed out, disconnecting...\r\n"):
        print_and_wait(station, box, notice)
    print_and_wait(station, box, b"see ~NET-I-X Timed out, disconnecting...\n")
    wait_records(log_of(station, "box"), [b"see ~NET-I-X Timed out, disconnecting...\n"])


# Files


def test_new_files_have_their_modes_and_group(station):
    os.chown(station.root, -1, 12345)
    box = station.console("box")
    bring_up(station, box)
    made = {dated(station): 0o770, current(station).resolve(): 0o770,
            log_of(station, "box"): 0o660, consolidated(station): 0o660}
    for path, mode in made.items():
        status = path.stat()
        assert stat.S_IMODE(status.st_mode) & 0o777 == mode, path
        assert (status.st_uid, status.st_gid) == (os.geteuid(), 12345), path


def test_existing_files_keep_their_mode_and_group(station):
    directory = dated(station) / "earlier"
    directory.mkdir(parents=True)
    current(station).symlink_to(directory)
    for name in ("box", "consolidated"):
        log_of(station, name).write_text("26/01/01_00:00:00 x earlier\n")
        log_of(station, name).chmod(0o604)
        os.chown(log_of(station, name), -1, 4321)
    os.chown(station.root, -1, 12345)
    box = station.console("box", greeting=b"up\n")
    station.start()
    box.accept()
    wait_until(lambda: read(consolidated(station)).endswith(b" box up\n"), what="the record")
    for name in ("box", "consolidated"):
        status = log_of(station, name).stat()
        assert (stat.S_IMODE(status.st_mode), status.st_gid) == (0o604, 4321)
        assert read(log_of(station, name)).startswith(b"26/01/01_00:00:00 x earlier\n")


def test_the_command_line_may_name_the_log_directory(station):
    elsewhere = station.root / "else where"
    elsewhere.mkdir()
    box = station.console("box", greeting=b"up\n")
    station.start("-l", str(elsewhere))
    box.accept()
    wait_until(lambda: read(elsewhere / "zev.dated/current/box.log").endswith(b" up\n"),
               what="the record")
    assert not dated(station).exists()
    station.wait_log(f"OpenLogFile: opened {elsewhere}//zev.dated/current/box.log")


def test_a_renamed_console_takes_its_log_with_it(station, box):
    print_and_wait(station, box, b"before\n")
    station.write_config(console_line("chest", box.port))
    reload(station)
    print_and_wait(station, box, b"after\n")
    wait_records(log_of(station, "chest"), [b"before\n", b"after\n"])
    wait_until(lambda: len(consolidated_records(consolidated(station))) == 2)
    assert consolidated_records(consolidated(station)) == [("box", b"before\n"),
                                                           ("chest", b"after\n")]
    assert not log_of(station, "box").exists()


# Load


def test_thirty_thousand_lines_are_logged_complete(station):
    box = station.console("box")
    bring_up(station, box, options=("-d", "0"))
    printed = numbered(30000)
    box.flood(printed, 1).join(limit=60)
    expected = without_cr(printed)
    wait_records(log_of(station, "box"), expected, limit=60)
    wait_until(lambda: len(consolidated_records(consolidated(station))) >= len(expected),
               what="the consolidated log")
    found = consolidated_records(consolidated(station))
    assert {name for name, _ in found} == {"box"}
    assert of_console(found, "box") == expected, difference(of_console(found, "box"), expected)


def test_carriage_returns_are_kept_in_thirty_thousand_lines(station):
    box = station.console("box")
    bring_up(station, box, options=("-d", "0", "-s", "0"))
    printed = numbered(15000) + b"end\n"
    box.flood(printed, 1).join(limit=60)
    expected = re.findall(rb"[^\r\n]*[\r\n]", printed)
    for log_records in (lambda: records(log_of(station, "box")),
                        lambda: of_console(consolidated_records(consolidated(station)), "box")):
        wait_until(lambda: log_records()[-1:] == [b"end\n"], 60, "the last line")
        # The greeting's line feed was a record of its own and may have come late.
        found = log_records()
        found = found[1:] if found[0] == b"\n" else found
        assert found == expected, difference(found, expected)


def test_a_hundred_consoles_are_logged_at_once(station):
    names = [f"c{number:02}" for number in range(100)]
    consoles = [station.console(name) for name in names]
    printed = {name: b"".join(b"%s line %d of a hundred\r\n" % (name.encode(), line)
                              for line in range(100)) for name in names}
    station.start("-d", "0")

    def print_all(console) -> None:
        console.accept(limit=30)
        console.send(printed[console.name])

    with ThreadPoolExecutor(8) as together:
        list(together.map(print_all, consoles))
    for name in names:
        wait_records(log_of(station, name), without_cr(printed[name]), limit=60)
    wait_until(lambda: len(consolidated_records(consolidated(station))) >= 10000, 60,
               "the consolidated log")
    found = consolidated_records(consolidated(station))
    assert len(found) == 10000
    for name in names:
        assert of_console(found, name) == without_cr(printed[name])
