"""The pieces that the other tests are written with, tried against plain sockets and processes."""

import os
import re
import select
import shutil
import socket
import subprocess
import sys
import threading
import time

import pytest

from harness import isolation, settings
from harness.consoles import (NEGOTIATION, FakeConsole, ShellConsole, TelnetServerConsole,
                              refusal)
from harness.debuglog import DebugLog, Record, messages, parse
from harness.peers import Peer, User
from harness.station import assert_no_sanitizer_report, console_line
from harness.telnet import TelnetUser
from harness.waiting import (NotReached, connections_of, free_port, is_listening, stretched,
                             wait_until)

OUTPUT = ("ZEV 24/05/06_07:08:09:<main>: One: two\n"
          "ZEV 24/05/06_07:08:10: Last message repeated 3 times\n"
          "ZEV 24/05/06_07:08:10:<cons_mon>: Three: ->a\nb<- (3 bytes)\n"
          "ZEV 24/05/06_07:08:11:<main>: Four\n")


@pytest.fixture
def pair():
    """A fake console and a plain socket that is connected to it."""
    with FakeConsole() as console:
        with socket.create_connection(("127.0.0.1", console.port), 10) as plain:
            yield console.accept(), plain


# Debug lines


def test_debug_lines_are_taken_apart():
    assert parse(OUTPUT) == [
        Record("24/05/06_07:08:09", "main", "One: two\n"),
        Record("24/05/06_07:08:10", "", "", 3),
        Record("24/05/06_07:08:10", "cons_mon", "Three: ->a\nb<- (3 bytes)\n"),
        Record("24/05/06_07:08:11", "main", "Four\n"),
    ]
    assert messages(OUTPUT) == ["One: two\n", "Three: ->a\nb<- (3 bytes)\n", "Four\n"]


def test_waiting_for_a_line_reads_a_growing_file(tmp_path):
    path = tmp_path / "out"
    path.write_text(OUTPUT[:90])
    log = DebugLog(path)
    writer = threading.Timer(0.2, path.write_text, [OUTPUT])
    writer.start()
    found = log.wait("Four")
    writer.join()
    assert (found.thread, found.message, found.end) == ("main", "Four", len(OUTPUT))


def test_collapsed_repeats_count_as_lines(tmp_path):
    path = tmp_path / "out"
    path.write_text(OUTPUT)
    assert DebugLog(path).wait(re.compile("^One"), count=4).end == OUTPUT.index("ZEV", 60)
    with pytest.raises(NotReached):
        DebugLog(path).wait("One: two", count=5, limit=0.1)


def test_only_the_wanted_thread_and_part_of_the_output_count(tmp_path):
    path = tmp_path / "out"
    path.write_text(OUTPUT)
    log = DebugLog(path)
    assert log.wait("Four", thread="main", after=OUTPUT.index("ZEV", 60)).message == "Four"
    with pytest.raises(NotReached):
        log.wait("Four", thread="cons_mon", limit=0.1)
    with pytest.raises(NotReached):
        log.wait("One: two", after=1, limit=0.1)


def test_a_text_must_be_the_whole_message(tmp_path):
    path = tmp_path / "out"
    path.write_text(OUTPUT)
    with pytest.raises(NotReached):
        DebugLog(path).wait("One", limit=0.1)


@pytest.mark.parametrize("report", [
    "==123==ERROR: AddressSanitizer: heap-use-after-free on address 0x1\n",
    "WARNING: ThreadSanitizer: data race (pid=1)\n",
    "==123==ERROR: LeakSanitizer: detected memory leaks\n",
    "zevd/log.cpp:12:3: runtime error: signed integer overflow\n",
])
def test_sanitizer_reports_are_noticed(report):
    with pytest.raises(AssertionError):
        assert_no_sanitizer_report(OUTPUT + report)
    assert_no_sanitizer_report(OUTPUT)


# Waiting


