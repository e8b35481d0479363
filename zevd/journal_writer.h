// Writing the journal: what the thread "journal" does with the records that wait. One thread, or a
// test.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "journal_directory.h"
#include "journal_names.h"
#include "journal_queue.h"
#include "journal_segment.h"

namespace zevd {

/// When a segment ends.
struct SegmentLimits {
  uint64_t bytes = uint64_t{64} << 20;
  int64_t age = 3'600'000;  ///< milliseconds
};

/// Where the journal ends, and what has been written to it.
struct JournalEnd {
  uint64_t station = 0;
  uint64_t segment = 0;
  uint64_t offset = 0;
  uint64_t records = 0;
  uint64_t bytes = 0;
};

class JournalWriter {
 public:
  JournalWriter(JournalQueue& queue, const char* path, uint64_t run, SegmentLimits limits)
      : queue_(queue), path_(path), run_(run), limits_(limits) {}

  /// Writes what waits at present. kFailed: the rest stays in the queue, and may be tried again;
  /// kRefused: there can be no journal. trouble() then tells why.
  JournalResult WriteWaiting();

  /// Ends a segment that is old enough.
  void EndOldSegment();

  /// Leaves the journal: all files are closed.
  void Close();

  /// Milliseconds until EndOldSegment() has something to do; -1 when there is no segment.
  int64_t TimeToEnd() const;

  const std::string& trouble() const { return trouble_; }
  const JournalEnd& end() const { return end_; }

 private:
  JournalResult OpenDirectory();
  JournalResult WriteBatch(std::span<char> batch);
  JournalResult BeginSegment(std::span<const char> batch);
  JournalResult Fail(const std::string& call);
  void Stamp(std::span<char> batch) const;
  void NoteNames(std::span<const char> written);
  void TakeNote(std::span<const char> written);

  JournalQueue& queue_;
  const char* const path_;
  const uint64_t run_;
  const SegmentLimits limits_;
  JournalDirectory directory_;
  JournalSegment segment_;
  JournalNames names_;
  uint64_t next_segment_ = 1;
  uint64_t next_record_ = 1;
  int64_t segment_ends_ = 0;  // milliseconds
  bool torn_told_ = false;
  std::string trouble_;
  JournalEnd end_;
};

}  // namespace zevd
