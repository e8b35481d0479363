"""Peers that stop reading: others do not wait for them for long, and later all is as before."""

import contextlib
import threading
import time

import pytest

from harness.peers import Peer
from harness.scenes import connected, echo_time, numbered, removal, visit
from harness.waiting import stretched, wait_until

AGAIN = "Resource temporarily unavailable"
FROM_CONSOLE = f'SendConsoleOutputToUsers: send() from console "{{}}" failed : {AGAIN}'
TO_CONSOLE = f'ProcessUserInput: send() to console "{{}}" failed : {AGAIN}'

WELL_WITHIN_A_SECOND = 0.8
NORMAL = 0.25


class Typist:
    """Types at a console all the time, in a thread of its own, and times every echo."""

    def __init__(self, user: Peer, console: Peer) -> None:
        self.times: list[float] = []
        self._user = user
        self._console = console
        self._done = threading.Event()
        self._error: AssertionError | None = None
        self._thread = threading.Thread(target=self._type, daemon=True)
        self._thread.start()

    def _type(self) -> None:
        try:
            while not self._done.is_set():
                self.times.append(echo_time(self._user, self._console,
                                            b"%d!" % len(self.times), limit=10))
        except AssertionError as error:
            self._error = error

    def pause(self) -> None:
        """Wait until some more echoes have come."""
        enough = len(self.times) + 20
        wait_until(lambda: len(self.times) >= enough or self._error, what="echoes")

    def stop(self) -> list[float]:
        """End the thread; return the time of every echo."""
        self._done.set()
        self._thread.join()
        if self._error:
            raise self._error
        return self.times


@contextlib.contextmanager
def typing(user: Peer, console: Peer):
    """A user types at the console meanwhile, and sees each echo well within a second."""
    typist = Typist(user, console)
    try:
        typist.pause()
        yield typist
        typist.pause()
    finally:
        times = typist.stop()
    assert max(times) < stretched(WELL_WITHIN_A_SECOND), sorted(times)[-10:]


@pytest.fixture
def two(station):
    """A station with a console for the stall, and another whose user must not notice."""
    noisy, calm = station.console("noisy", buffer=4096), station.console("calm")
    station.start("-d", "1")
    noisy.accept()
    connected(station, calm, "calm")
    visit(station, "noisy")
    return noisy, calm, station.attach("calm", user="calm")


def is_normal(user: Peer, console: Peer) -> None:
    """Echoes take no time worth mentioning."""
    assert sorted(echo_time(user, console, b"#%d" % number, limit=5) for number in range(20))[
        -2] < stretched(NORMAL)


# Users who read nothing


def test_a_user_who_reads_nothing_delays_no_other(station, two):
    noisy, calm, user = two
    stalled = station.attach("noisy", mode="ro", user="stalled", buffer=4096)
    stalled.stop_reading()
    with typing(user, calm):
        flood = noisy.flood(numbered(1000), 100)
        station.wait_log(FROM_CONSOLE.format("noisy"))
        station.wait_log(removal("stalled", "noisy"))
        flood.join(30)
    is_normal(user, calm)
    again = station.attach("noisy")
    noisy.send(b"still printing")
    again.expect(b"still printing")


def test_a_user_who_reads_nothing_is_disconnected(station, two):
    noisy, _, _ = two
    stalled = station.attach("noisy", mode="ro", user="stalled", buffer=4096)
    stalled.stop_reading()
    flood = noisy.flood(numbered(1000), 50)
    station.wait_log(removal("stalled", "noisy"))
    stalled.read_again()
    wait_until(lambda: stalled.closed, what="the end")
    flood.join(30)


def test_users_who_read_nothing_one_after_the_other_delay_nobody(station, two):
    noisy, calm, user = two
    with typing(user, calm):
        for number in range(4):
            name = f"stalled{number}"
            stalled = station.attach("noisy", mode="ro", user=name, buffer=4096)
            stalled.stop_reading()
            flood = noisy.flood(numbered(1000), 40)
            station.wait_log(removal(name, "noisy"))
            flood.join(30)
    is_normal(user, calm)


def test_a_user_who_reads_slowly_loses_nothing(station, two):
    """It is not a stall while the other end reads something now and then."""
    noisy, _, _ = two
    slow = station.attach("noisy", mode="ro", buffer=4096)
    text = numbered(10000)
    flood = noisy.flood(text, 1)
    slow.expect_exactly(text, limit=30)
    flood.join()


# Consoles that read nothing


def test_a_paste_that_the_console_does_not_read_delays_nobody(station, two):
    noisy, calm, user = two
    paster = station.attach("noisy", user="paster")
    noisy.stop_reading()
    with typing(user, calm):
        flood = paster.flood(numbered(1000), 100)
        station.wait_log(removal("paster", "noisy"))
        flood.join()
    station.wait_log(TO_CONSOLE.format("noisy"))
    is_normal(user, calm)


def test_a_console_that_reads_nothing_stays_connected(station, two):
    noisy, _, _ = two
    paster = station.attach("noisy", user="paster")
    reader = station.attach("noisy", user="reader", mode="ro")
    noisy.stop_reading()
    text = numbered(100000)
    flood = paster.flood(text, 1)
    station.wait_log(removal("paster", "noisy"))
    flood.join()
    noisy.send(b"still printing")
    reader.expect_exactly(b"still printing")
    noisy.read_again()
    successor = station.attach("noisy")
    successor.send(b"<typed afterwards>")
    assert text.startswith(noisy.expect(b"<typed afterwards>"))
    assert not noisy.called()


def test_users_who_type_at_a_slow_console_take_turns(station):
    """It never has room for all the input; users who paste leave some of it to the others."""
    slow = station.console("slow", buffer=4096)
    station.start("-d", "1")
    connected(station, slow, "slow")
    first, second, third = (station.attach("slow", user=name)
                            for name in ("first", "second", "third"))
    slow.stop_reading()
    asked = False
    first.flood(b"1" * 8192, 200)
    second.flood(b"2" * 8192, 200)
    arrived = bytearray()
    while b"3" not in arrived:
        time.sleep(0.004)
        arrived += slow.socket.recv(512)
        if not asked and len(arrived) > 100_000:
            third.send(b"3")
            asked = True
    assert min(arrived.count(b"1"), arrived.count(b"2")) > len(arrived) // 4
    assert not any(user.closed for user in (first, second, third))


# Both


def test_a_user_and_a_console_that_read_nothing_delay_nobody(station):
    consoles = {name: station.console(name, buffer=4096) for name in ("noisy", "deaf", "calm")}
    station.start("-d", "1")
    for name, console in consoles.items():
        console.accept()
    for name in consoles:
        visit(station, name)
    user = station.attach("calm", user="calm")
    stalled = station.attach("noisy", mode="ro", user="stalled", buffer=4096)
    stalled.stop_reading()
    paster = station.attach("deaf", user="paster")
    consoles["deaf"].stop_reading()
    with typing(user, consoles["calm"]):
        floods = [consoles["noisy"].flood(numbered(1000), 100),
                  paster.flood(numbered(1000), 100)]
        station.wait_log(removal("stalled", "noisy"))
        station.wait_log(removal("paster", "deaf"))
        for flood in floods:
            flood.join(30)
    is_normal(user, consoles["calm"])


def test_callers_who_say_nothing_delay_nobody(station, two):
    noisy, calm, user = two
    silent = [station.caller() for _ in range(30)]
    with typing(user, calm):
        assert echo_time(station.attach("noisy"), noisy, b"new", limit=5) < stretched(1)
    assert not any(caller.closed for caller in silent)
