// Building an index; segment_index_bytes.cpp turns it into bytes and back.
#include "segment_index.h"

#include <algorithm>

#include "journal_fields.h"

namespace journal {

namespace {

// A kind that a later version may add shares bit 0, which no kind has.
uint64_t KindsWith(Kind kind) {
  const auto value = static_cast<uint8_t>(kind);
  return uint64_t{1} << (value < 64 ? value : 0);
}

// Widens a span of times by one more record's.
template <typename Counted>
void AddTime(Counted& counted, int64_t wall) {
  const bool is_first = counted.records == 0;
  counted.lowest_wall = is_first ? wall : std::min(counted.lowest_wall, wall);
  counted.highest_wall = is_first ? wall : std::max(counted.highest_wall, wall);
  ++counted.records;
}

bool SaysTheSame(const IndexedName& one, const IndexedName& other) {
  return one.name == other.name && one.address == other.address && one.port == other.port;
}

}  // namespace

std::optional<size_t> SegmentIndex::PlaceOf(uint32_t console) const {
  const auto found = std::find_if(consoles.begin(), consoles.end(),
                                  [&](const auto& one) { return one.number == console; });
  if (found == consoles.end()) return {};
  return static_cast<size_t>(found - consoles.begin());
}

SegmentIndexBuilder::SegmentIndexBuilder(const SegmentHeader& header) {
  index_.header = header;
  index_.next_record = header.first_record;
  index_.size = kSegmentHeaderSize;
  index_.blocks.emplace_back().length = kSegmentHeaderSize;
}

SegmentIndexBuilder SegmentIndexBuilder::WithoutHeader(uint64_t station, uint64_t segment) {
  SegmentIndexBuilder builder;
  builder.index_.header.station = station;
  builder.index_.header.segment = segment;
  builder.index_.header_is_sound = false;
  return builder;
}

Block& SegmentIndexBuilder::OpenBlock() {
  if (index_.blocks.empty() || index_.blocks.back().length >= kBlockSize) {
    index_.blocks.emplace_back().offset = index_.size;
  }
  return index_.blocks.back();
}

IndexedConsole& SegmentIndexBuilder::ConsoleOf(uint32_t number, size_t* place) {
  const auto [found, is_new] = places_.try_emplace(number, index_.consoles.size());
  if (is_new) index_.consoles.emplace_back().number = number;
  *place = found->second;
  return index_.consoles[found->second];
}

void SegmentIndexBuilder::Define(IndexedConsole& console, const RecordHeader& header,
                                 std::string_view payload) {
  const FieldReader fields(payload);
  IndexedName name{
      std::string(fields.Text(Field::kName)), std::string(fields.Text(Field::kAddress)),
      static_cast<uint16_t>(fields.Number(Field::kPort).value_or(0)), header.wall, header.number};
  console.is_gone = false;
  if (!console.names.empty() && SaysTheSame(console.names.back(), name)) return;
  console.names.push_back(std::move(name));
}

void SegmentIndexBuilder::AddRecord(const RecordHeader& header, std::string_view payload) {
  Block& block = OpenBlock();
  if (block.records == 0) block.first_record = header.number;
  const auto length = static_cast<uint32_t>(kRecordHeaderSize + payload.size());
  AddTime(block, header.wall);
  AddTime(index_, header.wall);
  block.length += length;
  block.kinds |= KindsWith(header.kind);
  index_.size += length;
  index_.next_record = header.number + 1;

  size_t place = 0;
  IndexedConsole& console = ConsoleOf(header.console, &place);
  if (header.kind == Kind::kConsole) {
    Define(console, header, payload);
    return;
  }
  AddTime(console, header.wall);
  if (header.kind == Kind::kOutput) console.output_bytes += payload.size();
  if (header.kind == Kind::kConsoleGone) console.is_gone = true;
  if (block.consoles.size() <= place) block.consoles.resize(place + 1);
  block.consoles[place] = true;
}

void SegmentIndexBuilder::AddDamage(uint64_t bytes) {
  if (bytes == 0) return;
  std::vector<DamagedBytes>& damages = index_.damages;
  if (!damages.empty() && damages.back().offset + damages.back().length == index_.size) {
    damages.back().length += bytes;
  } else {
    damages.push_back({index_.size, bytes});
  }
  while (bytes > 0) {
    Block& block = OpenBlock();
    const auto piece = static_cast<uint32_t>(std::min<uint64_t>(bytes, kBlockSize - block.length));
    block.length += piece;
    index_.size += piece;
    bytes -= piece;
  }
}

}  // namespace journal
