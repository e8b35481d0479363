// The process that holds the lock on a file: the daemon, or another zevfleet. It is found by the
// kernel's list of locks, so no number in a file has to be believed.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace zevfleet {

/// A process that holds a lock. The descriptor refers to the process itself, not to its number.
class LockHolder {
 public:
  /// Nothing when nobody holds it, or the holder ends just now. `unit`: of the holder, for file
  /// systems such as btrfs whose locks the kernel lists under another device than stat(2) tells.
  static std::optional<LockHolder> Find(const std::string& lock_file, const std::string& unit = {});

  pid_t pid() const { return pid_; }

  /// When it started, in nanoseconds of CLOCK_BOOTTIME, at most 10 ms too early; nothing when it
  /// has ended.
  std::optional<int64_t> Started() const;

  /// Sends SIGKILL, which reaches a stopped process, too, and waits for its end for that many
  /// milliseconds at most. False when it is still there.
  bool Kill(int milliseconds) const;

 private:
  LockHolder(pid_t pid, zevctl::Descriptor process) : pid_(pid), process_(std::move(process)) {}

  pid_t pid_;
  zevctl::Descriptor process_;
};

/// Who holds a lock by flock(2) on a file, as the text of /proc/locks (proc(5)) tells.
struct HoldersIn {
  std::optional<pid_t> exact;  ///< on the file of this device and inode
  std::vector<pid_t> similar;  ///< on a file of this inode, whatever its device
};
HoldersIn FindHolders(std::string_view locks, dev_t device, ino_t inode);

/// Field 22 of the text of /proc/PID/stat: when the process started, in clock ticks since the start
/// of the machine.
std::optional<int64_t> StartTicksIn(std::string_view stat);

/// Locks a file for as long as the object lives.
class OwnLock {
 public:
  /// Throws zevctl::Failure when another process has it. `what`: who that is, as in "zevfleet run".
  OwnLock(const std::string& path, const std::string& what);

 private:
  zevctl::Descriptor file_;
};

/// True while some process holds the lock; `unit` as for LockHolder.
bool IsLocked(const std::string& lock_file, const std::string& unit = {});

inline constexpr char kDaemonUnit[] = "zevd.service";

}  // namespace zevfleet
