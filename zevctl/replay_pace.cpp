#include "replay_pace.h"

#include <algorithm>
#include <cmath>

namespace zevctl {

namespace {

constexpr double kNanosecond = 1e-9;
constexpr double kMostSeconds = 9e9;

}  // namespace

Nanoseconds Between(const Instant& earlier, const Instant& later) {
  const bool one_run = earlier.run == later.run && earlier.run != 0;
  const int64_t from = one_run ? earlier.monotonic : earlier.wall;
  const int64_t to = one_run ? later.monotonic : later.wall;
  int64_t span = 0;
  if (to <= from) return Nanoseconds(0);
  if (__builtin_sub_overflow(to, from, &span)) return Nanoseconds::max();
  return Nanoseconds(span);
}

Nanoseconds Seconds(double seconds) {
  return Nanoseconds(std::llround(std::clamp(seconds, 0.0, kMostSeconds) / kNanosecond));
}

Pace::Pace(double speed, std::optional<Nanoseconds> most_idle)
    : speed_(std::clamp(speed, kSlowest, kFastest)), most_idle_(most_idle) {}

void Pace::Double() {
  speed_ = std::min(speed_ * 2, kFastest);
}

void Pace::Halve() {
  speed_ = std::max(speed_ / 2, kSlowest);
}

Nanoseconds Pace::Shortened(Nanoseconds pause) const {
  return most_idle_ ? std::min(pause, *most_idle_) : pause;
}

Nanoseconds Pace::ToReal(Nanoseconds played) const {
  return Seconds(static_cast<double>(played.count()) * kNanosecond / speed_);
}

Nanoseconds Pace::ToPlayed(Nanoseconds real) const {
  return Seconds(static_cast<double>(real.count()) * kNanosecond * speed_);
}

}  // namespace zevctl
