"""What the daemon writes to its journal, record by record and byte for byte."""

import fcntl
import os
import stat

import pytest

from harness import journals
# `collector` and `box` are fixtures.
from harness.access import READY, bring_up, reload
from harness.collectors import collector
from harness.commands import DONE, Tool
from harness.journals import begin, finish, wait_for, wait_output
from harness.scenes import leave, print_and_wait
from harness.station import console_line
from journal_reader import Journal, read_journal, segment_files
from journal_writer import Field, Kind

HELD = "A user holds the console exclusively and revocably."
ANNA = {Field.GIVEN_USER: "anna", Field.FROM: "127.0.0.1", Field.GIVEN_FROM: "desk"}
TOOL = {Field.GIVEN_USER: "op", Field.FROM: "127.0.0.1"}


@pytest.fixture
def box(station):
    """A console named "box", connected, of a station with a journal."""
    console = station.console("box")
    begin(station, console)
    wait_output(station, "box", READY)
    return console


def test_a_run_begins_and_ends_in_the_journal(station, box):
    journal = finish(station)
    first, *_, last = journal.records
    assert (first.kind, first.number) == (Kind.STARTED, 1)
    assert first.values == {Field.VERSION: first.values[Field.VERSION], Field.PID: station.pid}
    assert (last.kind, last.values) == (Kind.STOPPED, {})
    segment, = journal.segments
    assert (segment.number, segment.first_record) == (1, 1)
    assert (segment.wall, segment.monotonic) == (first.wall, first.monotonic)
    walls = [record.wall for record in journal.records]
    assert walls == sorted(walls)


def test_directory_and_files_are_for_the_daemon_and_its_group(station, box):
    made = journals.directory(station)
    assert stat.S_IMODE(made.stat().st_mode) == 0o750
    for name in ("id", "00000000000000000001.seg"):
        status = (made / name).stat()
        assert (stat.S_IMODE(status.st_mode), status.st_uid) == (0o640, os.geteuid()), name
    assert sorted(path.name for path in made.iterdir()) == ["00000000000000000001.seg", "id"]


def test_the_segment_that_is_written_is_locked_and_so_is_the_journal(station, box):
    for path in (journals.directory(station) / "id", segment_files(journals.directory(station))[0]):
        with open(path, "rb") as file, pytest.raises(BlockingIOError):
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    journal = finish(station)
    for path in (journals.directory(station) / "id", journal.segments[0].path):
        with open(path, "rb") as file:
            fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)


def test_there_is_no_journal_unless_it_is_asked_for(station):
    console = station.console("box")
    bring_up(station, console)
    assert not journals.directory(station).exists()
    told, = Tool(station).objects("stats")
    assert [told[key] for key in told if key.startswith("journal")] == ["off", 0, 0, 0, 0, None]


def test_output_is_kept_byte_for_byte(station, box):
    text = bytes(range(256)) + b"\r\n\0\xff\xfb\x01 end"
    user = station.attach("box")
    box.send(text)
    user.expect(text)
    wait_output(station, "box", text)
    assert finish(station).output("box") == READY + text


def test_what_users_never_see_is_not_kept(station, box):
    print_and_wait(station, box, b"\xff\xfd\x18 telnet with nobody there")
    print_and_wait(station, box, b"seen")
    wait_output(station, "box", READY + b"seen")


def test_a_turn_is_one_record(station, box):
    text = b"x" * 5000
    box.send(text)
    journal = wait_output(station, "box", text)
    assert len(journal.of(Kind.OUTPUT, "box")) <= 1 + 5


def test_consoles_come_and_go(station, box):
    journal = journals.now(station)
    assert journal.values(Kind.CONSOLE) == [
        {Field.NAME: "box", Field.ADDRESS: "127.0.0.1", Field.PORT: box.port}]
    reload(station, console_line("crate", box.port) + console_line("new", 1, enable=0))
    wait_for(station, Kind.CONSOLE, "new")
    reload(station, console_line("crate", box.port))
    wait_for(station, Kind.CONSOLE_GONE, "new")
    reload(station, "")
    wait_for(station, Kind.CONSOLE_GONE, "crate")
    journal = finish(station)
    told = [(record.console, record.kind, record.values.get(Field.NAME))
            for record in journal.records if record.kind in (Kind.CONSOLE, Kind.CONSOLE_GONE)]
    assert told == [(1, Kind.CONSOLE, "box"), (1, Kind.CONSOLE, "crate"), (2, Kind.CONSOLE, "new"),
                    (2, Kind.CONSOLE_GONE, "new"), (1, Kind.CONSOLE_GONE, "crate")]
    assert journal.values(Kind.LOST) == [{Field.REASON: "The console was deleted."}]


