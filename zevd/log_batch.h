// Records of console logs: a time stamp, a blank or the console's name between blanks, and a line.
// Whatever fills the disk or ends the process, a record is whole in its file or not there; only the
// last one may be cut, when SIGKILL comes at the end of a page.
//
// No lock of its own: whoever writes owns the console's log, and a batch belongs to one thread.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace zevd {

/// Where a record goes.
struct LogTargets {
  const char* cname;
  int log_fd;           ///< not -1
  int consolidated_fd;  ///< -1: not into the consolidated log
};

/// Writes one record with one call for each log. One that does not fit into the console's log is
/// not put into the consolidated one. 0, or -1 after a report under the name of WriteBuffer().
int WriteRecord(const LogTargets& targets, const char* line, int count);

/// The records that one turn of a console brings, written with one call for each log.
class RecordBatch {
 public:
  /// The longest line.
  static constexpr int kLongestLine = 1024;

  /// Adds a record for the same two logs as those before it, and writes those when there is no more
  /// room. `count` is at most kLongestLine.
  void Add(const LogTargets& targets, const char* line, int count);

  /// Writes all records. Those that cannot be written together are tried one by one, as
  /// WriteRecord() would; after many failures in a row the rest is given up for that log. Must be
  /// called before one of the logs is closed.
  void Flush();

 private:
  static constexpr size_t kMostRecords = 1024;
  static constexpr size_t kSize = size_t{64} << 10;

  /// The records for one of the two logs.
  struct Gathered {
    int fd;
    size_t length = 0;
    size_t ends[kMostRecords];
    char text[kSize];

    void Append(const char* bytes, size_t count);
    size_t StartOf(size_t record) const { return record == 0 ? 0 : ends[record - 1]; }
    size_t WriteTogether(size_t records) const;
    bool WriteAlone(size_t record) const;
  };

  bool HasRoom() const;
  static bool TryAlone(const Gathered& gathered, size_t record, const char* cname, int* failures);
  void WriteOneByOne(size_t in_log, size_t in_consolidated);

  const char* cname_ = nullptr;
  size_t records_ = 0;
  Gathered log_;
  Gathered consolidated_;
};

}  // namespace zevd
