// The way of output to one user. Whoever has something for the user sends it at once, as long as
// the socket takes it, and never waits: the rest goes through the user's queue (output_queue.h),
// which the user input monitor empties.
#pragma once

#include <sys/time.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "mutex.h"
#include "output_queue.h"
#include "thread_safety.h"

namespace zevd {

/// Before the threads start: what tells of sockets that have room again. False when the system has
/// no descriptor left (errno tells).
[[nodiscard]] bool OpenUserOutputs();

/// Readable while some queue can be emptied further; for the wait of the user input monitor.
int UserOutputsDescriptor();

class UserOutput {
 public:
  explicit UserOutput(int sock) : sock_(sock) {}
  ~UserOutput();
  UserOutput(const UserOutput&) = delete;
  UserOutput& operator=(const UserOutput&) = delete;

  /// Before the first Send() that may find no room. False when the system has no memory for it
  /// (errno tells).
  [[nodiscard]] bool Watch();

  /// Sends the bytes or puts them into the queue. False when the connection fails (errno tells);
  /// not when it has failed already while the queue was being emptied. Any thread.
  [[nodiscard]] bool Send(const char* bytes, size_t count) EXCLUDES(mutex_);

  /// True when everything has been sent, or never can be.
  bool IsEmpty() EXCLUDES(mutex_);

  /// True when the connection failed while the queue was being emptied.
  bool HasFailed() EXCLUDES(mutex_);

 private:
  friend class ClosingOutputs;
  friend bool SendWaitingOutput();

  bool SendNow(const char** bytes, size_t* count) REQUIRES(mutex_);
  bool SendFromQueue() EXCLUDES(mutex_);
  void CountLeftOut(size_t count) REQUIRES(mutex_);
  void AwaitRoom() REQUIRES(mutex_);

  const int sock_;  // of the user's record, or of ClosingOutputs
  bool watched_ = false;
  // A leaf. Held while the socket is sent to, without waiting.
  Mutex mutex_;
  OutputQueue queue_ GUARDED_BY(mutex_);
  bool failed_ GUARDED_BY(mutex_) = false;  // while the queue was being emptied
  bool slow_ GUARDED_BY(mutex_) = false;    // something was left out
  // Of ClosingOutputs.
  UserOutput* next_ = nullptr;
  int64_t close_at_ = 0;  // microseconds of the monotonic clock
};

/// Sends what waits in the queues, as far as the sockets have room, in turns and for a millisecond
/// at most. True when some connection has failed. The user input monitor only.
bool SendWaitingOutput();

/// The sockets of users who have left both lists while something waited to be sent to them: each is
/// closed when nothing does any more, after a second at most. The user input monitor's own.
class ClosingOutputs {
 public:
  /// Takes the socket over, and closes it at once when nothing waits.
  void Add(std::unique_ptr<UserOutput> output);

  /// Closes what has nothing to send any more or has had its second.
  void CloseDone();

  /// Shortens a wait so that it ends when the next socket is to be closed.
  void Shorten(timeval* wait) const;

 private:
  static void Close(UserOutput* output);

  UserOutput* first_ = nullptr;  // nothing frees it at the end, as other threads may still run
};

}  // namespace zevd
