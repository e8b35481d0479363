// How long a request may look into the past.
#pragma once

#include <chrono>
#include <cstddef>

namespace zevweb {

/// Thrown where reading ends before all has been read.
struct WebEnough {};

class WebDeadline {
 public:
  using Clock = std::chrono::steady_clock;

  explicit WebDeadline(std::chrono::milliseconds limit) : end_(Clock::now() + limit) {}

  bool HasPassed() const { return Clock::now() >= end_; }

  /// Looks at the clock now and then; throws WebEnough when the time is up.
  void Tick() {
    constexpr size_t kTicks = 64;
    if (++ticks_ % kTicks == 0 && HasPassed()) throw WebEnough();
  }

 private:
  Clock::time_point end_;
  size_t ticks_ = 0;
};

}  // namespace zevweb
