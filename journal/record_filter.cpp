#include "record_filter.h"

#include <algorithm>

namespace journal {

namespace {

// The index has one bit for all kinds that this version does not know.
Kinds BitInIndex(Kinds kinds) {
  return kinds | 1;
}

bool HasDamage(const SegmentIndex& index, const Block& block) {
  const auto behind = std::upper_bound(
      index.damages.begin(), index.damages.end(), block.offset,
      [](uint64_t offset, const DamagedBytes& one) { return offset < one.offset + one.length; });
  return behind != index.damages.end() && behind->offset < block.offset + block.length;
}

}  // namespace

RecordFilter::RecordFilter(const Query& query) : query_(query) {
  for (const size_t id : query_.consoles) {
    if (consoles_.size() <= id) consoles_.resize(id + 1);
    consoles_[id] = true;
  }
}

bool RecordFilter::WantsConsole(const std::optional<size_t>& id) const {
  if (query_.consoles.empty()) return true;
  if (!id) return query_.with_station;
  return *id < consoles_.size() && consoles_[*id];
}

bool RecordFilter::OverlapsTimes(int64_t lowest, int64_t highest) const {
  return (!query_.since || highest >= *query_.since) && (!query_.until || lowest <= *query_.until);
}

bool RecordFilter::Wants(const Record& record) const {
  const auto kind = static_cast<uint8_t>(record.header.kind);
  const Kinds bit = kind < 64 ? Kinds{1} << kind : Kinds{1};
  const int64_t wall = record.header.wall;
  return (query_.kinds & bit) != 0 && OverlapsTimes(wall, wall) && WantsConsole(record.console);
}

bool RecordFilter::MayHold(const SegmentIndex& index) const {
  return index.records == 0 || OverlapsTimes(index.lowest_wall, index.highest_wall);
}

void RecordFilter::FindPlaces(const Segment& segment) {
  if (segment_ == segment.number && known_ == segment.ids.size()) return;
  segment_ = segment.number;
  known_ = segment.ids.size();
  places_.clear();
  for (size_t place = 0; place < segment.ids.size(); ++place) {
    if (WantsConsole(segment.ids[place])) places_.push_back(place);
  }
}

bool RecordFilter::MayHold(const SegmentIndex& index, const Block& block) const {
  if (block.records > 0 && !OverlapsTimes(block.lowest_wall, block.highest_wall)) return false;
  if (HasDamage(index, block)) return true;
  if ((block.kinds & BitInIndex(query_.kinds)) == 0) return false;
  if (query_.consoles.empty()) return true;
  // The block does not tell whose definitions it has.
  if ((block.kinds & query_.kinds & KindBit(Kind::kConsole)) != 0) return true;
  return std::any_of(places_.begin(), places_.end(),
                     [&](size_t place) { return block.Has(place); });
}

std::optional<size_t> RecordFilter::BlockBehind(const Segment& segment, uint64_t offset) {
  const SegmentIndex& index = segment.index();
  FindPlaces(segment);
  auto block = std::upper_bound(
      index.blocks.begin(), index.blocks.end(), offset,
      [](uint64_t place, const Block& one) { return place < one.offset + one.length; });
  for (; block != index.blocks.end(); ++block) {
    if (MayHold(index, *block)) return static_cast<size_t>(block - index.blocks.begin());
  }
  return {};
}

std::optional<size_t> RecordFilter::BlockBefore(const Segment& segment, uint64_t offset) {
  const SegmentIndex& index = segment.index();
  FindPlaces(segment);
  auto block =
      std::lower_bound(index.blocks.begin(), index.blocks.end(), offset,
                       [](const Block& one, uint64_t place) { return one.offset < place; });
  while (block != index.blocks.begin()) {
    --block;
    if (MayHold(index, *block)) return static_cast<size_t>(block - index.blocks.begin());
  }
  return {};
}

}  // namespace journal
