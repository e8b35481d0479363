// "zevctl --fleet": a command for the consoles of all stations.
#pragma once

#include <string>
#include <vector>

#include "arguments.h"
#include "exit_status.h"
#include "far_map.h"
#include "far_shell.h"
#include "settings.h"

namespace zevctl {

/// Runs the line, which has been parsed without a mistake, at the stations that it is about.
ExitStatus RunInFleet(const Command& app, const Settings& settings,
                      const std::vector<std::string>& words);

/// Attaches to a console wherever it is, and follows it when it goes to another station, until the
/// user leaves or is refused. `words`: the line for the station.
ExitStatus AttachInFleet(const Settings& settings, const FarShell& shell,
                         const std::string& console, const std::vector<std::string>& words);

}  // namespace zevctl
