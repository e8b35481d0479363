// Console logs and the consolidated log.
//
// Records are written by the console output monitor with acl_lock held for writing. A console's log
// is opened and closed by the thread that owns the console's list. cons_conn, with icl_lock, opens
// it when the console connects, and closes it when the console is disabled or deleted before it has
// been moved. The monitor closes it when the connection ends or the console is deleted, and closes
// and opens it when logs are rotated or the console is renamed. What they share, the directories,
// takes care of itself (log_directory.h).
#pragma once

#include "console.h"
#include "fixed_text.h"

namespace zevd {

class RecordBatch;

/// The file name of a console's log.
class LogName {
 public:
  explicit LogName(const char* cname);

  const char* text() const { return text_; }

  /// False for a name that leads elsewhere, or to the consolidated log: that console has no log.
  bool is_usable() const { return usable_; }

 private:
  char text_[kNameSize + sizeof ".log" - 1];
  bool usable_;
};

/// Opens the console's log, making the dated directory first where it is missing. 0, or -1 after a
/// message about the reason; the console is then served without a log. A new log that cannot be
/// given its group or mode ends the process.
int OpenLogFile(ConsoleNode* cnode);

/// The same for the log of everything that nobody watched; a failure never ends the process.
int OpenConsolidatedLogFile();

/// Filters a chunk (at most 1024 bytes) of console output, assembles it into lines and writes every
/// complete one, or adds it to the batch. 0, or -1 when there is no log or a record could not be
/// written; only that record is lost.
int WriteLogFile(ConsoleNode* cnode, const char* chars, int count, RecordBatch* batch = nullptr);

/// Writes what is left of an unfinished line, then closes.
void CloseLogFile(ConsoleNode* cnode);
void CloseConsolidatedLogFile();

}  // namespace zevd
