"""Attempts to reach root's files through the directories that the station's group may write to.

The attacker is a member of the group and a real user. What a member plants must not be followed,
waited for, written to or given away; the daemon says why it does without it, and goes on serving.
"""

import os
import signal
import stat
import subprocess
import time

import pytest

from harness.clock import ShiftedClock
from harness.cookies import cookie_file
from harness.debuglog import messages
from harness.isolation import children
from harness.logs import (add_waker, bring_up, consolidated, consolidated_records, current, dated,
                          log_of, read, records, rotate, wait_records)
from harness.scenes import echo_time, print_and_wait, reload, removal
from harness.station import Detached, console_line
from harness.waiting import free_port, wait_until

pytestmark = pytest.mark.needs_namespace

MEMBER, GROUP = 12346, 4242
AHEAD = 3600  # a clock that stands still must not be behind the directories' times
SECRET = b"ZEVD_ARCH_INT=7\nroot's own\n"

LINK = "Too many levels of symbolic links"
SECOND_NAME = "Too many links"
NO_FILE = "No such device or address"


def as_member(*words) -> None:
    """Run a command as the member of the group."""
    subprocess.run(["setpriv", "--reuid", str(MEMBER), "--regid", str(GROUP), "--clear-groups",
                    "--", *map(str, words)], check=True, capture_output=True)


class Treasure:
    """A file and a directory of root's, which must not change."""

    def __init__(self, station) -> None:
        self.file = station.root / "secret"
        self.file.write_bytes(SECRET)
        self.file.chmod(0o644)
        self.directory = station.root / "private"
        self.directory.mkdir(mode=0o700)
        self.before = self.look()

    def look(self) -> list:
        """All that could be changed, except the link count, which a member may raise."""
        found = []
        for path in (self.file, self.directory):
            status = path.stat()
            found += [status.st_uid, status.st_gid, status.st_mode, status.st_mtime_ns]
        return [*found, self.file.read_bytes(), sorted(self.directory.iterdir())]

    def untouched(self) -> None:
        """Nothing has changed."""
        assert self.look() == self.before


@pytest.fixture
def treasure(station):
    """The station belongs to the group, which may write its logs."""
    os.chown(station.root, -1, GROUP)
    os.chown(station.logs, -1, GROUP)
    station.logs.chmod(0o770)
    return Treasure(station)


@pytest.fixture
def shared_config(station, treasure):
    """The group may write the configuration, too."""
    os.chown(station.config, -1, GROUP)
    station.config.chmod(0o770)
    return treasure


def plant_link(path, treasure) -> None:
    as_member("ln", "-sfn", treasure.file, path)


def plant_link_to_nothing(path, treasure) -> None:
    as_member("ln", "-sfn", treasure.file.parent / "not-yet", path)


def plant_second_name(path, treasure) -> None:
    """Done by root: some kernels forbid it to those who may not write the file."""
    as_member("rm", "-f", path)
    os.link(treasure.file, path)


def plant_pipe(path, _treasure) -> None:
    as_member("rm", "-f", path)
    as_member("mkfifo", path)


def plant_directory(path, _treasure) -> None:
    as_member("rm", "-f", path)
    as_member("mkdir", path)


PLANTED = [pytest.param(plant, error, id=plant.__name__) for plant, error in (
    (plant_link, LINK), (plant_link_to_nothing, LINK), (plant_second_name, SECOND_NAME),
    (plant_pipe, NO_FILE), (plant_directory, "Is a directory"))]


def serves(station, box) -> None:
    """A user gets to the console, and what is typed comes back."""
    user = station.attach("box", user="ann")
    assert echo_time(user, box, b"k", limit=5) < 5
    user.close()
    station.wait_log(removal("ann"))


@pytest.fixture
def rotating(station, treasure, tmp_path):
    """A station whose clock stands still, so that each rotation opens the logs of one directory."""
    station.treasure = treasure
    station.clock = ShiftedClock(tmp_path)
    station.clock.hold()
    station.clock.shift(AHEAD)
    station.now = int(time.time()) + AHEAD
    station.waker = add_waker(station)
    station.box = station.console("box")
    for console in (station.box, station.waker):
        console.greeting = b"ready\n"
    station.start(env=station.clock.env)
    for console in (station.box, station.waker):
        console.accept()
        station.wait_connected(console.name)
    wait_until(lambda: read(consolidated(station)), what="the first records")
    return station


# Logs


