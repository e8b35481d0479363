// Segments that tests make record by record.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "journal_format.h"
#include "segment_index.h"
#include "segment_source.h"

namespace test {

/// A segment's bytes in memory.
class SegmentBytes : public journal::SegmentSource {
 public:
  static constexpr uint64_t kStation = 0x1122334455667788;

  explicit SegmentBytes(uint64_t segment = 1, uint64_t first_record = 1);

  /// Appends a record, one millisecond behind the one before; returns its offset.
  uint64_t Add(journal::Kind kind, uint32_t console, std::string_view payload);
  uint64_t Output(uint32_t console, std::string_view text);
  uint64_t Define(uint32_t console, std::string_view name, uint16_t port = 4001);

  /// Leaves out some running numbers, or changes the clock, for the records that follow.
  void SkipNumbers(uint64_t count) { number_ += count; }
  void SetWall(int64_t wall) { wall_ = wall; }

  uint64_t next_record() const { return number_; }
  journal::SegmentIndex Index();

  uint64_t Size() const override { return bytes.size(); }
  size_t ReadAt(uint64_t offset, std::span<char> room) override;

  journal::SegmentHeader header;
  std::string bytes;

 private:
  uint64_t number_;
  int64_t wall_ = 1'000'000'000'000;
};

}  // namespace test
