// The clocks, and what is measured with the one that nobody sets (CLOCK_MONOTONIC). Any thread.
#pragma once

#include <cstdint>
#include <ctime>

namespace zevd {

inline constexpr int64_t kMicrosecondsPerSecond = 1'000'000;
inline constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

/// The clock as nanoseconds since its beginning.
int64_t Nanoseconds(clockid_t clock);

/// The wall clock, which may be set: nanoseconds since 1970, UTC.
int64_t WallNanoseconds();

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