def test_connections_and_their_ends(station, box):
    wait_for(station, Kind.CONNECTED, "box")
    box.close()
    assert wait_for(station, Kind.LOST, "box")[0].values == \
        {Field.REASON: "The console closed the connection."}
    tool = Tool(station)
    assert tool.command("reconnect box").type == DONE
    box.accept()
    wait_for(station, Kind.CONNECTED, "box", count=2)
    position = station.mark()
    box.reset()
    assert wait_for(station, Kind.LOST, "box", count=2)[1].values == \
        {Field.REASON: "Connection reset by peer"}
    station.wait_log("AddConsoleToList: Added console box to i_cons_list.", after=position)
    assert tool.command("reconnect box").type == DONE
    box.accept()
    wait_for(station, Kind.CONNECTED, "box", count=3)


def test_an_operator_disables_and_enables(station, box):
    wait_for(station, Kind.CONNECTED, "box")
    tool = Tool(station)
    for word in ("disable", "disable", "enable", "enable"):
        assert tool.command(f"{word} box").type == DONE
    wait_for(station, Kind.ENABLED, "box")
    journal = finish(station)
    assert journal.values(Kind.DISABLED, "box") == journal.values(Kind.ENABLED, "box") == [TOOL]
    assert journal.values(Kind.LOST, "box")[0] == {Field.REASON: "The console was disabled."}


def test_the_configuration_disables_and_enables(station, box):
    for enable in (0, 1):
        reload(station, console_line("box", box.port, enable=enable))
    journal = finish(station)
    by_file = [{Field.REASON: "The configuration says so."}]
    assert journal.values(Kind.DISABLED, "box") == journal.values(Kind.ENABLED, "box") == by_file


def test_users_attach_and_leave(station, box):
    user = station.attach("box", user="anna", addr="desk", mode="ro")
    leave(station, user)
    wait_for(station, Kind.LEFT, "box")
    journal = finish(station)
    assert journal.values(Kind.ATTACHED, "box") == [{**ANNA, Field.MODE: "ro"}]
    assert journal.values(Kind.LEFT, "box") == [
        {**ANNA, Field.MODE: "ro", Field.REASON: "The user left."}]
    assert journal.kinds("box")[-2:] == [Kind.ATTACHED, Kind.LEFT]


def test_operators_messages(station, box):
    tool = Tool(station)
    assert tool.command("msg box going down").type == DONE
    assert tool.command("msg - all of you").type == DONE
    wait_for(station, Kind.MESSAGE, count=2)
    told = [(record.name, record.values) for record in finish(station).of(Kind.MESSAGE)]
    assert told == [("box", {Field.USER: "op", Field.TEXT: "going down"}),
                    ("", {Field.USER: "op", Field.TEXT: "all of you"})]


def test_breaks_are_told_without_the_input(station, box):
    user = station.attach("box", user="anna")
    user.send(b"key\xff\xff\xf3key\xff")
    box.expect(b"key\xff\xff\xf3key\xff")
    user.send(b"\xf3\xff\xf3")
    box.expect(b"\xf3\xff\xf3")
    wait_for(station, Kind.BREAK, "box")
    journal = finish(station)
    assert journal.values(Kind.BREAK, "box") == [{Field.USER: "anna", Field.COUNT: 2}]
    assert journal.of(Kind.INPUT) == []


@pytest.mark.parametrize("setting, text", [("length", {}), ("all", {Field.TEXT: "s3cret\r"})])
def test_input_is_recorded_when_that_is_asked_for(station, setting, text):
    console = station.console("box")
    begin(station, console, lines=("ZEVD_JOURNAL=100", f"ZEVD_JOURNAL_INPUT={setting}"))
    user = station.attach("box", user="anna")
    user.send(b"s3cret\r")
    console.expect(b"s3cret\r")
    reader = station.attach("box", user="bob", mode="ro")
    reader.send(b"unheard")
    station.wait_log("ProcessUserInput: Received ->unheard<- (7 bytes)")
    wait_for(station, Kind.INPUT, "box")
    journal = finish(station)
    assert journal.values(Kind.INPUT, "box") == [
        {Field.USER: "anna", Field.BYTES: 7, **text}]
    warned = "Journal: ZEVD_JOURNAL_INPUT=all: what users type is recorded, passwords included."
    assert station.log_text().count(warned) == (1 if text else 0)


@pytest.mark.parametrize("pattern", ["disk.*error", r"(d)isk.*error\1*"])
def test_events_name_their_pattern(station, collector, pattern):
    (station.events / "set").write_text(f"disk_err 300 0 {pattern}\nother 1 0 x\n")
    console = station.console("box", events=1, event_file="set")
    begin(station, console)
    collector.accept()
    console.send(b"\ndisk 3: error\r\n")
    collector.wait_events(1)
    record, = wait_for(station, Kind.EVENT, "box")
    assert record.values == {Field.PRIORITY: 300, Field.PATTERN: "disk_err",
                             Field.TEXT: "disk 3: error"}


