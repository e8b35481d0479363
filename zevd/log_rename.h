// What becomes of a console's log when a reload gives the console another name.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "console.h"
#include "locks.h"

namespace zevd {

/// The renames of one reload. Which console has which log open is looked at once, at the first
/// rename: thousands may be renamed while everything waits.
class LogRenames {
 public:
  LogRenames() = default;
  ~LogRenames();
  LogRenames(const LogRenames&) = delete;
  LogRenames& operator=(const LogRenames&) = delete;

  /// Gives the console the name, and its log too. The file that it has open, or the one that it
  /// would open, is renamed if it is nobody else's and the name is free in the directory in use;
  /// otherwise an open log is closed and opened under the new name. A console that is connected and
  /// has no log gets one. Nothing outside the directory in use is touched.
  void Rename(ConsoleNode* cnode, const char* new_name) REQUIRES(acl_lock, icl_lock);

 private:
  struct Holder;
  enum class Outcome { kKept, kMustReopen };

  Outcome MoveFile(const ConsoleNode* cnode, const char* new_name) REQUIRES(acl_lock, icl_lock);
  bool IsHeldByAnother(const ConsoleNode* cnode, dev_t device, ino_t inode)
      REQUIRES(acl_lock, icl_lock);
  bool LookAtHolders() REQUIRES(acl_lock, icl_lock);
  void NoteHolder(const ConsoleNode* cnode) REQUIRES(acl_lock, icl_lock);

  Holder* holders_ = nullptr;  ///< null until the first rename, or without memory
  size_t count_ = 0;
};

}  // namespace zevd
