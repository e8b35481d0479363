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

  /// Another descriptor that ends the wait while it is readable, -1 for none. The waiting thread
  /// sets it, and reads from it after the wait.
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
