"""Switching the journal on and off, bad settings, and places where it cannot be."""

import os

import pytest

from harness import journals
from harness.access import READY, bring_up, reload
from harness.commands import Tool
from harness.journals import begin, change, configure, finish, wait_for, wait_output
from harness.scenes import print_and_wait
from harness.station import console_line
from harness.waiting import wait_until
from journal_reader import read_journal
from journal_writer import Field, Kind

ON = "ZEVD_JOURNAL=100"
SWITCHED_ON = "The journal was switched on."
STAYS_OFF = "There is no journal until the next reload."


@pytest.fixture
def box(station):
    """A console named "box", connected, of a station without a journal."""
    console = station.console("box")
    begin(station, console, lines=())
    return console


def state(station) -> str:
    """What "stats" says."""
    told, = Tool(station).objects("stats")
    return told["journal"]


def test_a_reload_switches_the_journal_on(station, box):
    threads = station.threads()
    station.attach("box", mode="er", user="anna")
    print_and_wait(station, box, b"before")
    change(station, ON)
    wait_for(station, Kind.PAUSED, "box", user="anna")
    assert station.threads() == threads + 1
    assert state(station) == "on"
    journal = finish(station)
    assert [record.kind for record in journal.records[:3]] == [Kind.STARTED, Kind.CONSOLE,
                                                               Kind.PAUSED]
    assert journal.records[0].values[Field.REASON] == SWITCHED_ON
    assert journal.output("box") == b""


@pytest.mark.parametrize("lines", [(), ("ZEVD_JOURNAL=0",)])
def test_a_reload_switches_the_journal_off_and_on_again(station, box, lines):
    change(station, ON)
    print_and_wait(station, box, b"one")
    change(station, *lines)
    station.wait_log("Entering ReloadJournal")
    wait_until(lambda: state(station) == "off", what="the journal to be off")
    print_and_wait(station, box, b"two")
    journal = read_journal(journals.directory(station))
    assert journal.records[-1].kind == Kind.STOPPED
    assert journal.records[-1].values == {Field.REASON: "The journal was switched off."}
    change(station, ON)
    print_and_wait(station, box, b"three")
    wait_output(station, "box", b"three")
    journal = finish(station)
    assert journal.output("box") == b"onethree"
    assert len(journal.segments) == 2
    assert journal.segments[0].run == journal.segments[1].run
    assert [record.values.get(Field.REASON) for record in journal.of(Kind.STARTED)] == \
        [SWITCHED_ON] * 2


@pytest.mark.parametrize("line, wanted", [
    ("ZEVD_JOURNAL=much", "a number of MiB, or 0 for no journal"),
    ("ZEVD_JOURNAL=", "a number of MiB, or 0 for no journal"),
    ("ZEVD_JOURNAL=-1", "a number of MiB, or 0 for no journal"),
    ("ZEVD_JOURNAL=99999999999999999999", "a number of MiB, or 0 for no journal"),
    ("ZEVD_JOURNAL_DAYS=3 weeks", "a number of days"),
    ("ZEVD_JOURNAL_INPUT=yes", '"length" or "all"'),
])
def test_a_bad_value_is_reported_and_changes_nothing(station, line, wanted):
    console = station.console("box")
    begin(station, console, lines=(ON, "ZEVD_JOURNAL_INPUT=length"))
    change(station, line, ON, "ZEVD_JOURNAL_INPUT=all")
    station.wait_log(f"Journal: {line} is not {wanted}: the settings of the journal stay as they "
                     "were.")
    assert state(station) == "on"
    user = station.attach("box", user="anna")
    user.send(b"key")
    console.expect(b"key")
    record, = wait_for(station, Kind.INPUT, "box")
    assert Field.TEXT not in record.values
    assert "recorded, passwords included" not in station.log_text()


def test_a_bad_value_at_the_start_leaves_the_journal_off(station):
    configure(station, "ZEVD_JOURNAL=on")
    bring_up(station, station.console("box"))
    assert state(station) == "off"
    assert not journals.directory(station).exists()


def test_the_first_line_of_a_key_counts_and_blanks_at_its_end_do_not(station):
    configure(station, "# ZEVD_JOURNAL=9", "ZEVD_JOURNAL=0  \t", ON)
    bring_up(station, station.console("box"))
    assert state(station) == "off"


