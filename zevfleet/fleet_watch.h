// Follows the fleet's keys in a thread of its own, with a connection of its own, and hands over
// what has changed. Where the connection breaks it goes on behind what it has seen, and where that
// is not possible any more it begins with all keys again.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fleet_etcd.h"
#include "fleet_view.h"

namespace zevfleet {

class FleetWatch {
 public:
  /// Starts the thread.
  FleetWatch(const EtcdOptions& options, std::string prefix);
  ~FleetWatch();
  FleetWatch(const FleetWatch&) = delete;
  FleetWatch& operator=(const FleetWatch&) = delete;

  /// What has come since the last call; waits for that many milliseconds at most. Main thread.
  std::vector<FleetNews> Wait(int milliseconds);

  /// The connection may hang: begin another one, at another endpoint. Any thread.
  void Restart() { restart_ = true; }

  /// Why nothing comes at present; empty while all is well. Any thread.
  std::string Trouble();

 private:
  void Run();
  void Follow(Etcd& etcd);
  bool TakeEvents(const Json& result);
  void Hand(FleetNews news);
  void SetTrouble(const std::string& trouble);

  const EtcdOptions options_;
  const std::string prefix_;
  int64_t seen_ = 0;  // the thread's: the revision up to which everything was handed over
  std::atomic<bool> stop_ = false;
  std::atomic<bool> restart_ = false;  // also true when stop_ is
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<FleetNews> news_;  // guarded by mutex_, as what follows
  std::string trouble_;
  std::thread thread_;
};

}  // namespace zevfleet
