// The records of a log file, as bytes in and records out.
//
// A record is a time stamp, a blank, in the consolidated log the console's name and a blank, and
// what the console printed up to and including its line end. Two kinds have no line end, and the
// next record follows on the same line: the first 1024 bytes of a longer line, and what a console
// had begun to print when its log was closed, after which comes a record with nothing but a line
// end.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace zevctl {

enum class LogKind { kConsole, kConsolidated };

/// The views are parts of what the record was taken from.
struct Record {
  std::optional<time_t> time;  ///< of the record before, if it has none itself
  std::string_view console;    ///< in a consolidated log
  std::string_view bytes;      ///< all of it
  std::string_view body;       ///< what follows the time stamp, without the line end
  std::string_view text;       ///< the body without the console's name
};

/// Longer ones are no records of the daemon's; they are taken in pieces of this length.
constexpr size_t kLongestRecord = 65536;

/// Length of the first record of the bytes; 0 when that shows only with more bytes.
/// `at_end`: more will not come at once. Then 1024 bytes without a line end are a record, and
/// anything shorter is still being written.
size_t RecordLength(std::string_view bytes, LogKind kind, bool at_end);

/// Seconds since the epoch of the records of one file.
class StampClock {
 public:
  /// The time of a stamp "yy/mm/dd_HH:MM:SS". A stamp that would be older than the one before it is
  /// taken to be of the second time that the clock shows the same hour, if that is not older.
  time_t Resolve(std::string_view stamp);

 private:
  std::string latest_;
  time_t time_ = 0;
};

/// The record of these bytes, which are all of it. `time` is that of the record before.
Record MakeRecord(std::string_view bytes, LogKind kind, std::optional<time_t> time,
                  StampClock& clock);

}  // namespace zevctl
