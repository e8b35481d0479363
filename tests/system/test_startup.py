"""Start-up: the command line, detaching from the terminal, and one instance per machine."""

import fcntl
import os
import re
import socket
import stat
import subprocess
import time

import pytest

from harness import settings
from harness.debuglog import messages
from harness.isolation import children
from harness.station import Detached
from harness.waiting import LIMIT, free_port, is_listening, stretched, wait_listening, wait_until

USAGE = """usage: {program} [options]

 options:
   -a N[dw]          Archive log files every N days (d) or weeks (w).
                     Default: {days} days
   -c config_file    Configuration file containing consoles to monitor.
                     Default: {config}
   -d N              Set debug level to N
                     Default: {level}
   -D                Connect to management ports only on demand.
   -f                Run in foreground mode.
   -h                Display this help message.
   -l                Log file directory.
                     Default: {logs}
   -p N              Listen on port N for user connections.
                     Default: {port}
   -s {{ 0 | 1 }}      Strip carriage returns from log files.
                     Default: {suppress}
   -B N              Send up to N bytes of buffered console output when the
                     user connects to the console.
                     Default: {buffer}
   -S {{ 0 | 1 }}      Turn on/off security.
                     Default: {security}
   -V                Display version.
"""

EXIT_TRACE = r"Exiting with code {} from file \w+(\.\w+)? line \d+"


def usage(station, **shown) -> str:
    """The usage text, with the defaults except where others are given."""
    defaults = {"program": station.program, "days": 7, "config": station.config_file, "level": 0,
                "logs": station.logs, "port": 6500, "suppress": 1, "buffer": 0, "security": 1}
    return USAGE.format(**{**defaults, **shown})


def without_debug_lines(text: str) -> str:
    """The text without its debug lines; only for messages of one line."""
    return re.sub(r"^ZEV .*\n", "", text, flags=re.MULTILINE)


def assert_refused(done, stderr: str) -> None:
    """The program ended with status 1, saying only this on standard error."""
    assert (done.returncode, done.stderr, done.stdout) == (1, stderr, "")


# Usage and version


def test_usage_shows_the_defaults(station):
    done = station.run("-h")
    assert (done.returncode, done.stdout, done.stderr) == (0, usage(station), "")


def test_usage_names_the_program_as_it_was_called(station):
    done = station.run("-h", argv0="some/other name")
    assert done.stdout == usage(station, program="some/other name")


@pytest.mark.parametrize("options, shown", [
    (["-a", "2w"], {"days": 14}),
    (["-a", "3"], {"days": 3}),
    (["-a", "3d"], {"days": 3}),
    (["-a", "90m"], {"days": 0}),
    (["-a", "1440m"], {"days": 1}),
    (["-a", "0d"], {"days": 0}),
    (["-a", "w"], {"days": 0}),
    (["-a", "x5"], {"days": 0}),
    (["-a", "-1"], {"days": -1}),
    (["-c", "some/zev.conf"], {"config": "some/zev.conf"}),
    (["-c", ""], {"config": ""}),
    (["-f"], {}),
    (["-l", "/some/where"], {"logs": "/some/where"}),
    (["-p", "70000"], {"port": 4464}),
    (["-p", "-1"], {"port": 65535}),
    (["-p", "port"], {"port": 0}),
    (["-s", "7"], {"suppress": 7}),
    (["-s", "x"], {"suppress": 0}),
    (["-B", "-5"], {"buffer": -5}),
    (["-B", "4096k"], {"buffer": 4096}),
    (["-S", "-3"], {"security": -3}),
    (["-S0"], {"security": 0}),
    (["-s", "0", "-S", "0", "-B", "9", "-p", "1", "-l", "L", "-c", "C", "-a", "1w"],
     {"suppress": 0, "security": 0, "buffer": 9, "port": 1, "logs": "L", "config": "C",
      "days": 7}),
    (["-p", "1", "-p", "2"], {"port": 2}),
    (["-fh"], {}),
])
def test_options_before_h_change_the_defaults_that_usage_shows(station, options, shown):
    done = station.run(*options, "-h")
    assert (done.returncode, done.stdout, done.stderr) == (0, usage(station, **shown), "")


