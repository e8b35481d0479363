// How long the pauses of a replay are.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace zevctl {

using Nanoseconds = std::chrono::nanoseconds;

/// When a record was made, by both clocks.
struct Instant {
  int64_t wall = 0;
  int64_t monotonic = 0;
  uint64_t run = 0;  ///< of the daemon; the monotonic time is compared only within one
};

/// The time between two records, as it passed for the console: a wall clock that was set in between
/// makes no difference within a run. Never negative.
Nanoseconds Between(const Instant& earlier, const Instant& later);

/// A span of seconds; what is too long is cut to some centuries.
Nanoseconds Seconds(double seconds);

class Pace {
 public:
  static constexpr double kSlowest = 0.0625;
  static constexpr double kFastest = 1024;

  /// `most_idle`: what is longer is shortened to this; none: nothing is.
  Pace(double speed, std::optional<Nanoseconds> most_idle);

  double speed() const { return speed_; }
  void Double();
  void Halve();

  /// A pause as it is played at speed 1.
  Nanoseconds Shortened(Nanoseconds pause) const;

  /// How long a played span takes the person who looks, and the reverse.
  Nanoseconds ToReal(Nanoseconds played) const;
  Nanoseconds ToPlayed(Nanoseconds real) const;

 private:
  double speed_;
  std::optional<Nanoseconds> most_idle_;
};

}  // namespace zevctl