def test_a_wait_that_times_out_says_for_what():
    start = time.monotonic()
    with pytest.raises(NotReached, match="for the moon"):
        wait_until(lambda: False, 0.2, "the moon")
    assert time.monotonic() - start >= stretched(0.2)


def test_ports_are_free_and_all_different():
    ports = {free_port() for _ in range(100)}
    assert len(ports) == 100
    assert not any(is_listening(port) for port in ports)


def test_a_connection_counts_until_the_listening_side_closes_it(fake_console):
    console = fake_console()
    assert connections_of(console.port) == 0
    with socket.create_connection(("127.0.0.1", console.port), 10):
        assert connections_of(console.port) == 1  # not accepted yet
        console.accept()
    wait_until(lambda: console.closed, what="the caller to leave")
    assert connections_of(console.port) == 1
    console.close()
    assert connections_of(console.port) == 0


# Fake consoles and users


def test_a_peer_sends_and_expects_in_order(pair):
    console, plain = pair
    plain.sendall(b"one two three")
    assert console.expect(b"two") == b"one "
    console.expect_exactly(b" three")
    assert console.received == b"one two three" and console.unread == b""
    console.send(b"answer")
    assert plain.recv(6, socket.MSG_WAITALL) == b"answer"


def test_a_failed_expectation_shows_what_arrived(pair):
    console, plain = pair
    plain.sendall(b"abc")
    wait_until(lambda: console.received == b"abc", what="all of it")
    with pytest.raises(NotReached, match="unread is b'abc'"):
        console.expect(b"abd", limit=0.1)
    with pytest.raises(AssertionError, match="expected b'abd', got b'abc'"):
        console.expect_exactly(b"abd")
    with pytest.raises(NotReached, match="exactly b'abcd'"):
        console.expect_exactly(b"abcd", limit=0.1)
    with pytest.raises(NotReached, match="the end"):
        console.expect_closed(limit=0.1)


def test_the_end_of_a_connection_is_seen_once_everything_is_read(pair):
    console, plain = pair
    plain.sendall(b"rest")
    plain.close()
    with pytest.raises(AssertionError, match="b'rest' before the end"):
        console.expect_closed()
    console.expect_exactly(b"rest")
    console.expect_closed()
    assert not console.was_reset
    with pytest.raises(NotReached, match="has ended"):
        console.expect(b"more")


def test_closing_ends_the_stream_and_resetting_breaks_it(pair):
    console, plain = pair
    console.close()
    assert plain.recv(1) == b""
    with socket.create_connection(("127.0.0.1", console.port), 10) as second:
        console.accept()
        console.reset()
        with pytest.raises(ConnectionResetError):
            second.recv(1)


def test_a_console_that_stops_reading_stalls_the_sender_until_it_reads_again(fake_console):
    console = fake_console(buffer=4096)
    with Peer("sender") as sender:
        sender.adopt(socket.create_connection(("127.0.0.1", console.port), 10))
        console.accept().stop_reading()
        flood = sender.flood(b"x" * 65536, 200)
        wait_until(lambda: not sender_can_send(sender), what="the sender to stall")
        assert flood.running and len(console.received) < 65536
        console.read_again()
        flood.join()
        wait_until(lambda: len(console.received) == flood.sent == 65536 * 200, what="all of it")


def sender_can_send(sender: Peer) -> bool:
    """True when the kernel takes more data from the peer within a tenth of a second."""
    return bool(select.select([], [sender.socket], [], 0.1)[1])


def test_a_console_can_refuse_and_be_called_again(fake_console):
    console = fake_console(listening=False)
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", console.port), 10)
    console.listen()
    with socket.create_connection(("127.0.0.1", console.port), 10) as plain:
        wait_until(console.called, what="the call")
        console.accept()
        console.refuse()
        plain.sendall(b"kept")
        console.expect_exactly(b"kept")
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", console.port), 10)


