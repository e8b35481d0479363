// Reading a segment's records one after the other, and finding the next one behind damage.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "journal_encode.h"
#include "segment_index.h"
#include "segment_source.h"

namespace journal {

/// Goes through a segment from some place to an end. Belongs to one thread.
///
/// Behind bytes that are no record, the next record is where the damaged one says that it ends, or
/// else the first sound one whose running number fits: a console's output may hold bytes that look
/// like a record.
class SegmentScan {
 public:
  /// What Next() came upon.
  enum class Found { kRecord, kDamage, kEnd };

  /// `begin`: where a record starts. `end`: behind the last byte to be read. `number`: the running
  /// number that the first record should have, if that is known.
  SegmentScan(SegmentSource& source, uint64_t begin, uint64_t end,
              std::optional<uint64_t> number = {});

  /// Throws what the source throws.
  Found Next();

  uint64_t offset() const { return offset_; }  ///< of what was found
  uint64_t length() const { return length_; }  ///< of what was found
  const RecordHeader& header() const { return header_; }
  std::string_view payload() const { return payload_; }  ///< valid until the next call

 private:
  std::string_view BytesAt(uint64_t offset);
  uint64_t EndOfDamage(uint64_t begin);
  bool Continues(uint64_t damage, uint64_t offset);

  SegmentSource& source_;
  uint64_t end_;
  uint64_t offset_ = 0;
  uint64_t length_ = 0;
  uint64_t next_;                   // where to go on
  std::optional<uint64_t> number_;  // of the next record
  RecordHeader header_;
  std::string_view payload_;
  std::string buffer_;
  uint64_t buffer_offset_ = 0;
};

/// The index of a whole segment. `station` and `segment` are those that it should have: with
/// others, or with a damaged header, all of it is damage; `fault`, if not null, gets what is wrong
/// with the header, kForeign for a sound one with other numbers. Throws what the source throws.
SegmentIndex IndexOf(SegmentSource& source, uint64_t station, uint64_t segment,
                     HeaderFault* fault = nullptr);

}  // namespace journal
