#include "journal_segment.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>

#include "journal_encode.h"

namespace zevd {

namespace {

// What a segment is called until it has its first records.
constexpr char kUnfinished[] = "segment.new";
constexpr mode_t kFileMode = 0640;
constexpr size_t kNameSize = 32;

// Some file systems cannot rename with a condition. No other daemon makes segments here meanwhile.
bool RenameToNewName(int directory, const char* from, const char* to) {
  if (renameat2(directory, from, directory, to, RENAME_NOREPLACE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS) return false;
  if (faccessat(directory, to, F_OK, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = EEXIST;
    return false;
  }
  return renameat(directory, from, directory, to) == 0;
}

}  // namespace

bool JournalSegment::Begin(int directory, const journal::SegmentHeader& header,
                           std::string_view records, std::string* call) {
  End();
  unlinkat(directory, kUnfinished, 0);
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  *call = "open";
  fd_.emplace(openat(directory, kUnfinished, kFlags, kFileMode));
  size_ = 0;
  number_ = header.segment;
  char name[kNameSize];
  snprintf(name, sizeof name, "%020" PRIu64 ".seg", header.segment);
  const auto start = journal::EncodeSegmentHeader(header);
  size_t written = 0;
  const auto step = [&](const char* what, bool succeeded) {
    if (!succeeded) *call = what;
    return succeeded;
  };
  if (fd_->is_open() && step("chown", GiveStationGroup(fd_->get()) == 0) &&
      step("flock", flock(fd_->get(), LOCK_EX | LOCK_NB) == 0) &&
      step("write", Write({start.data(), start.size()}, &written)) &&
      step("write", Write(records, &written)) && step("fdatasync", fdatasync(fd_->get()) == 0) &&
      step("rename", RenameToNewName(directory, kUnfinished, name))) {
    size_ = start.size() + records.size();
    return true;
  }
  End();  // errno stays as it is
  const int error = errno;
  unlinkat(directory, kUnfinished, 0);
  errno = error;
  return false;
}

bool JournalSegment::Append(std::string_view records, size_t* kept) {
  *kept = 0;
  size_t written = 0;
  if (Write(records, &written)) {
    size_ += records.size();
    return true;
  }
  const int error = errno;
  if (written != 0 && ftruncate(fd_->get(), static_cast<off_t>(size_)) != 0) *kept = written;
  size_ += *kept;
  errno = error;
  return false;
}

bool JournalSegment::IsRemoved() const {
  struct stat status {};
  return fstat(fd_->get(), &status) == 0 && status.st_nlink == 0;
}

bool JournalSegment::Write(std::string_view bytes, size_t* written) {
  *written = 0;
  while (*written < bytes.size()) {
    const ssize_t count = write(fd_->get(), bytes.data() + *written, bytes.size() - *written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      if (count == 0) errno = EIO;
      return false;
    }
    *written += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace zevd
