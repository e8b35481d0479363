#include "console_output.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "console_users.h"
#include "error.h"
#include "journal_records.h"
#include "log.h"
#include "log_batch.h"
#include "waker.h"

namespace zevd {

namespace {

/// Notices of a management port about a competing connection: the thread cons_conn deals with them,
/// users never see them.
struct Notice {
  const char* start;  // what the chunk begins with
  const char* text;   // what it contains
};
constexpr Notice kHiddenNotices[] = {
    {"~NET-E-", "Session is already open to the partition/CLI"},
    {"~NET-I-", "Enter \"YES\" within 5 seconds to disconnect the existing user"},
    {"~NET-I-", "Timed out, disconnecting..."},
};

bool IsHiddenNotice(const char* chunk, int count) {
  if (chunk[0] != '~') return false;  // as nearly every chunk
  char text[kChunkSize];              // ends at the chunk's first NUL
  snprintf(text, sizeof text, "%.*s", count, chunk);
  for (const Notice& notice : kHiddenNotices) {
    if (strncmp(text, notice.start, strlen(notice.start)) == 0 &&
        strstr(text, notice.text) != nullptr) {
      return true;
    }
  }
  return false;
}

bool HasHighBit(char byte) {
  return static_cast<unsigned char>(byte) >= 128;
}

// Puts a chunk into the replay ring and the log. False when nobody shall see it.
bool KeepChunk(ConsoleNode* cnode, const char* chunk, int count, RecordBatch* batch)
    REQUIRES(acl_lock) {
  // A telnet command of the terminal server, with nobody there to answer it.
  if (cnode->user_list->head == nullptr && HasHighBit(chunk[0])) return false;
  if (IsHiddenNotice(chunk, count)) return false;
  BufferConsoleOutput(cnode, chunk, count);
  if (cnode->logging == 1) WriteLogFile(cnode, chunk, count, batch);
  return true;
}

}  // namespace

void DispatchConsoleOutput(ConsoleNode* cnode, char* buf, int count) {
  ENTERING();
  static RecordBatch batch;  // only this thread comes here
  int shown = 0;
  for (int taken = 0, size = 0; taken < count; taken += size) {
    char* chunk = buf + taken;
    size = std::min(count - taken, static_cast<int>(kChunkSize));
    DEBUG_AS("ProcessConsoleOutput", kTrace, "Received ->%.*s<- (%d bytes)\n", size, chunk, size);
    if (!KeepChunk(cnode, chunk, size, &batch)) continue;
    if (shown != taken) memmove(buf + shown, chunk, static_cast<size_t>(size));
    shown += size;
  }
  batch.Flush();
  if (shown == 0) return;
  // The record comes first, as what users have seen is kept when the daemon ends; waking who writes
  // it comes last, as an echo does not wait for a disk.
  const bool is_writer_due = JournalOutput(cnode, buf, static_cast<size_t>(shown));
  SendConsoleOutputToUsers(cnode, buf, shown);
  if (is_writer_due) journal_waker.Wake();
}

}  // namespace zevd
