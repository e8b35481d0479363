// What a segment has, without its records: which consoles, when, and where. The file
// "%020llu.idx" beside a sealed segment begins with it; for a segment that has none it is built
// from the records. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "journal_format.h"

namespace journal {

/// A block is closed by the record with which it has this many bytes.
inline constexpr size_t kBlockSize = 256 << 10;
inline constexpr size_t kMostBlockSize = kBlockSize + kRecordHeaderSize + kMostPayload;

/// Some whole records that follow each other. The blocks of a segment cover all of its bytes: the
/// first one has the segment's header, too. In a compressed segment each is a frame.
struct Block {
  uint64_t offset = 0;  ///< in the segment's uncompressed bytes
  uint32_t length = 0;  ///< its bytes: at most kMostBlockSize
  uint32_t records = 0;
  uint64_t first_record = 0;  ///< the running number of its first record; 0 without records
  int64_t lowest_wall = 0;    ///< of its records; the clock may have been set in between
  int64_t highest_wall = 0;
  uint64_t kinds = 0;  ///< one bit for each kind of its records: 1 << kind

  /// For each of SegmentIndex::consoles, by its place there, whether the block has a record of it
  /// other than kConsole: those stand at the start of each segment for all consoles, and
  /// IndexedConsole::names tells them. May be shorter than that list.
  std::vector<bool> consoles;

  /// Where its first record may be looked for.
  uint64_t FirstRecordAt() const { return offset == 0 ? kSegmentHeaderSize : offset; }
  bool Has(size_t place) const { return place < consoles.size() && consoles[place]; }
};

/// How a console was called and reached, as a kConsole record of this segment says.
struct IndexedName {
  std::string name;
  std::string address;
  uint16_t port = 0;
  int64_t since = 0;    ///< wall time of that record
  uint64_t record = 0;  ///< its running number
  bool operator==(const IndexedName&) const = default;
};

/// A console of the segment's run.
struct IndexedConsole {
  uint32_t number = 0;             ///< 0: the station itself
  bool is_gone = false;            ///< its last definition or deletion is a deletion
  std::vector<IndexedName> names;  ///< in their order; one that says the same again is left out
  uint64_t records = 0;            ///< without kConsole, as in the following
  uint64_t output_bytes = 0;       ///< payload of its kOutput records
  int64_t lowest_wall = 0;
  int64_t highest_wall = 0;
  bool operator==(const IndexedConsole&) const = default;
};

/// Bytes of the segment that are no records.
struct DamagedBytes {
  uint64_t offset = 0;
  uint64_t length = 0;
  bool operator==(const DamagedBytes&) const = default;
};

struct SegmentIndex {
  SegmentHeader header;         ///< of a segment whose header is damaged: station and segment only
  bool header_is_sound = true;  ///< if not, all of the segment is damaged
  uint64_t size = 0;            ///< the segment's uncompressed bytes
  uint64_t records = 0;
  uint64_t next_record = 0;  ///< the running number behind the last record
  int64_t lowest_wall = 0;   ///< of all records
  int64_t highest_wall = 0;
  std::vector<Block> blocks;             ///< in the order of their offsets
  std::vector<IndexedConsole> consoles;  ///< in the order in which they first appear
  std::vector<DamagedBytes> damages;     ///< in the order of their offsets, never adjacent

  /// The console's place in `consoles`.
  std::optional<size_t> PlaceOf(uint32_t console) const;
};

/// Builds an index while a segment is read, or while it grows.
class SegmentIndexBuilder {
 public:
  explicit SegmentIndexBuilder(const SegmentHeader& header);

  /// For a segment whose header is not sound: everything, the header as well, is damage.
  static SegmentIndexBuilder WithoutHeader(uint64_t station, uint64_t segment);

  /// The record that stands behind everything that was added so far.
  void AddRecord(const RecordHeader& header, std::string_view payload);

  /// Bytes that are no record.
  void AddDamage(uint64_t bytes);

  /// All that was added; the last block may still grow.
  const SegmentIndex& index() const { return index_; }

 private:
  SegmentIndexBuilder() = default;
  Block& OpenBlock();
  IndexedConsole& ConsoleOf(uint32_t number, size_t* place);
  void Define(IndexedConsole& console, const RecordHeader& header, std::string_view payload);

  SegmentIndex index_;
  std::unordered_map<uint32_t, size_t> places_;  // of the consoles
};

/// The index as the first part of a file ".idx": with its version, length and CRC-32C.
std::string EncodeIndex(const SegmentIndex& index);

/// Why bytes are no index of this version.
enum class IndexFault {
  kNone,
  kShort,     ///< cut off
  kForeign,   ///< another kind of file
  kVersion,   ///< another version of the format
  kChecksum,  ///< changed
  kContents,  ///< sound, but what it says cannot be
};

/// `bytes`: the file from its first byte on. `length`, if not null, gets the bytes that the index
/// takes; the seal stands behind them.
IndexFault DecodeIndex(std::string_view bytes, SegmentIndex* index, size_t* length = nullptr);

}  // namespace journal
