// Which records a query wants, and which blocks can hold any of them. Belongs to one thread.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "journal.h"
#include "journal_segments.h"

namespace journal {

class RecordFilter {
 public:
  explicit RecordFilter(const Query& query);

  const Query& query() const { return query_; }

  bool Wants(const Record& record) const;

  /// Whether the segment may have a wanted record as far as times go.
  bool MayHold(const SegmentIndex& index) const;

  /// The place of a block that may hold a wanted record, or damage among such: the first one that
  /// ends behind `offset`, or the last one that begins before it. Nothing if there is none.
  std::optional<size_t> BlockBehind(const Segment& segment, uint64_t offset);
  std::optional<size_t> BlockBefore(const Segment& segment, uint64_t offset);

  /// Whether times between these may be wanted.
  bool OverlapsTimes(int64_t lowest, int64_t highest) const;

 private:
  bool WantsConsole(const std::optional<size_t>& id) const;
  void FindPlaces(const Segment& segment);
  bool MayHold(const SegmentIndex& index, const Block& block) const;

  Query query_;
  std::vector<bool> consoles_;  // by their ids
  // Where the wanted consoles are in the index of the segment that was looked at last.
  uint64_t segment_ = 0;
  size_t known_ = 0;
  std::vector<size_t> places_;
};

}  // namespace journal
