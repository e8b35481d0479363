// What is said about a command line that the parser did not understand.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "arguments.h"

namespace zevctl {

/// What is wrong, the nearest words where one was mistyped, and where to look. `app` is what was
/// being parsed.
std::string MistakeIn(const Command& app, const ParseResult& mistake);

/// The names of the commands.
std::vector<std::string> CommandNames(const Command& app);

/// The long options that may stand behind the command, "--" included, in order; those that may
/// stand before any command, too.
std::vector<std::string> OptionNames(const Command& app, const std::optional<Command>& command);

}  // namespace zevctl
