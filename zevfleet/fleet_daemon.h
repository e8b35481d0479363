// The station's daemon, as zevfleet sees it: whether it runs, which consoles it has and who is
// attached. Belongs to one thread.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "command_port.h"
#include "fleet_options.h"

namespace zevfleet {

/// How many users each console has, by its name in lower case with "_" for "-".
using DaemonConsoles = std::map<std::string, size_t>;

class FleetDaemon {
 public:
  explicit FleetDaemon(const FleetOptions& options) : options_(options) {}

  /// True while a daemon holds the station's lock.
  bool Runs() const;

  /// What it says of its consoles; nothing when it does not answer. The connection is kept.
  std::optional<DaemonConsoles> Consoles();

  /// SIGKILL; returns when it has ended, or after a second.
  void Kill() const;

 private:
  std::optional<DaemonConsoles> Ask();

  const FleetOptions& options_;
  std::unique_ptr<zevctl::CommandPort> port_;
};

}  // namespace zevfleet
