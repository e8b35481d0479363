// The dated directories of the logs and the link "current" to the one in use.
//
// The console output monitor begins a new directory while cons_conn may open a log, so a mutex
// makes them take turns. Whoever holds it takes only the event connection's mutex and the debug
// lock.
//
// Members of the station's group may write in these directories. What is found there is therefore
// reached from directory to directory by descriptors, and no link is ever followed: "current" is
// read for the name with which it ends.
#pragma once

#include "mutex.h"
#include "paths.h"
#include "safe_file.h"

namespace zevd {

/// A path below the log directory. The slash with which the second part may begin is kept, so it
/// comes twice.
struct LogPath {
  char text[kPathSize];
  explicit LogPath(const char* second);
  LogPath(const char* second, const char* third);
};

inline constexpr char kDatedDir[] = "/zev.dated";
inline constexpr char kCurrentDir[] = "/zev.dated/current";

/// The directory in use. It holds the mutex, so that the directory stays the same one for as long
/// as this lives.
class CurrentLogDir {
 public:
  enum class IfMissing { kMake, kLeave };

  explicit CurrentLogDir(IfMissing if_missing);

  /// False when it is missing and was not to be made, or could not be, which has been reported.
  bool exists() const { return exists_; }

  /// -1 with errno set when it exists but cannot be opened.
  int descriptor() const { return directory_.get(); }

 private:
  const MutexLock lock_;
  const bool exists_;
  const ScopedDescriptor directory_;
};

/// 1 when the current dated directory is at least log_archive_time seconds old; 0 when it is
/// younger or cannot be examined. Console output monitor, or before the threads start.
int LogDirExpired();

/// Points "current" at a new dated directory. The caller is as above and has closed all logs.
void ArchiveLogDir();

}  // namespace zevd
