#include "segment_scan.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace journal {

namespace {

constexpr size_t kMostRecord = kRecordHeaderSize + kMostPayload;
constexpr size_t kBufferSize = 4 * kMostRecord;

// A sound record is looked for at each byte behind damage: most are ruled out by the length alone.
uint32_t LengthAt(std::string_view bytes) {
  return bytes.size() < kRecordHeaderSize ? 0 : GetNumber<uint32_t>(bytes.data() + kRecordLengthAt);
}

bool IsPossible(uint32_t length) {
  return length >= kRecordHeaderSize && length <= kMostRecord;
}

}  // namespace

SegmentScan::SegmentScan(SegmentSource& source, uint64_t begin, uint64_t end,
                         std::optional<uint64_t> number)
    : source_(source), end_(end), next_(begin), number_(number) {}

// As many bytes as a record may have, as far as there are any.
std::string_view SegmentScan::BytesAt(uint64_t offset) {
  const auto wanted = static_cast<size_t>(std::min<uint64_t>(end_ - offset, kMostRecord));
  if (offset < buffer_offset_ || offset + wanted > buffer_offset_ + buffer_.size()) {
    buffer_.resize(static_cast<size_t>(std::min<uint64_t>(end_ - offset, kBufferSize)));
    buffer_offset_ = offset;
    buffer_.resize(source_.ReadAt(offset, buffer_));
    if (buffer_.size() < wanted) end_ = offset + buffer_.size();  // it has become shorter
  }
  const auto place = static_cast<size_t>(offset - buffer_offset_);
  return std::string_view(buffer_).substr(place, wanted);
}

// Whether a record stands there that may come behind the damage: each lost record took some bytes.
bool SegmentScan::Continues(uint64_t damage, uint64_t offset) {
  const std::string_view bytes = BytesAt(offset);
  if (!IsPossible(LengthAt(bytes))) return false;
  if (number_ && !MayContinue(bytes, *number_, offset - damage)) return false;
  return DecodeRecord(bytes).has_value();
}

uint64_t SegmentScan::EndOfDamage(uint64_t begin) {
  const uint32_t length = LengthAt(BytesAt(begin));
  if (IsPossible(length) && length < end_ - begin && Continues(begin, begin + length)) {
    return begin + length;
  }
  for (uint64_t offset = begin + 1; offset < end_; ++offset) {
    if (Continues(begin, offset)) return offset;
  }
  return end_;
}

SegmentScan::Found SegmentScan::Next() {
  payload_ = {};
  if (next_ >= end_) return Found::kEnd;
  offset_ = next_;
  const std::string_view bytes = BytesAt(offset_);
  const auto header = DecodeRecord(bytes);
  if (!header) {
    next_ = EndOfDamage(offset_);
    length_ = next_ - offset_;
    return length_ == 0 ? Found::kEnd : Found::kDamage;
  }
  header_ = *header;
  length_ = header->length;
  payload_ = bytes.substr(kRecordHeaderSize, header->length - kRecordHeaderSize);
  next_ = offset_ + length_;
  number_ = header->number + 1;
  return Found::kRecord;
}

namespace {

HeaderFault HeaderOf(SegmentSource& source, uint64_t station, uint64_t segment,
                     SegmentHeader* header) {
  std::array<char, kSegmentHeaderSize> bytes{};
  const size_t count = source.ReadAt(0, bytes);
  const HeaderFault fault = DecodeSegmentHeader({bytes.data(), count}, header);
  if (fault != HeaderFault::kNone) return fault;
  const bool is_own = header->station == station && header->segment == segment;
  return is_own ? HeaderFault::kNone : HeaderFault::kForeign;
}

}  // namespace

SegmentIndex IndexOf(SegmentSource& source, uint64_t station, uint64_t segment,
                     HeaderFault* fault) {
  SegmentHeader header;
  const HeaderFault found = HeaderOf(source, station, segment, &header);
  if (fault != nullptr) *fault = found;
  if (found != HeaderFault::kNone) {
    auto builder = SegmentIndexBuilder::WithoutHeader(station, segment);
    builder.AddDamage(source.Size());
    return builder.index();
  }
  SegmentIndexBuilder builder(header);
  SegmentScan scan(source, kSegmentHeaderSize, source.Size(), header.first_record);
  for (auto what = scan.Next(); what != SegmentScan::Found::kEnd; what = scan.Next()) {
    if (what == SegmentScan::Found::kRecord) {
      builder.AddRecord(scan.header(), scan.payload());
    } else {
      builder.AddDamage(scan.length());
    }
  }
  return builder.index();
}

}  // namespace journal
