// What is said about a command line that the parser did not understand.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace zevctl {

/// What is wrong, the nearest words where one was mistyped, and where to look. `app` is the parser
/// that failed.
std::string MistakeIn(const CLI::App& app, const CLI::ParseError& error);

/// The names of the commands.
std::vector<std::string> CommandNames(const CLI::App& app);

/// The long options that may stand behind the command, "--" included, in order; those that may
/// stand before any command, too. `command` may be null.
std::vector<std::string> OptionNames(const CLI::App& app, const CLI::App* command);

}  // namespace zevctl
