// The guard: it looks at the deadline of the station's lease, and at nothing else. Once that has
// passed, another station may have the fleet's consoles; so "zevfleet run" must not write any more,
// and the daemon must not be connected any more. Both are ended with SIGKILL.
#pragma once

#include "exit_status.h"
#include "fleet_deadline.h"
#include "fleet_options.h"

namespace zevfleet {

/// What must end now.
struct Verdict {
  bool run = false;     ///< "zevfleet run", if it started before the deadline
  bool daemon = false;  ///< whatever daemon runs: its files may have consoles of the fleet
};
Verdict Judge(const LeaseState& state, int64_t now);

/// Ends what must end. True when something did.
bool Enforce(const FleetOptions& options, const LeaseState& state, int64_t now);

/// Guards until it is ended by a signal.
zevctl::ExitStatus Guard(const FleetOptions& options);

}  // namespace zevfleet
