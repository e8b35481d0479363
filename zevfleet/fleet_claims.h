// Which consoles this station should have: the decisions alone, without a clock, a connection or a
// file of their own. etcd settles what two stations decide at the same time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fleet_view.h"

namespace zevfleet {

/// Who decides.
struct ClaimSelf {
  std::string station;
  int64_t lease = 0;
  bool ready = false;       ///< the daemon and the guard run, and nothing stands in the way
  int64_t return_time = 0;  ///< for how long a station must be back before consoles go back to it,
                            ///< in nanoseconds
};

/// How many users are attached to a console; nothing when that is not known.
using UsersOf = std::function<std::optional<size_t>(const std::string& console)>;

/// The consoles whose addresses this station has by its lease. Sorted.
std::vector<std::string> Held(const FleetView& view, const ClaimSelf& self);

/// All addresses that it has, also those that no console has any more.
std::vector<std::string> HeldAddresses(const FleetView& view, const ClaimSelf& self);

/// Those that nobody has and that this station should claim now: its own first choices at once, and
/// others when those before it have not. Before it come the stations that the console names before
/// it and, if it is not named itself but others may have the console, the rest in an order that
/// differs from console to console; only stations that are there and ready count.
std::vector<std::string> ToClaim(const FleetView& view, const ClaimSelf& self, int64_t now);

/// Those that this station has and should let go: those that may not be here any more, those of a
/// better station that has come back, when nobody is attached, and those that were sent to another.
std::vector<std::string> ToRelease(const FleetView& view, const ClaimSelf& self,
                                   const UsersOf& users_of, int64_t now);

/// True when something would be released if nobody were attached: then it pays to ask for the
/// users.
bool MayRelease(const FleetView& view, const ClaimSelf& self, int64_t now);

/// Those that were sent to this station, and have come.
std::vector<std::string> Arrived(const FleetView& view, const ClaimSelf& self);

}  // namespace zevfleet
