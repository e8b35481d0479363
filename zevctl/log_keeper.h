// Keeping old logs: closed dated directories are compressed, and removed when they are older than
// the station keeps them. The daemon may run meanwhile, and others may write to the directories.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "log_directories.h"

namespace zevctl {

/// True for a name that the daemon gives to dated directories, such as "17-Mar-08:05".
bool IsDatedName(const std::string& name);

/// The value of the first line ZEVD_KEEP_DAYS=DAYS of the settings; 0 when there is none. Nothing
/// when it is not a number of days.
std::optional<int> KeepDaysIn(const std::string& settings);

/// What a run has done.
struct Kept {
  size_t compressed = 0;  // logs
  off_t before = 0;       // bytes in them
  off_t after = 0;
  size_t removed = 0;      // logs
  size_t directories = 0;  // removed
  size_t failures = 0;     // each has been told
};

/// One run over a log directory. What cannot be done is told, and the rest is done.
///
/// A log is never lost: its compressed form is complete on the disk, with the original's owner,
/// group, mode and times, before the original is removed. No link is followed.
class LogKeeper {
 public:
  using Teller = std::function<void(const std::string&)>;

  /// `keep_days`: how long logs are kept after the last record of their directory; 0 for ever.
  LogKeeper(std::string log_dir, int keep_days, time_t now, Teller tell);

  /// Throws Failure(kFailed) when nothing could be done, also because another run is at work.
  Kept Run();

 private:
  struct File {
    std::string name;
    struct stat info;
  };
  struct Directory {
    std::string name;
    Descriptor descriptor;
    std::vector<File> logs;  // regular files only
    time_t changed;          // the latest change of a log, or of the directory if there is none
  };

  void OpenDated();
  bool IsCurrent(const struct stat& directory) const;
  std::optional<Directory> Open(const std::string& name) const;
  void Keep(Directory directory);
  void Remove(const Directory& directory);
  void Compress(const Directory& directory);
  void CompressLog(const Directory& directory, const File& log);
  void Replace(const Directory& directory, const File& log, const Descriptor& original);
  bool IsUnchanged(const Directory& directory, const File& log, const Descriptor& original) const;
  void FinishReplacing(const Directory& directory, const File& log, const Descriptor& original);
  void RemoveOriginal(const Directory& directory, const File& log, const Descriptor& original);
  std::string PathOf(const Directory& directory, const std::string& file) const;

  std::string log_dir_;
  int keep_days_;
  time_t now_;
  Teller tell_;
  Descriptor dated_;
  Kept kept_;
};

}  // namespace zevctl
