// Keeping the journal: switching it on and off, and the thread "journal", which writes what waits
// in the queue (journal_queue.h).
#pragma once

#include <cstdint>

#include "locks.h"

namespace zevd {

/// Reads the settings and, if there is to be a journal, has the queue take records. Main thread,
/// before there is another.
void StartJournal();

/// Creates the thread if there is a journal. Main thread, after it has detached.
void CreateJournalThread();

/// Reads the settings again, and switches the journal on or off. The thread "cons_mon", after a
/// reload.
void ReloadJournal() EXCLUDES(acl_lock, icl_lock);

/// Puts all consoles' names into the journal once more if one was lost. The thread "cons_mon", once
/// in each pass.
void RepeatLostNames() EXCLUDES(acl_lock, icl_lock);

/// Has the thread write what waits, for a second at most. Part of the end of the process: any
/// thread, the SIGTERM handler included.
void EndJournal();

/// The state of the journal, for the command "stats".
struct JournalStatus {
  /// "off"; "on"; "stopped" while the system refuses to write; "refused" while the settings say
  /// that there is to be one and the daemon has given it up.
  const char* state;
  uint64_t records;  ///< that have been written since the start
  uint64_t bytes;    ///< of those records
  uint64_t lost;
  uint64_t gaps;
  uint64_t station;  ///< 0: nothing has been written yet
  uint64_t segment;
  uint64_t offset;  ///< where the next record will stand
};
JournalStatus GetJournalStatus();

void* JournalThreadStart(void* unused);

}  // namespace zevd
