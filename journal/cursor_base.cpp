#include "cursor_base.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace journal {

namespace {

using Cause = JournalError::Cause;

// A segment that has been damaged on purpose must not fill the memory.
constexpr size_t kMostDamages = 10000;

}  // namespace

CursorBase::CursorBase(std::shared_ptr<const JournalSegments> segments, const Query& query)
    : segments_(std::move(segments)), filter_(query) {
  if (query.from) CheckPosition(*query.from);
}

void CursorBase::CheckPosition(const Position& position) const {
  if (position.station != segments_->station()) {
    throw JournalError(Cause::kStation, "the position " + PositionText(position) +
                                            " is one of another station's journal");
  }
  const auto& map = segments_->map();
  const bool is_past = map.empty() || position.segment < map.rbegin()->first;
  if (is_past && !map.contains(position.segment)) {
    throw JournalError(Cause::kGone, "the position " + PositionText(position) +
                                         " is gone: its segment has been removed");
  }
}

void CursorBase::Enter(std::shared_ptr<const Segment> segment) {
  segment_ = std::move(segment);
  opened_ = {};
  is_refused_ = false;
  if (segment_ && !segment_->fault.empty()) NoteDamage(0, 0, segment_->fault);
}

bool CursorBase::OpenFile() {
  if (opened_.source) return true;
  if (is_refused_) return false;
  opened_ = segments_->Open(segment_->number);
  try {
    if (opened_.source && IsFileOfSegment()) return true;
  } catch (const std::runtime_error& error) {
    opened_.reason = error.what();
  }
  opened_.source.reset();
  is_refused_ = true;
  NoteDamage(0, 0, opened_.is_missing ? "has been removed" : opened_.reason);
  return false;
}

// The index may have been beside another file than this one. A header that has been damaged since
// the index was made stands in nobody's way: each record has a checksum of its own.
bool CursorBase::IsFileOfSegment() {
  std::array<char, kSegmentHeaderSize> bytes{};
  const size_t count = opened_.source->ReadAt(0, bytes);
  const SegmentIndex& index = segment_->index();
  SegmentHeader header;
  const HeaderFault fault = DecodeSegmentHeader({bytes.data(), count}, &header);
  if (fault != HeaderFault::kNone) {
    NoteDamage(0, kSegmentHeaderSize, "has a damaged header");
  } else if (header.station != index.header.station || header.segment != index.header.segment) {
    opened_.reason = "is another segment under this name";
    return false;
  }
  const uint64_t size = opened_.source->Size();
  if (size < index.size && !segment_->may_grow) {
    NoteDamage(size, index.size - size, "has become shorter");
  }
  return true;
}

void CursorBase::NoteDamage(uint64_t offset, uint64_t bytes, const std::string& reason) {
  if (damages_.size() == kMostDamages) {
    damages_.back().bytes = 0;
    damages_.back().reason = "has more damage than can be told";
    return;
  }
  const Position position{segments_->station(), segment_->number, offset};
  if (!damages_.empty() && damages_.back().bytes > 0) {
    Damage& last = damages_.back();
    Position behind = last.position;
    behind.offset += last.bytes;
    if (behind == position && last.reason == reason) {  // it goes on in the next block
      last.bytes += bytes;
      return;
    }
  }
  damages_.push_back({position, bytes, reason});
}

uint64_t CursorBase::PassDamage(uint64_t begin, uint64_t end) {
  const std::vector<DamagedBytes>& damages = segment_->index().damages;
  const auto behind = std::upper_bound(
      damages.begin(), damages.end(), begin,
      [](uint64_t offset, const DamagedBytes& one) { return offset < one.offset + one.length; });
  if (behind == damages.end() || behind->offset > begin) return begin;
  const uint64_t passed = std::min(end, behind->offset + behind->length);
  NoteDamage(begin, passed - begin, kNoSoundRecord);
  return passed;
}

void CursorBase::NoteHole(const Segment& before, const Segment& after) {
  if (before.number + 1 >= after.number) return;
  const SegmentIndex& first = before.index();
  const SegmentIndex& second = after.index();
  const bool are_known = first.records > 0 && second.records > 0;
  if (are_known && !filter_.OverlapsTimes(first.highest_wall, second.lowest_wall)) return;
  const uint64_t missing = after.number - before.number - 1;
  const std::string reason = missing == 1 ? "is missing"
                                          : "and the segments behind it, " +
                                                std::to_string(missing) + " in all, are missing";
  if (damages_.size() == kMostDamages) return;
  damages_.push_back({{segments_->station(), before.number + 1, 0}, 0, reason});
}

void CursorBase::Describe(const RecordHeader& header, uint64_t offset, Record* record) const {
  const uint64_t run = segment_->index().header.run;
  record->position = {segments_->station(), segment_->number, offset};
  record->next = {segments_->station(), segment_->number, offset + header.length};
  record->header = header;
  record->run = run;
  record->console =
      header.console == 0 ? std::nullopt : segments_->names().IdOf(run, header.console);
}

}  // namespace journal
