"""The real password helper, with accounts of the test's own in a private user database."""

import ctypes
import os
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest

from harness.access import bring_up, greeting, refused
# `accounts` is a fixture.
from harness.accounts import BLANKS, HELPER, REPORTING, UID, accounts, begin, ended, hashed
from harness.door import HOST, NAME, TRY_AGAIN, Door, give_name, log_in
from harness.hall import Hall, fail, give
# `groups` is a fixture.
from harness.helpers import groups
from harness.peers import OFFERS
from harness.waiting import LIMIT, free_port, stretched, wait_listening, wait_until

pytestmark = pytest.mark.needs_namespace

SERVE = "ServiceConnectionRequestThreadStart"

PTRACE_CONT = 7
PTRACE_SEIZE = 0x4206
PTRACE_O_TRACEEXIT = 0x40
EXIT_STOP = 6 << 8 | 5  # PTRACE_EVENT_EXIT with SIGTRAP


def check_all(*pairs: bytes) -> list[int]:
    """The statuses of checks that run at the same time, because PAM delays each failure."""
    return [ended(process) for process in [begin(pair) for pair in pairs]]


# Name and password


@pytest.mark.usefixtures("accounts")
def test_the_right_password_is_accepted_and_every_other_refused():
    right = b"alice " + BLANKS
    assert ended(begin(right)) == 0
    wrong = [b"alice " + BLANKS.strip(), b"alice " + BLANKS + b" ", b"alice  " + BLANKS,
             b"alice", b"alice ", b"alice wrong", right + b"\n", right + b"\r", b"Alice " + BLANKS,
             b"alic " + BLANKS, b"nobody-at-all " + BLANKS, b"root " + BLANKS,
             b"alice\t" + BLANKS, b"alice\n" + BLANKS, right[:-1], b"alice " + BLANKS.upper()]
    assert check_all(*wrong) == [1] * len(wrong)


@pytest.mark.usefixtures("accounts")
def test_input_that_is_not_a_pair_is_refused():
    wrong = [b"", b" ", b"  ", b" alice " + BLANKS, b"\n", b"\0", b"alice\0" + BLANKS,
             b"alice " + BLANKS + b"\0", b"alice " + b"p" * 8000, b"n" * 8000 + b" p",
             b"alice " + b"p" * 8186, b"alice " + b"p" * 100000, b"\xff" * 300 + b" \xff",
             b"$(id) `id`", b"../../root x", b"alice " + b"%s" * 100]
    assert check_all(*wrong) == [1] * len(wrong)


def test_the_longest_pair_is_read(accounts):
    """PAM itself takes at most 511 characters of a password."""
    accounts.add("long", hashed(b"p" * 256))
    assert check_all(b"long " + b"p" * 256, b"long " + b"p" * 255) == [0, 1]


@pytest.mark.parametrize("stdin", ["closed", "a directory"])
@pytest.mark.usefixtures("accounts")
def test_unreadable_input_is_refused(stdin):
    command = f"exec {HELPER} <&-" if stdin == "closed" else f"exec {HELPER} < /"
    done = subprocess.run(["sh", "-c", command], capture_output=True, check=False,
                          timeout=stretched(LIMIT))
    assert (done.returncode, done.stdout, done.stderr) == (1, b"", b"")


@pytest.mark.usefixtures("accounts")
def test_the_pair_may_come_in_pieces():
    process = subprocess.Popen([HELPER], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, bufsize=0)
    for byte in b"alice " + BLANKS:
        process.stdin.write(bytes([byte]))
    assert process.poll() is None, "it waits for the end of its input"
    assert ended(process) == 0


