// Ending a wait in select() from another thread.
#pragma once

#include <atomic>

namespace zevd {

/// Ends the wait of one monitor thread when a member joins its list or is marked closed. An
/// eventfd, put into the waiter's private copy of the set only, so that it is never a member.
class Waker {
 public:
  /// Before the threads start. False when the system has no descriptor left (errno tells).
  [[nodiscard]] bool Open();

  /// Ends the wait that is going on, or else the next one. Whoever marks a record for the waiting
  /// thread calls it after that. Any thread, any lock held.
  void Wake();

  /// Whether Wake() was called since `seen` was brought up to date, which this does. It tells the
  /// waiting thread that looking for marked records may be worth its while.
  bool WokenSince(unsigned* seen) const;

  /// Forgets all calls of Wake() so far. The waiting thread only.
  void Drain() const;

  int descriptor() const { return descriptor_; }

  /// A descriptor beside the list's that ends the wait while it is readable, -1 for none. It is the
  /// waiting thread's, which reads from it after the wait.
  void Beside(int descriptor) { beside_ = descriptor; }
  int beside() const { return beside_; }

 private:
  int descriptor_ = -1;
  int beside_ = -1;                 ///< the waiting thread only
  std::atomic<unsigned> wakes_{0};  ///< how often Wake() was called; wraps round
};

extern Waker cons_mon_waker;
extern Waker user_mon_waker;
extern Waker cmd_mon_waker;

}  // namespace zevd
