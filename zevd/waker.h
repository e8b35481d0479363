// Waiting for a list's sockets with select(), and ending such a wait from another thread.
#pragma once

#include <sys/time.h>

#include "descriptor_set.h"

/// Ends the wait of one monitor thread when a member joins its list or is marked closed. An
/// eventfd, put into the waiter's private copy of the set only, so that it is never a member.
class Waker {
 public:
  /// Before the threads start. False when the system has no descriptor left (errno tells).
  [[nodiscard]] bool Open();

  /// Ends the wait that is going on, or else the next one. Any thread, any lock held.
  void Wake() const;

  /// Forgets all calls of Wake() so far. The waiting thread only.
  void Drain() const;

  int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
};

/// Waits until a member of `set` (descriptors 0 to `high_sock`) is readable, `waker` is woken or
/// `timeout` is over; select() leaves the unslept time in `timeout`. Afterwards `set` holds the
/// readable members. Returns their number, the waker not counted, or -1 with errno set.
int WaitForMembers(int high_sock, DescriptorSet& set, const Waker& waker, timeval* timeout);

extern Waker cons_mon_waker;
extern Waker user_mon_waker;
extern Waker cmd_mon_waker;
