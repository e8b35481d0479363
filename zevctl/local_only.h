// Commands that work with files of this machine.
#pragma once

#include <string>

#include "settings.h"

namespace zevctl {

/// Throws Failure(kUsage) when the user has named another host, where the files of this machine
/// would be the wrong ones. `command`: its name; `what`: what it works with, such as "log files".
void RequireThisHost(const Settings& settings, const std::string& command, const std::string& what);

}  // namespace zevctl
