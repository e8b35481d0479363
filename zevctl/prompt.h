// Questions to the person at the terminal. They go to /dev/tty, so that standard input and output
// stay free for data.
#pragma once

#include <optional>
#include <string>

namespace zevctl {

/// The line that the person types, without its end; nothing without a terminal or at its end.
std::optional<std::string> Ask(const std::string& question);

/// The same, and what is typed is not shown.
std::optional<std::string> AskSecret(const std::string& question);

/// Shows the text on the terminal, if there is one.
void Tell(const std::string& text);

/// Overwrites the text before it is dropped.
void Wipe(std::string& text);

}  // namespace zevctl
