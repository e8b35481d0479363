// Opening files in directories where others may write.
//
// The directories of logs and configuration may be writable for the station's group, whose members
// must not reach other files through what they put there: the daemon has rights that they lack. So
// no link is followed in the last part of a path, no open waits, and whatever is changed is changed
// through the descriptor of the file that was looked at.
#pragma once

#include <sys/types.h>

namespace zevd {

/// A descriptor that is closed at the end of its scope; errno stays as it is.
class ScopedDescriptor {
 public:
  explicit ScopedDescriptor(int fd = -1) : fd_(fd) {}
  ~ScopedDescriptor() { Close(); }
  ScopedDescriptor(const ScopedDescriptor&) = delete;
  ScopedDescriptor& operator=(const ScopedDescriptor&) = delete;

  int get() const { return fd_; }
  bool is_open() const { return fd_ != -1; }
  void Close();

 private:
  int fd_;
};

/// Opens a regular file that has one name. `flags` are those of open(2) for access and O_APPEND; a
/// path that does not begin with a slash begins in `directory` (AT_FDCWD: where the daemon works).
/// The descriptor, or -1 with errno set: ELOOP for a link, EMLINK for a file with several names,
/// EISDIR for a directory, ENXIO for whatever else is no regular file.
int OpenRegularFile(int directory, const char* path, int flags);

/// The same; a missing file is made with `mode`, less the file-creation mask. `*is_new` tells
/// whether this call has made it.
int OpenOrMakeRegularFile(int directory, const char* path, int flags, mode_t mode, bool* is_new);

/// Opens a directory that is no link. The descriptor, or -1 with errno set: ENOTDIR for whatever is
/// no directory, a link to one included.
int OpenRealDirectory(int directory, const char* path);

/// Gives the file or directory the group of the station's root directory, if that directory can be
/// examined. 0, or -1 with errno set.
int GiveStationGroup(int fd);

/// Gives a file the group of the station's root directory, and then the mode; does nothing when
/// that directory cannot be examined. Null, or, once the failure has been reported, the text with
/// which the caller ends the process. `function` and `path` are for the report: the path may lead
/// to another file by now.
const char* SetUpNewFile(const char* function, int fd, const char* path, mode_t mode);

}  // namespace zevd
