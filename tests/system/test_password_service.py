"""The password service: what checks passwords for a helper that may not read them."""

import pwd
import socket
import subprocess
from pathlib import Path

import pytest

# `accounts`, `password_service`, `run_directory` and `zevd_user` are fixtures.
from harness.accounts import BLANKS, REPORTING, accounts, begin, ended
from harness.managed import PASSWORD_SOCKET, as_user, password_service, run_directory, zevd_user
from harness.waiting import LIMIT, stretched

pytestmark = pytest.mark.needs_namespace


def ask(user: int, pair: bytes, **variables: str) -> subprocess.Popen:
    """Start a check as this user."""
    return begin(pair, *as_user(user), **variables)


def exchange(request: bytes, end: bool = True) -> bytes:
    """What the service answers to this after it is ready."""
    with socket.socket(socket.AF_UNIX) as caller:
        caller.settimeout(stretched(20))
        caller.connect(str(PASSWORD_SOCKET))
        assert caller.recv(1) == b"?"
        caller.sendall(request)
        if end:
            caller.shutdown(socket.SHUT_WR)
        return caller.recv(100)


@pytest.mark.usefixtures("password_service")
def test_the_service_checks_what_the_caller_may_not(zevd_user):
    pairs = [b"alice " + BLANKS, b"alice wrong", b"alice", b" x", b"alice\0" + BLANKS, b"",
             b"alice " + b"p" * 8186, b"alice " + BLANKS + b"\0"]
    assert [ended(process) for process in [ask(zevd_user, pair) for pair in pairs]] == \
        [0, 1, 1, 1, 1, 1, 1, 1]


@pytest.mark.usefixtures("password_service", "accounts")
def test_the_service_takes_an_address_and_a_pair():
    right = b"alice " + BLANKS
    assert exchange(b"\0" + right) == exchange(b"192.0.2.7\0" + right) == b"+"
    for wrong in (right, b"", b"\0", b"\0alice", b"\0\0" + right, b"\0 " + right,
                  b"a" * 300, b"\0" + right + b"\0", b"\0alice " + b"p" * 9000):
        assert exchange(wrong) == b"-", wrong


@pytest.mark.usefixtures("password_service")
def test_a_caller_who_sends_nothing_is_closed():
    assert exchange(b"\0ali", end=False) == b""


def test_the_service_tells_pam_where_the_pair_comes_from(password_service, zevd_user, tmp_path):
    assert password_service
    seen = tmp_path / "rhost"
    script = tmp_path / "report"
    script.write_text(f'#!/bin/sh\necho "$PAM_RHOST" > {seen}\n', encoding="ascii")
    script.chmod(0o755)
    Path("/etc/pam.d/qor").write_text(REPORTING.format(script=script), encoding="ascii")
    assert ended(ask(zevd_user, b"alice x", QOR_RHOST="192.0.2.7")) == 0
    assert seen.read_text(encoding="ascii") == "192.0.2.7\n"


@pytest.mark.parametrize("user, answer", [("zevd", b"?"), ("alice", b"")])
def test_the_service_answers_the_daemons_user_alone(password_service, user, answer):
    """Whatever the mode of the socket is."""
    assert password_service
    PASSWORD_SOCKET.chmod(0o666)
    said = subprocess.run(
        [*as_user(pwd.getpwnam(user).pw_uid), "/usr/bin/python3", "-c",
         "import socket, sys; caller = socket.socket(socket.AF_UNIX); "
         f"caller.connect('{PASSWORD_SOCKET}'); sys.stdout.buffer.write(caller.recv(1))"],
        capture_output=True, check=True, timeout=stretched(LIMIT)).stdout
    assert said == answer


LOCKING = """auth required pam_faillock.so preauth silent nodelay deny=3 unlock_time=600
auth [success=1 default=ignore] pam_unix.so nodelay
auth [default=die] pam_faillock.so authfail nodelay deny=3 unlock_time=600
auth sufficient pam_faillock.so authsucc deny=3 unlock_time=600
@include common-account
"""


@pytest.mark.usefixtures("password_service")
def test_the_service_counts_failures_with_other_services(zevd_user):
    """Two are counted by a program with all rights, in a file that belongs to the user."""
    counts = Path("/run/faillock")
    counts.mkdir()
    Path("/etc/pam.d/qor").write_text(LOCKING, encoding="ascii")
    right, wrong = b"alice " + BLANKS, b"alice wrong"
    assert [ended(begin(wrong)) for _ in range(2)] == [1, 1]
    assert (counts / "alice").stat().st_uid == pwd.getpwnam("alice").pw_uid
    assert ended(ask(zevd_user, right)) == 0, "which also forgets the two"
    assert [ended(process) for process in (begin(wrong), begin(wrong))] == [1, 1]
    assert ended(ask(zevd_user, wrong)) == 1
    assert (ended(ask(zevd_user, right)), ended(begin(right))) == (1, 1), "locked for both"
    (counts / "alice").unlink()
    assert ended(ask(zevd_user, right)) == 0
    assert [ended(process) for process in [ask(zevd_user, wrong) for _ in range(3)]] == [1] * 3
    assert (ended(ask(zevd_user, right)), ended(begin(right))) == (1, 1), "counted by the service"


def test_whoever_finds_no_room_calls_again(password_service, zevd_user):
    password_service.most = 2
    checks = [ask(zevd_user, b"alice " + BLANKS) for _ in range(10)]
    assert [ended(check) for check in checks] == [0] * 10
    assert password_service.turned_away > 0


@pytest.mark.parametrize("answer", [b"", b"-", b"x", b"?"])
def test_every_other_answer_is_a_refusal(zevd_user, run_directory, answer):
    PASSWORD_SOCKET.parent.mkdir()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(PASSWORD_SOCKET))
        listener.listen()
        PASSWORD_SOCKET.chmod(0o666)
        process = ask(zevd_user, b"alice " + BLANKS)
        caller, _ = listener.accept()
        with caller:
            caller.sendall(b"?")
            asked = b""
            while more := caller.recv(1000):
                asked += more
            caller.sendall(answer)
    assert ended(process) == 1
    assert asked == b"\0alice " + BLANKS


def test_without_the_service_the_helper_asks_pam_itself(zevd_user, run_directory):
    """Where the socket is missing, nobody listens, or the caller may not use it."""
    Path("/etc/pam.d/qor").write_text("auth required pam_permit.so\n"
                                      "account required pam_permit.so\n", encoding="ascii")
    assert ended(ask(zevd_user, b"alice x")) == 0
    PASSWORD_SOCKET.parent.mkdir()
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(PASSWORD_SOCKET))
        listener.listen()
        PASSWORD_SOCKET.chmod(0o600)
        assert ended(ask(zevd_user, b"alice x")) == 0
        PASSWORD_SOCKET.chmod(0o666)
    assert ended(ask(zevd_user, b"alice x")) == 0
