#include "journal_scan.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

namespace zevd {

using journal::RecordHeader;

namespace {

constexpr size_t kMostRecord = journal::kRecordHeaderSize + journal::kMostPayload;

constexpr size_t kIndexStart = journal::kIndexNextRecordAt + sizeof(uint64_t);

/// A window on a file that is read from front to back.
class FileWindow {
 public:
  explicit FileWindow(int fd) : fd_(fd), buffer_(16 * kMostRecord) {}

  /// The bytes at an offset that is not before the last one: a whole record's at least, unless the
  /// file ends before.
  std::string_view At(uint64_t offset) {
    if (offset + kMostRecord > begin_ + length_ && !at_end_) Fill(offset);
    // Reading may have failed, or the file may have become shorter since its size was asked for.
    return std::string_view(buffer_.data(), length_)
        .substr(std::min<uint64_t>(offset - begin_, length_));
  }

  bool HasFailed() const { return failed_; }

 private:
  void Fill(uint64_t offset) {
    begin_ = offset;
    length_ = 0;
    while (length_ < buffer_.size()) {
      const ssize_t count = pread(fd_, buffer_.data() + length_, buffer_.size() - length_,
                                  static_cast<off_t>(begin_ + length_));
      failed_ = count < 0;
      at_end_ = count <= 0;
      if (at_end_) return;
      length_ += static_cast<size_t>(count);
    }
  }

  int fd_;
  std::vector<char> buffer_;
  uint64_t begin_ = 0;
  size_t length_ = 0;
  bool failed_ = false;
  bool at_end_ = false;  // nothing follows what is in the buffer
};

// A console may have printed a journal, whose records lie within one of ours: their numbers tell
// them apart.
std::optional<RecordHeader> RecordAt(std::string_view bytes, uint64_t number, uint64_t lost) {
  if (!journal::MayContinue(bytes, number, lost)) return {};
  return journal::DecodeRecord(bytes);
}

void ScanRecords(FileWindow& file, SegmentScan* scan) {
  uint64_t offset = scan->end;
  while (offset + journal::kRecordHeaderSize <= scan->size) {
    const std::string_view bytes = file.At(offset);
    if (bytes.size() < journal::kRecordHeaderSize) return;
    const auto record = RecordAt(bytes, scan->next_record, offset - scan->end);
    if (!record) {
      ++offset;
      continue;
    }
    offset += record->length;
    scan->end = offset;
    scan->next_record = record->number + 1;
  }
}

}  // namespace

std::optional<SegmentScan> ScanSegment(int fd) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return {};
  SegmentScan scan;
  scan.size = static_cast<uint64_t>(status.st_size);
  FileWindow file(fd);
  scan.fault = journal::DecodeSegmentHeader(file.At(0), &scan.header);
  if (scan.fault == journal::HeaderFault::kNone) {
    scan.end = journal::kSegmentHeaderSize;
    scan.next_record = scan.header.first_record;
    ScanRecords(file, &scan);
  }
  if (file.HasFailed()) return {};
  return scan;
}

std::optional<uint64_t> NextRecordOfIndex(int fd, uint64_t station, uint64_t segment) {
  char start[kIndexStart];
  if (pread(fd, start, sizeof start, 0) != sizeof start) return {};
  if (memcmp(start, journal::kIndexMagic, strlen(journal::kIndexMagic)) != 0 ||
      journal::GetNumber<uint16_t>(start + journal::kIndexVersionAt) != journal::kIndexVersion ||
      journal::GetNumber<uint64_t>(start + journal::kIndexStationAt) != station ||
      journal::GetNumber<uint64_t>(start + journal::kIndexSegmentAt) != segment) {
    return {};
  }
  return journal::GetNumber<uint64_t>(start + journal::kIndexNextRecordAt);
}

}  // namespace zevd
