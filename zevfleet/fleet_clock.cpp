#include "fleet_clock.h"

#include <ctime>

namespace zevfleet {

int64_t BootNow() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * kSecond + now.tv_nsec;
}

void SleepUntil(int64_t moment) {
  const timespec until{.tv_sec = moment / kSecond, .tv_nsec = moment % kSecond};
  clock_nanosleep(CLOCK_BOOTTIME, TIMER_ABSTIME, &until, nullptr);
}

}  // namespace zevfleet