@pytest.mark.parametrize("weeks", ["99999999w", "2147483647w", "-99999999w"])
def test_a_huge_archive_time_wraps_in_32_bits(station, weeks):
    seconds = (int(weeks[:-1]) * 604800 + 2**31) % 2**32 - 2**31
    days = abs(seconds) // 86400 * (1 if seconds >= 0 else -1)
    assert station.run("-a", weeks, "-h").stdout == usage(station, days=days)


def test_the_debug_level_shows_in_usage_and_works_at_once(station):
    done = station.run("-d", "5", "-h")
    assert done.returncode == 0
    assert without_debug_lines(done.stdout) == usage(station, level=5)
    first, *_, last = done.stdout.splitlines()
    assert first.endswith(":<main>: Entering ShowUsage")
    assert re.search(":<main>: " + EXIT_TRACE.format(0) + "$", last)


@pytest.mark.parametrize("later", [["-p", "1"], ["-a", "3x"], ["-Z"], ["-D", "x"], ["-V"]])
def test_options_after_h_are_ignored(station, later):
    done = station.run("-h", *later)
    assert (done.returncode, done.stdout, done.stderr) == (0, usage(station), "")


def test_the_version_is_shown(station):
    done = station.run("-V", "-h")
    assert (done.returncode, done.stderr) == (0, "")
    assert re.fullmatch(r"QOR version \S.* build date \S.*\n", done.stdout)


# Options that are refused


@pytest.mark.parametrize("argument", ["3x", "", "d3x", "3W", "3 ", "3h"])
def test_an_invalid_archive_time_is_refused(station, argument):
    assert_refused(station.run("-a", argument), f'Invalid option "-a {argument}"\n')


def test_the_first_invalid_option_decides(station):
    assert_refused(station.run("-a", "3x", "-Z", "-h"), 'Invalid option "-a 3x"\n')


@pytest.mark.parametrize("options, complaint", [
    (["-Z"], "invalid option -- 'Z'"),
    (["-f", "-?"], "invalid option -- '?'"),
    (["-D"], "option requires an argument -- 'D'"),
    (["-p"], "option requires an argument -- 'p'"),
    (["-Z", "-h"], "invalid option -- 'Z'"),
])
def test_the_option_parser_reports_what_is_wrong(station, options, complaint):
    assert_refused(station.run(*options), f"{station.program}: {complaint}\n")


@pytest.mark.parametrize("options", [["-D", "x"], ["-Dx"], ["-f", "-D", "-h"], ["-D", "0", "-h"]])
def test_connecting_on_demand_is_refused_silently(station, options):
    assert_refused(station.run(*options), "")


@pytest.mark.parametrize("level, traced", [("0", 0), ("1", 1)])
@pytest.mark.parametrize("options", [["-D", "x"], ["-Z"], ["-a", "3x"]])
def test_a_refused_option_leaves_an_exit_trace(station, level, traced, options):
    done = station.run("-d", level, *options)
    assert done.returncode == 1
    assert len(re.findall(r"^ZEV .*:<main>: " + EXIT_TRACE.format(1) + "$", done.stdout,
                          re.MULTILINE)) == traced
    assert len(done.stdout.splitlines()) == traced


# Running


def test_in_the_foreground_nothing_is_redirected(station):
    station.start()
    assert os.readlink(f"/proc/{station.pid}/fd/1") == str(station.output.path)
    assert os.readlink(f"/proc/{station.pid}/fd/2") == str(station.output.path)
    assert not (station.logs / "zevd.log").exists()
    station.wait_log("Entering MonitorConsoleOutput", thread="main")


