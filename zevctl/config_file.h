// Files of the configuration directory. Others may write there: the user of the daemon owns it. So
// a file is replaced as a whole, no link is followed where something is written, and nothing waits.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace zevctl {

enum class FileKind {
  kRegular,
  kMissing,
  kOther,   ///< a directory, a pipe, a device
  kUnsafe,  ///< what stands there may be somebody else's file
  kFailed,  ///< it cannot be opened or read
};

struct ReadFile {
  FileKind kind = FileKind::kFailed;
  std::string text;    ///< of a regular file
  std::string reason;  ///< why it cannot or must not be read, if it is there
  uid_t owner = 0;
  mode_t mode = 0;
  time_t changed = 0;
};

/// The content of a file, if it is a regular one. Links are followed. One of more than `most` bytes
/// is kOther.
ReadFile ReadWhole(const std::string& path, size_t most = SIZE_MAX);

/// The content of a file below a directory whose owner the reader does not trust. A link, another
/// name of a file and what is no regular file are kUnsafe.
ReadFile ReadSafely(const std::string& directory, const std::string& name);

/// The files of a directory that end in `suffix` and do not begin with a dot, sorted. None when
/// there is no such directory; throws Failure(kFailed) when it cannot be read.
std::vector<std::string> FilesIn(const std::string& directory, const std::string& suffix);

/// A directory in which files are replaced.
class ConfigDirectory {
 public:
  /// Throws Failure(kFailed) when it cannot be opened.
  explicit ConfigDirectory(const std::string& path);

  int fd() const { return opened_.get(); }
  const std::string& path() const { return path_; }
  uid_t owner() const { return owner_; }
  gid_t group() const { return group_; }

  /// Takes the lock of those who change the configuration; it is held until the object is gone.
  /// Throws Failure(kFailed) when somebody else holds it.
  void Lock();

 private:
  std::string path_;
  Descriptor opened_;
  Descriptor lock_;
  uid_t owner_ = 0;
  gid_t group_ = 0;
};

/// A new content for a file, complete on the disk under another name. The file gets it by Commit();
/// without that, nothing is left of it.
class StagedFile {
 public:
  /// Owner and group are the directory's. Throws Failure(kFailed); the file is then as it was.
  StagedFile(const ConfigDirectory& directory, const std::string& name, std::string_view text,
             mode_t mode);
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;
  ~StagedFile();

  /// Throws Failure(kFailed); the file is then as it was.
  void Commit();

 private:
  void Write(std::string_view text, mode_t mode);

  const ConfigDirectory& directory_;
  std::string name_;
  std::string staged_;
  bool is_staged_ = false;
};

}  // namespace zevctl
