#include "lock_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "error.h"
#include "fixed_text.h"
#include "paths.h"
#include "safe_file.h"

namespace zevd {

namespace {

int lock_fd = -1;  // the descriptor that carries the lock

int WriteHostName(const char* function) {
  char hostname[kNameSize];
  if (gethostname(hostname, sizeof hostname) != 0) {
    DEBUG_AS(function, kError, "gethostname() failed : %s\n", strerror(errno));
    return -1;
  }
  hostname[sizeof hostname - 1] = '\0';
  if (ftruncate(lock_fd, 0) != 0) {
    DEBUG_AS(function, kError, "ftruncate() failed : %s\n", strerror(errno));
    return -1;
  }
  const size_t length = strlen(hostname);
  if (write(lock_fd, hostname, length) < static_cast<ssize_t>(length)) {
    DEBUG_AS(function, kError, "write() failed : %s\n", strerror(errno));
    return -1;
  }
  return 0;
}

}  // namespace

int Lock() {
  ENTERING();
  bool is_new = false;
  lock_fd = OpenOrMakeRegularFile(AT_FDCWD, kLockFile, O_WRONLY, 0660, &is_new);
  if (lock_fd == -1) {
    zev_debug(kError, "%s: open( \"%s\", ...) failed : %s\n", __func__, kLockFile, strerror(errno));
    return -1;
  }
  if (is_new && GiveStationGroup(lock_fd) != 0) {
    zev_debug(kError, "%s: chown( %s, ...) failed : %s\n", __func__, kLockFile, strerror(errno));
    return -1;
  }
  if (flock(lock_fd, LOCK_EX | LOCK_NB) != 0) {
    zev_debug(kInfo, "%s: flock() failed : %s\n", __func__, strerror(errno));
    return -1;
  }
  return WriteHostName(__func__);
}

int Unlock() {
  ENTERING();
  if (lock_fd == -1) return 0;
  if (flock(lock_fd, LOCK_UN) != 0) {
    zev_debug(kInfo, "%s: flock() failed : %s\n", __func__, strerror(errno));
    return -1;
  }
  close(lock_fd);
  lock_fd = -1;
  return 0;
}

int GetHostFromLockFile(char* hostname, int len) {
  ENTERING();
  const int fd = OpenRegularFile(AT_FDCWD, kLockFile, O_RDONLY);
  FILE* file = fd == -1 ? nullptr : fdopen(fd, "r");
  if (file == nullptr) {
    if (fd != -1) close(fd);
    zev_debug(kError, "%s: fopen( \"%s\", ...) failed : %s\n", __func__, kLockFile,
              strerror(errno));
    return -1;
  }
  errno = 0;  // an empty file leaves errno alone
  const bool got_line = fgets(hostname, len, file) != nullptr;
  const int error = errno;
  fclose(file);
  if (!got_line) {
    zev_debug(kError, "%s: fgets() failed : %s\n", __func__, strerror(error));
    return -1;
  }
  return 0;
}

}  // namespace zevd
