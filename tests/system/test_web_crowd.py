"""Many viewers of a few consoles: each is shown everything, and costs the server little memory.

ZEVD_WEB_VIEWERS says how many; a thousand in a measurement, fewer in a test.
"""

import json
import os
import time
from pathlib import Path

import pytest

from harness.access import bring_up
from harness.cookies import local_user
from harness.helpers import groups
from harness.peers import OFFERS
from harness.scenes import is_sanitized
from harness.web import Web, admit
from harness.web_crowd import Crowd
from harness.web_stream import Stream

pytestmark = pytest.mark.needs_namespace

VIEWERS = int(os.environ.get("ZEVD_WEB_VIEWERS", "100"))
CONSOLES = ["box1", "box2", "box3"]
MOST_AT_ALL = 3072  # KiB of the server's memory, whatever their number
MOST_EACH = 10
MOST_OF_TLS = 16  # more of them with TLS
LINES = 100


def memory(pid: int) -> int:
    """KiB."""
    for line in Path(f"/proc/{pid}/status").read_text(encoding="ascii").splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise AssertionError(pid)


@pytest.fixture(params=[True, False], ids=["tls", "plain"])
def crowded(request, station, groups, tmp_path):
    """The server of a station with a journal and four consoles."""
    groups.write("qoruser:x:64000:\n")
    admit(station)
    (station.config / "qor.conf").write_text("ZEVD_ARCH_INT=7\nZEVD_JOURNAL=100\n")
    consoles = [station.console(name) for name in [*CONSOLES, "quiet"]]
    bring_up(station, *consoles, options=("-S", "1"))
    with Web(station, tmp_path, tls=request.param) as web:
        yield web, consoles


def test_a_crowd_costs_little(station, crowded):
    web, consoles = crowded
    user = local_user(station, b"quiet user=bob")
    user.expect(OFFERS)
    web.ensure_session()
    with Stream(web, CONSOLES[0]) as first:  # what the server needs once
        first.wait("live")
    before = memory(web.pid)
    with Crowd(web, CONSOLES, VIEWERS) as crowd:
        each = (memory(web.pid) - before) / VIEWERS
        for number in range(LINES):
            for console in consoles[:3]:
                console.send(b"%06d the quick brown fox jumps over the lazy dog\r\n" % number)
            time.sleep(0.02)
        printed = LINES * len(b"%06d the quick brown fox jumps over the lazy dog\r\n" % 0)
        with Stream(web, CONSOLES[0], "?last=1") as last:
            last.expect(b"%06d the" % (LINES - 1))
        consoles[3].send(b"a line for bob\r\n")
        user.expect(b"a line for bob\r\n")
        full = (memory(web.pid) - before) / VIEWERS
        shown = crowd.finish(printed)
    print(json.dumps({"viewers": VIEWERS, "tls": web.tls, "KiB each": round(each, 1),
                      "KiB each after output": round(full, 1)}))
    assert not shown["failed"]
    assert set(shown["shown"]) == {printed} and set(shown["missed"]) == {0}
    most = MOST_AT_ALL + VIEWERS * (MOST_EACH + web.tls * MOST_OF_TLS)
    assert full * VIEWERS < most or is_sanitized(web.pid)
