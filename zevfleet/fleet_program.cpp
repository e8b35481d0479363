#include "fleet_program.h"

#include <iostream>

#include "output.h"

namespace zevfleet {

using zevctl::ExitStatus;

void SetAction(zevctl::Command command, FleetProgram& program,
               std::function<ExitStatus(const FleetOptions&)> action) {
  command.SetAction(program.line, [&program, action = std::move(action)] {
    zevctl::Findings findings;
    const FleetOptions options = LoadFleetOptions(program.config, findings);
    for (const zevctl::Finding& finding : findings.Sorted()) zevctl::Announce(finding.InWords());
    return findings.errors() > 0 ? ExitStatus::kFailed : action(options);
  });
}

void SetHardyAction(zevctl::Command command, FleetProgram& program,
                    std::function<ExitStatus(const FleetOptions&)> action) {
  command.SetAction(program.line, [&program, action = std::move(action)] {
    FleetOptions options;
    try {
      zevctl::Findings findings;
      options = LoadFleetOptions(program.config, findings);
    } catch (const zevctl::Failure&) {
      // A station that is in no fleet has no settings.
      return action(FleetOptions());
    }
    return action(options);
  });
}

void Tell(const std::string& text) {
  zevctl::Announce("zevfleet: " + text);
}

void AddCheckCommand(zevctl::Command& app, FleetProgram& program) {
  SetAction(app.AddCommand("check", "Check the settings"), program, [&](const FleetOptions&) {
    std::cout << program.config << ": no mistakes\n";
    return ExitStatus::kOk;
  });
}

}  // namespace zevfleet
