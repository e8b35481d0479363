// The part of the journal that is replayed, and the places in it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "journal/journal.h"
#include "replay_pace.h"

namespace zevctl {

/// A place: the first `offset` bytes of this record have been played, and all before it.
struct Point {
  journal::Position record;
  size_t offset = 0;
  auto operator<=>(const Point&) const = default;
};

/// A place, and how much of the pause before it has been played.
struct Landing {
  Point point;
  Nanoseconds elapsed{0};
};

/// Of one console, between two times; with what happened to the whole station meanwhile.
class Tape {
 public:
  /// Times in nanoseconds since the epoch, both inclusive. The journal must live longer.
  Tape(const journal::Journal& journal, std::vector<size_t> consoles, std::optional<int64_t> since,
       std::optional<int64_t> until);

  std::optional<int64_t> since() const { return since_; }

  /// True when nothing happened at the console. The station's own records do not count.
  bool IsEmpty() const;

  std::unique_ptr<journal::Cursor> FromStart() const;
  std::unique_ptr<journal::Cursor> From(const journal::Position& record) const;
  /// Backward, the console's last record first; without the station's own records.
  std::unique_ptr<journal::Cursor> FromEnd() const;
  /// Backward; without the record itself.
  std::unique_ptr<journal::Cursor> Before(const journal::Position& record) const;
  /// The same, also of what was before the tape's start.
  std::unique_ptr<journal::Cursor> EverBefore(const journal::Position& record) const;

  /// The pause between two records that follow each other. What was before the tape's start is not
  /// part of it.
  Nanoseconds Pause(const Instant& earlier, const Instant& later) const;

 private:
  journal::Query Base() const;
  journal::Query OnlyOfConsole() const;

  const journal::Journal& journal_;
  std::vector<size_t> consoles_;
  std::optional<int64_t> since_;
  std::optional<int64_t> until_;
};

/// When the record was made.
Instant InstantOf(const journal::Record& record);

/// A record that outlives its cursor's next move.
struct KeptRecord {
  explicit KeptRecord(const journal::Record& record)
      : position(record.position),
        kind(record.header.kind),
        instant(InstantOf(record)),
        payload(record.payload) {}

  journal::Position position;
  journal::Kind kind;
  Instant instant;
  std::string payload;
};

}  // namespace zevctl
