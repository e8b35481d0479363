// How long a peer has been taking nothing, or too little.
#pragma once

#include <cstdint>

namespace zevd {

/// Milliseconds after which a peer counts as stalled.
struct StallLimits {
  int64_t idle;     ///< without taking a single byte, whoever sent it
  int64_t no_room;  ///< without taking enough to make room for more
};

/// One sender's wait for room at a peer, to which others may be sending as well. Guarded by
/// whatever guards the record that it is a field of.
class Stall {
 public:
  /// To be called each time there is no room to send to `sock`. True once that has gone on for too
  /// long.
  bool IsTooLong(int sock, const StallLimits& limits);

  /// There is room again.
  void End() { since_ = -1; }

  /// True when this one has been without room since an earlier time than `other`.
  bool IsLongerThan(const Stall& other) const {
    return since_ >= 0 && (other.since_ < 0 || since_ < other.since_);
  }

 private:
  int64_t since_ = -1;         // milliseconds of the monotonic clock; -1 while there is room
  int64_t last_progress_ = 0;  // the same clock
  uint64_t taken_ = 0;         // bytes, at the last call
};

}  // namespace zevd
