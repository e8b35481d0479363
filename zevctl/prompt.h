// Questions to the person at the terminal. They go to /dev/tty, so that standard input and output
// stay free for data.
#pragma once

#include <optional>
#include <string>

#include "secret.h"

namespace zevctl {

/// The line that the person types, without its end; nothing when there is no terminal or no line.
std::optional<std::string> Ask(const std::string& question);

/// The same, but what is typed is not shown. A signal that ends the program does so once the
/// terminal has been restored; while the program is stopped, the terminal shows what is typed.
std::optional<Secret> AskSecret(const std::string& question);

/// Shows the text on the terminal, if there is one.
void Tell(const std::string& text);

}  // namespace zevctl
