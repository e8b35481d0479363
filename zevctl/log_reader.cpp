#include "log_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace zevctl {

namespace {

// In bytes.
constexpr size_t kBufferSize = 32768;  // at first; many logs may be read at once
constexpr size_t kProbeSize = 16384;   // within which a line must end for a search to go on

}  // namespace

LogReader::LogReader(LogFile file, std::string name, FileIdentity directory)
    : file_(std::move(file.descriptor)),
      name_(std::move(name)),
      compressed_(file.is_compressed ? std::make_unique<CompressedLog>(file_.get(), name_)
                                     : nullptr),
      kind_(KindOf(name_)),
      directory_(directory) {
  struct stat info {};
  fstat(file_.get(), &info);
  identity_ = IdentityOf(info);
}

bool LogReader::IsRemoved() const {
  struct stat info {};
  return fstat(file_.get(), &info) == 0 && info.st_nlink == 0;
}

std::string_view LogReader::Buffered() const {
  return {bytes_.data() + used_, held_ - used_};
}

const Record* LogReader::Peek(Unfinished unfinished) {
  if (has_record_) return &record_;
  const size_t length = NextLength(unfinished);
  if (length == 0) return nullptr;
  record_ = MakeRecord(Buffered().substr(0, length), kind_, latest_, clock_);
  latest_ = record_.time;
  key_ = std::max(key_, latest_.value_or(kStartOfTime));
  has_record_ = true;
  return &record_;
}

// The length of the record at the position; 0 when there is none (yet).
size_t LogReader::NextLength(Unfinished unfinished) {
  for (;;) {
    const size_t length = held_ == used_ ? 0 : RecordLength(Buffered(), kind_, at_end_);
    if (length > 0) return length;
    if (at_end_) return unfinished == Unfinished::kTake ? held_ - used_ : 0;
    at_end_ = !Fill();
  }
}

void LogReader::Skip() {
  used_ += record_.bytes.size();
  position_ += static_cast<off_t>(record_.bytes.size());
  has_record_ = false;
}

// Reads on after what is buffered; false at the end of the file.
bool LogReader::Fill() {
  if (bytes_.empty()) bytes_.resize(kBufferSize);
  if (held_ - used_ == bytes_.size()) bytes_.resize(2 * bytes_.size());
  std::copy(bytes_.begin() + static_cast<ptrdiff_t>(used_),
            bytes_.begin() + static_cast<ptrdiff_t>(held_), bytes_.begin());
  held_ -= std::exchange(used_, 0);
  const size_t count =
      ReadAt(position_ + static_cast<off_t>(held_), std::span(bytes_).subspan(held_));
  held_ += count;
  return count > 0;
}

size_t LogReader::ReadAt(off_t position, std::span<char> buffer) const {
  if (compressed_) return compressed_->ReadAt(position, buffer);
  for (;;) {
    const ssize_t count = pread(file_.get(), buffer.data(), buffer.size(), position);
    if (count >= 0) return static_cast<size_t>(count);
    if (errno != EINTR) throw CannotRead("the log " + name_, errno);
  }
}

void LogReader::DropBuffer() {
  bytes_ = {};
  used_ = held_ = 0;
  has_record_ = at_end_ = false;
}

void LogReader::GoTo(off_t position) {
  DropBuffer();
  position_ = position;
}

off_t LogReader::Size() const {
  if (compressed_) return compressed_->Size();
  struct stat info {};
  return fstat(file_.get(), &info) == 0 ? info.st_size : 0;
}

// What was read of an unfinished record is read again: the daemon takes back a piece of a record
// when the disk is full.
bool LogReader::Refresh() {
  const off_t size = Size();
  GoTo(size < position_ ? 0 : position_);
  return size != position_;
}

std::optional<time_t> LogReader::TimeHere() const {
  return TimeAt(position_);
}

std::optional<time_t> LogReader::LastTime() const {
  return TimeAt(LastLines(1).start);
}

std::optional<time_t> LogReader::TimeAt(off_t position) const {
  char bytes[64];
  StampClock clock;
  return MakeRecord({bytes, ReadAt(position, bytes)}, kind_, std::nullopt, clock).time;
}

std::chrono::nanoseconds LogReader::Changed() const {
  struct stat info {};
  fstat(file_.get(), &info);
  return std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec);
}

void LogReader::SkipBefore(time_t time) {
  off_t size = 0;
  off_t older = 0;
  do {
    size = Size();
    older = LastOlder(time, size);
  } while (size != Size());
  GoTo(older);
}

// The start of a line before which all records are older, close to the first that is not.
off_t LogReader::LastOlder(time_t time, off_t rest) const {
  off_t older = 0;
  while (rest - older > static_cast<off_t>(kProbeSize)) {
    const off_t middle = older + (rest - older) / 2;
    const off_t line = LineStartAfter(middle);
    const auto found = line < 0 ? std::nullopt : TimeAt(line);
    if (!found) break;
    if (*found < time - kClockSlack) {
      older = line;
    } else {
      rest = middle;
    }
  }
  return older;
}

// The start of the first line after the position; -1 when no line begins close to it.
off_t LogReader::LineStartAfter(off_t position) const {
  char bytes[kProbeSize];
  const size_t count = ReadAt(position, bytes);
  const void* end = memchr(bytes, '\n', count);
  return end == nullptr ? -1 : position + (static_cast<const char*>(end) - bytes) + 1;
}

size_t LogReader::GoToLastLines(size_t count) {
  const Lines lines = LastLines(std::max<size_t>(count, 1));
  GoTo(lines.start);
  return lines.count;
}

// Places change when damage is found in a compressed log.
LogReader::Lines LogReader::LastLines(size_t count) const {
  off_t size = 0;
  Lines lines{};
  do {
    size = Size();
    lines = LastLinesBefore(size, count);
  } while (size != Size());
  return lines;
}

// Every line holds at least one record.
LogReader::Lines LogReader::LastLinesBefore(off_t size, size_t count) const {
  std::vector<char> bytes(kLongestRecord);
  if (size == 0) return {0, 0};
  Lines lines = {size, 0};
  off_t end = size - 1;  // the last byte ends the last line, if anything does
  while (end > 0) {
    const off_t start = std::max<off_t>(end - static_cast<off_t>(bytes.size()), 0);
    size_t left = ReadAt(start, std::span(bytes).first(static_cast<size_t>(end - start)));
    while (const void* found = memrchr(bytes.data(), '\n', left)) {
      left = static_cast<size_t>(static_cast<const char*>(found) - bytes.data());
      lines = {start + static_cast<off_t>(left) + 1, lines.count + 1};
      if (lines.count == count) return lines;
    }
    end = start;
  }
  return {0, lines.count + 1};
}

std::unique_ptr<LogReader> OpenLog(const LogDirectory& directory,
                                   const LogDirectory::Entry& entry) {
  LogFile file = directory.OpenLog(entry);
  if (!file.descriptor) return nullptr;
  return std::make_unique<LogReader>(std::move(file), entry.name, directory.identity());
}

}  // namespace zevctl
