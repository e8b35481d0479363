// The clock of leases: it counts on while the machine sleeps, and nobody can set it.
#pragma once

#include <cstdint>

namespace zevfleet {

/// Nanoseconds of CLOCK_BOOTTIME (clock_gettime(2)).
int64_t BootNow();

/// Nanoseconds of the processor that this thread has used.
int64_t ProcessorNow();

inline constexpr int64_t kMillisecond = 1'000'000;
inline constexpr int64_t kSecond = 1'000'000'000;

/// Sleeps until the moment of that clock; a signal may end it earlier.
void SleepUntil(int64_t moment);

}  // namespace zevfleet
