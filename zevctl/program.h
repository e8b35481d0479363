// What main() and the commands share: each command declares itself to the parser, and parsing picks
// the action that main() then runs.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "exit_status.h"
#include "settings.h"

namespace CLI {
class App;
}

namespace zevctl {

struct Program {
  Settings settings;
  std::function<ExitStatus()> action;  ///< set by the command that was named
};

// Each adds its commands. The order is that of the help.
void AddListCommand(CLI::App& app, Program& program);
void AddQueryCommands(CLI::App& app, Program& program);  ///< who, ports, holder
void AddControlCommands(CLI::App& app,
                        Program& program);  ///< clear, disable, enable, msg, force, reconnect
void AddAttachCommand(CLI::App& app, Program& program);
void AddLogCommand(CLI::App& app, Program& program);
void AddEventsCommand(CLI::App& app, Program& program);
void AddConfigCommand(CLI::App& app, Program& program);
void AddSetupCommand(CLI::App& app, Program& program);
void AddReportCommand(CLI::App& app, Program& program);
void AddCompletionCommand(CLI::App& app, Program& program);

/// Prints what may stand in place of the last word, one possibility in each line. The words are
/// those of a command line that is being typed, without the program's name. The functions for the
/// shells call it.
ExitStatus Complete(const CLI::App& app, std::vector<std::string> words);

}  // namespace zevctl
