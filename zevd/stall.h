// How long a peer has been taking nothing, or too little.
#pragma once

#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <ctime>

/// Milliseconds after which a peer counts as stalled.
struct StallLimits {
  int64_t idle;     ///< without taking a single byte
  int64_t no_room;  ///< without taking enough to make room for more
};

/// Belongs to whoever holds the lock of the record that it is a field of.
class Stall {
 public:
  /// Called each time there is no room to send to `sock`. True once that has gone on for too long.
  bool IsTooLong(int sock, const StallLimits& limits) {
    const int64_t now = Now();
    const int backlog = Backlog(sock);
    if (since_ < 0) {
      since_ = now;
      last_progress_ = now;
    } else if (backlog < backlog_) {
      last_progress_ = now;
    }
    backlog_ = backlog;
    return now - last_progress_ >= limits.idle || now - since_ >= limits.no_room;
  }

  /// There is room again.
  void End() { since_ = -1; }

 private:
  static int64_t Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
  }

  // Bytes that the peer has not yet acknowledged (tcp(7)).
  static int Backlog(int sock) {
    int bytes = 0;
    return ioctl(sock, SIOCOUTQ, &bytes) == 0 ? bytes : 0;
  }

  int64_t since_ = -1;  // CLOCK_MONOTONIC, -1 while there is room
  int64_t last_progress_ = 0;
  int backlog_ = 0;
};
