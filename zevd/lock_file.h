// The single-instance lock: an flock on a fixed file that also names the host. Main thread only,
// before there is a second thread.
#pragma once

namespace zevd {

/// 0 when the lock is held and the host name written, -1 otherwise. The descriptor stays open for
/// the life of the process.
int Lock();

/// 0 when the lock was released or none was held, -1 otherwise.
int Unlock();

/// Reads the first line of the lock file, at most `len` - 1 characters. 0, or -1.
int GetHostFromLockFile(char* hostname, int len);

}  // namespace zevd
