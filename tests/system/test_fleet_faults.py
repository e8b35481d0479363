"""Three servers of etcd and of NATS, three stations and fifty consoles: everything happens to them.

`script/soak --fleet` does the same for longer, and with other seeds.
"""

import pytest

from harness.fleet import Fleet
from harness.fleet_faults import run_faults

pytestmark = pytest.mark.needs_namespace

SEEDS = (1, 20261123)
SECONDS = 25.0


@pytest.mark.parametrize("seed", SEEDS)
def test_a_console_never_has_two_connections(tmp_path, isolated, seed):
    fleet = Fleet(tmp_path, 3, 50, etcds=3, ships=True)
    try:
        assert run_faults(fleet, seed, SECONDS)
    finally:
        fleet.end()
    fleet.assert_never_two()
