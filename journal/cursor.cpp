#include "cursor.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

namespace journal {

namespace {

uint64_t EndOf(const Block& block) {
  return block.offset + block.length;
}

}  // namespace

// ---- Forward ------------------------------------------------------------------------------------

ForwardCursor::ForwardCursor(std::shared_ptr<const JournalSegments> segments_to_read,
                             const Query& query)
    : CursorBase(std::move(segments_to_read), query) {
  if (query.from) {
    number_ = query.from->segment;
    offset_ = query.from->offset;
  }
  Begin();
}

// A position that somebody made up may be in the middle of a record: its block is read from its
// first record on.
void ForwardCursor::Begin() {
  const auto found = segments().map().lower_bound(number_);
  if (found == segments().map().end()) return;
  if (number_ != found->first) offset_ = 0;
  number_ = found->first;
  Enter(found->second);
  const SegmentIndex& index = segment()->index();
  const auto block =
      std::upper_bound(index.blocks.begin(), index.blocks.end(), offset_,
                       [](uint64_t place, const Block& one) { return place < EndOf(one); });
  offset_ = block == index.blocks.end() ? index.size : block->FirstRecordAt();
}

// False at the end of the journal: the segment that is read may still grow.
bool ForwardCursor::EnterNext() {
  if (segment() == nullptr) {
    Begin();
    return segment() != nullptr;
  }
  const auto found = segments().map().upper_bound(number_);
  if (found == segments().map().end()) return false;
  NoteHole(*segment(), *found->second);
  number_ = found->first;
  offset_ = 0;
  Enter(found->second);
  return true;
}

bool ForwardCursor::OpenBlock() {
  const SegmentIndex& index = segment()->index();
  if (!filter().MayHold(index)) return false;
  const auto place = filter().BlockBehind(*segment(), offset_);
  if (!place || !OpenFile()) return false;
  const Block& block = index.blocks[*place];
  const bool is_begun = offset_ > block.FirstRecordAt();
  const bool is_number_known = !is_begun && block.records > 0;
  end_ = EndOf(block);
  offset_ = PassDamage(is_begun ? offset_ : block.FirstRecordAt(), end_);
  scan_.emplace(source(), offset_, end_,
                is_number_known ? std::optional(block.first_record) : std::nullopt);
  return true;
}

bool ForwardCursor::NextInBlock(Record* record) {
  try {
    for (auto found = scan_->Next(); found != SegmentScan::Found::kEnd; found = scan_->Next()) {
      offset_ = scan_->offset() + scan_->length();
      if (found == SegmentScan::Found::kDamage) {
        NoteDamage(scan_->offset(), scan_->length(), kNoSoundRecord);
        continue;
      }
      Describe(scan_->header(), scan_->offset(), record);
      record->payload = scan_->payload();
      const bool is_before = query().from && record->position < *query().from;
      if (!is_before && filter().Wants(*record)) return true;
    }
  } catch (const std::runtime_error& error) {  // the disk, or a damaged frame
    NoteDamage(offset_, end_ - offset_, error.what());
  }
  return false;
}

bool ForwardCursor::Next(Record* record) {
  for (;;) {
    if (scan_) {
      if (NextInBlock(record)) return true;
      offset_ = end_;
      scan_.reset();
    }
    if (segment() != nullptr && OpenBlock()) continue;
    if (!EnterNext()) return false;
  }
}

Position ForwardCursor::position() const {
  const Position position{segments().station(), number_, offset_};
  return query().from ? std::max(position, *query().from) : position;
}

// ---- Backward -----------------------------------------------------------------------------------

BackwardCursor::BackwardCursor(std::shared_ptr<const JournalSegments> segments_to_read,
                               const Query& query)
    : CursorBase(std::move(segments_to_read), query) {
  constexpr uint64_t kEnd = std::numeric_limits<uint64_t>::max();
  number_ = query.from ? query.from->segment : kEnd;
  offset_ = query.from ? query.from->offset : kEnd;
  const auto behind = segments().map().upper_bound(number_);
  if (behind == segments().map().begin()) return;
  const auto& [number, segment] = *std::prev(behind);
  if (number != number_) offset_ = kEnd;
  number_ = number;
  Enter(segment);
}

bool BackwardCursor::EnterPrevious() {
  const auto found = segments().map().lower_bound(number_);
  if (segment() == nullptr || found == segments().map().begin()) return false;
  const auto& [number, before] = *std::prev(found);
  NoteHole(*before, *segment());
  number_ = number;
  offset_ = std::numeric_limits<uint64_t>::max();
  Enter(before);
  return true;
}

bool BackwardCursor::LoadBlock() {
  if (segment() == nullptr || !filter().MayHold(segment()->index())) return false;
  const auto place = filter().BlockBefore(*segment(), offset_);
  if (!place || !OpenFile()) return false;
  const Block& block = segment()->index().blocks[*place];
  offset_ = block.offset;
  try {
    ScanBlock(block);
  } catch (const std::runtime_error& error) {  // the disk, or a damaged frame
    NoteDamage(block.offset, block.length, error.what());
  }
  return true;
}

void BackwardCursor::ScanBlock(const Block& block) {
  const uint64_t begin = PassDamage(block.FirstRecordAt(), EndOf(block));
  SegmentScan scan(source(), begin, EndOf(block),
                   block.records > 0 ? std::optional(block.first_record) : std::nullopt);
  Record record;
  for (auto found = scan.Next(); found != SegmentScan::Found::kEnd; found = scan.Next()) {
    if (found == SegmentScan::Found::kDamage) {
      NoteDamage(scan.offset(), scan.length(), kNoSoundRecord);
      continue;
    }
    Describe(scan.header(), scan.offset(), &record);
    const bool is_behind = query().from && record.position >= *query().from;
    if (!is_behind && filter().Wants(record)) places_.push_back({scan.header(), scan.offset()});
  }
}

bool BackwardCursor::TakePlace(Record* record) {
  const Place place = places_.back();
  places_.pop_back();
  Describe(place.header, place.offset, record);
  payload_.resize(place.header.length - kRecordHeaderSize);
  try {
    if (source().ReadAt(place.offset + kRecordHeaderSize, payload_) == payload_.size()) {
      record->payload = payload_;
      return true;
    }
    NoteDamage(place.offset, place.header.length, "has become shorter");
  } catch (const std::runtime_error& error) {
    NoteDamage(place.offset, place.header.length, error.what());
  }
  return false;
}

bool BackwardCursor::Next(Record* record) {
  for (;;) {
    while (!places_.empty()) {
      if (TakePlace(record)) return true;
    }
    if (!LoadBlock() && !EnterPrevious()) return false;
  }
}

Position BackwardCursor::position() const {
  return {segments().station(), number_, offset_};
}

}  // namespace journal
