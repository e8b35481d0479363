// The commands that share consoles, as the command line has them.
#include "fleet_guard.h"
#include "fleet_program.h"
#include "fleet_run.h"

namespace zevfleet {

void AddOwnershipCommands(zevctl::Command& app, FleetProgram& program) {
  SetAction(app.AddCommand("run", "Claim consoles and have the daemon serve them"), program, Run);
  SetAction(app.AddCommand("guard", "End the daemon when the station's lease is over"), program,
            Guard);
  SetHardyAction(
      app.AddCommand("prepare", "Before the daemon starts: see to the consoles in its files"),
      program, Prepare);
}

}  // namespace zevfleet
