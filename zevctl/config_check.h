// What is wrong with consoles that the daemon would take as they are.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "config_console.h"

namespace zevctl {

/// What the consoles are held against.
struct CheckSettings {
  uint16_t main_port = 6500;           ///< the daemon's own
  std::set<std::string> events_files;  ///< the names of those that there are
  bool lines_known = false;            ///< the consoles' lines are known, not only their addresses
};

/// Adds what is wrong with each console, and with all of them together.
void CheckConsoles(const std::vector<ConfigConsole>& consoles, const CheckSettings& settings,
                   Findings& findings);

}  // namespace zevctl
