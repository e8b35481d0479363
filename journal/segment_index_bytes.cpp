// The index as bytes. docs/journal.md tells the same in words.
#include <algorithm>
#include <cstring>

#include "crc32c.h"
#include "segment_index.h"

namespace journal {

namespace {

// Further offsets in front of the contents. The checksum is of all behind it.
constexpr size_t kReservedAt = 10;  // uint16_t: 0
constexpr size_t kChecksumAt = 12;  // uint32_t
constexpr size_t kLengthAt = 16;    // uint64_t: of the whole index
constexpr size_t kContentsAt = kIndexStationAt;
constexpr size_t kBehindChecksum = kChecksumAt + sizeof(uint32_t);

// The fewest bytes that each takes: no list is longer than its bytes allow.
constexpr size_t kLeastBlock = 48;
constexpr size_t kLeastConsole = 41;
constexpr size_t kLeastName = 22;
constexpr size_t kLeastDamage = 16;

class Writer {
 public:
  template <typename Number>
  void Add(Number number) {
    char bytes[sizeof number];
    PutNumber(bytes, number);
    bytes_.append(bytes, sizeof bytes);
  }

  // A field of a payload is never longer than the length can tell.
  void AddText(const std::string& text) {
    Add(static_cast<uint16_t>(text.size()));
    bytes_ += text;
  }

  // The first `count` bits, the missing ones as 0.
  void AddBits(const std::vector<bool>& bits, size_t count) {
    std::string bytes((count + 7) / 8, '\0');
    for (size_t i = 0; i < std::min(bits.size(), count); ++i) {
      if (bits[i]) bytes[i / 8] = static_cast<char>(bytes[i / 8] | 1 << i % 8);
    }
    bytes_ += bytes;
  }

  std::string& bytes() { return bytes_; }

 private:
  std::string bytes_;
};

// Reads what there is; behind the end everything is 0 and the reader has failed.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : rest_(bytes) {}

  template <typename Number>
  void Get(Number& number) {
    const std::string_view bytes = Take(sizeof number);
    number = bytes.empty() ? Number{} : GetNumber<Number>(bytes.data());
  }

  void GetText(std::string& text) {
    uint16_t length = 0;
    Get(length);
    text = Take(length);
  }

  // 0 or 1.
  void GetFlag(bool& flag) {
    uint8_t value = 0;
    Get(value);
    if (value > 1) has_failed_ = true;
    flag = value == 1;
  }

  void GetBits(std::vector<bool>& bits, size_t count) {
    const std::string_view bytes = Take((count + 7) / 8);
    if (bytes.empty()) return;
    bits.resize(count);
    for (size_t i = 0; i < count; ++i) bits[i] = (bytes[i / 8] >> i % 8 & 1) != 0;
  }

  // How many items follow, each of at least `least` bytes.
  size_t GetCount(size_t least) {
    uint32_t count = 0;
    Get(count);
    if (count > rest_.size() / least) has_failed_ = true;
    return has_failed_ ? 0 : count;
  }

  bool has_failed() const { return has_failed_; }
  bool is_at_end() const { return rest_.empty(); }

 private:
  std::string_view Take(size_t count) {
    if (has_failed_ || count > rest_.size()) {
      has_failed_ = true;
      return {};
    }
    const std::string_view bytes = rest_.substr(0, count);
    rest_.remove_prefix(count);
    return bytes;
  }

