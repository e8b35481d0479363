"""Strangers who have the daemon post events cannot flood the event manager."""

import time

from harness.access import bring_up, pending
from harness.collectors import Collector
from harness.waiting import free_port, wait_listening, wait_until

WARNING = "IncrementPendingLogins: Too many pending logins (4)"
OVER = "ServiceConnectionRequestThreadStart: Exiting thread."


def test_a_stranger_who_takes_and_leaves_the_last_login_place_floods_nobody(station):
    port = free_port()
    box = station.console("box", mapped_port=port)
    with Collector(station) as collector:
        bring_up(station, box)
        collector.accept()
        wait_listening(port)
        pending(station, port, 4)
        began = time.monotonic()
        taken = 0

        def take_and_leave() -> bool:
            nonlocal taken
            stranger, = pending(station, port, 1)
            stranger.reset()
            taken += 1
            station.wait_log(OVER, count=taken)
            return b'"repeats": ' in collector.received

        wait_until(take_and_leave, what="a line that stands for several")
        station.wait_log(WARNING, count=taken)
        first, *others = collector.events()
        assert len(others) <= time.monotonic() - began
    assert "repeats" not in first
    assert first["vars"] == {"message": "Internal error"}
    shown = {key: first[key] for key in ("host", "name", "priority", "vars")}
    for other in others:
        assert list(other) == ["time", "host", "name", "priority", "vars", "repeats"]
        assert {key: other[key] for key in shown} == shown
    assert 1 + sum(other["repeats"] for other in others) == taken
