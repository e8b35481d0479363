// Keeps the station's lease alive in a thread of its own, so that nothing else that this program
// does can make it late. Every renewal that etcd has confirmed moves the deadline on.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "fleet_deadline.h"
#include "fleet_etcd.h"
#include "fleet_record.h"

namespace zevfleet {

/// How long before the lease can end everything must have been let go, in nanoseconds: for clocks
/// that run unequally and for a kill that takes its time.
int64_t LeaseMargin(int64_t lease_seconds);

class LeaseKeeper {
 public:
  /// Starts the thread. `station`: what the others see of this one. `key`: where.
  LeaseKeeper(const EtcdOptions& options, DeadlineFile& file, const EtcdLease& lease,
              std::string key, FleetStation station);
  ~LeaseKeeper();
  LeaseKeeper(const LeaseKeeper&) = delete;
  LeaseKeeper& operator=(const LeaseKeeper&) = delete;

  // Any thread.

  /// Tells the others at once whether this station may have consoles.
  void SetReady(bool ready);

  /// The number of the last renewal that etcd has confirmed, and when that was (CLOCK_BOOTTIME).
  uint64_t beat() const { return beat_; }
  int64_t confirmed() const { return confirmed_; }

  /// Why the lease is over; empty while it is not.
  std::string Loss();

  /// Why the last renewal failed; empty after one that did not.
  std::string Trouble();

 private:
  void Run();
  bool Renew(Etcd& etcd);
  void Pause(int64_t until);
  void Lose(const std::string& why);

  const EtcdOptions options_;
  DeadlineFile& file_;
  const EtcdLease lease_;
  const std::string key_;
  FleetStation station_;           // the thread's
  std::optional<EtcdTerm> known_;  // the thread's: where the last renewal was confirmed
  std::atomic<uint64_t> beat_ = 0;
  std::atomic<int64_t> confirmed_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool ready_ = false;  // guarded by mutex_, as what follows
  bool stop_ = false;
  bool hurry_ = false;
  std::string loss_;
  std::string trouble_;
  std::thread thread_;
};

}  // namespace zevfleet