def test_a_port_above_16_bits_is_truncated(station):
    port = free_port()
    station.start("-p", str(65536 + port))
    assert station.port == port and is_listening(port)
    station.wait_log(f"ListenOnPort: bind() to port {port} succeeded", thread="user_conn")


def test_sigterm_ends_the_daemon_with_status_1(station):
    station.start("-d", "1")
    position = station.mark()
    station.stop()
    said = messages(station.log_text(position))
    assert "Received SIGTERM.\n" in said
    assert re.fullmatch(EXIT_TRACE.format(1) + "\n", said[-1])


START_UP = ["GetZevdArchIntFromConfFile", "Lock", "ConnectToJix", "Initialize",
            "InitConsoleList", "InitUserList", "InitCommandList", "InitEventSetList",
            "InitMappedPortList", "BlockSignal", "LoadEventFiles", "LoadConfigFile", "LoadModels",
            "LogDirExpired", "OpenConsolidatedLogFile", "CreateConsoleConnectionsThread",
            "CreateUserConnectionsThread", "CreateUserMonitorThread",
            "CreateCommandMonitorThread", "MonitorConsoleOutput"]


@pytest.mark.parametrize("security", ["0", "1"])
def test_the_order_of_starting_up(station, security):
    station.start("-S", security)
    station.wait_log("Entering MonitorConsoleOutput")
    entered = re.findall(r"^ZEV \S+:<main>: Entering (\w+)$", station.log_text(), re.MULTILINE)
    wanted = list(START_UP)
    if security == "1":
        wanted.insert(wanted.index("LoadEventFiles"), "GenerateCookie")
    assert in_order(wanted, entered), entered
    assert ("GenerateCookie" in entered) == (security == "1")


def in_order(expected: list[str], found: list[str]) -> bool:
    """True when `found` holds all of `expected` in that order, perhaps with others in between."""
    rest = iter(found)
    return all(name in rest for name in expected)


@pytest.mark.parametrize("missing", ["zev.conf", "no such directory/zev.conf"])
def test_without_its_configuration_file_the_daemon_ends(station, missing):
    done = station.run("-f", "-S", "0", "-d", "1", "-c", str(station.events / missing))
    assert done.returncode == 1
    *_, reason, trace = messages(done.stdout)
    assert reason == "LoadConfigFile: open() failed : No such file or directory\n"
    assert re.fullmatch(EXIT_TRACE.format(1) + "\n", trace)


def test_files_are_closed_to_others(station):
    station.start(detached=True)
    for path in (station.lock_file, station.logs / "zevd.log"):
        assert stat.S_IMODE(path.stat().st_mode) & 0o007 == 0


# Detaching


def test_the_daemon_detaches(station):
    station.start(detached=True)
    assert os.getsid(station.pid) not in (0, os.getsid(0))
    assert os.readlink(f"/proc/{station.pid}/cwd") == os.getcwd()
    assert os.readlink(f"/proc/{station.pid}/fd/0") == os.devnull
    zevd_log = station.logs / "zevd.log"
    for descriptor in (1, 2):
        assert os.readlink(f"/proc/{station.pid}/fd/{descriptor}") == str(zevd_log)
    station.wait_log("Entering MonitorConsoleOutput")
    station.stop()


def test_before_detaching_debug_lines_go_to_the_terminal(station):
    station.start(detached=True)
    said = station.output.text()
    assert ":<main>: Entering RunAsDaemon\n" in said
    assert "Initialize" not in said
    station.wait_log("Entering Initialize")
    assert "Entering RunAsDaemon" not in station.log_text()


def test_the_output_file_has_its_mode_and_group(station):
    os.chown(station.root, -1, 12345)
    station.start(detached=True)
    status = (station.logs / "zevd.log").stat()
    assert stat.S_IMODE(status.st_mode) == 0o770
    assert (status.st_uid, status.st_gid) == (os.geteuid(), 12345)


