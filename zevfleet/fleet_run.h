// "zevfleet run": claims consoles, has the daemon serve them, and lets go of them in good order.
// One life of this process is one lease: when that is lost the process ends, and the unit starts it
// again.
#pragma once

#include "exit_status.h"
#include "fleet_options.h"

namespace zevfleet {

/// Runs until SIGTERM or SIGINT, upon which the station leaves the fleet, or until the lease is
/// lost.
zevctl::ExitStatus Run(const FleetOptions& options);

/// Before a start of the daemon: makes sure that its files have no console of the fleet unless the
/// lease is good. Throws zevctl::Failure when there are some that cannot be taken out; the daemon
/// must not be started then.
zevctl::ExitStatus Prepare(const FleetOptions& options);

}  // namespace zevfleet
