// The log files below a log directory: which of them belong to a console, and their records in time
// order.
//
// A file is read through a descriptor that was opened once, so that it is read to its end whatever
// is renamed or removed meanwhile, and it is told apart by its identity, not by its name.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <compare>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "log_record.h"
#include "socket.h"

namespace zevctl {

// ---- Names --------------------------------------------------------------------------------------

/// Names of log files without ".log".
using LogNames = std::set<std::string>;

/// Which logs are wanted. Names that differ only in "-" and "_" are of one console: the daemon
/// replaces the one by the other when it posts an event. Case counts only while some log has the
/// name in just that case.
class WantedLogs {
 public:
  WantedLogs(const std::vector<std::string>& names, const LogNames& existing);

  bool Has(std::string_view name) const;

  /// Wants this one too.
  void Add(const std::string& name);

 private:
  struct Wanted {
    std::string name;  // in the form in which names are compared
    bool any_case;
  };

  std::vector<Wanted> wanted_;
};

/// Existing names that somebody may have meant by this one, the likeliest first; at most five.
std::vector<std::string> SimilarNames(const std::string& name, const LogNames& existing);

LogKind KindOf(std::string_view name);

// ---- Directories --------------------------------------------------------------------------------

struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  auto operator<=>(const FileIdentity&) const = default;
};

/// A dated directory that stays open while this lives.
class LogDirectory {
 public:
  explicit LogDirectory(Descriptor descriptor);

  const FileIdentity& identity() const { return identity_; }
  int fd() const { return descriptor_.get(); }

  struct Entry {
    std::string name;  ///< without ".log"
    ino_t inode;
  };
  std::vector<Entry> Logs() const;

 private:
  Descriptor descriptor_;
  FileIdentity identity_;
};

/// The path of the directory of dated directories.
std::string DatedDirectoryPath(const std::string& log_dir);

/// The directory to which the link "current" points; nothing when there is none.
std::optional<LogDirectory> OpenCurrentDirectory(const std::string& log_dir);

/// Every dated directory, the current one included wherever it is. Throws Failure(kFailed) when
/// they cannot be listed or one cannot be read.
std::vector<LogDirectory> OpenLogDirectories(const std::string& log_dir);

LogNames NamesIn(const std::vector<LogDirectory>& directories);

// ---- Files --------------------------------------------------------------------------------------

/// What becomes of bytes at the end of a file that may be a record which is still being written.
enum class Unfinished { kLeave, kTake };

/// Walks through the records of one file.
class LogReader {
 public:
  LogReader(Descriptor file, std::string name, FileIdentity directory);

  const std::string& name() const { return name_; }
  const FileIdentity& identity() const { return identity_; }
  const FileIdentity& directory() const { return directory_; }

  /// The file has got another name.
  void Rename(const std::string& name) { name_ = name; }

  /// It has no name any more.
  bool IsRemoved() const;

  /// The record at the position; null at the end. Valid until another member is called.
  const Record* Peek(Unfinished unfinished);

  /// Goes behind that record.
  void Skip();

  /// Where it belongs among the records of other files: its time, but never before a record that
  /// precedes it in its file. Defined while Peek() finds a record.
  time_t key() const { return key_; }

  /// Looks at the file anew: there may be more of it, or less.
  void Refresh();

  /// Gives back the memory; reading goes on from the position.
  void DropBuffer();

  /// Goes forward to a line before which everything is older; near to it in a large file.
  void SkipBefore(time_t time);

  /// Goes to the start of the last `count` lines, at least one; returns how many there are.
  size_t GoToLastLines(size_t count);

  /// Time of the record at the position, and of the last line of the file.
  std::optional<time_t> TimeHere() const;
  std::optional<time_t> LastTime() const;

  /// When the file was last written.
  std::chrono::nanoseconds Changed() const;

 private:
  std::string_view Buffered() const;
  size_t NextLength(Unfinished unfinished);
  bool Fill();
  off_t Size() const;
  void GoTo(off_t position);
  size_t ReadAt(off_t position, std::span<char> buffer) const;
  std::optional<time_t> TimeAt(off_t position) const;
  off_t LineStartAfter(off_t position) const;

  struct Lines {
    off_t start;
    size_t count;
  };
  Lines LastLines(size_t count) const;

  Descriptor file_;
  std::string name_;
  LogKind kind_;
  FileIdentity identity_;
  FileIdentity directory_;

  off_t position_ = 0;       // of the record at which we are
  std::vector<char> bytes_;  // what was read; empty while nothing was
  size_t used_ = 0;          // where the position is in it
  size_t held_ = 0;          // where it ends
  bool at_end_ = false;

  StampClock clock_;
  Record record_;
  bool has_record_ = false;
  std::optional<time_t> latest_;
  time_t key_ = std::numeric_limits<time_t>::min();
};

using LogReaders = std::vector<std::unique_ptr<LogReader>>;

/// The wanted file of a directory; null when it has gone meanwhile or is no file. Throws
/// Failure(kFailed) when it may not be read.
std::unique_ptr<LogReader> OpenLog(const LogDirectory& directory, const std::string& name);

LogReaders OpenLogs(const std::vector<LogDirectory>& directories, const WantedLogs& wanted);

/// Stamps tell nothing about times that are nearer than this: clocks show an hour twice, and are
/// set.
constexpr time_t kClockSlack = 7200;

/// Goes to places from which on there are the last `count` records of all, and maybe some before.
void GoToLastRecords(const LogReaders& readers, size_t count);

/// What is done with each record.
using RecordHandler = std::function<void(const LogReader&, const Record&)>;
using UnfinishedRule = std::function<Unfinished(const LogReader&)>;

/// Hands over the records of the files in time order, but none behind `end`. Of records of the same
/// second those of the file that began earlier come first, or that was left off earlier.
void ReadInOrder(LogReaders& readers, const UnfinishedRule& unfinished, time_t end,
                 const RecordHandler& handle);

/// For `end`: every record.
constexpr time_t kEndOfTime = std::numeric_limits<time_t>::max();

}  // namespace zevctl
