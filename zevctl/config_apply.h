// Making the readable configuration count: the files, the lines, and the running daemon.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config_diff.h"
#include "config_file.h"
#include "config_load.h"
#include "config_station.h"
#include "settings.h"

namespace zevctl {

struct ApplyOptions {
  bool force = false;  ///< replace a foreign zev.conf, and accept a configuration without consoles
  bool yes = false;    ///< do not ask before users are disconnected
};

struct ApplyResult {
  std::vector<Change> changes;
  size_t consoles = 0;
  bool daemon_runs = false;
  bool reloaded = false;  ///< else the daemon had read it before
  uint64_t reload = 0;    ///< its number
  std::string advice;     ///< what is left to do for the user; empty for nothing
};

/// The users whom the changes disconnect.
size_t UsersLost(const std::vector<Change>& changes, const UserCounts& users);

/// Throws Failure(kUsage) when the settings mean a daemon on another machine.
void CheckHost(const Settings& settings);

/// Puts a configuration without errors in place, which was loaded under the lock of the directory.
/// Throws Failure; the station is then as before, unless the message says otherwise.
ApplyResult Apply(const Settings& settings, const ConfigDirectory& directory,
                  const LoadedConfig& config, const ApplyOptions& options);

}  // namespace zevctl