@pytest.mark.usefixtures("accounts")
def test_a_check_ends_on_sigterm_whatever_it_inherits():
    """The daemon blocks signals, and its children inherit that."""
    def block() -> None:
        signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
        signal.signal(signal.SIGCHLD, signal.SIG_IGN)

    process = subprocess.Popen([HELPER], stdin=subprocess.PIPE, preexec_fn=block)
    process.stdin.write(b"alice ")
    process.stdin.flush()
    wait_until(lambda: signals_of(process.pid, "SigBlk") == 0, what="the signals to be let in")
    wait_until(lambda: signals_of(process.pid, "SigIgn") & 1 << signal.SIGCHLD - 1 == 0,
               what="the end of children to be seen")
    process.terminate()
    assert process.wait(stretched(LIMIT)) == -signal.SIGTERM
    process.stdin.close()


def signals_of(pid: int, kind: str) -> int:
    """A set of signals of a process, as the kernel shows it."""
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1], 16) for line in status if line.startswith(f"{kind}:"))


# The account


def test_the_state_of_the_account_is_checked(accounts):
    password = hashed(b"pw")
    today = int(time.time() // 86400)
    accounts.add("fine", password, str(today))
    accounts.add("locked", f"!{password}")
    accounts.add("starred", "*")
    accounts.add("expired", password, rest="0:99999:7::1:")
    accounts.add("stale", password, "1", rest="0:10:7:5::")
    accounts.add("renew", password, "0")
    accounts.add("empty", "")
    assert check_all(b"fine pw", b"locked pw", b"starred pw", b"starred *", b"expired pw",
                     b"stale pw", b"renew pw", b"empty ", b"empty pw", b"empty \r") \
        == [0, 1, 1, 1, 1, 1, 1, 1, 1, 1]
    assert check_all(b"locked !" + password.encode(), b"fine " + password.encode()) == [1, 1]


def test_without_its_service_file_nobody_is_accepted(accounts, tmp_path):
    """PAM then uses the service "other", which may admit users here; so it is replaced."""
    assert accounts
    services = tmp_path / "pam.d"
    (services / "qor").unlink()
    (services / "other").write_text("auth required pam_deny.so\naccount required pam_deny.so\n",
                                    encoding="ascii")
    assert ended(begin(b"alice " + BLANKS)) == 1


# What it leaves behind


# The cases have names, because pytest puts them in the environment, which is searched, too.
@pytest.mark.parametrize("password, status", [(b"Zq-right-kPw", 0), (b"Zq-wrong-kPw", 1)],
                         ids=["right", "wrong"])
def test_the_pair_is_wiped_before_the_end(accounts, password, status):
    accounts.add("zoe", hashed(b"Zq-right-kPw"))
    libc = ctypes.CDLL(None, use_errno=True)
    libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
    process = subprocess.Popen([HELPER], stdin=subprocess.PIPE)
    assert libc.ptrace(PTRACE_SEIZE, process.pid, None, PTRACE_O_TRACEEXIT) == 0
    process.stdin.write(b"zoe ")
    process.stdin.flush()
    process.stdin.write(password)
    process.stdin.close()
    _, stop = os.waitpid(process.pid, 0)
    assert stop >> 8 == EXIT_STOP, "stopped on its way out, its memory still there"
    left = own_memory(process.pid)
    assert libc.ptrace(PTRACE_CONT, process.pid, None, None) == 0
    process.wait(stretched(LIMIT))
    assert process.returncode == status
    assert password not in left and password[:8] not in left
    assert b"qor" in left, "the search finds what is there"


def own_memory(pid: int) -> bytes:
    """The contents of the program's own mappings: code, constants and variables."""
    content = b""
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps, \
            open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        for line in maps:
            words = line.split()
            if words[-1] == str(HELPER) or words[-1] in ("[stack]", "[heap]") or len(words) < 6:
                start, end = (int(word, 16) for word in words[0].split("-"))
                memory.seek(start)
                content += memory.read(end - start)
    return content


# Through the daemon


@pytest.fixture
def door(station, groups, accounts):
    """A station with the real helper: alice is listed, bob has the group as his primary group."""
    accounts.add("bob", hashed(b"builder"))
    accounts.set_root(hashed(b"toor"))
    groups.write(f"qoruser:x:{UID}:carol,alice\n")
    helper = station.root / "bin" / "qor_pam_auth"
    helper.parent.mkdir()
    shutil.copy2(HELPER, helper)
    port = free_port()
    box = station.console("box", mapped_port=port, auth=1)
    bring_up(station, box, options=("-S", "1"))
    wait_listening(port)
    return Door(station, None, box, port).note_rest()


def test_a_member_logs_in_on_a_consoles_own_port(door):
    user = door.call()
    give_name(user, b"alice")
    user.send(b"wrong\r\0")
    user.expect_exactly(b"\r\n\r\n" + TRY_AGAIN + NAME)
    log_in(user, b"alice", BLANKS)
    door.admitted(user)
    user.close()
    door.quiet()


def test_root_logs_in_and_an_unlisted_user_does_not(door):
    user = door.call()
    log_in(user, b"root", b"toor")
    user.expect_exactly(OFFERS + greeting("box"))
    other = door.call()
    log_in(other, b"bob", b"builder")
    refused(other, 14)


def test_a_member_logs_in_on_a_consoles_own_port_with_a_telnet_client(door):
    position = door.station.mark()
    with door.station.telnet(door.port) as person:
        person.expect(f'a valid username/password combination on "{HOST}".')
        person.expect("username: ")
        person.type("alise\x7f\x7fce\r")
        person.expect("password: ")
        person.type("wrong\r")
        person.expect("Invalid username/password combination. Please try again.")
        person.expect("username: ")
        person.type("alice\r")
        shown = person.expect("password: ")
        person.type(BLANKS.decode() + "\r")
        shown += person.expect('Connected to console "box" in shared mode.')
        assert b"words" not in shown and b"alice" in shown
        door.station.wait_log(f"{SERVE}: Authenticated 127.0.0.1/{door.port}", after=position)
        door.box.send(b"here you are")
        person.expect("here you are")
        person.type("k")
        door.box.expect_exactly(b"k")
    door.quiet()


def test_a_person_without_permission_is_told(door):
    with door.station.telnet(door.port) as person:
        person.expect("username: ")
        person.type("bob\r")
        person.expect("password: ")
        person.type("builder\r")
        person.expect("014 - Not an authorized user.")
        person.expect_closed()


@pytest.mark.parametrize("rhost, told", [("192.0.2.7", "192.0.2.7\n"), ("", "\n"), (None, "\n")])
def test_pam_is_told_where_the_pair_comes_from(accounts, tmp_path, rhost, told):
    seen = tmp_path / "rhost"
    script = tmp_path / "report"
    script.write_text(f'#!/bin/sh\necho "$PAM_RHOST" > {seen}\n', encoding="ascii")
    script.chmod(0o755)
    Path("/etc/pam.d/qor").write_text(REPORTING.format(script=script), encoding="ascii")
    environment = {"PATH": os.environ["PATH"]} | ({} if rhost is None else {"QOR_RHOST": rhost})
    subprocess.run([HELPER], input=b"alice x", env=environment, check=True)
    assert seen.read_text(encoding="ascii") == told


def test_the_primary_group_alone_admits_nobody_on_the_main_port(door):
    hall = Hall(door.station, None, door.box)
    user = hall.call()
    fail(user, b"bob", b"builder")
    member = hall.call()
    give(member, b"alice", BLANKS)
    member.expect_exactly(OFFERS)
    hall.connected("alice")


def test_a_member_logs_in_on_the_main_port_with_a_telnet_client(door):
    with door.station.telnet() as person:
        person.type("box mode=ro\r")
        person.expect("username: ")
        person.type("alice\r")
        person.expect("password: ")
        person.type(BLANKS.decode() + "\r")
        door.station.wait_log('ConnectUserToConsole: Connected user "alice" to console "box" '
                              "with mode = read-only.")
        door.box.send(b"here you are")
        person.expect("here you are")