@pytest.mark.parametrize("plant, error", PLANTED)
def test_nothing_but_a_file_of_one_name_is_a_log(rotating, plant, error):
    station, box = rotating, rotating.box
    plant(log_of(station, "box"), station.treasure)
    position = station.mark()
    rotate(station, station.waker)
    station.wait_log(f'OpenLogFile: open() failed for "{station.logs}//zev.dated/current/box.log" '
                     f": {error}", after=position)
    print_and_wait(station, box, b"not for secrets\n")
    serves(station, box)
    station.treasure.untouched()
    assert not (station.root / "not-yet").exists()

    # Once it is gone, the next rotation opens the log again.
    as_member("rm", "-rf", log_of(station, "box"))
    rotate(station, station.waker)
    box.send(b"logged\n")
    wait_until(lambda: b" logged\n" in read(log_of(station, "box")), what="the record")


@pytest.mark.parametrize("plant, error", PLANTED)
def test_nothing_but_a_file_of_one_name_is_the_consolidated_log(rotating, plant, error):
    station, box = rotating, rotating.box
    plant(consolidated(station), station.treasure)
    position = station.mark()
    rotate(station, station.waker)
    station.wait_log("OpenConsolidatedLogFile: open() failed for "
                     f'"{station.logs}//zev.dated/current/consolidated.log" : {error}',
                     after=position)
    box.send(b"in its own log\n")
    wait_until(lambda: b" in its own log\n" in read(log_of(station, "box")), what="the record")
    serves(station, box)
    station.treasure.untouched()


def test_a_pipe_that_somebody_reads_gets_nothing(rotating):
    station = rotating
    pipe = log_of(station, "box")
    plant_pipe(pipe, station.treasure)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    position = station.mark()
    rotate(station, station.waker)
    station.wait_log(f'OpenLogFile: open() failed for "{station.logs}//zev.dated/current/box.log" '
                     f": {NO_FILE}", after=position)
    print_and_wait(station, station.box, b"nothing\n")
    assert os.read(reader, 100) == b""
    os.close(reader)


def test_a_log_that_a_member_made_is_written_and_remains_the_members(rotating):
    """It is a regular file, and gives the member nothing beyond the group's own rights."""
    station = rotating
    as_member("rm", log_of(station, "box"))
    as_member("touch", log_of(station, "box"))
    rotate(station, station.waker)
    station.box.send(b"logged\n")
    wait_until(lambda: b" logged\n" in read(log_of(station, "box")), what="the record")
    assert log_of(station, "box").stat().st_uid == MEMBER


# Directories


def next_minute(station) -> str:
    """The name of the directory that is begun a minute from now."""
    return time.strftime("%d-%b-%H:%M", time.localtime(station.now + 60))


def test_the_next_directory_is_no_link(rotating):
    station, box = rotating, rotating.box
    former = current(station).resolve()
    as_member("ln", "-s", station.treasure.directory, dated(station) / next_minute(station))
    station.clock.shift(AHEAD + 60)
    position = station.mark()
    rotate(station, station.waker)
    station.wait_log(f"CreateSymlinkToCurrDir: mkdir( {station.logs}//zev.dated/"
                     f"{next_minute(station)}, ...) failed : Not a directory", after=position)
    serves(station, box)
    station.treasure.untouched()
    station.clock.shift(AHEAD + 120)
    rotate(station, station.waker)
    box.send(b"logged\n")
    wait_until(lambda: b" logged\n" in read(log_of(station, "box")), what="the record")
    assert current(station).resolve() != former
    station.treasure.untouched()


def test_a_directory_that_a_member_made_is_used_as_one(rotating):
    station = rotating
    as_member("mkdir", dated(station) / next_minute(station))
    as_member("ln", "-s", station.treasure.file, dated(station) / next_minute(station) / "box.log")
    station.clock.shift(AHEAD + 60)
    position = station.mark()
    rotate(station, station.waker)
    station.wait_log(f'OpenLogFile: open() failed for "{station.logs}//zev.dated/current/box.log" '
                     f": {LINK}", after=position)
    serves(station, station.box)
    station.treasure.untouched()
    assert (dated(station) / next_minute(station)).stat().st_gid == GROUP


@pytest.mark.parametrize("target", ["{private}", "../../private", "{dated}/linked", "linked",
                                    "{dated}/../../private", "."])
def test_current_leads_nowhere_else(rotating, target):
    station = rotating
    as_member("ln", "-s", station.treasure.directory, dated(station) / "linked")
    as_member("ln", "-sfn", target.format(private=station.treasure.directory,
                                          dated=dated(station)), current(station))
    # The daemon looks at a log again when it calls the console again.
    station.box.close()
    station.box.accept()
    wait_until(lambda: current(station).resolve().parent == dated(station)
               and current(station).resolve().name != "linked", what="the link to be replaced")
    wait_until(lambda: b" ready\n" in read(log_of(station, "box")), what="the record")
    station.treasure.untouched()


