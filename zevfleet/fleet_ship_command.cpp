// "zevfleet ship": sends the journal to NATS.
#include <atomic>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>

#include "fleet_program.h"
#include "fleet_shipper.h"
#include "journal_open.h"

namespace zevfleet {

namespace {

using zevctl::ExitStatus;

std::atomic<bool> is_asked_to_end;

void AskToEnd(int) {
  is_asked_to_end = true;
}

void TakeSignals() {
  struct sigaction action {};
  action.sa_handler = AskToEnd;
  for (const int number : {SIGTERM, SIGINT}) sigaction(number, &action, nullptr);
}

struct ShipArguments {
  std::string journal = zevctl::DefaultJournalDirectory();
  bool once = false;
};

ExitStatus Ship(const FleetOptions& options, const ShipArguments& arguments) {
  if (options.nats.urls.empty()) {
    throw zevctl::Failure(ExitStatus::kFailed,
                          "the settings name no server: set \"urls\" in [nats]");
  }
  TakeSignals();
  Shipper shipper(options, arguments.journal, arguments.once,
                  [] { return is_asked_to_end.load(); });
  const uint64_t messages = shipper.Run();
  if (arguments.once) std::cout << "messages: " << messages << "\n";
  return ExitStatus::kOk;
}

}  // namespace

void AddShipCommand(zevctl::Command& app, FleetProgram& program) {
  auto arguments = std::make_shared<ShipArguments>();
  zevctl::Command command = app.AddCommand("ship", "Send the journal to NATS, as it grows");
  command.AddFlag("--once", arguments->once,
                  "End when what the journal has now has been acknowledged");
  command.AddOption("--journal-dir", arguments->journal, zevctl::kJournalDirHelp).ShowDefault();
  SetAction(command, program,
            [arguments](const FleetOptions& options) { return Ship(options, *arguments); });
}

}  // namespace zevfleet
