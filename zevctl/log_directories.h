// Finding the daemon's logs: the dated directories below its log directory, the logs in each of
// them, and which of those belong to a console.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <compare>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "exit_status.h"
#include "log_record.h"

namespace zevctl {

// ---- Names --------------------------------------------------------------------------------------

/// Names of logs: those of the files, without ".log".
using LogNames = std::set<std::string>;

/// The logs that the user asked for. Names that differ only in "-" and "_" belong to one console:
/// the daemon replaces the one by the other when it posts an event. Upper and lower case are the
/// same, unless some log has the name in exactly the case that was asked for. A shell pattern
/// stands for all consoles that match it, also for those that come later.
class WantedLogs {
 public:
  /// `names`: what was asked for, patterns included; `existing`: all logs that there are.
  WantedLogs(const std::vector<std::string>& names, const LogNames& existing);

  bool Has(std::string_view name) const;

  /// Adds a log whose name is known in its exact case.
  void Add(const std::string& name);

 private:
  enum class By { kExactName, kName, kPattern };
  struct Wanted {
    std::string name;  // in the form in which names are compared, or a pattern
    By by;
    bool Has(std::string_view other) const;
  };

  std::vector<Wanted> wanted_;
};

/// True when it is a shell pattern, not the name of an existing log.
bool IsPattern(const std::string& name, const LogNames& existing);

/// The name that was meant: the name itself if a log has it, else the one that begins with it, else
/// the name itself. Throws Failure(kNoSuchConsole) when several begin with it.
std::string MeantName(const std::string& name, const LogNames& existing);

/// Existing names that may have been meant by this one, the most similar first; at most five.
std::vector<std::string> SimilarNames(const std::string& name, const LogNames& existing);

/// The kind of log that has this name.
LogKind KindOf(std::string_view name);

// ---- Directories --------------------------------------------------------------------------------

/// Tells a file or a directory from all others, whatever its name is.
struct FileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  auto operator<=>(const FileIdentity&) const = default;
};

FileIdentity IdentityOf(const struct stat& info);

/// A log that has been opened; the descriptor is not valid when that was not possible.
struct LogFile {
  Descriptor descriptor;
  bool is_compressed = false;
};

/// A dated directory. It stays open as long as the object lives, so that it can be read after it
/// was renamed.
class LogDirectory {
 public:
  explicit LogDirectory(Descriptor descriptor);

  const FileIdentity& identity() const { return identity_; }
  int fd() const { return descriptor_.get(); }

  struct Entry {
    std::string name;  ///< without ".log"
    ino_t inode;
    bool is_compressed;  ///< the file is NAME.log.zst
  };

  /// The logs in it, in no order; none when the directory cannot be listed. Of a log that has just
  /// been compressed and still has its original beside it, only the original is given.
  std::vector<Entry> Logs() const;

  /// Opens one of them for reading, in compressed form if it has been compressed meanwhile. The
  /// descriptor is not valid when the log has been removed meanwhile or is no regular file. Throws
  /// Failure(kFailed) when it cannot be opened for another reason.
  LogFile OpenLog(const Entry& entry) const;

 private:
  std::vector<Entry> AllLogs() const;
  bool IsCopy(const Entry& entry) const;
  Descriptor OpenFile(const std::string& file_name) const;

  Descriptor descriptor_;
  FileIdentity identity_;
};

/// The path of the directory that holds the dated directories.
std::string DatedDirectoryPath(const std::string& log_dir);

/// The directory to which the link "current" points; nothing when there is none.
std::optional<LogDirectory> OpenCurrentDirectory(const std::string& log_dir);

/// Every dated directory, each once, and the current one wherever it is. Throws Failure(kFailed)
/// when they cannot be listed or one of them cannot be opened.
std::vector<LogDirectory> OpenLogDirectories(const std::string& log_dir);

/// The names of all logs in the directories.
LogNames NamesIn(const std::vector<LogDirectory>& directories);

/// Failure(kFailed) for a file or directory that cannot be read. `error` is an errno value.
Failure CannotRead(const std::string& path, int error);

}  // namespace zevctl
