// Finding the records in the bytes of a log file, and taking them apart.
//
// A record consists of a time stamp and a blank, in the consolidated log the console's name and a
// blank, and what the console printed, up to and including the line end. Two kinds of record have
// no line end, and the next one follows on the same line: the first 1024 bytes of a longer line,
// and a line that was unfinished when the log was closed. After the latter comes a record with
// nothing but a line end.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace zevctl {

enum class LogKind { kConsole, kConsolidated };

/// A record and its parts. The views point into the bytes that it was made from.
struct Record {
  std::optional<time_t> time;  ///< of the record before it, if it has none
  std::string_view console;    ///< in a consolidated log
  std::string_view bytes;      ///< all of it
  std::string_view body;       ///< what follows the time stamp, without the line end
  std::string_view text;       ///< the body without the console's name
};

/// In bytes. The daemon writes no longer record; what is longer is taken in pieces of this length.
constexpr size_t kLongestRecord = 65536;

/// Length in bytes of the first record; 0 when only more bytes can tell. `at_end`: no more bytes
/// will come soon. Then 1024 bytes without a line end are a record, and fewer are one that is still
/// being written.
size_t RecordLength(std::string_view bytes, LogKind kind, bool at_end);

/// Tells the times of the records of one file, which it must be given in their order.
class StampClock {
 public:
  /// The time of a stamp "yy/mm/dd_HH:MM:SS" in seconds since the epoch. When daylight saving time
  /// ends, clocks show an hour twice: a stamp that would be older than the one before it is taken
  /// to be from the second of these hours, unless it would still be older.
  time_t Resolve(std::string_view stamp);

 private:
  std::string latest_;
  time_t time_ = 0;
};

/// Takes apart the bytes of one record. `time`: of the record before it.
Record MakeRecord(std::string_view bytes, LogKind kind, std::optional<time_t> time,
                  StampClock& clock);

}  // namespace zevctl
