// The heart of "zevfleet run": what the view of the fleet asks of this station becomes claims in
// etcd and consoles in the daemon, in the order that keeps two stations from having one console.
// A console is claimed before it is in the daemon's files, and it is out of the daemon before its
// claim is given up. Main thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fleet_claimer.h"
#include "fleet_claims.h"
#include "fleet_daemon.h"
#include "fleet_deadline.h"
#include "fleet_files.h"
#include "fleet_join.h"

namespace zevfleet {

/// Has the daemon let go of all consoles of the fleet: by a reload or, where that fails, by ending
/// it. Throws zevctl::Failure when its files cannot be written.
void LetDaemonGo(FleetFiles& files, const FleetDaemon& daemon, DeadlineFile& file);

class FleetOwner {
 public:
  FleetOwner(const FleetOptions& options, Etcd& etcd, DeadlineFile& file, const Membership& member);

  /// One round. Throws EtcdError where etcd did not do what was asked; the next round goes on.
  void Work(const FleetView& view, int64_t now);

  /// Gives everything back. Throws zevctl::Failure when the daemon does not let go.
  void GiveBack(const FleetView& view);

  /// Whether others may count on this station.
  bool IsReady(int64_t now) const;

  /// What is wrong, in words; empty for nothing.
  const std::string& problem() const { return problem_; }

 private:
  using Names = std::vector<std::string>;

  void WatchDaemon(int64_t now);
  Names Leaving(const FleetView& view, int64_t now);
  void Serve(const FleetView& view, const Names& held, const Names& leaving, int64_t now);
  void Change(const std::vector<zevctl::ConfigConsole>& consoles,
              std::map<std::string, std::string>& wanted);
  bool ApplyAndCheck(const std::vector<zevctl::ConfigConsole>& consoles, const Names& gone);
  void TakeFailure(const std::string& why, const FleetView& view, const Names& held, int64_t now);
  void GiveUpUnserved(const FleetView& view, const std::map<std::string, std::string>& addresses);
  void NoteArrivals(const FleetView& view);
  ClaimSelf Self(int64_t now) const;

  const FleetOptions& options_;
  Etcd& etcd_;
  DeadlineFile& file_;
  const Membership member_;
  const FleetKeys keys_;
  FleetClaimer claimer_;
  FleetFiles files_;
  FleetDaemon daemon_;
  std::map<std::string, std::string> served_;  // lines, by name: what the daemon's files have
  bool served_is_known_ = false;               // false after a start: the files may have more
  int64_t daemon_seen_ = 0;                    // CLOCK_BOOTTIME: when it last answered
  int64_t daemon_since_ = 0;                   // since when it runs; 0 while it does not
  bool guard_runs_ = false;
  bool claims_are_renewed_ = false;  // those of an earlier run of the lease
  int64_t not_before_ = 0;           // after a failure, when to try again
  std::string problem_;
};

}  // namespace zevfleet