def test_a_hanging_console_answers_no_call(fake_console):
    console = fake_console()
    console.hang()
    with socket.socket() as caller, pytest.raises(TimeoutError):
        caller.settimeout(0.3)
        caller.connect(("127.0.0.1", console.port))


@pytest.mark.parametrize("greeting", [NEGOTIATION, refusal("10.20.30.40")])
def test_a_console_greets_every_caller(fake_console, greeting):
    console = fake_console(greeting=greeting)
    for _ in range(2):
        with User.connect(console.port) as user:
            console.accept()
            user.expect_exactly(greeting)


def test_the_refusal_names_the_holder_as_its_eleventh_word():
    line = refusal("10.20.30.40").decode()
    assert line.startswith("~NET-E-") and "Session is already open to the partition/CLI" in line
    assert line.split()[10] == "10.20.30.40,"


def test_users_send_the_line_that_their_port_wants(fake_console):
    console = fake_console()
    with User.attach(console.port, "c1", mode="er", user="ann", addr="1.2.3.4"):
        console.accept().expect_exactly(b"c1 mode=er user=ann addr=1.2.3.4\n")
    with User.attach(console.port, "c1"):
        console.accept().expect_exactly(b"c1\n")
    with User.mapped(console.port):
        console.accept().expect_exactly(b"\n")


# Real consoles and clients


def test_a_shell_console_runs_commands_on_a_terminal():
    with ShellConsole() as shell, User.connect(shell.port) as user:
        user.send(b"tty; expr 6 '*' 7\n")
        user.expect(b"/dev/pts/")
        user.expect(b"42\r\n")


def test_a_telnet_server_console_negotiates_first():
    with TelnetServerConsole() as server, User.connect(server.port) as user:
        user.expect(b"# ")
        assert user.received.startswith(b"\xff")
        user.send(b"expr 6 '*' 7\r")
        user.expect(b"42\r\n")


def test_a_telnet_client_can_be_used_as_by_a_person(fake_console):
    console = fake_console()
    with TelnetUser(console.port) as user:
        console.accept()
        user.attach("c1", "mode=ro")
        console.expect_exactly(b"c1 mode=ro\r\n")
        console.send(b"\xff\xfb\x01\xff\xfb\x03")
        console.expect_exactly(b"\xff\xfd\x01\xff\xfd\x03")
        user.type("k")
        console.expect_exactly(b"k")
        console.send(b"seen on the screen\r\n")
        user.expect("seen on the screen\r\n")
        console.close()
        user.expect_closed()


# Isolation


def test_the_root_directory_is_empty():
    assert list(settings.root().iterdir()) == []
    (settings.root() / "left over").write_text("for the next test, which must not see it")


def test_the_root_directory_is_empty_again():
    assert list(settings.root().iterdir()) == []
    (settings.root() / "left over").write_text("for the test before, should the order turn")


@pytest.mark.needs_namespace
def test_the_network_is_loopback_alone():
    assert [name for _, name in socket.if_nameindex()] == ["lo"]
    assert os.path.ismount(settings.root())


@pytest.mark.needs_namespace
def test_other_namespaces_do_not_see_this_one():
    assert os.readlink("/proc/self/ns/net") != os.readlink(f"/proc/{os.getppid()}/ns/net")


def test_orphaned_processes_are_ended():
    before = isolation.children()
    subprocess.run(["/bin/sh", "-c", "sleep 1000 & exit 0"], check=True)
    orphans = isolation.children() - before
    assert len(orphans) == 1
    isolation.end_children(before)
    assert isolation.children() == before


def test_the_mount_point_goes_with_the_last_run_that_needs_it(tmp_path, monkeypatch):
    monkeypatch.setattr("tempfile.tempdir", str(tmp_path))
    wanted = tmp_path / "a" / "b"
    first, second = isolation.MountPoint(wanted), isolation.MountPoint(wanted)
    first.hold()
    second.hold()
    first.release()
    assert wanted.is_dir()
    second.release()
    assert list(tmp_path.iterdir()) == []


