// The event files, looked at with the daemon's own judgement of patterns.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "config_findings.h"

namespace zevctl {

/// Adds what is wrong with the lines of an event file.
void CheckPatterns(std::string_view text, const std::string& file, Findings& findings);

/// Looks at every file of the directory, as the daemon does. The names of those that it would load.
std::set<std::string> CheckEventFiles(const std::string& directory, Findings& findings);

}  // namespace zevctl
