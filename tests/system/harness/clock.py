"""A clock for the daemon alone, which a test can set and stop while the daemon runs."""

import struct
import time
from pathlib import Path

from harness import preload


class ShiftedClock:
    """The clock of the daemons that are started with `env`; the machine's until it is changed.

    Files keep the machine's time, as the kernel gives it to them.
    """

    def __init__(self, scratch: Path) -> None:
        self._library = preload.build("shifted_clock", scratch)
        self._settings = scratch / "shifted_clock.settings"
        self._settings.write_bytes(struct.pack("=qq", 0, 0))

    @property
    def env(self) -> dict[str, str]:
        """What has to be in the daemon's environment."""
        return preload.environment(self._library, SHIFTED_CLOCK=str(self._settings))

    def hold(self) -> None:
        """Stop the clock: from now on only `shift` moves it."""
        self._set(0, int(time.time()))

    def shift(self, seconds: int) -> None:
        """Set the clock this far ahead of the time that it would show, or back."""
        self._set(1, seconds)

    def _set(self, field: int, value: int) -> None:
        with open(self._settings, "r+b", buffering=0) as file:
            file.seek(field * struct.calcsize("=q"))
            file.write(struct.pack("=q", value))
