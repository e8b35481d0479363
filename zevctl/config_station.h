// What the running daemon tells about its reloads, its consoles and their users.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "command_port.h"

namespace zevctl {

struct ReloadState {
  uint64_t reloads = 0;  ///< those that have ended
  time_t latest = 0;     ///< when the daemon last read its files, be it at its start
  std::string result;    ///< of the last reload
};

/// Throws Failure when the daemon does not answer, or in a way that is not understood.
ReloadState AskForReloads(CommandPort& port);

/// How many users each console has, by its folded name (config_console.h).
using UserCounts = std::map<std::string, size_t>;
UserCounts AskForUsers(CommandPort& port);

}  // namespace zevctl
