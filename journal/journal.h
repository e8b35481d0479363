// Reading a journal: finding records by console and time, and following it as it grows. Everything
// that shows the past stands on this: nobody else opens a journal's files.
//
// A Journal and its cursors belong to one thread. Segments may grow, be sealed, compressed and
// removed meanwhile: nothing that has been handed out becomes wrong, and what is removed while it
// is being read is told as removed.
#pragma once

#include <compare>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "journal_fields.h"
#include "journal_format.h"

namespace journal {

/// Why a journal cannot be read.
class JournalError : public std::runtime_error {
 public:
  enum class Cause {
    kMissing,     ///< there is no journal: the directory does not exist, or has no segments yet
    kForeign,     ///< the directory is a link or no directory, or its files are no journal
    kVersion,     ///< made by another version of the daemon
    kUnreadable,  ///< the system refuses: rights, input and output
    kGone,        ///< a position's segment has been removed
    kStation,     ///< a position of another station
  };
  JournalError(Cause cause, const std::string& text) : std::runtime_error(text), cause_(cause) {}
  Cause cause() const { return cause_; }

 private:
  Cause cause_;
};

/// The place of a record; stays valid when its segment is sealed and compressed.
struct Position {
  uint64_t station = 0;
  uint64_t segment = 0;
  uint64_t offset = 0;  ///< in the segment's uncompressed bytes
  auto operator<=>(const Position&) const = default;
};

/// "STATION:SEGMENT:OFFSET": 16 hexadecimal digits, and two decimal numbers.
std::string PositionText(const Position& position);
std::optional<Position> ParsePosition(std::string_view text);

/// How a console was called and reached, and from when on.
struct ConsoleName {
  std::string name;
  std::string address;
  uint16_t port = 0;
  int64_t since = 0;  ///< wall time of the record that says so
};

/// One console through all runs of the daemon and under all its names: within a run by its number,
/// from run to run by its name.
struct Console {
  size_t id = 0;  ///< its place in Journal::consoles(); stays the same for as long as the Journal
  std::vector<ConsoleName> names;  ///< in their order, at least one
  bool is_gone = false;            ///< deleted, as far as the journal tells
  const std::string& name() const { return names.back().name; }
};

/// A record; `payload` is valid until its cursor moves.
struct Record {
  Position position;
  Position next;  ///< of the record behind it
  RecordHeader header;
  uint64_t run = 0;
  std::optional<size_t> console;  ///< a Console's id; none for the station's own records
  std::string_view payload;
};

/// A set of kinds.
using Kinds = uint64_t;
constexpr Kinds KindBit(Kind kind) {
  return Kinds{1} << static_cast<uint8_t>(kind);
}
inline constexpr Kinds kAllKinds = ~Kinds{0};

/// Which records are wanted.
struct Query {
  std::vector<size_t> consoles;  ///< their ids; empty: all
  bool with_station = false;  ///< the station's own records, too; always when `consoles` is empty
  Kinds kinds = kAllKinds;
  std::optional<int64_t> since;  ///< wall time, inclusive
  std::optional<int64_t> until;  ///< wall time, inclusive
  std::optional<Position> from;  ///< forward: at or behind it; backward: before it
  bool backward = false;         ///< the newest first
};

/// Bytes that are no sound record.
struct Damage {
  Position position;
  uint64_t bytes = 0;  ///< 0: as far as the segment's end
  std::string reason;
};

class Cursor {
 public:
  virtual ~Cursor() = default;

  /// The next wanted record; false at the end. Forward, a later call goes on where more has come
  /// since (after Journal::Refresh()). Damage is stepped over and noted. Throws JournalError.
  virtual bool Next(Record* record) = 0;

  /// What has been stepped over so far.
  virtual const std::vector<Damage>& damages() const = 0;

  /// Forward: where a new cursor goes on.
  virtual Position position() const = 0;
};

/// A segment, as `zevctl` and others tell of it.
struct SegmentInfo {
  uint64_t segment = 0;
  bool is_sealed = false;
  bool is_compressed = false;
  uint64_t size = 0;       ///< uncompressed bytes
  uint64_t file_size = 0;  ///< bytes on disk
  int64_t first_wall = 0;
  int64_t last_wall = 0;
};

class Journal {
 public:
  /// Opens the journal in a directory and reads the indexes of its sealed segments; segments that
  /// have none are read once. Throws JournalError.
  explicit Journal(const std::string& directory);
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  uint64_t station() const;

  /// Takes note of what has been written, sealed, compressed and removed since.
  void Refresh();

  const std::vector<Console>& consoles() const;

  /// The consoles that have, or ever had, this name; whoever has it now comes first.
  std::vector<size_t> Find(std::string_view name) const;

  std::vector<SegmentInfo> segments() const;

  /// Where the next record will stand.
  Position end() const;

  std::unique_ptr<Cursor> Read(const Query& query) const;

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

/// The word for a kind in tables and JSON, such as "output"; "unknown" for others.
const char* KindWord(Kind kind);

}  // namespace journal