def test_the_directory_of_the_directories_is_no_link(rotating):
    station = rotating
    as_member("mv", dated(station), station.logs / "aside")
    as_member("ln", "-s", station.treasure.directory, dated(station))
    position = station.mark()
    rotate(station, station.waker)
    station.wait_log(f"CreateZevDatedDir: mkdir( {station.logs}//zev.dated, ...) failed : "
                     "Not a directory", after=position)
    serves(station, station.box)
    station.treasure.untouched()


# The configuration


@pytest.mark.parametrize("plant, error", PLANTED)
def test_nothing_but_a_file_of_one_name_is_the_cookie(station, shared_config, plant, error):
    plant(cookie_file(station), shared_config)
    done = station.run("-f", "-S", "1", "-p", str(free_port()))
    assert done.returncode == 1
    assert f"GenerateCookie: fopen() failed : {error}\n" in messages(done.stdout)
    shared_config.untouched()
    assert not (station.root / "not-yet").exists()


@pytest.mark.parametrize("plant, error", PLANTED)
def test_nothing_but_a_file_of_one_name_is_the_lock(station, shared_config, plant, error):
    plant(station.lock_file, shared_config)
    done = station.run("-f", "-S", "0", "-p", str(free_port()))
    assert done.returncode == 1
    said = messages(done.stdout)
    assert f'Lock: open( "{station.lock_file}", ...) failed : {error}\n' in said
    assert (f'GetHostFromLockFile: fopen( "{station.lock_file}", ...) failed : {error}\n') in said
    assert done.stderr == "zevd is already running.\n", "no line of another file is shown"
    shared_config.untouched()
    assert not (station.root / "not-yet").exists()


@pytest.mark.parametrize("options", [(), ("-a", "2w")])
@pytest.mark.parametrize("plant, error", PLANTED)
def test_nothing_but_a_file_of_one_name_is_the_suites_configuration(station, shared_config, plant,
                                                                    error, options):
    path = station.config / "qor.conf"
    plant(path, shared_config)
    done = station.run("-f", "-S", "0", "-p", str(free_port()), *options)
    assert done.returncode == 1
    assert messages(done.stdout)[0] == (
        f'GetZevdArchIntFromConfFile: fopen( "{path}", ...) failed : {error}\n')
    shared_config.untouched()
    assert not (station.root / "not-yet").exists()


@pytest.mark.parametrize("plant, error", PLANTED)
def test_a_suites_configuration_that_is_replaced_ends_the_daemon_at_a_hangup(station, shared_config,
                                                                             plant, error):
    path = station.config / "qor.conf"
    station.start()
    plant(path, shared_config)
    station.signal(signal.SIGHUP)
    station.expect_exit(1)
    assert (f'GetZevdArchIntFromConfFile: fopen( "{path}", ...) failed : {error}\n'
            in messages(station.log_text()))
    shared_config.untouched()


@pytest.mark.parametrize("mode", [0o751, 0o755, 0o777])
def test_a_configuration_that_is_open_to_others_is_reported(station, mode):
    station.config.chmod(mode)
    station.start("-d", "0")
    station.wait_log(f'CheckConfigDir: "{station.config}" is open to others (mode {mode:04o}). '
                     "Set its mode to 0750.")


def test_a_configuration_for_owner_and_group_is_not_reported(station):
    station.config.chmod(0o2770)
    station.start("-d", "0")
    assert "open to others" not in station.log_text()


# The daemon's own output


@pytest.mark.parametrize("plant", [plant_link, plant_link_to_nothing, plant_second_name,
                                   plant_pipe, plant_directory], ids=lambda plant: plant.__name__)
def test_the_output_file_takes_the_place_of_what_was_planted(station, treasure, plant):
    plant(station.logs / "zevd.log", treasure)
    station.start(detached=True)
    status = (station.logs / "zevd.log").lstat()
    assert stat.S_ISREG(status.st_mode) and status.st_uid == os.geteuid()
    treasure.untouched()
    assert not (station.root / "not-yet").exists()


@pytest.mark.parametrize("plant", [plant_link, plant_second_name, plant_pipe],
                         ids=lambda plant: plant.__name__)
def test_a_file_that_cannot_be_moved_aside_is_not_written(station, treasure, plant):
    as_member("mkdir", "-p", station.logs / "zevd.log.old" / "kept")
    plant(station.logs / "zevd.log", treasure)
    before = children()
    assert station.run("-S", "0", "-p", str(free_port())).returncode == 0
    left, = children() - before
    process = Detached(left)
    wait_until(lambda: process.poll() is not None, what="the detached process to end")
    assert process.returncode == 1
    treasure.untouched()


def test_output_is_appended_to_what_is_left_of_the_file(station):
    station.start(detached=True)
    station.wait_log("Entering MonitorConsoleOutput")
    os.truncate(station.logs / "zevd.log", 0)
    wait_until(lambda: (station.logs / "zevd.log").stat().st_size, what="more output")
    assert (station.logs / "zevd.log").read_bytes()[:4] == b"ZEV "


