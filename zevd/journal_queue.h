// What waits to be written to the journal. Any thread puts records in and never waits for the disk:
// when there is no room, records are lost and counted, and a record of the gap stands where they
// would have stood. One thread, the journal's, takes them out.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "journal_format.h"
#include "mutex.h"

namespace zevd {

/// What became of records since the start of the daemon, for the command "stats".
struct JournalLosses {
  uint64_t records;
  uint64_t gaps;  ///< records of kind kGap
};

class JournalQueue {
 public:
  /// Bytes that may wait.
  static constexpr size_t kSize = size_t{8} << 20;

  /// The part of them that only the names of consoles and gaps may take: without the names, other
  /// records cannot be told apart.
  static constexpr size_t kReserve = size_t{512} << 10;

  /// So many bytes end the wait of the journal's thread.
  static constexpr size_t kBatch = size_t{512} << 10;

  /// Whether there is a journal: others may save themselves the work. Any thread.
  bool IsOn() const { return on_.load(std::memory_order_relaxed); }

  /// Takes records from now on, the first of which is a kStarted one with this payload. False when
  /// there is no memory for the queue.
  [[nodiscard]] bool SwitchOn(std::string_view started) EXCLUDES(mutex_);

  /// Takes a last record, kStopped, and no other from then on.
  void SwitchOff(std::string_view stopped) EXCLUDES(mutex_);

  /// Takes nothing from now on; what waits is lost, and told as a gap when the queue is switched on
  /// again. The journal's thread only.
  void Abandon() EXCLUDES(mutex_);

  /// The same, if nothing is taken any more. How many lost records no record tells of yet. The
  /// journal's thread only.
  uint64_t Forget() EXCLUDES(mutex_);

  /// Has WantsNames() ask for all names. Any thread.
  void AskForNames() { wants_names_ = true; }

  /// Puts a record in, with the present time. It is lost when there is no room for it. Any thread,
  /// with any lock held: the mutex is a leaf.
  void Push(journal::Kind kind, uint32_t console, std::string_view payload) EXCLUDES(mutex_);

  /// The same without a system call. True when the journal's thread is to be woken: whoever calls
  /// it does so soon.
  [[nodiscard]] bool PushQuietly(journal::Kind kind, uint32_t console, std::string_view payload)
      EXCLUDES(mutex_);

  /// Why records will be lost if any are, for the records of gaps; a text of static lifetime.
  void SetReason(const char* reason) EXCLUDES(mutex_);

  /// True once after the name of a console was lost and there is room again: all of them are to be
  /// put in anew. Any thread.
  bool WantsNames() EXCLUDES(mutex_);

  JournalLosses Losses() EXCLUDES(mutex_);

  // The journal's thread only.

  /// Whole records, the oldest first; about kBatch bytes at most. Empty when none waits. They stay
  /// where they are until Drop(). What the queue does not know is left open: their running numbers
  /// and checksums.
  std::span<char> Front() EXCLUDES(mutex_);

  /// Forgets the first bytes of Front(), which are whole records.
  void Drop(size_t bytes) EXCLUDES(mutex_);

  size_t Waiting() EXCLUDES(mutex_);

 private:
  /// Records that found no room and that no record tells of yet.
  struct Gap {
    uint64_t records = 0;
    uint64_t bytes = 0;
    int64_t begin = 0;
    int64_t end = 0;
    const char* reason = nullptr;
  };

  struct Times {
    int64_t wall;
    int64_t monotonic;
  };

  static Times Now();
  bool HasRoom(size_t size, size_t limit) const REQUIRES(mutex_);
  char* Room(size_t size, size_t limit) REQUIRES(mutex_);
  bool Put(journal::Kind kind, uint32_t console, std::string_view payload, const Times& now,
           size_t limit) REQUIRES(mutex_);
  void Lose(journal::Kind kind, size_t bytes, const Times& now) REQUIRES(mutex_);
  bool PutGap(const Times& now) REQUIRES(mutex_);
  bool PutClockStep(const Times& now) REQUIRES(mutex_);
  void Add(journal::Kind kind, uint32_t console, std::string_view payload) REQUIRES(mutex_);
  void Clear() REQUIRES(mutex_);
  void Take(size_t bytes) REQUIRES(mutex_);
  void LoseWaiting(const char* record, size_t length) REQUIRES(mutex_);
  void Widen(const Gap& other) REQUIRES(mutex_);

  std::atomic<bool> on_{false};

  /// Held for the time of a copy. Whoever holds it has the SIGTERM handler wait, as the end of the
  /// process waits for the journal's thread, which needs it.
  Mutex mutex_;

  /// A ring of records, none of which is split: where the last one before its end ends, there is
  /// the wrap. Never freed once it is there.
  char* ring_ GUARDED_BY(mutex_) = nullptr;
  size_t head_ GUARDED_BY(mutex_) = 0;  ///< where the oldest record begins
  size_t tail_ GUARDED_BY(mutex_) = 0;  ///< where the next one will begin
  size_t wrap_ GUARDED_BY(mutex_) = kSize;
  size_t used_ GUARDED_BY(mutex_) = 0;  ///< with what lies unused behind the wrap
  Gap gap_ GUARDED_BY(mutex_);
  bool names_lost_ GUARDED_BY(mutex_) = false;
  std::atomic<bool> wants_names_{false};
  const char* reason_ GUARDED_BY(mutex_) = nullptr;
  JournalLosses losses_ GUARDED_BY(mutex_){0, 0};
  /// What the wall clock was ahead of the monotonic one at the last record, in nanoseconds.
  int64_t clock_offset_ GUARDED_BY(mutex_) = 0;
  bool clock_known_ GUARDED_BY(mutex_) = false;
};

extern JournalQueue journal_queue;

}  // namespace zevd
