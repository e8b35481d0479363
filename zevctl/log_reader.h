// Reading one log file record by record, from any position.
//
// The file is read through a descriptor that was opened once. So it is read to its end even when it
// is renamed or removed meanwhile.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "log_compressed.h"
#include "log_directories.h"
#include "log_record.h"

namespace zevctl {

/// In seconds: by how much time stamps may be wrong. A clock shows one hour twice when daylight
/// saving time ends, and clocks are set.
constexpr time_t kClockSlack = 7200;

/// Stands for the time of a record that has none.
constexpr time_t kStartOfTime = std::numeric_limits<time_t>::min();

/// What to do with bytes at the end of the file that may be the start of a record that is still
/// being written.
enum class Unfinished { kLeave, kTake };

/// Goes through the records of one file, compressed or not, from its start at first. Times are in
/// seconds since the epoch. Members that read the file throw Failure(kFailed) when that fails.
class LogReader {
 public:
  /// `name`: of the log, without ".log"; `directory`: the one in which the file was opened. Throws
  /// Failure(kFailed) when a compressed file cannot be read.
  LogReader(LogFile file, std::string name, FileIdentity directory);

  const std::string& name() const { return name_; }
  const FileIdentity& identity() const { return identity_; }
  const FileIdentity& directory() const { return directory_; }

  /// To be called when the file has got another name.
  void Rename(const std::string& name) { name_ = name; }

  /// True when the file has no name any more.
  bool IsRemoved() const;

  /// The record at the position; null at the end of the file, and with kLeave also before an
  /// unfinished record. Valid until another member is called.
  const Record* Peek(Unfinished unfinished);

  /// Moves the position past the record that Peek() returned.
  void Skip();

  /// The time by which that record is merged with those of other files: its own, or that of an
  /// earlier record of this file if that is later. So records of one file keep their order.
  time_t key() const { return key_; }

  /// Takes into account that the file may have grown or shrunk. Reading goes on at the position, or
  /// at the start when the file is now shorter than that. False when nothing is there to read.
  bool Refresh();

  /// Frees the buffer; the position stays.
  void DropBuffer();

  /// Moves to the start of a line before which every record is older than `time`. In a large file
  /// that line is close to the first record that is not older; a small file is read from its start.
  void SkipBefore(time_t time);

  /// Moves to the start of the last `count` lines, but at least of one. Returns how many lines
  /// there are from there on, which is less in a shorter file.
  size_t GoToLastLines(size_t count);

  /// The time of the record at the position, and of the last line of the file; nothing when it has
  /// no time stamp.
  std::optional<time_t> TimeHere() const;
  std::optional<time_t> LastTime() const;

  /// When the file was last written, since the epoch.
  std::chrono::nanoseconds Changed() const;

 private:
  std::string_view Buffered() const;
  size_t NextLength(Unfinished unfinished);
  bool Fill();
  off_t Size() const;
  void GoTo(off_t position);
  size_t ReadAt(off_t position, std::span<char> buffer) const;
  std::optional<time_t> TimeAt(off_t position) const;
  off_t LastOlder(time_t time, off_t rest) const;
  off_t LineStartAfter(off_t position) const;

  struct Lines {
    off_t start;
    size_t count;
  };
  Lines LastLines(size_t count) const;
  Lines LastLinesBefore(off_t size, size_t count) const;

  Descriptor file_;
  std::string name_;
  std::unique_ptr<CompressedLog> compressed_;  // null when the file is the text itself
  LogKind kind_;
  FileIdentity identity_;
  FileIdentity directory_;

  off_t position_ = 0;       // of the next record in the file
  std::vector<char> bytes_;  // the buffer; empty while nothing has been read
  size_t used_ = 0;          // where the position is in the buffer
  size_t held_ = 0;          // where the bytes in the buffer end
  bool at_end_ = false;      // the last read found no more bytes

  StampClock clock_;
  Record record_;            // of Peek()
  bool has_record_ = false;  // false until Peek() finds the record at the position
  std::optional<time_t> latest_;
  time_t key_ = kStartOfTime;
};

/// Opens a log. Null when it has been removed meanwhile or is no regular file. Throws
/// Failure(kFailed) when it cannot be opened for another reason.
std::unique_ptr<LogReader> OpenLog(const LogDirectory& directory, const LogDirectory::Entry& entry);

}  // namespace zevctl