def test_the_warning_about_passwords_comes_at_every_load(station):
    console = station.console("box")
    lines = (ON, "ZEVD_JOURNAL_INPUT=all")
    warning = ("Journal: ZEVD_JOURNAL_INPUT=all: what users type is recorded, passwords "
               "included.")
    begin(station, console, lines=lines)
    station.wait_log(warning)
    position = station.mark()
    change(station, *lines)
    station.wait_log(warning, after=position)
    position = station.mark()
    change(station, ON)
    assert warning not in station.log_text(position)


# Where it cannot be


def link_instead(station) -> str:
    """Put a link in the directory's place."""
    (station.root / "elsewhere").mkdir(mode=0o750)
    journals.directory(station).symlink_to("elsewhere")
    return f"{journals.directory(station)} is no directory, or a link"


def anothers(station) -> str:
    """Let the directory be another user's."""
    journals.directory(station).mkdir(mode=0o750)
    os.chown(journals.directory(station), 12345, 12345)
    return (f"{journals.directory(station)} must belong to the daemon's user, and no other may "
            "write in it")


def writable(station) -> str:
    """Let others write in the directory."""
    journals.directory(station).mkdir()
    journals.directory(station).chmod(0o770)
    return (f"{journals.directory(station)} must belong to the daemon's user, and no other may "
            "write in it")


def linked_id(station) -> str:
    """Put a link in the place of the station's number."""
    journals.directory(station).mkdir(mode=0o750)
    (station.root / "mine").write_text("")
    (journals.directory(station) / "id").symlink_to("../mine")
    return f"{journals.directory(station)}/id is no file of one name"


def foreign_id(station) -> str:
    """Put something else in the place of the station's number."""
    journals.directory(station).mkdir(mode=0o750)
    (journals.directory(station) / "id").write_text("uid=0(root) gid=\n")
    (journals.directory(station) / "id").chmod(0o640)
    return f"{journals.directory(station)}/id does not hold the number of a journal"


@pytest.mark.parametrize("spoil", [link_instead, anothers, writable, linked_id, foreign_id])
def test_a_journal_in_a_wrong_place_stays_off_and_costs_nothing_else(station, spoil):
    why = spoil(station)
    console = station.console("box")
    begin(station, console)
    station.wait_log(f"Journal: {why}. {STAYS_OFF}")
    wait_until(lambda: state(station) == "refused", what="the journal to be given up")
    user = station.attach("box")
    user.send(b"typed")
    console.expect(b"typed")
    console.send(b"printed")
    user.expect(b"printed")
    found = {path.name for path in (station.root / "elsewhere").iterdir()} \
        if spoil is link_instead else set()
    assert found == set()


def test_a_reload_tries_again(station):
    link_instead(station)
    console = station.console("box")
    begin(station, console)
    station.wait_log(STAYS_OFF.join(("Journal: " + str(journals.directory(station))
                                     + " is no directory, or a link. ", "")))
    wait_until(lambda: state(station) == "refused", what="the journal to be given up")
    change(station, "ZEVD_JOURNAL=0")
    assert state(station) == "off"
    change(station, ON)
    wait_until(lambda: state(station) == "refused", what="the journal to be given up again")
    journals.directory(station).unlink()
    reload(station)
    wait_for(station, Kind.STARTED)
    assert state(station) == "on"
    print_and_wait(station, console, b"kept")
    wait_output(station, "box", b"kept")


@pytest.mark.needs_namespace
def test_a_second_daemon_leaves_the_journal_alone(station, tmp_path):
    console = station.console("box")
    begin(station, console)
    wait_output(station, "box", READY)
    first, first_log = station.process, station.log
    # Only the journal is shared: the lock file would stop the second one.
    station.lock_file.unlink()
    station.write_config(console_line("other", 1, enable=0))
    position = station.output.size()
    station.start()
    try:
        station.wait_log(f"Journal: another daemon keeps the journal in "
                         f"{journals.directory(station)}. {STAYS_OFF}", after=position)
        wait_until(lambda: state(station) == "refused", what="the journal to be given up")
        assert station.log is first_log
        station.stop()
    finally:
        station.process = first
    station._ended_as_expected = False
    journal = finish(station)
    assert [record.values[Field.PID] for record in journal.of(Kind.STARTED)] == [first.pid]