# Names that lead elsewhere


NAMES = ["../../../stolen", "{root}/stolen", "../box", "x/y", ".", "..", "consolidated"]


@pytest.mark.parametrize("name", NAMES)
def test_a_console_with_such_a_name_is_served_without_a_log(station, treasure, name):
    name = name.format(root=station.root)
    box, odd = station.console("box"), station.console(name, greeting=b"hello\n")
    bring_up(station, box)
    odd.accept()
    station.wait_connected(name)
    station.wait_log(f'OpenLogFile: open() failed for "{station.logs}//zev.dated/current/{name}.log'
                     '" : Invalid argument')
    odd.send(b"forged\n")
    station.wait_log(f"WriteLogFile: Log file for {name} has not been opened.")
    user = station.attach(name)
    assert echo_time(user, odd, b"k", limit=5) < 5
    box.send(b"true\n")
    wait_records(log_of(station, "box"), [b"true\n"])
    assert consolidated_records(consolidated(station)) == [("box", b"true\n")]
    assert sorted(path.name for path in current(station).iterdir()) == ["box.log",
                                                                        "consolidated.log"]
    assert list(station.root.glob("**/stolen*")) == []
    treasure.untouched()


@pytest.mark.parametrize("name", NAMES)
def test_a_console_that_is_given_such_a_name_moves_no_file(station, treasure, name):
    name = name.format(root=station.root)
    box = station.console("box")
    bring_up(station, box)
    station.wait_connected("box")
    print_and_wait(station, box, b"logged\nbegun")
    position = station.mark()
    station.write_config(console_line(name, box.port))
    reload(station)
    station.wait_log(f'OpenLogFile: open() failed for "{station.logs}//zev.dated/current/{name}.log'
                     '" : Invalid argument', after=position)
    user = station.attach(name)
    assert echo_time(user, box, b"k", limit=5) < 5
    assert records(log_of(station, "box")) == [b"logged\n", b"begun", b"\n"]
    assert list(station.root.glob("**/stolen*")) == []
    treasure.untouched()

    # With a name that is allowed for a log, the console gets one at once.
    station.write_config(console_line("chest", box.port))
    reload(station)
    user.close()
    box.send(b"again\n")
    wait_until(lambda: b"again\n" in read(log_of(station, "chest")), what="the record")


def test_two_consoles_that_swap_their_names_swap_their_logs(station):
    boxes = {name: station.console(name) for name in ("left", "right")}
    bring_up(station, *boxes.values())
    for name, box in boxes.items():
        station.wait_connected(name)
        print_and_wait(station, box, b"was %s\nunended" % name.encode())
    position = station.mark()
    station.write_config(console_line("right", boxes["left"].port)
                         + console_line("left", boxes["right"].port))
    reload(station)
    boxes["left"].send(b"became right\n")
    boxes["right"].send(b"became left\n")
    wait_records(log_of(station, "left"),
                 [b"was left\n", b"unended", b"\n", b"became left\n"])
    wait_records(log_of(station, "right"),
                 [b"was right\n", b"unended", b"\n", b"became right\n"])
    assert "failed" not in station.log_text(position)


def test_names_that_move_from_console_to_console_do_not_mix_logs(station):
    """The first console takes the second's name before the second has the third's."""
    boxes = [station.console(name) for name in ("a", "b", "c")]
    bring_up(station, *boxes)
    for name, box in zip("abc", boxes):
        station.wait_connected(name)
        print_and_wait(station, box, b"was %s\n" % name.encode())
    station.write_config("".join(console_line(name, box.port)
                                 for name, box in zip("bcd", boxes)))
    reload(station)
    for name, box in zip(b"bcd", boxes):
        box.send(b"is %c\n" % name)
    wait_records(log_of(station, "a"), [b"was a\n"])
    wait_records(log_of(station, "b"), [b"was b\n", b"is b\n"])
    wait_records(log_of(station, "c"), [b"was c\n", b"is c\n"])
    wait_records(log_of(station, "d"), [b"is d\n"])


# A word in place of a number


def test_flags_that_are_words_are_reported_at_each_load(station):
    box = station.console("box", auth="yes")
    station.console("other", auth="on", enable=0)
    station.console("right", auth=1, enable=0)
    station.start("-d", "1")
    text = ("LoadConfigFile: Consoles without a login because their authentication flag is not a "
            "number: {}, the first is \"{}\".")
    station.wait_log(text.format(2, "box"))
    position = station.mark()
    station.write_config(console_line("box", box.port, auth=0)
                         + console_line("other", free_port(), auth="on", enable=0))
    reload(station)
    station.wait_log(text.format(1, "other"), after=position)
    position = station.mark()
    station.write_config(console_line("box", box.port, auth=1))
    reload(station)
    assert "is not a number" not in station.log_text(position)
