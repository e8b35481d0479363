#include "config_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "exit_status.h"
#include "owned_file.h"

namespace zevctl {

namespace {

constexpr char kLockName[] = ".zevctl.lock";
constexpr int kSafely = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

Failure Failed(const std::string& what, const std::string& mend) {
  return {ExitStatus::kFailed, what + ": " + strerror(errno) + "; " + mend};
}

// Stops behind `most` bytes, so that a file that grows meanwhile does not fill the memory.
bool ReadAll(int fd, size_t most, std::string& text) {
  std::array<char, 65536> chunk{};
  while (text.size() <= most) {
    const ssize_t length = read(fd, chunk.data(), chunk.size());
    if (length > 0) text.append(chunk.data(), static_cast<size_t>(length));
    if (length == 0) return true;
    if (length < 0 && errno != EINTR) return false;
  }
  return true;
}

void Take(const Descriptor& opened, const struct stat& info, ReadFile& file,
          size_t most = SIZE_MAX) {
  file.owner = info.st_uid;
  file.mode = info.st_mode;
  file.changed = info.st_mtime;
  const bool read = ReadAll(opened.get(), most, file.text);
  file.kind = read ? FileKind::kRegular : FileKind::kFailed;
  file.reason = read ? "" : strerror(errno);
  if (!read || file.text.size() <= most) return;
  file.kind = FileKind::kOther;
  file.text = {};
  file.reason = "it is too large";
}

bool WriteAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t length = write(fd, text.data(), text.size());
    if (length > 0) text.remove_prefix(static_cast<size_t>(length));
    if (length < 0 && errno != EINTR) return false;
  }
  return true;
}

}  // namespace

ReadFile ReadWhole(const std::string& path, size_t most) {
  ReadFile file;
  const Descriptor opened(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat info {};
  if (!opened || fstat(opened.get(), &info) != 0) {
    file.reason = strerror(errno);
    if (errno == ENOENT) file.kind = FileKind::kMissing;
    return file;
  }
  file.kind = FileKind::kOther;
  file.reason = "it is no plain file";
  if (S_ISREG(info.st_mode)) Take(opened, info, file, most);
  return file;
}

ReadFile ReadSafely(const std::string& directory, const std::string& name) {
  ReadFile file;
  const SafeFile opened = OpenSafely(directory, name);
  file.reason = opened.reason;
  if (opened.opened) {
    Take(opened.opened, opened.info, file);
  } else if (opened.error == 0) {
    file.kind = FileKind::kUnsafe;
  } else if (opened.error == ENOENT) {
    file.kind = FileKind::kMissing;
  }
  return file;
}

std::vector<std::string> FilesIn(const std::string& directory, const std::string& suffix) {
  std::vector<std::string> files;
  const std::unique_ptr<DIR, int (*)(DIR*)> opened(opendir(directory.c_str()), closedir);
  if (opened == nullptr) {
    if (errno == ENOENT) return files;
    throw Failed("cannot read the directory " + directory, "make it readable, or remove it");
  }
  for (const dirent* entry = readdir(opened.get()); entry != nullptr;
       entry = readdir(opened.get())) {
    const std::string name = entry->d_name;
    if (name.starts_with(".") || !name.ends_with(suffix)) continue;
    files.push_back(directory);
    files.back().append("/").append(name);
  }
  std::sort(files.begin(), files.end());
  return files;
}

ConfigDirectory::ConfigDirectory(const std::string& path)
    : path_(path), opened_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  struct stat info {};
  if (!opened_ || fstat(opened_.get(), &info) != 0) {
    throw Failed("cannot use the directory " + path, "make it, or run this as root");
  }
  owner_ = info.st_uid;
  group_ = info.st_gid;
}

void ConfigDirectory::Lock() {
  const std::string name = path_ + "/" + kLockName;
  lock_ = Descriptor(openat(fd(), kLockName, O_RDWR | O_CREAT | kSafely, 0600));
  if (!lock_) {
    throw Failed("cannot open " + name,
                 "run this as root or as the daemon's user, and remove what stands there");
  }
  struct stat info {};
  if (fstat(lock_.get(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_nlink != 1) {
    throw Failure(ExitStatus::kFailed, name + " is no plain file of one name; remove it");
  }
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    throw Failure(ExitStatus::kFailed,
                  "somebody else is changing the configuration just now; try again later");
  }
  // A file that somebody else has made must not keep out the daemon's user.
  if (info.st_uid != owner_ && fchown(lock_.get(), owner_, group_) != 0 && geteuid() == 0) {
    throw Failed("cannot give " + name + " to its owner", "remove it");
  }
}

StagedFile::StagedFile(const ConfigDirectory& directory, const std::string& name,
                       std::string_view text, mode_t mode)
    : directory_(directory), name_(name), staged_("." + name + ".new") {
  // What a run left that was killed. There is no other: the lock is held.
  unlinkat(directory_.fd(), staged_.c_str(), 0);
  try {
    Write(text, mode);
  } catch (const Failure&) {
    if (is_staged_) unlinkat(directory_.fd(), staged_.c_str(), 0);
    throw;
  }
}

StagedFile::~StagedFile() {
  if (is_staged_) unlinkat(directory_.fd(), staged_.c_str(), 0);
}

void StagedFile::Write(std::string_view text, mode_t mode) {
  const std::string path = directory_.path() + "/" + name_;
  const std::string kept = "nothing was changed; make room and write access, and try again";
  const Descriptor made(
      openat(directory_.fd(), staged_.c_str(), O_WRONLY | O_CREAT | O_EXCL | kSafely, 0600));
  if (!made) throw Failed("cannot write " + path, kept);
  is_staged_ = true;
  // Who may give it away without being root does it, too; after that it cannot change the mode.
  const bool written = fchmod(made.get(), mode) == 0 && WriteAll(made.get(), text);
  const bool owned =
      fchown(made.get(), directory_.owner(), directory_.group()) == 0 || geteuid() != 0;
  if (!written || !owned || fsync(made.get()) != 0) {
    throw Failed("cannot write " + path, kept);
  }
}

void StagedFile::Commit() {
  if (renameat(directory_.fd(), staged_.c_str(), directory_.fd(), name_.c_str()) != 0) {
    throw Failed("cannot replace " + directory_.path() + "/" + name_, "nothing was changed");
  }
  is_staged_ = false;
  fsync(directory_.fd());
}

}  // namespace zevctl
