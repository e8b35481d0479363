#include "fleet_daemon.h"

#include "config_station.h"
#include "fleet_holder.h"
#include "settings.h"

namespace zevfleet {

namespace {

constexpr int kKillMilliseconds = 1000;

std::string LockFile() {
  return zevctl::kStationRoot + "/config/zev.lock";
}

}  // namespace

bool FleetDaemon::Runs() const {
  return IsLocked(LockFile(), kDaemonUnit);
}

std::optional<DaemonConsoles> FleetDaemon::Consoles() {
  // The connection may be one to a daemon that has been replaced since.
  if (port_ != nullptr) {
    if (auto consoles = Ask()) return consoles;
  }
  return Ask();
}

std::optional<DaemonConsoles> FleetDaemon::Ask() {
  try {
    if (port_ == nullptr) {
      zevctl::Settings settings;
      settings.port = options_.main_port;
      settings.user = "zevfleet";
      zevctl::Credentials nobody = zevctl::Credentials::Unasked();
      port_ = std::make_unique<zevctl::CommandPort>(settings, nobody);
    }
    return zevctl::AskForUsers(*port_);
  } catch (const zevctl::Failure&) {
    port_.reset();
    return {};
  }
}

void FleetDaemon::Kill() const {
  const auto daemon = LockHolder::Find(LockFile(), kDaemonUnit);
  if (daemon) daemon->Kill(kKillMilliseconds);
}

}  // namespace zevfleet
