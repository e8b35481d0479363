// The commands that act on consoles, and what became of them in words.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "command_port.h"
#include "console_view.h"

namespace zevctl {

/// The consoles of one name, as they were before the command. There is at least one.
struct ControlTarget {
  std::string name;
  std::vector<ConsoleView> consoles;
};

/// What became of a command on one name.
struct ControlOutcome {
  ExitStatus status = ExitStatus::kOk;
  std::string text;
};

/// True for clear, disable, enable, force, reconnect and msg.
bool IsControl(std::string_view command);

/// Runs one of these commands. `arguments` stands behind the name, with a blank in front, and has
/// no line end. Throws as CommandPort does.
ControlOutcome PerformControl(CommandPort& port, std::string_view command,
                              const ControlTarget& target, const std::string& arguments);

}  // namespace zevctl
