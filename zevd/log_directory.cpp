#include "log_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "error.h"
#include "fixed_text.h"
#include "log_directory_steps.h"
#include "options.h"
#include "timestamp.h"

namespace zevd {

namespace {

constexpr char kCurrent[] = "current";
constexpr mode_t kDirMode = 0770;

Mutex directory_mutex;  // guards the link and the directories on the disk

/// Inode change time of the current dated directory, 0 when not yet known.
std::atomic<time_t> log_dir_creation_time{0};

bool IsDirectory(const char* path, struct stat* found) {
  return lstat(path, found) == 0 && S_ISDIR(found->st_mode);
}

// What is left of `path` after `prefix`; null when it begins with something else. Several slashes
// are as good as one.
const char* After(const char* path, const char* prefix) {
  while (*prefix != '\0') {
    if (*path++ != *prefix++) return nullptr;
    if (prefix[-1] != '/') continue;
    path += strspn(path, "/");
    prefix += strspn(prefix, "/");
  }
  return path;
}

/// The name in "zev.dated" that "current" leads to, read from the link's text: a bare name or the
/// whole path. The daemon should not walk any other path, which may wait for a file server or lead
/// elsewhere the next moment.
class CurrentName {
 public:
  explicit CurrentName(int directory, const char* link) {
    char target[kPathSize];
    const ssize_t length = readlinkat(directory, link, target, sizeof target - 1);
    if (length < 0) return;
    errno = ENOENT;
    target[length] = '\0';
    const char* rest = After(target, LogPath(kDatedDir, "").text);
    const std::string_view name = rest != nullptr ? rest : target;
    if (name.empty() || name.size() > NAME_MAX || name == "." || name == "..") return;
    if (name.find('/') != std::string_view::npos) return;
    name.copy(text_, name.size());
  }

  /// False, with errno set, when it leads nowhere or elsewhere.
  bool is_valid() const { return text_[0] != '\0'; }
  const char* text() const { return text_; }

 private:
  char text_[NAME_MAX + 1] = {};
};

// Examines the directory that "current" leads to, without a descriptor: when none is left, the link
// must not be taken for a missing one and replaced.
bool ExamineCurrDir(struct stat* found) {
  const CurrentName name(AT_FDCWD, LogPath(kCurrentDir).text);
  return name.is_valid() && IsDirectory(LogPath(kDatedDir, name.text()).text, found);
}

int OpenDatedDir() {
  return OpenRealDirectory(AT_FDCWD, LogPath(kDatedDir).text);
}

// Opens the directory in use. -1 with errno set when it cannot be opened.
int OpenCurrDir() {
  const ScopedDescriptor dated(OpenDatedDir());
  if (!dated.is_open()) return -1;
  const CurrentName name(dated.get(), kCurrent);
  return name.is_valid() ? OpenRealDirectory(dated.get(), name.text()) : -1;
}

bool EnsureDirectories() REQUIRES(directory_mutex) {
  if (ZevDatedDirExists() == 0 && CreateZevDatedDir() != 0) return false;
  return SymlinkToCurrDirExists() != 0 || CreateSymlinkToCurrDir() == 0;
}

// Makes a directory, or finds it: what is there must be a directory and no link to one. Returns the
// descriptor, or -1 with errno set. A second rotation within the minute uses the same directory
// again.
int MakeDirectory(int directory, const char* path) {
  if (mkdirat(directory, path, kDirMode) != 0 && errno != EEXIST) return -1;
  return OpenRealDirectory(directory, path);
}

// Removes the link and makes the directory of that path. Returns what MakeDirectory() does.
int BeginDirectory(int dated, const char* dirname) {
  unlinkat(dated, kCurrent, 0);
  return MakeDirectory(dated, strrchr(dirname, '/') + 1);
}

}  // namespace

LogPath::LogPath(const char* second) {
  snprintf(text, sizeof text, "%s/%s", log_dir, second);
}

LogPath::LogPath(const char* second, const char* third) {
  snprintf(text, sizeof text, "%s/%s/%s", log_dir, second, third);
}

CurrentLogDir::CurrentLogDir(IfMissing if_missing)
    : lock_(directory_mutex),
      exists_(if_missing == IfMissing::kMake ? EnsureDirectories() : SymlinkToCurrDirExists() != 0),
      directory_(exists_ ? OpenCurrDir() : -1) {}

int LogDirExpired() {
  ENTERING();
  if (log_dir_creation_time == 0) {
    struct stat current {};
    if (!ExamineCurrDir(&current)) return 0;
    log_dir_creation_time = current.st_ctime;
  }
  return time(nullptr) - log_dir_creation_time >= log_archive_time ? 1 : 0;
}

void ArchiveLogDir() {
  ENTERING();
  zev_debug(kInfo, "%s: Archiving log directory\n", __func__);
  const MutexLock lock(directory_mutex);
  RemoveSymlinkToCurrDir();
  CreateSymlinkToCurrDir();
}

void RemoveSymlinkToCurrDir() {
  ENTERING();
  const ScopedDescriptor dated(OpenDatedDir());
  if (!dated.is_open() || unlinkat(dated.get(), kCurrent, 0) != 0) {
    zev_debug(kError, "%s: unlink() failed : %s\n", __func__, strerror(errno));
  }
}

void GetNewDirName(char* dirname, size_t size) {
  ENTERING();
  char name[80];
  FormatLocalTime(name, sizeof name, "%d-%b-%H:%M");
  CopyText(dirname, size, LogPath(kDatedDir, name).text);
}

int ZevDatedDirExists() {
  ENTERING();
  struct stat found {};
  return IsDirectory(LogPath(kDatedDir).text, &found) ? 1 : 0;
}

int CreateZevDatedDir() {
  ENTERING();
  const LogPath path(kDatedDir);
  const ScopedDescriptor made(MakeDirectory(AT_FDCWD, path.text));
  if (!made.is_open()) {
    zev_debug(kError, "%s: mkdir( %s, ...) failed : %s\n", __func__, path.text, strerror(errno));
    return -1;
  }
  if (GiveStationGroup(made.get()) != 0) {
    zev_debug(kError, "%s: chown failed : %s\n", __func__, strerror(errno));
    return -1;
  }
  return 0;
}

int SymlinkToCurrDirExists() {
  ENTERING();
  struct stat found {};
  return ExamineCurrDir(&found) ? 1 : 0;
}

int CreateSymlinkToCurrDir() {
  ENTERING();
  char dirname[kPathSize];
  GetNewDirName(dirname, sizeof dirname);
  const ScopedDescriptor dated(OpenDatedDir());
  const ScopedDescriptor made(dated.is_open() ? BeginDirectory(dated.get(), dirname) : -1);
  if (!made.is_open()) {
    zev_debug(kError, "%s: mkdir( %s, ...) failed : %s\n", __func__, dirname, strerror(errno));
    return -1;
  }
  struct stat created {};
  if (fstat(made.get(), &created) == 0) log_dir_creation_time = created.st_ctime;
  if (symlinkat(dirname, dated.get(), kCurrent) != 0) {
    zev_debug(kError, "%s: symlink failed : %s\n", __func__, strerror(errno));
    return -1;
  }
  if (GiveStationGroup(made.get()) != 0) {
    zev_debug(kError, "%s: chown failed : %s\n", __func__, strerror(errno));
    return -1;
  }
  return 0;
}

}  // namespace zevd
