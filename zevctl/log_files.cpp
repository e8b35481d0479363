#include "log_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <tuple>
#include <utility>

#include "exit_status.h"
#include "output.h"

namespace zevctl {

namespace {

constexpr std::string_view kSuffix = ".log";
constexpr std::string_view kConsolidatedName = "consolidated";
constexpr std::string_view kCurrentName = "current";

constexpr size_t kBufferSize = 4 * kLongestRecord;
constexpr size_t kProbeSize = 16384;  // in which a line must end for a search to go on
constexpr time_t kStartOfTime = std::numeric_limits<time_t>::min();

Failure CannotRead(const std::string& path, int error) {
  std::string advice;
  if (error == EACCES) advice = "; logs are for root and the group of the station's files";
  if (error == ENOENT) advice = "; --log-dir tells where the daemon's logs are, if not there";
  return {ExitStatus::kFailed, "cannot read " + Printable(path) + ": " + strerror(error) + advice};
}

bool HasGone(int error) {
  return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

// ---- Names

enum class Case { kCounts, kIgnored };

std::string Folded(std::string_view name, Case letters) {
  std::string folded(name);
  for (char& byte : folded) {
    if (byte == '-') byte = '_';
    if (letters == Case::kIgnored) byte = static_cast<char>(tolower(static_cast<uint8_t>(byte)));
  }
  return folded;
}

// Single characters that must be changed, added or left out.
size_t Distance(std::string_view one, std::string_view other) {
  std::vector<size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < one.size(); ++i) {
    size_t diagonal = std::exchange(row[0], i + 1);
    for (size_t j = 0; j < other.size(); ++j) {
      const size_t changed = diagonal + (one[i] == other[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({changed, diagonal + 1, row[j] + 1});
    }
  }
  return row.back();
}

bool IsSimilar(const std::string& one, const std::string& other, size_t distance) {
  constexpr size_t kFewChanges = 2;
  return distance <= std::min(kFewChanges, one.size() / 2) ||
         one.find(other) != std::string::npos || other.find(one) != std::string::npos;
}

// ---- Directories

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

// A stream of its own, from the first entry on; null when the directory cannot be listed.
DirectoryStream Entries(int directory) {
  const int own = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DirectoryStream stream(own < 0 ? nullptr : fdopendir(own));
  if (!stream && own >= 0) close(own);
  return stream;
}

FileIdentity IdentityOf(const struct stat& info) {
  return {info.st_dev, info.st_ino};
}

// Not valid when the directory has gone meanwhile or is none.
Descriptor OpenDirectory(int parent, const std::string& name, const std::string& parent_path) {
  Descriptor descriptor(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor && !HasGone(errno)) throw CannotRead(parent_path + "/" + name, errno);
  return descriptor;
}

void AddUnlessKnown(std::vector<LogDirectory>& directories, LogDirectory directory) {
  const auto is_it = [&](const LogDirectory& known) {
    return known.identity() == directory.identity();
  };
  if (std::none_of(directories.begin(), directories.end(), is_it)) {
    directories.push_back(std::move(directory));
  }
}

}  // namespace

// ---- Names --------------------------------------------------------------------------------------

WantedLogs::WantedLogs(const std::vector<std::string>& names, const LogNames& existing) {
  for (const std::string& name : names) {
    const std::string exact = Folded(name, Case::kCounts);
    const bool exists = std::any_of(existing.begin(), existing.end(), [&](const auto& other) {
      return Folded(other, Case::kCounts) == exact;
    });
    wanted_.push_back({exists ? exact : Folded(name, Case::kIgnored), !exists});
  }
}

bool WantedLogs::Has(std::string_view name) const {
  return std::any_of(wanted_.begin(), wanted_.end(), [&](const Wanted& wanted) {
    return wanted.name == Folded(name, wanted.any_case ? Case::kIgnored : Case::kCounts);
  });
}

void WantedLogs::Add(const std::string& name) {
  wanted_.push_back({Folded(name, Case::kCounts), false});
}

std::vector<std::string> SimilarNames(const std::string& name, const LogNames& existing) {
  constexpr size_t kMost = 5;
  const std::string folded = Folded(name, Case::kIgnored);
  std::vector<std::pair<size_t, std::string>> ranked;
  for (const std::string& other : existing) {
    const std::string other_folded = Folded(other, Case::kIgnored);
    const size_t distance = Distance(folded, other_folded);
    if (IsSimilar(folded, other_folded, distance)) ranked.emplace_back(distance, other);
  }
  std::sort(ranked.begin(), ranked.end());
  ranked.resize(std::min(ranked.size(), kMost));
  std::vector<std::string> names(ranked.size());
  std::transform(ranked.begin(), ranked.end(), names.begin(),
                 [](const auto& entry) { return entry.second; });
  return names;
}

LogKind KindOf(std::string_view name) {
  return name == kConsolidatedName ? LogKind::kConsolidated : LogKind::kConsole;
}

// ---- Directories --------------------------------------------------------------------------------

LogDirectory::LogDirectory(Descriptor descriptor) : descriptor_(std::move(descriptor)) {
  struct stat info {};
  fstat(fd(), &info);
  identity_ = IdentityOf(info);
}

std::vector<LogDirectory::Entry> LogDirectory::Logs() const {
  std::vector<Entry> logs;
  const DirectoryStream entries = Entries(fd());
  if (!entries) return logs;
  while (const dirent* entry = readdir(entries.get())) {
    std::string_view name = entry->d_name;
    if (!name.ends_with(kSuffix) || name.size() == kSuffix.size()) continue;
    name.remove_suffix(kSuffix.size());
    logs.push_back({std::string(name), entry->d_ino});
  }
  return logs;
}

std::string DatedDirectoryPath(const std::string& log_dir) {
  return log_dir + "/zev.dated";
}

std::optional<LogDirectory> OpenCurrentDirectory(const std::string& log_dir) {
  const std::string path = DatedDirectoryPath(log_dir) + "/" + std::string(kCurrentName);
  Descriptor descriptor(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!descriptor) return {};
  return LogDirectory(std::move(descriptor));
}

// The current directory comes last: it may have been begun after the others were listed.
std::vector<LogDirectory> OpenLogDirectories(const std::string& log_dir) {
  const std::string path = DatedDirectoryPath(log_dir);
  const Descriptor dated(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const DirectoryStream entries = dated ? Entries(dated.get()) : nullptr;
  if (!entries) throw CannotRead(path, errno);
  std::vector<LogDirectory> directories;
  while (const dirent* entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name == kCurrentName) continue;
    Descriptor found = OpenDirectory(dated.get(), name, path);
    if (found) AddUnlessKnown(directories, LogDirectory(std::move(found)));
  }
  Descriptor current = OpenDirectory(dated.get(), std::string(kCurrentName), path);
  if (current) AddUnlessKnown(directories, LogDirectory(std::move(current)));
  return directories;
}

LogNames NamesIn(const std::vector<LogDirectory>& directories) {
  LogNames names;
  for (const LogDirectory& directory : directories) {
    for (auto& entry : directory.Logs()) names.insert(std::move(entry.name));
  }
  return names;
}

// ---- Reading ------------------------------------------------------------------------------------

LogReader::LogReader(Descriptor file, std::string name, FileIdentity directory)
    : file_(std::move(file)), name_(std::move(name)), kind_(KindOf(name_)), directory_(directory) {
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

// Of the record at the position; 0 when there is none (yet).
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

// Reads more behind what is there; false at the end of the file.
bool LogReader::Fill() {
  bytes_.resize(kBufferSize);
  std::copy(bytes_.begin() + static_cast<ptrdiff_t>(used_),
            bytes_.begin() + static_cast<ptrdiff_t>(held_), bytes_.begin());
  held_ -= std::exchange(used_, 0);
  const size_t count =
      ReadAt(position_ + static_cast<off_t>(held_), std::span(bytes_).subspan(held_));
  held_ += count;
  return count > 0;
}

size_t LogReader::ReadAt(off_t position, std::span<char> buffer) const {
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
  struct stat info {};
  return fstat(file_.get(), &info) == 0 ? info.st_size : 0;
}

// What has been read of a record that is still being written is read again: the daemon takes back
// a piece of a record when the disk is full.
void LogReader::Refresh() {
  GoTo(Size() < position_ ? 0 : position_);
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
  off_t older = 0;
  off_t rest = Size();
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
  GoTo(older);
}

// -1 when no line begins near the position.
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

// Every line holds at least one record.
LogReader::Lines LogReader::LastLines(size_t count) const {
  std::vector<char> bytes(kLongestRecord);
  const off_t size = Size();
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

// ---- Files --------------------------------------------------------------------------------------

std::unique_ptr<LogReader> OpenLog(const LogDirectory& directory, const std::string& name) {
  const std::string file_name = name + std::string(kSuffix);
  // Opening must not wait for the writer of a pipe.
  Descriptor file(
      openat(directory.fd(), file_name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file && !HasGone(errno)) throw CannotRead(file_name, errno);
  struct stat info {};
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return nullptr;
  return std::make_unique<LogReader>(std::move(file), name, directory.identity());
}

LogReaders OpenLogs(const std::vector<LogDirectory>& directories, const WantedLogs& wanted) {
  LogReaders readers;
  for (const LogDirectory& directory : directories) {
    for (const auto& entry : directory.Logs()) {
      if (!wanted.Has(entry.name)) continue;
      auto reader = OpenLog(directory, entry.name);
      if (reader) readers.push_back(std::move(reader));
    }
  }
  return readers;
}

namespace {

struct Started {
  time_t time;
  std::chrono::nanoseconds changed;  // tells two apart that were begun within a second
  LogReader* reader;

  bool operator<(const Started& other) const {
    return std::tie(time, changed) < std::tie(other.time, other.changed);
  }
};

std::vector<Started> InOrderOfStart(const LogReaders& readers) {
  std::vector<Started> started;
  for (const auto& reader : readers) {
    const time_t time = reader->TimeHere().value_or(kStartOfTime);
    started.push_back({time, reader->Changed(), reader.get()});
  }
  std::stable_sort(started.begin(), started.end());
  return started;
}

/// Readers whose next records are compared. A file joins when the records of the others come to its
/// first one, and leaves at its end, so that memory does not grow with the number of files.
class Merge {
 public:
  Merge(const LogReaders& readers, const UnfinishedRule& unfinished)
      : unfinished_(unfinished), waiting_(InOrderOfStart(readers)) {}

  /// The reader at the earliest record; null at the end of all.
  LogReader* Next() {
    for (;;) {
      LogReader* earliest = Earliest();
      const bool all_joined = joined_ == waiting_.size();
      if (all_joined || (earliest != nullptr && earliest->key() < waiting_[joined_].time)) {
        return earliest;
      }
      active_.push_back(waiting_[joined_++].reader);
    }
  }

 private:
  LogReader* Earliest() {
    LogReader* earliest = nullptr;
    std::erase_if(active_, [&](LogReader* reader) {
      if (reader->Peek(unfinished_(*reader)) == nullptr) {
        reader->DropBuffer();
        return true;
      }
      if (earliest == nullptr || reader->key() < earliest->key()) earliest = reader;
      return false;
    });
    return earliest;
  }

  const UnfinishedRule& unfinished_;
  std::vector<Started> waiting_;
  size_t joined_ = 0;
  std::vector<LogReader*> active_;
};

}  // namespace

// From the newest file back: what ends before the last records that were found so far begin cannot
// hold any of the last ones.
void GoToLastRecords(const LogReaders& readers, size_t count) {
  std::vector<Started> started = InOrderOfStart(readers);
  size_t found = 0;
  time_t oldest = kEndOfTime;
  for (auto it = started.rbegin(); it != started.rend(); ++it) {
    LogReader& reader = *it->reader;
    const bool is_older = reader.LastTime().value_or(kEndOfTime) < oldest;
    const size_t wanted = found >= count && is_older ? 1 : count;
    found += reader.GoToLastLines(wanted);
    oldest = std::min(oldest, reader.TimeHere().value_or(kStartOfTime));
  }
}

void ReadInOrder(LogReaders& readers, const UnfinishedRule& unfinished, time_t end,
                 const RecordHandler& handle) {
  Merge merge(readers, unfinished);
  for (LogReader* reader = merge.Next(); reader != nullptr && reader->key() <= end;
       reader = merge.Next()) {
    handle(*reader, *reader->Peek(unfinished(*reader)));
    reader->Skip();
  }
}

}  // namespace zevctl
