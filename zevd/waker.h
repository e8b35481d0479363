// Ending a wait in select() from another thread.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <span>

namespace zevd {

/// Ends the wait of one long-lived thread: when a member joins its list or is marked, when there is
/// something else for it to do, and when it is asked to stand still. An eventfd, put into the
/// waiter's private copy of the set only, so that it is never a member.
class Waker {
 public:
  /// Before the threads start. False when the system has no descriptor left (errno tells).
  [[nodiscard]] bool Open();

  /// Ends the present wait, or else the next one. Whoever marks a record for the waiting thread
  /// calls this afterwards. Any thread, any lock held.
  void Wake();

  /// Whether Wake() was called since `seen` was last updated, which this does; `seen` starts at 0.
  /// If not, the waiting thread need not look for marked records.
  bool WokenSince(unsigned* seen) const;

  /// Empties the eventfd, so that the calls of Wake() so far end no further wait. The waiting
  /// thread only.
  void Drain() const;

  int descriptor() const { return descriptor_; }

  /// Has another descriptor end the wait, too, while it is readable, or no longer. The waiting
  /// thread only, which reads from it after the wait. A mistake of the daemon's own ends the
  /// process: more than kMostBeside at a time, or one that is not there.
  static constexpr size_t kMostBeside = 4;
  void Beside(int descriptor);
  void NotBeside(int descriptor);
  std::span<const int> beside() const { return {beside_.data(), beside_count_}; }

 private:
  int descriptor_ = -1;
  std::array<int, kMostBeside> beside_{};  ///< the waiting thread only
  size_t beside_count_ = 0;
  std::atomic<unsigned> wakes_{0};  ///< how often Wake() was called; wraps round
};

extern Waker cons_conn_waker;
extern Waker cons_mon_waker;
extern Waker user_conn_waker;
extern Waker user_mon_waker;
extern Waker cmd_mon_waker;
extern Waker journal_waker;  ///< opened when there is a journal for the first time

}  // namespace zevd
