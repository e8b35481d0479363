// What the thread cons_conn waits for between two passes: news of a connection in progress, a call
// of its waker, and the next moment for which a console waits. It is that thread's own.
#pragma once

#include <cstdint>
#include <ctime>

#include "waker.h"

namespace zevd {

class AttemptWait {
 public:
  /// Milliseconds; no wait is longer.
  static constexpr int64_t kLongest = 2000;

  /// When the system has no descriptor left, which is reported, a wait does without news of the
  /// connections: the pass that follows it finds them.
  void Open();

  /// News of this connecting socket end a wait from now on. They do so once: an established
  /// connection that nothing is done with yet ends no further wait before more comes in.
  void Watch(int sock) const;

  /// To be called before a watched socket is closed or becomes another thread's, or its news may go
  /// on to end waits.
  void Forget(int sock) const;

  /// Forgets the moments that were noted before: each pass notes them anew.
  void BeginPass();

  /// The next pass is to begin no later than that second of time() does, or than so many
  /// milliseconds from now.
  void NoteSecond(time_t second);
  void NoteDelay(int64_t milliseconds);

  /// For how long there is nothing to do.
  int64_t Milliseconds() const;

  /// Waits until then, or until one of the others ends the wait.
  void Wait(const Waker& waker) const;

  /// Readable while there is news that has ended no wait yet; -1 before Open().
  int descriptor() const { return descriptor_; }

 private:
  static constexpr time_t kNoSecond = -1;

  int descriptor_ = -1;
  time_t second_ = kNoSecond;  ///< the earliest that was noted
  int64_t delay_ = kLongest;   ///< the shortest that was noted
};

}  // namespace zevd
