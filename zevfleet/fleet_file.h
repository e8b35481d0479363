// The file in which administrators describe a fleet: consoles as in consoles.toml(5), and the
// stations that should have them.
#pragma once

#include <string>
#include <vector>

#include "config_findings.h"
#include "fleet_record.h"

namespace zevfleet {

struct FleetFile {
  std::string fleet;  ///< the fleet's name
  std::vector<SharedConsole> consoles;
};

/// Reads the text of a fleet file. What is wrong or contradicts itself is added to the findings.
FleetFile ReadFleetFile(const std::string& text, const std::string& file,
                        zevctl::Findings& findings);

}  // namespace zevfleet
