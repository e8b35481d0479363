// Finding the station's daemon among the processes of this machine, to have it read its files
// again.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"

namespace zevctl {

/// The process that has the station's lock file open. It cannot be taken for another one: the
/// descriptor refers to the process itself, not to its number.
class DaemonProcess {
 public:
  /// Nothing when no daemon runs. Throws Failure(kFailed) when one holds the lock that cannot be
  /// found, for lack of rights.
  static std::optional<DaemonProcess> Find(const std::string& lock_file);

  pid_t pid() const { return pid_; }

  /// True when it may read a file of this owner, group and mode.
  bool MayRead(uid_t owner, gid_t group, mode_t mode) const;

  /// Sends SIGHUP. Throws Failure(kFailed).
  void Reload() const;

 private:
  DaemonProcess(pid_t pid, Descriptor process) : pid_(pid), process_(std::move(process)) {}

  pid_t pid_;
  Descriptor process_;
};

/// True when /proc/locks, whose text is given, tells of a lock on the file.
bool TellsOfLock(const std::string& locks, dev_t device, ino_t inode);

/// The numbers in the line of /proc/PID/status that begins with the key, such as "Groups:".
std::vector<gid_t> StatusNumbers(const std::string& status, const std::string& key);

}  // namespace zevctl