def test_the_output_of_the_last_run_is_kept(station):
    (station.logs / "zevd.log").write_text("the run before\n")
    (station.logs / "zevd.log.old").write_text("the run before that\n")
    station.start(detached=True)
    assert (station.logs / "zevd.log.old").read_text() == "the run before\n"
    assert "the run before" not in station.log_text()


def test_a_first_run_has_no_old_output(station):
    station.start(detached=True)
    assert not (station.logs / "zevd.log.old").exists()


def test_the_output_file_is_in_the_log_directory(station):
    other = station.root / "other logs; exit"
    other.mkdir()
    (other / "zevd.log").write_text("the run before\n")
    station.start("-l", str(other), detached=True)
    station.wait_log("Entering MonitorConsoleOutput")
    assert (other / "zevd.log.old").read_text() == "the run before\n"
    assert not (station.logs / "zevd.log").exists()


def test_without_a_log_directory_the_detached_process_ends(station):
    before = children()
    done = station.run("-S", "0", "-p", str(free_port()), "-l", str(station.root / "nowhere"))
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert wait_for_end(children() - before) == 1


def wait_for_end(detached: set[int]) -> int:
    """The exit status of the one process that was left running."""
    assert len(detached) == 1
    process = Detached(detached.pop())
    wait_until(lambda: process.poll() is not None, what="the detached process to end")
    return process.returncode


