#include "fleet_clock.h"

#include <ctime>

namespace zevfleet {

namespace {

int64_t NowBy(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * kSecond + now.tv_nsec;
}

}  // namespace

int64_t BootNow() {
  return NowBy(CLOCK_BOOTTIME);
}

int64_t ProcessorNow() {
  return NowBy(CLOCK_THREAD_CPUTIME_ID);
}

void SleepUntil(int64_t moment) {
  const timespec until{.tv_sec = moment / kSecond, .tv_nsec = moment % kSecond};
  clock_nanosleep(CLOCK_BOOTTIME, TIMER_ABSTIME, &until, nullptr);
}

}  // namespace zevfleet
