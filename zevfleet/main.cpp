// zevfleet: many stations as one. zevfleet.8 describes the commands and changes together with them.
#include <sys/stat.h>

#include <csignal>
#include <exception>
#include <iostream>

#include "exit_status.h"
#include "fleet_program.h"

namespace {

using zevctl::ExitStatus;
using zevctl::ParseEnd;

constexpr mode_t kMask = 0027;

void DeclareCommands(zevctl::Command& app, zevfleet::FleetProgram& program) {
  app.RequireCommand();
  app.AddOption("--config", program.config, "The settings").ShowDefault();
  AddCheckCommand(app, program);
  AddOwnershipCommands(app, program);
  AddManageCommands(app, program);
  AddShipCommand(app, program);
}

}  // namespace

int main(int argc, char** argv) try {
  umask(kMask);
  signal(SIGPIPE, SIG_IGN);
  zevctl::CommandLine line("Joins stations whose consoles are shared.", "zevfleet",
                           "zevfleet " QOR_VERSION);
  zevctl::Command app = line.program();
  zevfleet::FleetProgram program;
  DeclareCommands(app, program);
  const zevctl::ParseResult result = line.Parse(argc, argv);
  if (result.end == ParseEnd::kAnswered) {
    std::cout << result.text;
    return static_cast<int>(ExitStatus::kOk);
  }
  if (result.end != ParseEnd::kParsed) {
    zevfleet::Tell(result.text + "; see zevfleet --help");
    return static_cast<int>(ExitStatus::kUsage);
  }
  return static_cast<int>(program.line.action());
} catch (const zevctl::Failure& failure) {
  zevfleet::Tell(failure.what());
  return static_cast<int>(failure.status());
} catch (const std::exception& error) {
  zevfleet::Tell(error.what());
  return static_cast<int>(ExitStatus::kFailed);
}
