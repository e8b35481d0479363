// Consoles as operators look at them: the records of the command port, with what only its command
// "status" tells.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "command_port.h"

namespace zevctl {

struct ConsoleView : ConsoleRecord {
  std::string state_word;  ///< "connected" and so on
  time_t since = 0;        ///< how long it has had its state; 0 when that is not known
  time_t last_output = 0;  ///< 0 when it has printed nothing, or that is not known

  /// Those who are attached, in the order of arrival; nothing when the daemon did not tell. Users
  /// that the daemon hides from "who" are left out here, too.
  std::optional<std::vector<std::string>> users;

  bool IsUp() const { return state_word == "connected" || state_word == "in-use"; }
  bool IsDisabled() const { return state_word == "disabled"; }
};

/// The records, each with what the answer to "status" tells about its console. Both have the
/// consoles of one name in the same order. What the answer does not have stays as it is.
std::vector<ConsoleView> WithStatus(const std::vector<ConsoleRecord>& records,
                                    std::string_view answer);

/// All consoles. A daemon that does not know the command "status" is asked for the users of
/// consoles in use. Throws as CommandPort does.
std::vector<ConsoleView> ViewConsoles(CommandPort& port);

}  // namespace zevctl
