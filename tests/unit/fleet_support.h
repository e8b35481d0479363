// Views of a fleet, made by hand.
#pragma once

#include <string>
#include <vector>

#include "fleet_view.h"

namespace zevfleet {

inline constexpr int64_t kTestLease = 7;

/// A line of zev.conf for a console of that name.
std::string LineFor(const std::string& name, int port = 2001);

/// The address of ConsoleFor(), which is another one for each name.
std::string AddressFor(const std::string& name);

/// The key of a console, a claim or a station of the fleet "hall".
EtcdKey ConsoleKey(const SharedConsole& console);
EtcdKey ClaimKey(const std::string& console, const std::string& station, int64_t lease);
EtcdKey StationKey(const std::string& station, int64_t lease, bool ready = true);

/// A console for these stations; `others`: and for all.
SharedConsole ConsoleFor(const std::string& name, const std::vector<std::string>& stations,
                         bool others = true, bool told = false);

}  // namespace zevfleet
