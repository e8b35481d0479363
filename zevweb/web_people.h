// Who may use the station: root, and the members of the group of those who may log in.
#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

namespace zevweb {

/// Asks the system's user database, which may be far away, and remembers for a minute. Any thread
/// may use it.
class WebPeople {
 public:
  bool MayUse(const std::string& name);

 private:
  using Clock = std::chrono::steady_clock;
  struct Known {
    bool may_use = false;
    Clock::time_point asked;
  };

  std::mutex mutex_;
  std::map<std::string, Known> known_;
};

}  // namespace zevweb
