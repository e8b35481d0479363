// What main() and the commands share: each command declares itself to the parser, and parsing picks
// the action that main() then runs.
#pragma once

#include <functional>
#include <string>

#include "arguments.h"
#include "exit_status.h"
#include "fleet_options.h"
#include "program.h"
#include "settings.h"

namespace zevfleet {

struct FleetProgram {
  std::string config = zevctl::kStationRoot + "/config/zevfleet.toml";
  zevctl::Program line;  ///< its action is that of the command that was named
};

/// Lets the command run with the settings; the program ends where these have mistakes.
void SetAction(zevctl::Command command, FleetProgram& program,
               std::function<zevctl::ExitStatus(const FleetOptions&)> action);

/// Lets the command run with the settings as far as there are any, whatever is wrong with them.
void SetHardyAction(zevctl::Command command, FleetProgram& program,
                    std::function<zevctl::ExitStatus(const FleetOptions&)> action);

/// A line on standard error, after the program's name.
void Tell(const std::string& text);

// Each adds its commands. The order is that of the help.
void AddCheckCommand(zevctl::Command& app, FleetProgram& program);
void AddOwnershipCommands(zevctl::Command& app, FleetProgram& program);  ///< run, guard, prepare
void AddShipCommand(zevctl::Command& app, FleetProgram& program);
void AddManageCommands(zevctl::Command& app, FleetProgram& program);  ///< apply, move, status

}  // namespace zevfleet