STRANGER = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
int daemon(int keep_directory, int keep_output) {
  int (*next)(int, int) = (int (*)(int, int))dlsym(RTLD_NEXT, "daemon");
  const int result = next(keep_directory, keep_output);
  flock(open(getenv("STRANGERS_LOCK"), O_RDWR), LOCK_EX | LOCK_NB);
  return result;
}
"""


def test_a_stranger_who_takes_the_lock_while_it_detaches_wins(station, tmp_path):
    """A lock taken through another open file description belongs to another process."""
    library = tmp_path / "stranger.so"
    subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", library], input=STRANGER,
                   text=True, check=True)
    before = children()
    done = station.run("-S", "0", "-d", "1", "-p", str(free_port()),
                       env={"LD_PRELOAD": str(library), "STRANGERS_LOCK": str(station.lock_file),
                            **settings.sanitizer_options("verify_asan_link_order=0")})
    assert done.returncode == 0
    assert wait_for_end(children() - before) == 1
    said = messages((station.logs / "zevd.log").read_text(encoding="latin-1"))
    assert said[0] == "Lock: flock() failed : Resource temporarily unavailable\n"
    assert said[1] == "zevd is already running on this machine.\n"
    assert re.fullmatch(EXIT_TRACE.format(1) + "\n", said[2]) and len(said) == 3


# One instance per machine


def test_the_lock_file_holds_the_host_name_alone(station):
    os.chown(station.root, -1, 12345)
    station.start()
    assert station.lock_file.read_text() == socket.gethostname()
    status = station.lock_file.stat()
    assert stat.S_IMODE(status.st_mode) == 0o660
    assert (status.st_uid, status.st_gid) == (os.geteuid(), 12345)


@pytest.mark.parametrize("detached", [False, True])
def test_a_second_instance_is_refused(station, detached):
    station.start(detached=detached)
    written = station.lock_file.stat().st_mtime_ns
    for options in ([], ["-f"]):
        assert_refused(station.run("-S", "0", "-p", str(free_port()), *options),
                       f'zevd is already running on "{socket.gethostname()}".\n')
    assert station.lock_file.read_text() == socket.gethostname()
    assert station.lock_file.stat().st_mtime_ns == written
    assert station.running and is_listening(station.port)


def without_descriptors(closed: str, *words: str) -> list[str]:
    """The command line of a program that is started with these descriptors closed."""
    return ["bash", "-c", f'exec "$@" {closed}', "bash", *map(str, words)]


@pytest.mark.parametrize("closed", ["<&-", ">&-", "2>&-", ">&- 2>&-", "<&- >&- 2>&-"])
def test_a_second_instance_without_standard_descriptors_writes_into_no_file(station, closed):
    station.start()
    words = without_descriptors(closed, station.program, "-f", "-S", "0", "-d", "3", "-p",
                                free_port())
    assert subprocess.run(words, capture_output=True, timeout=stretched(LIMIT),
                          check=False).returncode == 1
    assert station.lock_file.read_text() == socket.gethostname()


def test_without_standard_descriptors_the_output_goes_nowhere(station):
    port = free_port()
    words = without_descriptors("<&- >&- 2>&-", station.program, "-f", "-S", "0", "-d", "3", "-p",
                                port)
    daemon = subprocess.Popen(words)
    try:
        wait_listening(port)
        for number in range(3):
            assert os.readlink(f"/proc/{daemon.pid}/fd/{number}") == "/dev/null"
        assert station.lock_file.read_text() == socket.gethostname()
    finally:
        daemon.kill()
        daemon.wait()


def test_a_refused_second_instance_leaves_the_output_of_the_first_alone(station):
    station.start(detached=True)
    position = station.mark()
    assert station.run("-S", "0").returncode == 1
    assert not (station.logs / "zevd.log.old").exists()
    wait_until(lambda: station.mark() > position, what="the first instance to say more")


def test_the_refusal_is_traced_at_level_1(station):
    station.start()
    done = station.run("-f", "-S", "0", "-d", "1")
    said = messages(done.stdout)
    assert said[0] == "Lock: flock() failed : Resource temporarily unavailable\n"
    assert re.fullmatch(EXIT_TRACE.format(1) + "\n", said[1]) and len(said) == 2


@pytest.mark.parametrize("content", ["", "some-host", "some-host" * 20])
def test_a_stale_lock_file_does_not_matter(station, content):
    station.lock_file.write_text(content)
    station.start()
    assert station.lock_file.read_text() == socket.gethostname()


def test_an_existing_lock_file_keeps_its_group_and_mode(station):
    station.lock_file.touch()
    station.lock_file.chmod(0o640)
    os.chown(station.lock_file, -1, 4321)
    os.chown(station.root, -1, 12345)
    station.start()
    status = station.lock_file.stat()
    assert (stat.S_IMODE(status.st_mode), status.st_gid) == (0o640, 4321)


@pytest.mark.parametrize("content, message", [
    ("", "zevd is already running.\n"),
    ("other-host", 'zevd is already running on "other-host".\n'),
    ("x" * 64, f'zevd is already running on "{"x" * 64}".\n'),
    ("x" * 100, f'zevd is already running on "{"x" * 64}".\n'),
])
def test_the_refusal_names_the_host_in_the_locked_file(station, content, message):
    station.lock_file.write_text(content)
    with open(station.lock_file, "rb") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        done = station.run("-f", "-S", "0")
    assert (done.returncode, done.stderr) == (1, message)
    said = messages(done.stdout)
    if content:
        assert said == []
    else:
        assert len(said) == 1 and said[0].startswith("GetHostFromLockFile: fgets() failed : ")
    assert station.lock_file.read_text() == content


def test_a_lock_file_that_cannot_be_opened_counts_as_locked(station):
    station.lock_file.mkdir()
    done = station.run("-f", "-S", "0")
    assert (done.returncode, done.stderr) == (1, "zevd is already running.\n")
    said = messages(done.stdout)
    assert said[0] == f'Lock: open( "{station.lock_file}", ...) failed : Is a directory\n'


def test_the_lock_ends_with_the_process(station):
    station.start()
    station.stop()
    station.start()
    assert station.running


def test_ending_waits_for_nothing(station):
    """With a user and a console attached, SIGTERM still ends it at once."""
    console = station.console("c1")
    station.start()
    console.accept()
    station.wait_connected("c1")
    user = station.attach("c1")
    start = time.monotonic()
    station.stop()
    assert time.monotonic() - start < stretched(1)
    user.expect_closed()
    console.expect_closed()
