// What this program tells the system's service manager (sd_notify(3)). Without one, nothing.
#pragma once

#include <chrono>
#include <string>

#include "descriptor.h"

namespace zevweb {

class WebManager {
 public:
  /// Takes the manager's variables out of the environment.
  WebManager();

  void Say(const std::string& text);

  /// Tells that the program is alive when that is due.
  void Feed();

 private:
  using Clock = std::chrono::steady_clock;

  std::string address_;
  zevctl::Descriptor socket_;
  std::chrono::microseconds interval_{0};
  Clock::time_point fed_{};
};

}  // namespace zevweb
