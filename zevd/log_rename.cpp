#include "log_rename.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "error.h"
#include "fixed_text.h"
#include "list.h"
#include "lists.h"
#include "log.h"
#include "log_directory.h"

namespace zevd {

namespace {

void ReportFailure() {
  zev_debug(kError, "%s : rename() failed : %s\n", "UpdateConsole", strerror(errno));
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool Examine(int directory, const LogName& name, struct stat* found) {
  return fstatat(directory, name.text(), found, AT_SYMLINK_NOFOLLOW) == 0;
}

// Whoever puts a file under the new name meanwhile keeps it, except where the file system cannot
// promise that.
bool MoveToFreeName(int directory, const LogName& from, const LogName& to) {
  if (renameat2(directory, from.text(), directory, to.text(), RENAME_NOREPLACE) == 0) return true;
  return errno == EINVAL && renameat(directory, from.text(), directory, to.text()) == 0;
}

}  // namespace

/// A console, and the file that it has open as its log; inode 0 when it has none.
struct LogRenames::Holder {
  const ConsoleNode* cnode;
  dev_t device;
  ino_t inode;
};

LogRenames::~LogRenames() {
  delete[] holders_;
}

void LogRenames::Rename(ConsoleNode* cnode, const char* new_name) {
  ENTERING();
  const bool had_log = cnode->log_fd != -1;
  const bool reopen = MoveFile(cnode, new_name) == Outcome::kMustReopen;
  if (reopen) CloseLogFile(cnode);  // its last line is still the old name's
  CopyText(cnode->cname, new_name);
  const bool lacks_log = !had_log && cnode->status == kConnected;
  if (!reopen && !lacks_log) return;
  OpenLogFile(cnode);
  NoteHolder(cnode);
}

LogRenames::Outcome LogRenames::MoveFile(const ConsoleNode* cnode, const char* new_name) {
  const LogName from(cnode->cname);
  const LogName to(new_name);
  const bool is_open = cnode->log_fd != -1;
  const Outcome otherwise = is_open ? Outcome::kMustReopen : Outcome::kKept;
  struct stat own {};
  if (is_open && fstat(cnode->log_fd, &own) != 0) {
    ReportFailure();
    return Outcome::kKept;
  }
  if (!from.is_usable() || !to.is_usable()) return otherwise;
  const CurrentLogDir directory(CurrentLogDir::IfMissing::kLeave);
  struct stat found {};
  if (Examine(directory.descriptor(), to, &found)) {
    // It is the console's own when posting an event has changed the name in between.
    return is_open && IsSameFile(own, found) ? Outcome::kKept : otherwise;
  }
  if (!Examine(directory.descriptor(), from, &found)) return otherwise;
  if (is_open && !IsSameFile(own, found)) return otherwise;
  if (IsHeldByAnother(cnode, found.st_dev, found.st_ino)) return otherwise;
  if (MoveToFreeName(directory.descriptor(), from, to)) return Outcome::kKept;
  if (errno != EEXIST) ReportFailure();
  return otherwise;
}

bool LogRenames::IsHeldByAnother(const ConsoleNode* cnode, dev_t device, ino_t inode) {
  // Without memory to find out, no file is moved.
  if (holders_ == nullptr && !LookAtHolders()) return true;
  return std::any_of(holders_, holders_ + count_, [&](const Holder& holder) {
    return holder.inode == inode && holder.device == device && holder.cnode != cnode;
  });
}

bool LogRenames::LookAtHolders() {
  size_t consoles = 0;
  for (const ConsoleList* list : {i_cons_list, a_cons_list}) {
    for ([[maybe_unused]] const ConsoleNode* cnode : Nodes(*list)) ++consoles;
  }
  holders_ = new (std::nothrow) Holder[consoles];
  if (holders_ == nullptr) {
    ReportOutOfMemory("LookAtHolders");
    return false;
  }
  for (const ConsoleList* list : {i_cons_list, a_cons_list}) {
    for (const ConsoleNode* cnode : Nodes(*list)) {
      holders_[count_++].cnode = cnode;
      NoteHolder(cnode);
    }
  }
  return true;
}

void LogRenames::NoteHolder(const ConsoleNode* cnode) {
  // Nearly always the last one that was added.
  for (size_t i = count_; i-- > 0;) {
    if (holders_[i].cnode != cnode) continue;
    struct stat own {};
    const bool known = cnode->log_fd != -1 && fstat(cnode->log_fd, &own) == 0;
    holders_[i].device = known ? own.st_dev : 0;
    holders_[i].inode = known ? own.st_ino : 0;
    return;
  }
}

}  // namespace zevd
