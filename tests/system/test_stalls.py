"""Peers that stop reading: others do not wait for them, and later all is as before."""

import contextlib
import threading
import time

import pytest

from harness.peers import Peer
from harness.scenes import connected, echo_time, numbered, removal, visit
from harness.slow_readers import BETWEEN_MARKS, QUEUE, SMALL, take_nothing, told
from harness.waiting import stretched, wait_until

AGAIN = "Resource temporarily unavailable"
TO_CONSOLE = f'ProcessUserInput: send() to console "{{}}" failed : {AGAIN}'

WELL_WITHIN_A_SECOND = 0.8
NORMAL = 0.25

BLOCK = numbered(1000)
THE_END = b"and that is the end of all of this output\r\n"


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


def stalled_at(station, console: str, name: str = "stalled") -> Peer:
    """A user who reads nothing."""
    return take_nothing(station, station.attach(console, mode="ro", user=name, buffer=SMALL))


def test_a_user_who_reads_nothing_delays_no_other(station, two):
    noisy, calm, user = two
    stalled = stalled_at(station, "noisy")
    with typing(user, calm):
        noisy.flood(BLOCK, 100).join(30)
    is_normal(user, calm)
    again = station.attach("noisy")
    noisy.send(THE_END)
    again.expect(THE_END)
    stalled.read_again()
    assert told(stalled, BLOCK * 100 + THE_END)


def test_a_user_who_reads_nothing_is_told_what_was_not_shown(station, two):
    noisy, _, _ = two
    stalled = stalled_at(station, "noisy")
    noisy.flood(BLOCK, 50).join(30)
    again = station.attach("noisy", user="again")
    noisy.send(THE_END)
    again.expect(THE_END)
    stalled.read_again()
    printed = BLOCK * 50 + THE_END
    *_, last = told(stalled, printed)
    # What the sockets took after the last gap is not in the queue any more.
    assert QUEUE - 2 * BETWEEN_MARKS <= len(printed) - last.end <= QUEUE + BETWEEN_MARKS
    noisy.send(b"still printing")
    stalled.expect_exactly(b"still printing")
    assert removal("stalled", "noisy") not in station.log_text()


def test_users_who_read_nothing_one_after_the_other_delay_nobody(station, two):
    noisy, calm, user = two
    stalled = []
    with typing(user, calm):
        for number in range(4):
            stalled.append(stalled_at(station, "noisy", f"stalled{number}"))
            noisy.flood(BLOCK, 40).join(30)
            again = station.attach("noisy", mode="ro", user="again")
            noisy.send(THE_END)
            again.expect(THE_END)
    is_normal(user, calm)
    for number, each in enumerate(stalled):
        each.read_again()
        assert told(each, (BLOCK * 40 + THE_END) * (4 - number))


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


def since_both_paste(arrived: bytearray) -> bytearray:
    """What has arrived since the first and the second user have both been pasting."""
    begins = arrived.find(b"1"), arrived.find(b"2")
    return arrived[max(begins):] if min(begins) >= 0 else bytearray()


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
        if not asked and len(since_both_paste(arrived)) > 100_000:
            third.send(b"3")
            asked = True
    shared = since_both_paste(arrived)
    assert min(shared.count(b"1"), shared.count(b"2")) > len(shared) // 4
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
    stalled = stalled_at(station, "noisy")
    paster = station.attach("deaf", user="paster")
    consoles["deaf"].stop_reading()
    with typing(user, consoles["calm"]):
        floods = [consoles["noisy"].flood(BLOCK, 100), paster.flood(BLOCK, 100)]
        station.wait_log(removal("paster", "deaf"))
        for flood in floods:
            flood.join(30)
    is_normal(user, consoles["calm"])
    consoles["noisy"].send(THE_END)
    stalled.read_again()
    assert told(stalled, BLOCK * 100 + THE_END)


def test_callers_who_say_nothing_delay_nobody(station, two):
    noisy, calm, user = two
    silent = [station.caller() for _ in range(30)]
    with typing(user, calm):
        assert echo_time(station.attach("noisy"), noisy, b"new", limit=5) < stretched(1)
    assert not any(caller.closed for caller in silent)