  std::string_view rest_;
  bool has_failed_ = false;
};

// Where the daemon looks, journal_format.h tells.
void AddHeader(Writer& to, const SegmentIndex& index) {
  to.Add(index.header.station);
  to.Add(index.header.segment);
  to.Add(index.header.wall);
  to.Add(index.header.monotonic);
  to.Add(index.header.run);
  to.Add(index.header.first_record);
  to.Add(static_cast<uint8_t>(index.header_is_sound ? 1 : 0));
  to.Add(index.size);
  to.Add(index.records);
  to.Add(index.next_record);
  to.Add(index.lowest_wall);
  to.Add(index.highest_wall);
}

void GetHeader(Reader& from, SegmentIndex& index) {
  from.Get(index.header.station);
  from.Get(index.header.segment);
  from.Get(index.header.wall);
  from.Get(index.header.monotonic);
  from.Get(index.header.run);
  from.Get(index.header.first_record);
  from.GetFlag(index.header_is_sound);
  from.Get(index.size);
  from.Get(index.records);
  from.Get(index.next_record);
  from.Get(index.lowest_wall);
  from.Get(index.highest_wall);
}

void AddConsole(Writer& to, const IndexedConsole& console) {
  to.Add(console.number);
  to.Add(static_cast<uint8_t>(console.is_gone ? 1 : 0));
  to.Add(console.records);
  to.Add(console.output_bytes);
  to.Add(console.lowest_wall);
  to.Add(console.highest_wall);
  to.Add(static_cast<uint32_t>(console.names.size()));
  for (const IndexedName& name : console.names) {
    to.AddText(name.name);
    to.AddText(name.address);
    to.Add(name.port);
    to.Add(name.since);
    to.Add(name.record);
  }
}

void GetConsole(Reader& from, IndexedConsole& console) {
  from.Get(console.number);
  from.GetFlag(console.is_gone);
  from.Get(console.records);
  from.Get(console.output_bytes);
  from.Get(console.lowest_wall);
  from.Get(console.highest_wall);
  console.names.resize(from.GetCount(kLeastName));
  for (IndexedName& name : console.names) {
    from.GetText(name.name);
    from.GetText(name.address);
    from.Get(name.port);
    from.Get(name.since);
    from.Get(name.record);
  }
}

void AddBlock(Writer& to, const Block& block, size_t consoles) {
  to.Add(block.offset);
  to.Add(block.length);
  to.Add(block.records);
  to.Add(block.first_record);
  to.Add(block.lowest_wall);
  to.Add(block.highest_wall);
  to.Add(block.kinds);
  to.AddBits(block.consoles, consoles);
}

void GetBlock(Reader& from, Block& block, size_t consoles) {
  from.Get(block.offset);
  from.Get(block.length);
  from.Get(block.records);
  from.Get(block.first_record);
  from.Get(block.lowest_wall);
  from.Get(block.highest_wall);
  from.Get(block.kinds);
  from.GetBits(block.consoles, consoles);
}

bool GetContents(std::string_view bytes, SegmentIndex& index) {
  Reader from(bytes);
  GetHeader(from, index);
  index.consoles.resize(from.GetCount(kLeastConsole));
  for (IndexedConsole& console : index.consoles) GetConsole(from, console);
  index.blocks.resize(from.GetCount(kLeastBlock + (index.consoles.size() + 7) / 8));
  for (Block& block : index.blocks) GetBlock(from, block, index.consoles.size());
  index.damages.resize(from.GetCount(kLeastDamage));
  for (DamagedBytes& damage : index.damages) {
    from.Get(damage.offset);
    from.Get(damage.length);
  }
  return !from.has_failed() && from.is_at_end();
}

// Readers go by the blocks: they cover the segment, one behind the other.
bool BlocksCoverSegment(const SegmentIndex& index) {
  uint64_t offset = 0;
  for (const Block& block : index.blocks) {
    if (block.offset != offset || block.length == 0 || block.length > kMostBlockSize) return false;
    offset += block.length;
  }
  return offset == index.size && (!index.header_is_sound || offset >= kSegmentHeaderSize);
}

bool DamagesAreWithin(const SegmentIndex& index) {
  uint64_t least = 0;
  for (const DamagedBytes& damage : index.damages) {
    if (damage.offset < least || damage.offset > index.size || damage.length == 0 ||
        damage.length > index.size - damage.offset) {
      return false;
    }
    least = damage.offset + damage.length + 1;
  }
  return true;
}

}  // namespace

std::string EncodeIndex(const SegmentIndex& index) {
  Writer to;
  to.bytes().append(kIndexMagic, kMagicSize);
  to.bytes().resize(kContentsAt);
  AddHeader(to, index);
  to.Add(static_cast<uint32_t>(index.consoles.size()));
  for (const IndexedConsole& console : index.consoles) AddConsole(to, console);
  to.Add(static_cast<uint32_t>(index.blocks.size()));
  for (const Block& block : index.blocks) AddBlock(to, block, index.consoles.size());
  to.Add(static_cast<uint32_t>(index.damages.size()));
  for (const DamagedBytes& damage : index.damages) {
    to.Add(damage.offset);
    to.Add(damage.length);
  }
  std::string& bytes = to.bytes();
  PutNumber(&bytes[kIndexVersionAt], kIndexVersion);
  PutNumber(&bytes[kReservedAt], uint16_t{0});
  PutNumber(&bytes[kLengthAt], uint64_t{bytes.size()});
  PutNumber(&bytes[kChecksumAt],
            Crc32c(bytes.data() + kBehindChecksum, bytes.size() - kBehindChecksum));
  return std::move(bytes);
}

IndexFault DecodeIndex(std::string_view bytes, SegmentIndex* index, size_t* length) {
  if (bytes.size() < kContentsAt) return IndexFault::kShort;
  const char* data = bytes.data();
  if (memcmp(data, kIndexMagic, kMagicSize) != 0) return IndexFault::kForeign;
  if (GetNumber<uint16_t>(data + kIndexVersionAt) != kIndexVersion) return IndexFault::kVersion;
  const auto size = GetNumber<uint64_t>(data + kLengthAt);
  if (size > bytes.size()) return IndexFault::kShort;
  if (size < kContentsAt || GetNumber<uint16_t>(data + kReservedAt) != 0 ||
      GetNumber<uint32_t>(data + kChecksumAt) !=
          Crc32c(data + kBehindChecksum, static_cast<size_t>(size) - kBehindChecksum)) {
    return IndexFault::kChecksum;
  }
  *index = {};
  const auto contents = bytes.substr(kContentsAt, static_cast<size_t>(size) - kContentsAt);
  if (!GetContents(contents, *index) || !BlocksCoverSegment(*index) || !DamagesAreWithin(*index)) {
    return IndexFault::kContents;
  }
  if (length != nullptr) *length = static_cast<size_t>(size);
  return IndexFault::kNone;
}

}  // namespace journal
