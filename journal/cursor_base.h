// What both directions of reading share: the segment that is being read, and damage. Belongs to one
// thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "journal.h"
#include "journal_segments.h"
#include "record_filter.h"
#include "segment_scan.h"

namespace journal {

inline constexpr const char* kNoSoundRecord = "has bytes that are no sound record";

class CursorBase : public Cursor {
 public:
  const std::vector<Damage>& damages() const override { return damages_; }

 protected:
  CursorBase(std::shared_ptr<const JournalSegments> segments, const Query& query);

  /// Throws JournalError when a query's position cannot be one of this journal's.
  void CheckPosition(const Position& position) const;

  /// Makes it the segment that is read; without one, none.
  void Enter(std::shared_ptr<const Segment> segment);

  /// Opens the segment's file unless it is open. False, and noted, when it cannot be read.
  bool OpenFile();

  void NoteDamage(uint64_t offset, uint64_t bytes, const std::string& reason);

  /// Where the reading of a block that goes from `begin` to `end` begins: behind the damage that
  /// the index tells of, as the inside of a damaged record may look like a record.
  uint64_t PassDamage(uint64_t begin, uint64_t end);

  /// Notes what is missing between two segments that follow each other here.
  void NoteHole(const Segment& before, const Segment& after);

  /// Fills in everything but the payload.
  void Describe(const RecordHeader& header, uint64_t offset, Record* record) const;

  const JournalSegments& segments() const { return *segments_; }
  const Segment* segment() const { return segment_.get(); }
  SegmentSource& source() { return *opened_.source; }
  RecordFilter& filter() { return filter_; }
  const Query& query() const { return filter_.query(); }

 private:
  bool IsFileOfSegment();

  std::shared_ptr<const JournalSegments> segments_;
  RecordFilter filter_;
  std::shared_ptr<const Segment> segment_;
  OpenSegment opened_;
  bool is_refused_ = false;  // the file has been tried in vain
  std::vector<Damage> damages_;
};

}  // namespace journal
