"""What happens in a soak and when: all of it follows from the seed, so a run can be repeated."""

import random
from dataclasses import dataclass
from typing import Any

from users import MODES

# The end of a run belongs to the consoles' return and to the books.
_QUIET_PART = 0.12
_QUIET_AT_MOST = 60.0

_VISITS_PER_CONSOLE = 1 / 300  # in a second, ...
_VISITS_AT_LEAST = 1.0  # ... and by few consoles this many in all
_BEHAVIOURS = {"type": 8, "watch": 5, "vanish": 3, "slow": 2, "stall": 1, "paste": 1}
_MODE_WEIGHTS = (4, 8, 2, 2)

# Weight and, in seconds, how long each lasts at least and at most.
_CONSOLE_EVENTS = {
    "hang_up": (10, 0, 0), "reset": (6, 0, 0), "refuse": (4, 2, 20), "unanswered": (2, 2, 20),
    "hang": (4, 2, 15), "burst": (8, 0, 0), "disable": (4, 1, 8), "clear": (4, 0, 0),
    "message": (6, 0, 0)}
_EVENTS_PER_CONSOLE = 1 / 400
_EVENTS_AT_LEAST = 0.5

_STATION_EVENTS = {
    "rotate": (10, 0, 1), "reload": (6, 0, 0), "drop": (6, 1, 8), "rename": (6, 0, 0),
    "configure_disabled": (4, 1, 8), "hup_storm": (4, 0, 0), "bad_lines": (4, 0, 0),
    "event_files": (3, 0, 0), "full_disk": (4, 2, 6), "full_journal": (4, 2, 6),
    "vanished_logs": (3, 0, 4), "unwritable_logs": (3, 1, 5), "collector_stalls": (4, 3, 15),
    "collector_dies": (4, 1, 10),
    "helper_hangs": (5, 3, 12), "helper_crashes": (2, 1, 3), "deaf_tool": (4, 3, 10),
    "strangers": (6, 1, 8), "message_to_all": (3, 0, 0)}
_BETWEEN_STATION_EVENTS = 6.0  # seconds


@dataclass(frozen=True)
class Step:
    """One thing that happens."""

    at: float  # seconds from the start
    kind: str
    console: int
    duration: float
    seed: int
    words: dict[str, Any]


def _steps_of(rand: random.Random, table: dict, times: list[float], consoles: int) -> list[Step]:
    weights = [row[0] for row in table.values()]
    steps = []
    for at in times:
        kind = rand.choices(list(table), weights)[0]
        _, least, most = table[kind]
        steps.append(Step(at, kind, rand.randrange(consoles), rand.uniform(least, most),
                          rand.randrange(2**32), {}))
    return steps


def _times(rand: random.Random, length: float, per_second: float) -> list[float]:
    times, now = [], 0.0
    while (now := now + rand.expovariate(per_second)) < length:
        times.append(now)
    return times


def _visits(rand: random.Random, length: float, consoles: int) -> list[Step]:
    return [Step(at, "visit", rand.randrange(consoles), rand.uniform(2, 20), rand.randrange(2**32),
                 {"mode": rand.choices(MODES, _MODE_WEIGHTS)[0],
                  "behaviour": rand.choices(list(_BEHAVIOURS), list(_BEHAVIOURS.values()))[0]})
            for at in _times(rand, length, max(_VISITS_AT_LEAST, _VISITS_PER_CONSOLE * consoles))]


def _each_once(rand: random.Random, length: float, table: dict) -> list[str]:
    """All kinds in a random order, as far as there is time: a short run leaves none to chance."""
    kinds = list(table)
    rand.shuffle(kinds)
    return kinds[:int(length / _BETWEEN_STATION_EVENTS)]


def plan(seed: int, seconds: float, consoles: int) -> list[Step]:
    """Everything that happens in a run of so many seconds, in order."""
    rand = random.Random(seed)
    length = seconds - min(_QUIET_AT_MOST, _QUIET_PART * seconds)
    steps = _visits(rand, length, consoles)
    often = max(_EVENTS_AT_LEAST, _EVENTS_PER_CONSOLE * consoles)
    steps += _steps_of(rand, _CONSOLE_EVENTS, _times(rand, length, often), consoles)
    steps += _steps_of(rand, _STATION_EVENTS,
                       _times(rand, length, 1 / _BETWEEN_STATION_EVENTS), consoles)
    for kind in _each_once(rand, length, _STATION_EVENTS):
        table = {kind: _STATION_EVENTS[kind]}
        steps += _steps_of(rand, table, [rand.uniform(0, length)], consoles)
    return sorted(steps, key=lambda step: step.at)
