// What main() and the commands share: each command declares itself to the parser, and parsing picks
// the action that main() then runs.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "exit_status.h"
#include "settings.h"

namespace zevctl {

class Command;

struct Program {
  Settings settings;
  std::function<ExitStatus()> action;  ///< set by the command that was named
};

// Each adds its commands. The order is that of the help.
void AddListCommand(Command& app, Program& program);
void AddQueryCommands(Command& app, Program& program);  ///< who, ports, holder
void AddControlCommands(Command& app,
                        Program& program);  ///< clear, disable, enable, msg, force, reconnect
void AddAttachCommand(Command& app, Program& program);
void AddLogCommand(Command& app, Program& program);
void AddHistoryCommand(Command& app, Program& program);
void AddReplayCommand(Command& app, Program& program);
void AddEventsCommand(Command& app, Program& program);
void AddRehearseCommand(Command& app, Program& program);
void AddAuditCommand(Command& app, Program& program);
void AddHealthCommand(Command& app, Program& program);
void AddConfigCommand(Command& app, Program& program);
void AddSetupCommand(Command& app, Program& program);
void AddJournalCommand(Command& app, Program& program);
void AddTokenCommand(Command& app, Program& program);
void AddReportCommand(Command& app, Program& program);
void AddCompletionCommand(Command& app, Program& program);

/// Prints what may stand in place of the last word, one possibility in each line. The words are
/// those of a command line that is being typed, without the program's name. The functions for the
/// shells call it.
ExitStatus Complete(const Command& app, std::vector<std::string> words);

}  // namespace zevctl
