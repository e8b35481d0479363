// The clock that nobody sets (CLOCK_MONOTONIC), and what is measured with it. Any thread.
#pragma once

#include <cstdint>

namespace zevd {

inline constexpr int64_t kMicrosecondsPerSecond = 1'000'000;

int64_t MonotonicMicroseconds();
int64_t MonotonicMilliseconds();

/// Lets something through at most once in an interval. Belongs to one thread.
class Throttle {
 public:
  /// `interval` in milliseconds.
  explicit Throttle(int64_t interval) : interval_(interval) {}

  /// True the first time, and again once the interval has passed since it was last true.
  bool IsDue();

 private:
  int64_t interval_;
  int64_t next_ = 0;  // milliseconds
};

}  // namespace zevd
