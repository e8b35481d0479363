#include "log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "error.h"
#include "event.h"
#include "event_set.h"
#include "journal_records.h"
#include "log_batch.h"
#include "log_directory.h"
#include "log_steps.h"
#include "matcher.h"
#include "options.h"
#include "reg_expr.h"
#include "safe_file.h"
#include "telnet_bytes.h"
#include "user.h"

namespace zevd {

namespace {

constexpr mode_t kLogMode = 0660;
constexpr int kTelnetCommandLength = 3;
constexpr char kConsolidated[] = "consolidated.log";

/// Opened at start-up; then only the rotation closes and opens it, with acl_lock held.
int consolidated_log_fd = -1;

// ---- Opening ------------------------------------------------------------------------------------

// Returns the descriptor, or -1. `name` is null when there can be no such log.
int OpenForAppending(const char* function, const CurrentLogDir& directory, const char* name,
                     const char* path, mode_t mode, bool* is_new) {
  int fd = -1;
  if (name == nullptr) {
    errno = EINVAL;
  } else if (directory.descriptor() != -1) {
    fd = OpenOrMakeRegularFile(directory.descriptor(), name, O_WRONLY | O_APPEND, mode, is_new);
  }
  if (fd == -1) {
    DEBUG_AS(function, kError, "open() failed for \"%s\" : %s\n", path, strerror(errno));
    return -1;
  }
  DEBUG_AS(function, kInfo, "opened %s\n", path);
  return fd;
}

// ---- Records ------------------------------------------------------------------------------------

void PostMatch(ConsoleNode* cnode, const char* buf, int count) {
  constexpr size_t kTextSize = 8192;
  const RegExList* patterns = cnode->enode == nullptr ? nullptr : cnode->enode->re_list;
  if (patterns != nullptr && patterns->matcher_set != 0) {
    matcher.Take(cnode->cname, patterns->matcher_set, {buf, static_cast<size_t>(count)},
                 cnode->journal.number);
    return;
  }
  char* pattern = nullptr;
  int priority = 0;
  if (MatchPattern(buf, count, patterns, &pattern, &priority) == 0 || patterns == nullptr) return;
  char text[kTextSize];
  snprintf(text, sizeof text, "%.*s", count, buf);
  DEBUG_AS("WriteBuffer", kInfo, "Matched pattern \"%s\" in string \"%s\".\n", pattern, text);
  JournalEvent(cnode->journal.number, NameOfPattern(*patterns, pattern, priority), priority, text);
  const bool gets_other_name = strchr(cnode->cname, '-') != nullptr;  // event.h
  PostJixEvent("qor.zevd.console", "name", cnode->cname, "message", text, priority);
  if (gets_other_name) JournalName(cnode);
  free(pattern);
}

bool IsLineEnd(char byte) {
  return byte == '\n' || byte == '\r';
}

bool HoldsLine(const LogBuffer& log_buf) {
  return GetNewlineIndex(log_buf.buf, 0, log_buf.count) != -1;
}

// The first byte from `bytes` on that is `byte`, or `end`.
const char* FindByte(const char* bytes, const char* end, char byte) {
  const void* found = memchr(bytes, byte, static_cast<size_t>(end - bytes));
  return found == nullptr ? end : static_cast<const char*>(found);
}

}  // namespace

// ---- Logs ---------------------------------------------------------------------------------------

LogName::LogName(const char* cname) {
  snprintf(text_, sizeof text_, "%s.log", cname);
  const std::string_view name = cname;
  usable_ = name.find('/') == std::string_view::npos && name != "." && name != ".." &&
            strcmp(text_, kConsolidated) != 0;
}

int OpenLogFile(ConsoleNode* cnode) {
  ENTERING();
  const LogName name(cnode->cname);
  const LogPath path(kCurrentDir, name.text());
  bool is_new = false;
  const CurrentLogDir directory(CurrentLogDir::IfMissing::kMake);
  if (!directory.exists()) return -1;
  cnode->log_fd = OpenForAppending(__func__, directory, name.is_usable() ? name.text() : nullptr,
                                   path.text, 0770, &is_new);
  if (cnode->log_fd == -1) return -1;
  if (is_new) {
    const char* failure = SetUpNewFile(__func__, cnode->log_fd, path.text, kLogMode);
    if (failure != nullptr) TERMINATE(failure);
  }
  return 0;
}

int OpenConsolidatedLogFile() {
  ENTERING();
  const LogPath path(kCurrentDir, kConsolidated);
  bool is_new = false;
  const CurrentLogDir directory(CurrentLogDir::IfMissing::kMake);
  if (!directory.exists()) return -1;
  consolidated_log_fd =
      OpenForAppending(__func__, directory, kConsolidated, path.text, kLogMode, &is_new);
  if (consolidated_log_fd == -1) return -1;
  if (is_new && GiveStationGroup(consolidated_log_fd) != 0) {
    zev_debug(kError, "%s: chown( %s, ...) failed : %s\n", __func__, path.text, strerror(errno));
    return -1;
  }
  return 0;
}

int WriteLogFile(ConsoleNode* cnode, const char* chars, int count, RecordBatch* batch) {
  ENTERING();
  if (cnode->log_fd == -1) {
    zev_debug(kError, "%s: Log file for %s has not been opened.\n", __func__, cnode->cname);
    return -1;
  }
  char filtered[kLogBufferSize];
  if (suppress_cr != 0) {
    RemoveCRsAndNULLs(chars, filtered, &count);
  } else {
    RemoveNULLs(chars, filtered, &count);
  }
  LogBuffer& log_buf = cnode->log_buf;
  int result = 0;
  for (int taken = 0; taken < count;) {
    const int part = std::min(count - taken, kLogBufferSize - log_buf.count);
    memcpy(log_buf.buf + log_buf.count, filtered + taken, static_cast<size_t>(part));
    log_buf.count += part;
    taken += part;
    // When a record cannot be written, only that one is lost; what follows it is still tried. A
    // full buffer without a line end goes out as one record.
    const bool full_with_more = log_buf.count == kLogBufferSize && taken < count;
    if (HoldsLine(log_buf)) {
      if (WriteLines(cnode, batch) != 0) result = -1;
    } else if (full_with_more && FlushBuffer(cnode, batch) != 0) {
      result = -1;
    }
  }
  return result;
}

int WriteLines(ConsoleNode* cnode, RecordBatch* batch) {
  ENTERING();
  LogBuffer& log_buf = cnode->log_buf;
  int result = 0;
  int start = 0;
  for (int end = GetNewlineIndex(log_buf.buf, start, log_buf.count); end != -1;
       end = GetNewlineIndex(log_buf.buf, start, log_buf.count)) {
    if (WriteBuffer(cnode, log_buf.buf + start, end - start + 1, batch) != 0) result = -1;
    start = end + 1;
  }
  log_buf.count -= start;
  if (start > 0) CopyBytes(log_buf.buf, log_buf.buf + start, log_buf.count);
  return result;
}

int WriteBuffer(ConsoleNode* cnode, const char* buf, int count, RecordBatch* batch) {
  ENTERING();
  if (cnode->log_fd == -1) return -1;
  const UserListElem* first_user = cnode->user_list->head;
  if (cnode->events == 1 && first_user == nullptr) PostMatch(cnode, buf, count);
  if (first_user != nullptr && first_user->unode->mode == kExclusiveRevocable) return 0;
  // The consolidated log receives only what nobody was watching.
  const LogTargets targets = {cnode->cname, cnode->log_fd,
                              first_user == nullptr ? consolidated_log_fd : -1};
  if (batch != nullptr) {
    batch->Add(targets, buf, count);
  } else if (WriteRecord(targets, buf, count) != 0) {
    return -1;
  }
  return consolidated_log_fd == -1 ? -1 : 0;
}

int FlushBuffer(ConsoleNode* cnode, RecordBatch* batch) {
  ENTERING();
  const int count = cnode->log_buf.count;
  cnode->log_buf.count = 0;
  return WriteBuffer(cnode, cnode->log_buf.buf, count, batch);
}

int GetNewlineIndex(const char* buf, int pos, int count) {
  ENTERING();
  if (pos >= count) return -1;
  const char* end = buf + count;
  const char* line_feed = FindByte(buf + pos, end, '\n');
  const char* found = FindByte(buf + pos, line_feed, '\r');
  return found == end ? -1 : static_cast<int>(found - buf);
}

void CopyBytes(char* dst, const char* src, int count) {
  ENTERING();
  std::copy(src, src + count, dst);
}

void RemoveCRsAndNULLs(const char* inbuf, char* outbuf, int* count) {
  ENTERING();
  constexpr auto kTelnetCommand = static_cast<char>(telnet::kIac);
  const char* end = inbuf + *count;
  char* out = outbuf;
  // The next one of each, so that what is rare is not looked for again and again.
  const char* cr = FindByte(inbuf, end, '\r');
  const char* nul = FindByte(inbuf, end, '\0');
  const char* command = FindByte(inbuf, end, kTelnetCommand);
  for (const char* in = inbuf; in < end;) {
    const char* dropped = std::min({cr, nul, command});
    out = std::copy(in, dropped, out);
    in = dropped + (dropped == command ? kTelnetCommandLength : 1);
    if (in >= end) break;  // the command may lead past the end of the chunk
    if (cr < in) cr = FindByte(in, end, '\r');
    if (nul < in) nul = FindByte(in, end, '\0');
    if (command < in) command = FindByte(in, end, kTelnetCommand);
  }
  *count = static_cast<int>(out - outbuf);
}

void RemoveNULLs(const char* inbuf, char* outbuf, int* count) {
  ENTERING();
  const char* end = std::remove_copy(inbuf, inbuf + *count, outbuf, '\0');
  *count = static_cast<int>(end - outbuf);
}

void CloseLogFile(ConsoleNode* cnode) {
  ENTERING();
  if (cnode->log_fd == -1) return;
  LogBuffer& log_buf = cnode->log_buf;
  if (log_buf.count > 0) {
    const char last = log_buf.buf[log_buf.count - 1];
    FlushBuffer(cnode);
    if (!IsLineEnd(last)) WriteLogFile(cnode, "\n", 1);
  }
  close(cnode->log_fd);
  cnode->log_fd = -1;
}

void CloseConsolidatedLogFile() {
  ENTERING();
  if (consolidated_log_fd == -1) return;
  close(consolidated_log_fd);
  consolidated_log_fd = -1;
}

}  // namespace zevd