def test_a_mount_point_that_was_there_stays(tmp_path, monkeypatch):
    monkeypatch.setattr("tempfile.tempdir", str(tmp_path))
    wanted = tmp_path / "a"
    wanted.mkdir()
    mount_point = isolation.MountPoint(wanted)
    mount_point.hold()
    mount_point.release()
    assert list(tmp_path.iterdir()) == [wanted]


def test_a_configuration_line_has_thirteen_fields_and_a_blank_at_its_end():
    assert console_line("c1", 2001, mapped_port=6501, model="P100") == (
        'c1 127.0.0.1 2001 23 6501 P100 sys1 "Unix 5.1" 1 0 1 0 "" \n')


# The run as a whole

PASSING = "def test_it(): pass\n"


@pytest.fixture
def other_run(tmp_path):
    """Runs a copy of this directory that holds no tests but the ones given."""
    copy = tmp_path / "tests" / "system"
    shutil.copytree(settings.SYSTEM_TESTS, copy, ignore=shutil.ignore_patterns("test_*.py"))
    inherited = {name: value for name, value in os.environ.items()
                 if not name.startswith("PYTEST_") and name != settings.BUILD}

    def run(*arguments: str, env: dict[str, str] | None = None,
            **files: str) -> subprocess.CompletedProcess[str]:
        for name, text in files.items():
            (copy / f"{name}.py").write_text(text)
        command = [sys.executable, "-m", "pytest", str(copy), *arguments]
        return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              encoding="utf-8", env={**inherited, **(env or {})}, cwd=tmp_path,
                              timeout=stretched(60), check=False)

    return run


def assert_failed(done: subprocess.CompletedProcess[str], status: int, reason: str) -> None:
    """The run ended with the status, and its output gives the reason."""
    assert done.returncode == status and reason in done.stdout, done.stdout


def test_a_run_of_good_files_succeeds(other_run):
    done = other_run(test_one=PASSING, test_two=PASSING)
    assert done.returncode == 0, done.stdout


@pytest.mark.parametrize("workers", [[], ["-n", "1"]])
def test_a_file_without_a_test_fails_the_run(other_run, workers):
    assert_failed(other_run(*workers, test_one=PASSING, test_two=""),
                  pytest.ExitCode.TESTS_FAILED, "FAILED test_two.py gave no test")


def test_a_run_of_one_file_may_leave_out_the_others(other_run):
    done = other_run("-k", "test_one", test_one=PASSING, test_two=PASSING)
    assert done.returncode == 0, done.stdout


def test_a_skip_that_is_not_allowed_fails_the_run(other_run):
    text = "import pytest\ndef test_it(): pytest.skip('no program')\n"
    assert_failed(other_run(test_one=text), pytest.ExitCode.TESTS_FAILED,
                  "FAILED test_one.py::test_it was skipped without leave")


def test_a_missing_program_fails_the_tests_that_need_it(other_run):
    assert_failed(other_run(test_one="def test_it(station): pass\n"),
                  pytest.ExitCode.TESTS_FAILED, "build it first")


def test_without_namespaces_only_what_needs_one_is_skipped_by_name(other_run):
    text = ("import pytest\n" + PASSING
            + "@pytest.mark.needs_namespace\ndef test_alone(): assert False\n")
    done = other_run(env={settings.NO_NAMESPACES: "1"}, test_one=text)
    assert done.returncode == 0, done.stdout
    assert "FALLBACK, one test at a time" in done.stdout
    assert "needs a namespace of its own: test_alone" in done.stdout
    assert "1 passed, 1 skipped" in done.stdout


def test_without_namespaces_several_workers_are_refused(other_run):
    assert_failed(other_run("-n", "2", env={settings.NO_NAMESPACES: "1"}, test_one=PASSING),
                  pytest.ExitCode.USAGE_ERROR, "leave out -n")
