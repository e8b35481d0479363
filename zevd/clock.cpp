#include "clock.h"

#include <ctime>

namespace zevd {

int64_t Nanoseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<int64_t>(now.tv_sec) * kNanosecondsPerSecond + now.tv_nsec;
}

int64_t WallNanoseconds() {
  return Nanoseconds(CLOCK_REALTIME);
}

int64_t MonotonicMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * kMicrosecondsPerSecond + now.tv_nsec / 1000;
}

int64_t MonotonicMilliseconds() {
  return MonotonicMicroseconds() / 1000;
}

bool Throttle::IsDue() {
  const int64_t now = MonotonicMilliseconds();
  if (now < next_) return false;
  next_ = now + interval_;
  return true;
}

}  // namespace zevd
