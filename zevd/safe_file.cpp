#include "safe_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "error.h"
#include "paths.h"

namespace zevd {

namespace {

constexpr uid_t kSameOwner = static_cast<uid_t>(-1);

// How often opening is tried while the file keeps appearing and disappearing.
constexpr int kTries = 3;

// O_NONBLOCK, because opening a pipe without a peer, or a file with a lease, would wait. The flag
// stays set: it changes nothing about regular files.
constexpr int kSafely = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

// 0 when it is a regular file with one name, else the errno value of what is wrong.
int Objection(int fd) {
  struct stat file {};
  if (fstat(fd, &file) != 0) return errno;
  if (S_ISDIR(file.st_mode)) return EISDIR;
  if (!S_ISREG(file.st_mode)) return ENXIO;  // what the system answers for most of them
  if (file.st_nlink == 0) return ENOENT;     // removed just now
  return file.st_nlink == 1 ? 0 : EMLINK;
}

// The descriptor, or -1 with errno set.
int Approved(int fd) {
  if (fd == -1) return -1;
  const int objection = Objection(fd);
  if (objection == 0) return fd;
  close(fd);
  errno = objection;
  return -1;
}

}  // namespace

void ScopedDescriptor::Close() {
  if (fd_ == -1) return;
  const int error = errno;
  close(fd_);
  fd_ = -1;
  errno = error;
}

int OpenRegularFile(int directory, const char* path, int flags) {
  constexpr mode_t kUnused = 0;
  return Approved(openat(directory, path, flags | kSafely, kUnused));
}

int OpenOrMakeRegularFile(int directory, const char* path, int flags, mode_t mode, bool* is_new) {
  int fd = -1;
  for (int tries = 0; tries < kTries; ++tries) {
    fd = openat(directory, path, flags | O_CREAT | O_EXCL | kSafely, mode);
    *is_new = fd != -1;
    if (*is_new || errno != EEXIST) return fd;
    fd = OpenRegularFile(directory, path, flags);
    if (fd != -1 || errno != ENOENT) return fd;
  }
  return fd;
}

int OpenRealDirectory(int directory, const char* path) {
  constexpr mode_t kUnused = 0;
  return openat(directory, path, O_RDONLY | O_DIRECTORY | kSafely, kUnused);
}

int GiveStationGroup(int fd) {
  struct stat root {};
  if (stat(kQorRoot, &root) != 0) return 0;
  return fchown(fd, kSameOwner, root.st_gid);
}

// Kept: both texts speak of a cookie file, whichever file it is, because operators filter the
// events by them.
const char* SetUpNewFile(const char* function, int fd, const char* path, mode_t mode) {
  struct stat root {};
  if (stat(kQorRoot, &root) != 0) return nullptr;
  if (GiveStationGroup(fd) != 0) {
    DEBUG_AS(function, kError, "chown( %s, ...) failed : %s\n", path, strerror(errno));
    return "Terminated: Cannot chown cookie file";
  }
  if (fchmod(fd, mode) != 0) {
    DEBUG_AS(function, kError, "chmod( %s, ...) failed : %s\n", path, strerror(errno));
    return "Terminated: Cannot chmod cookie file";
  }
  return nullptr;
}

}  // namespace zevd
