#include "journal_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string_view>
#include <vector>

#include "error.h"
#include "journal_format.h"
#include "journal_scan.h"

namespace zevd {

namespace {

constexpr mode_t kDirectoryMode = 0750;
constexpr mode_t kFileMode = 0640;
constexpr mode_t kWritableByOthers = 0022;
constexpr char kId[] = "id";
constexpr size_t kIdDigits = 16;
constexpr size_t kSegmentDigits = 20;

bool IsOurs(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && status.st_uid == geteuid() &&
         (status.st_mode & kWritableByOthers) == 0;
}

std::string FileOf(uint64_t segment, const char* suffix) {
  char name[kSegmentDigits + 16];
  snprintf(name, sizeof name, "%020" PRIu64 "%s", segment, suffix);
  return name;
}

// The number of the segment to which a file belongs; nothing for other files.
std::optional<uint64_t> SegmentOf(std::string_view name) {
  constexpr std::string_view kSuffixes[] = {".seg", ".idx", ".seg.zst"};
  if (name.size() <= kSegmentDigits) return {};
  const std::string_view suffix = name.substr(kSegmentDigits);
  if (std::ranges::find(kSuffixes, suffix) == std::end(kSuffixes)) return {};
  uint64_t number = 0;
  const char* end = name.data() + kSegmentDigits;
  const auto [stop, error] = std::from_chars(name.data(), end, number);
  if (error != std::errc() || stop != end || number == 0) return {};
  return number;
}

// The segments of which there is any file, the newest first. Nothing, with errno set, when the
// directory cannot be read.
std::optional<std::vector<uint64_t>> Segments(int directory) {
  const int fd = openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* entries = fd == -1 ? nullptr : fdopendir(fd);
  if (entries == nullptr) {
    if (fd != -1) close(fd);
    return {};
  }
  std::vector<uint64_t> segments;
  while (const dirent* entry = readdir(entries)) {
    if (const auto segment = SegmentOf(entry->d_name)) segments.push_back(*segment);
  }
  closedir(entries);
  std::ranges::sort(segments, std::greater());
  segments.erase(std::unique(segments.begin(), segments.end()), segments.end());
  return segments;
}

bool IsThere(int directory, const std::string& name) {
  return faccessat(directory, name.c_str(), F_OK, AT_SYMLINK_NOFOLLOW) == 0;
}

}  // namespace

JournalResult JournalDirectory::Refuse(const std::string& why) {
  trouble_ = why;
  return JournalResult::kRefused;
}

JournalResult JournalDirectory::Fail(const std::string& call) {
  trouble_ = call + " failed : " + strerror(errno);
  return JournalResult::kFailed;
}

JournalResult JournalDirectory::Open(const char* path, std::string* trouble) {
  ENTERING();
  path_ = path;
  JournalResult result = OpenDirectory(path);
  if (result == JournalResult::kDone) result = OpenId();
  if (result == JournalResult::kDone) result = LookAtSegments();
  if (result != JournalResult::kDone) {
    Close();
    *trouble = trouble_;
  }
  return result;
}

void JournalDirectory::Close() {
  id_.reset();
  directory_.reset();
  next_segment_ = 1;
  next_record_ = 1;
  torn_.reset();
}

JournalResult JournalDirectory::OpenDirectory(const char* path) {
  const bool is_new = mkdir(path, kDirectoryMode) == 0;
  if (!is_new && errno != EEXIST) return Fail("mkdir( " + path_ + " )");
  directory_.emplace(OpenRealDirectory(AT_FDCWD, path));
  if (!directory_->is_open()) {
    if (errno == ENOTDIR) return Refuse(path_ + " is no directory, or a link");
    return Fail("open( " + path_ + " )");
  }
  if (is_new && GiveStationGroup(directory_->get()) != 0) return Fail("chown( " + path_ + " )");
  if (IsOurs(directory_->get())) return JournalResult::kDone;
  return Refuse(path_ + " must belong to the daemon's user, and no other may write in it");
}

JournalResult JournalDirectory::OpenId() {
  bool is_new = false;
  const std::string name = path_ + "/" + kId;
  id_.emplace(OpenOrMakeRegularFile(directory_->get(), kId, O_RDWR, kFileMode, &is_new));
  if (!id_->is_open()) {
    if (errno == ELOOP || errno == EMLINK || errno == EISDIR || errno == ENXIO) {
      return Refuse(name + " is no file of one name");
    }
    return Fail("open( " + name + " )");
  }
  if (is_new && GiveStationGroup(id_->get()) != 0) return Fail("chown( " + name + " )");
  if (!IsOurs(id_->get())) {
    return Refuse(name + " must belong to the daemon's user, and no other may write to it");
  }
  if (flock(id_->get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return Refuse("another daemon keeps the journal in " + path_);
    return Fail("flock( " + name + " )");
  }
  return ReadId(id_->get());
}

// An empty file is one that an earlier run has made and could not fill.
JournalResult JournalDirectory::ReadId(int fd) {
  char text[kIdDigits + 2];
  const ssize_t count = pread(fd, text, sizeof text, 0);
  if (count < 0) return Fail("read( " + path_ + "/" + kId + " )");
  if (count == 0) return WriteId(fd);
  const auto [stop, error] = std::from_chars(text, text + kIdDigits, station_, 16);
  if (count != kIdDigits + 1 || text[kIdDigits] != '\n' || error != std::errc() ||
      stop != text + kIdDigits) {
    return Refuse(path_ + "/" + kId + " does not hold the number of a journal");
  }
  return JournalResult::kDone;
}

JournalResult JournalDirectory::WriteId(int fd) {
  if (getrandom(&station_, sizeof station_, 0) != sizeof station_) return Fail("getrandom()");
  char text[kIdDigits + 2];
  snprintf(text, sizeof text, "%016" PRIx64 "\n", station_);
  const std::string name = path_ + "/" + kId;
  if (pwrite(fd, text, kIdDigits + 1, 0) != kIdDigits + 1 || fsync(fd) != 0) {
    const int error = errno;
    if (ftruncate(fd, 0) != 0) DEBUG_AS("Journal", kInfo, "ftruncate( %s ) failed\n", name.c_str());
    errno = error;
    return Fail("write( " + name + " )");
  }
  return JournalResult::kDone;
}

// The running number goes on behind the newest segment that is this journal's.
JournalResult JournalDirectory::LookAtSegments() {
  const auto segments = Segments(directory_->get());
  if (!segments) return Fail("opendir( " + path_ + " )");
  if (segments->empty()) return JournalResult::kDone;
  next_segment_ = segments->front() + 1;
  for (const uint64_t segment : *segments) {
    bool is_ours = false;
    const JournalResult result = LookAtSegment(segment, segment == segments->front(), &is_ours);
    if (result != JournalResult::kDone || is_ours) return result;
  }
  return JournalResult::kDone;
}

JournalResult JournalDirectory::LookAtSegment(uint64_t segment, bool is_newest, bool* is_ours) {
  const std::string index = FileOf(segment, ".idx");
  if (IsThere(directory_->get(), index)) {
    const ScopedDescriptor fd(OpenRegularFile(directory_->get(), index.c_str(), O_RDONLY));
    const auto next = NextRecordOfIndex(fd.get(), station_, segment);
    *is_ours = next.has_value();
    if (next) next_record_ = *next;
    return JournalResult::kDone;
  }
  const std::string name = FileOf(segment, ".seg");
  const ScopedDescriptor fd(OpenRegularFile(directory_->get(), name.c_str(), O_RDWR));
  if (!fd.is_open()) {
    DEBUG_AS("Journal", kError, "%s/%s cannot be opened and is left alone : %s\n", path_.c_str(),
             name.c_str(), strerror(errno));
    return JournalResult::kDone;
  }
  return LookAtUnsealed(fd.get(), segment, is_newest, is_ours);
}

JournalResult JournalDirectory::LookAtUnsealed(int fd, uint64_t segment, bool is_newest,
                                               bool* is_ours) {
  const std::string name = path_ + "/" + FileOf(segment, ".seg");
  // Whoever holds the lock is about to seal it.
  const bool is_free = flock(fd, LOCK_EX | LOCK_NB) == 0;
  const auto scan = ScanSegment(fd);
  if (!scan) return Fail("read( " + name + " )");
  if (scan->fault != journal::HeaderFault::kNone || scan->header.station != station_ ||
      scan->header.segment != segment) {
    DEBUG_AS("Journal", kError, "%s is no segment of this journal and is left alone.\n",
             name.c_str());
    return JournalResult::kDone;
  }
  *is_ours = true;
  next_record_ = scan->next_record;
  if (!is_newest || !is_free || scan->end == scan->size) return JournalResult::kDone;
  if (ftruncate(fd, static_cast<off_t>(scan->end)) != 0) return Fail("ftruncate( " + name + " )");
  torn_ = {segment, scan->size - scan->end};
  DEBUG_AS("Journal", kError, "%s ended within a record: %" PRIu64 " bytes were cut off.\n",
           name.c_str(), torn_->bytes);
  return JournalResult::kDone;
}

}  // namespace zevd
