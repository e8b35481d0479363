// The daemon's side of the matcher (matcher_process.h): hands it the event sets with hard patterns
// and the lines to be matched against them, and posts the events when the answers come. Nothing
// here waits for the matcher.
//
// A line is kept until it is answered; answers come in the order of the lines. When the matcher
// ends, for whatever cause, another is started, and what it had not answered is handed over again,
// except for the line that it was at.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "locks.h"
#include "matcher_wire.h"
#include "mutex.h"

namespace zevd {

struct MatcherLine;

class Matcher {
 public:
  /// Bytes of all lines that have no answer yet, with what is kept of each. A line for which there
  /// is no room is lost.
  static constexpr size_t kQueueSize = size_t{1} << 20;

  /// Starts a matcher that has `sock` for its own, and sets its process id. 0 or an error number.
  using Starter = int (*)(int sock, pid_t* pid);

  explicit constexpr Matcher(Starter start) : start_(start) {}

  /// To be called when ev_list has been loaded: from now on its sets count, and no pattern is left
  /// out any more. Lines that have been handed over are still answered by the former sets; others
  /// are lost. The matcher runs while a set needs it. The thread "cons_mon", or main before there
  /// is another.
  void SetsChanged();

  /// A console's record, to be matched against a set of the matcher's. `console` is its number in
  /// the journal. Any thread.
  void Take(const char* cname, uint32_t set, std::string_view record, uint32_t console = 0);

  /// Takes in answers, posts events, and replaces a matcher that has ended. The thread "cons_mon",
  /// whose wait an answer ends, calls it once in each pass.
  void Serve() EXCLUDES(acl_lock, icl_lock);

 private:
  enum class Step { kDone, kAgain };

  Step TakeAnswer(MatcherMessage* message, MatcherLine** matched) REQUIRES(mutex_);
  MatcherLine* AnswerOf(const MatcherMessage& message) REQUIRES(mutex_);
  void NoteLeftOut(const MatcherMessage& message) REQUIRES(mutex_);
  void Start(int64_t now) REQUIRES(mutex_);
  void LoseConnection() REQUIRES(mutex_);
  void Reap(int64_t now) REQUIRES(mutex_);
  void SendSets() REQUIRES(mutex_);
  void SendLines() REQUIRES(mutex_);
  MatcherLine* RemoveFirst() REQUIRES(mutex_);
  void DropUnsent() REQUIRES(mutex_);
  void ReportLost(int64_t now) REQUIRES(mutex_);

  const Starter start_;

  Mutex mutex_;                                  ///< its holder takes only the debug lock
  bool wanted_ GUARDED_BY(mutex_) = false;       ///< some set needs the matcher
  bool answered_ GUARDED_BY(mutex_) = false;     ///< the present one has said something
  bool dismissed_ GUARDED_BY(mutex_) = false;    ///< it ends because it is not wanted
  bool forgotten_ GUARDED_BY(mutex_) = false;    ///< it has been told to forget former sets
  bool sets_told_ GUARDED_BY(mutex_) = false;    ///< it knows all sets
  size_t patterns_told_ GUARDED_BY(mutex_) = 0;  ///< of all sets together
  int sock_ GUARDED_BY(mutex_) = -1;             ///< -1: no connection
  pid_t pid_ GUARDED_BY(mutex_) = -1;            ///< -1: there is none to be waited for
  int last_error_ GUARDED_BY(mutex_) = 0;        ///< of the last start
  /// Microseconds: when the next one may be started.
  int64_t start_time_ GUARDED_BY(mutex_) = 0;
  /// Microseconds: between the last start and the next.
  int64_t delay_ GUARDED_BY(mutex_) = 0;
  /// The oldest line without an answer.
  MatcherLine* first_ GUARDED_BY(mutex_) = nullptr;
  MatcherLine* last_ GUARDED_BY(mutex_) = nullptr;  ///< the newest one
  /// The oldest one that the matcher does not have.
  MatcherLine* unsent_ GUARDED_BY(mutex_) = nullptr;
  size_t queued_ GUARDED_BY(mutex_) = 0;       ///< bytes of all of them
  uint64_t last_line_ GUARDED_BY(mutex_) = 0;  ///< number of the newest line
  /// Lines for which there was no room, and that have not been reported.
  unsigned long lost_ GUARDED_BY(mutex_) = 0;
  int64_t lost_since_ GUARDED_BY(mutex_) = 0;  ///< microseconds: when the first of them came
};

/// The daemon's matcher, which is the daemon's own program.
extern Matcher matcher;

}  // namespace zevd
