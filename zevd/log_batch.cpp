#include "log_batch.h"

#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "counters.h"
#include "error.h"
#include "fixed_text.h"
#include "timestamp.h"

namespace zevd {

namespace {

constexpr char kWriteBuffer[] = "WriteBuffer";

/// The time of a record, the same in both logs.
struct RecordTime {
  char text[80];
  size_t length;
  RecordTime() : length(GetTimeStamp(text, sizeof text)) {}
};

/// What stands between time and line in the consolidated log: the name between blanks. Made for
/// every record, so without a format.
struct NameBetween {
  char text[kNameSize + 1];
  size_t length;
  explicit NameBetween(const char* cname) {
    const size_t name_length = strnlen(cname, kNameSize - 1);
    text[0] = ' ';
    memcpy(text + 1, cname, name_length);
    text[1 + name_length] = ' ';
    length = name_length + 2;
  }
};

void CountWritten(size_t records, size_t bytes) {
  counters.log_records.Add(records);
  counters.log_bytes.Add(bytes);
}

// The disk has filled up in the middle of a record: the piece is taken back. Leaves in errno what
// is to be reported.
void TakeBack(int fd, size_t bytes) {
  if (ftruncate(fd, lseek(fd, 0, SEEK_CUR) - static_cast<off_t>(bytes)) == 0) errno = ENOSPC;
}

// Whether a record that a call has `written` is whole. One that is not is taken back and counted.
bool IsWhole(int fd, ssize_t written, size_t size) {
  if (written == static_cast<ssize_t>(size)) {
    CountWritten(1, size);
    return true;
  }
  counters.log_records_lost.Add();
  if (written >= 0) TakeBack(fd, static_cast<size_t>(written));
  return false;
}

bool WriteParts(int fd, const RecordTime& time, const char* between, size_t between_length,
                const char* line, size_t count) {
  const iovec parts[] = {{const_cast<char*>(time.text), time.length},
                         {const_cast<char*>(between), between_length},
                         {const_cast<char*>(line), count}};
  return IsWhole(fd, writev(fd, parts, 3), time.length + between_length + count);
}

void ReportLog(const char* cname) {
  DEBUG_AS(kWriteBuffer, kError, "write() failed for console \"%s\" : %s\n", cname,
           strerror(errno));
}

void ReportConsolidated() {
  DEBUG_AS(kWriteBuffer, kError, "write() failed for \"consolidated.log\" : %s\n", strerror(errno));
}

}  // namespace

int WriteRecord(const LogTargets& targets, const char* line, int count) {
  const RecordTime time;
  const auto length = static_cast<size_t>(count);
  if (!WriteParts(targets.log_fd, time, " ", 1, line, length)) {
    ReportLog(targets.cname);
    return -1;
  }
  if (targets.consolidated_fd == -1) return 0;
  const NameBetween name(targets.cname);
  if (WriteParts(targets.consolidated_fd, time, name.text, name.length, line, length)) return 0;
  ReportConsolidated();
  return -1;
}

// ---- Batches ------------------------------------------------------------------------------------

void RecordBatch::Gathered::Append(const char* bytes, size_t count) {
  memcpy(text + length, bytes, count);
  length += count;
}

// Returns how many records are whole in the file, from the first on.
size_t RecordBatch::Gathered::WriteTogether(size_t records) const {
  const ssize_t written = write(fd, text, length);
  if (written < 0) return 0;
  const auto bytes = static_cast<size_t>(written);
  const auto whole = static_cast<size_t>(std::upper_bound(ends, ends + records, bytes) - ends);
  if (bytes > StartOf(whole)) TakeBack(fd, bytes - StartOf(whole));
  CountWritten(whole, StartOf(whole));
  return whole;
}

bool RecordBatch::Gathered::WriteAlone(size_t record) const {
  const size_t start = StartOf(record);
  const size_t count = ends[record] - start;
  return IsWhole(fd, write(fd, text + start, count), count);
}

bool RecordBatch::HasRoom() const {
  constexpr size_t kLongestRecord = sizeof(RecordTime) + sizeof(NameBetween) + kLongestLine;
  return records_ < kMostRecords && log_.length + kLongestRecord <= kSize &&
         consolidated_.length + kLongestRecord <= kSize;
}

void RecordBatch::Add(const LogTargets& targets, const char* line, int count) {
  if (!HasRoom()) Flush();
  const RecordTime time;
  const auto length = static_cast<size_t>(count);
  cname_ = targets.cname;
  log_.fd = targets.log_fd;
  log_.Append(time.text, time.length);
  log_.Append(" ", 1);
  log_.Append(line, length);
  log_.ends[records_] = log_.length;
  consolidated_.fd = targets.consolidated_fd;
  if (targets.consolidated_fd != -1) {
    const NameBetween name(targets.cname);
    consolidated_.Append(time.text, time.length);
    consolidated_.Append(name.text, name.length);
    consolidated_.Append(line, length);
    consolidated_.ends[records_] = consolidated_.length;
  }
  ++records_;
}

void RecordBatch::Flush() {
  if (records_ == 0) return;
  const size_t in_log = log_.WriteTogether(records_);
  const bool consolidated = consolidated_.fd != -1;
  size_t in_consolidated = 0;
  if (in_log == records_ && consolidated) in_consolidated = consolidated_.WriteTogether(records_);
  if (in_log < records_ || (consolidated && in_consolidated < records_)) {
    WriteOneByOne(in_log, in_consolidated);
  }
  records_ = 0;
  log_.length = 0;
  consolidated_.length = 0;
}

// Writes one record alone, unless its log has been given up: the disk is full, and others wait
// meanwhile. A console's log has its name; the consolidated one has none.
bool RecordBatch::TryAlone(const Gathered& gathered, size_t record, const char* cname,
                           int* failures) {
  constexpr int kMostFailures = 64;  // in a row
  if (*failures == kMostFailures) {
    counters.log_records_lost.Add();
    return false;
  }
  if (gathered.WriteAlone(record)) {
    *failures = 0;
    return true;
  }
  ++*failures;
  cname != nullptr ? ReportLog(cname) : ReportConsolidated();
  return false;
}

// The first so many records are in the logs already.
void RecordBatch::WriteOneByOne(size_t in_log, size_t in_consolidated) {
  int log_failures = 0;
  int consolidated_failures = 0;
  for (size_t record = 0; record < records_; ++record) {
    if (record >= in_log && !TryAlone(log_, record, cname_, &log_failures)) continue;
    if (consolidated_.fd == -1 || record < in_consolidated) continue;
    TryAlone(consolidated_, record, nullptr, &consolidated_failures);
  }
}

}  // namespace zevd
