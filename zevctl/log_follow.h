// Going on with logs that are being written, across new directories, renamed and removed files.
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

/// Tells when a directory must be listed again. A change shows in its time stamp, which is coarse:
/// so it is listed a few times more after the last change that showed.
class DirectoryChanges {
 public:
  bool Look(const struct stat& info);

 private:
  static constexpr int kMoreLooks = 10;

  FileIdentity identity_;
  timespec changed_{};
  int looks_left_ = kMoreLooks;
};

/// To be asked again and again. The daemon closes all logs before it begins a new directory. So new
/// files are looked for first, then the known ones are read to their end, and then the new ones.
///
/// Directories that are neither current nor new are watched for some ticks more: a log may have
/// been made in one after it was last looked at. Files are forgotten together with their
/// directories.
class Follower {
 public:
  using Teller = std::function<void(const std::string&)>;

  /// Goes on where the readers are, which are those of the directories. `tell` is for what the user
  /// should know.
  Follower(std::string log_dir, WantedLogs wanted, std::vector<LogDirectory> directories,
           LogReaders readers, Teller tell);

  /// Looks once, and hands over the records that are complete.
  void Tick(const RecordHandler& handle);

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
  std::set<FileIdentity> known_;  // directories, as listed last
  std::vector<Watch> watches_;
  LogReaders readers_;
  int failures_ = 0;  // of the latest looks, one after the other
};

}  // namespace zevctl