def test_an_event_that_changes_the_consoles_name_is_followed(station, collector):
    (station.events / "set").write_text("err 300 0 error\n")
    console = station.console("my-box", events=1, event_file="set")
    begin(station, console)
    collector.accept()
    console.send(b"\nerror\n")
    wait_for(station, Kind.CONSOLE, "my_box")
    assert [values[Field.NAME] for values in journals.now(station).values(Kind.CONSOLE)] == \
        ["my-box", "my_box"]


def test_the_audit_trail_is_in_the_journal_too(station, box):
    tool = Tool(station)
    tool.command("clear box")
    wait_for(station, Kind.AUDIT, what="clear")
    told = finish(station).values(Kind.AUDIT)
    assert told[0] == {Field.WHAT: "security", Field.RESULT: "off"}
    assert {**TOOL, Field.WHAT: "attach", Field.RESULT: "accepted", Field.CONSOLE: "@@@@"} \
        in told
    assert {**TOOL, Field.WHAT: "clear", Field.RESULT: "done", Field.CONSOLE: "box"} in told


# What is not kept


def test_the_record_pauses_while_a_user_holds_the_console_revocably(station, box):
    holder = station.attach("box", user="anna", mode="er")
    wait_for(station, Kind.PAUSED, "box")
    box.send(b"hidden")
    holder.expect(b"hidden")
    leave(station, holder)
    wait_for(station, Kind.NOT_LOGGED, "box")
    print_and_wait(station, box, b"shown")
    wait_output(station, "box", b"shown")
    journal = finish(station)
    assert journal.output("box") == READY + b"shown"
    paused, = journal.of(Kind.PAUSED, "box")
    assert paused.values == {Field.USER: "anna", Field.REASON: HELD}
    ended, = journal.of(Kind.NOT_LOGGED, "box")
    begin_time, end_time = ended.values.pop(Field.BEGIN), ended.values.pop(Field.END)
    assert ended.values == {Field.BYTES: 6, Field.USER: "anna", Field.REASON: HELD}
    assert 0 <= paused.wall - begin_time < 10**9 and 0 <= ended.wall - end_time < 10**9
    assert begin_time < end_time
    assert journal.kinds("box")[-5:] == [Kind.ATTACHED, Kind.PAUSED, Kind.NOT_LOGGED, Kind.LEFT,
                                         Kind.OUTPUT] or \
        journal.kinds("box")[-5:] == [Kind.ATTACHED, Kind.PAUSED, Kind.LEFT, Kind.NOT_LOGGED,
                                      Kind.OUTPUT]


def test_only_the_first_user_of_a_console_pauses_its_record(station, box):
    station.attach("box", user="anna", mode="ro")
    station.attach("box", user="bob", mode="er")
    box.send(b"kept")
    wait_output(station, "box", b"kept")
    assert journals.now(station).of(Kind.PAUSED) == []


def test_a_console_that_is_not_logged_is_not_in_the_journal(station):
    console = station.console("box", logging=0)
    begin(station, console)
    wait_for(station, Kind.PAUSED, "box")
    print_and_wait(station, console, b"secret")
    reload(station, console_line("box", console.port))
    wait_for(station, Kind.NOT_LOGGED, "box")
    print_and_wait(station, console, b"open")
    wait_output(station, "box", b"open")
    journal = finish(station)
    assert journal.output("box") == b"open"
    reason = {Field.REASON: "The console's logging flag is not 1."}
    assert journal.values(Kind.PAUSED, "box") == [reason]
    ended, = journal.values(Kind.NOT_LOGGED, "box")
    assert ended[Field.BYTES] == len(READY + b"secret") and reason.items() <= ended.items()


# What "stats" tells


def test_stats_tell_of_the_journal(station, box):
    text = b"y" * 3000
    box.send(text)
    journal = wait_output(station, "box", text)
    tool = Tool(station)
    wait_for(station, Kind.AUDIT, what="attach")
    told, = tool.objects("stats")
    journal = journals.now(station)
    size = segment_files(journals.directory(station))[0].stat().st_size
    assert told["journal"] == "on"
    assert told["journal_records"] == len(journal.records)
    assert told["journal_bytes"] == size - 64
    assert (told["journal_records_lost"], told["journal_gaps"]) == (0, 0)
    assert told["journal_end"] == f"{journal.station:016x}:1:{size}"


def test_the_running_number_goes_on_with_the_next_run(station, box):
    station.stop()
    position = station.output.size()
    bring_up(station, box)
    wait_for(station, Kind.CONNECTED, "box", count=2)
    assert "Journal:" not in station.log_text(position)
    journal = finish(station)
    assert len(journal.segments) == 2
    assert journal.segments[0].run != journal.segments[1].run
    assert len(journal.of(Kind.STARTED)) == len(journal.of(Kind.STOPPED)) == 2
    assert read_journal(journals.directory(station)).station == journal.station
