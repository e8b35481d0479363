// Following logs while the daemon writes them, into new directories too, and while files are
// renamed or removed.
#pragma once

#include <sys/stat.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "log_directories.h"
#include "log_merge.h"
#include "log_reader.h"

namespace zevctl {

/// Tells when a directory must be listed again. Its time stamp shows a change, but is coarse: so it
/// is listed a few times more after the last change that was seen.
class DirectoryChanges {
 public:
  /// True when it must be listed now. `info`: of the directory, as it is now.
  bool Look(const struct stat& info);

 private:
  static constexpr int kMoreLooks = 10;

  FileIdentity identity_;
  timespec changed_{};
  int looks_left_ = kMoreLooks;
};

/// Follows the wanted logs. Tick() is to be called again and again. The daemon closes all logs
/// before it begins a new directory. So new files are looked for first, then the known files are
/// read to their end, and then the new ones.
///
/// A directory that is no longer current is watched for some ticks more: a log may have been made
/// in it after it was last looked at. Files are forgotten together with their directories.
class Follower {
 public:
  using Teller = std::function<void(const std::string&)>;

  /// Goes on at the positions of `readers`, which are the wanted logs of `directories`. `tell` is
  /// called with messages for the user.
  Follower(std::string log_dir, WantedLogs wanted, std::vector<LogDirectory> directories,
           LogReaders readers, Teller tell);

  /// Looks once, and hands over the records that are complete. Throws Failure(kFailed) when a file
  /// cannot be read. When files cannot be found or opened, the user is told once that has gone on
  /// for some ticks.
  void Tick(const RecordHandler& handle);

  /// For how many ticks a directory is watched that is no longer current.
  static constexpr int kWatchTicks = 50;

 private:
  struct Watch {
    LogDirectory directory;
    DirectoryChanges changes;
    int ticks_left = kWatchTicks;
  };

  void LookForNew(LogReaders& fresh);
  void LookForDirectories();
  void WatchCurrent(LogDirectory current);
  void LookForFiles(Watch& watch, LogReaders& fresh);
  void LookAt(const LogDirectory::Entry& entry, const LogDirectory& directory, LogReaders& fresh);
  void TakeName(LogReader& reader, const std::string& name);
  void Forget(const RecordHandler& handle);
  bool IsWatched(const FileIdentity& directory) const;

  std::string log_dir_;
  WantedLogs wanted_;
  Teller tell_;
  DirectoryChanges changes_;
  std::set<FileIdentity> known_;  // directories that were there at the last listing
  std::vector<Watch> watches_;
  LogReaders readers_;
  int failures_ = 0;  // in a row, up to the latest look
};

}  // namespace zevctl
