#include "log.h"

#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "counters.h"
#include "error.h"
#include "event.h"
#include "event_set.h"
#include "log_directory.h"
#include "log_steps.h"
#include "matcher.h"
#include "options.h"
#include "reg_expr.h"
#include "safe_file.h"
#include "timestamp.h"
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

/// The time of a record, the same in both logs.
struct RecordTime {
  char text[80];
  size_t length;
  RecordTime() : length(GetTimeStamp(text, sizeof text)) {}
};

/// Writes the parts of a record in one call, so that a record is whole or not there whatever ends
/// the process meanwhile. False when it was written short.
bool WriteRecord(int fd, const RecordTime& time, const char* before, const char* buf, int count) {
  const size_t length = static_cast<size_t>(count);
  const iovec parts[] = {{const_cast<char*>(time.text), time.length},
                         {const_cast<char*>(before), strlen(before)},
                         {const_cast<char*>(buf), length}};
  const auto whole = static_cast<ssize_t>(time.length + strlen(before) + length);
  const ssize_t written = writev(fd, parts, 3);
  if (written == whole) {
    counters.log_records.Add();
    counters.log_bytes.Add(static_cast<uint64_t>(whole));
    return true;
  }
  counters.log_records_lost.Add();
  if (written < 0) return false;
  // The disk has filled up in the middle of the record: the piece is taken back.
  if (ftruncate(fd, lseek(fd, 0, SEEK_CUR) - written) != 0) return false;
  errno = ENOSPC;
  return false;
}

void PostMatch(ConsoleNode* cnode, const char* buf, int count) {
  constexpr size_t kTextSize = 8192;
  const RegExList* patterns = cnode->enode == nullptr ? nullptr : cnode->enode->re_list;
  if (patterns != nullptr && patterns->matcher_set != 0) {
    matcher.Take(cnode->cname, patterns->matcher_set, {buf, static_cast<size_t>(count)});
    return;
  }
  char* pattern = nullptr;
  int priority = 0;
  if (MatchPattern(buf, count, patterns, &pattern, &priority) == 0) return;
  char text[kTextSize];
  snprintf(text, sizeof text, "%.*s", count, buf);
  DEBUG_AS("WriteBuffer", kInfo, "Matched pattern \"%s\" in string \"%s\".\n", pattern, text);
  PostJixEvent("qor.zevd.console", "name", cnode->cname, "message", text, priority);
  free(pattern);
}

bool IsLineEnd(char byte) {
  return byte == '\n' || byte == '\r';
}

bool HoldsLine(const LogBuffer& log_buf) {
  return GetNewlineIndex(log_buf.buf, 0, log_buf.count) != -1;
}

// Writes the complete lines of the buffer. When the buffer is full and has no line end, it goes out
// as one record.
int WriteReady(ConsoleNode* cnode) {
  if (HoldsLine(cnode->log_buf)) return WriteLines(cnode);
  return cnode->log_buf.count == kLogBufferSize ? FlushBuffer(cnode) : 0;
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

int WriteLogFile(ConsoleNode* cnode, const char* chars, int count) {
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
    // When a record cannot be written, only that one is lost; what follows it is still tried.
    const bool full_with_more = log_buf.count == kLogBufferSize && taken < count;
    if ((HoldsLine(log_buf) || full_with_more) && WriteReady(cnode) != 0) result = -1;
  }
  return result;
}

int WriteLines(ConsoleNode* cnode) {
  ENTERING();
  LogBuffer& log_buf = cnode->log_buf;
  int result = 0;
  int start = 0;
  for (int end = GetNewlineIndex(log_buf.buf, start, log_buf.count); end != -1;
       end = GetNewlineIndex(log_buf.buf, start, log_buf.count)) {
    if (WriteBuffer(cnode, log_buf.buf + start, end - start + 1) != 0) result = -1;
    start = end + 1;
  }
  log_buf.count -= start;
  if (start > 0) CopyBytes(log_buf.buf, log_buf.buf + start, log_buf.count);
  return result;
}

int WriteBuffer(ConsoleNode* cnode, const char* buf, int count) {
  ENTERING();
  if (cnode->log_fd == -1) return -1;
  const UserListElem* first_user = cnode->user_list->head;
  if (cnode->events == 1 && first_user == nullptr) PostMatch(cnode, buf, count);
  if (first_user != nullptr && first_user->unode->mode == kExclusiveRevocable) return 0;
  const RecordTime time;
  if (!WriteRecord(cnode->log_fd, time, " ", buf, count)) {
    zev_debug(kError, "%s: write() failed for console \"%s\" : %s\n", __func__, cnode->cname,
              strerror(errno));
    return -1;
  }
  if (consolidated_log_fd == -1) return -1;
  // The consolidated log receives only what nobody was watching.
  if (first_user != nullptr) return 0;
  char name[kNameSize + 2];
  snprintf(name, sizeof name, " %s ", cnode->cname);
  if (!WriteRecord(consolidated_log_fd, time, name, buf, count)) {
    zev_debug(kError, "%s: write() failed for \"consolidated.log\" : %s\n", __func__,
              strerror(errno));
    return -1;
  }
  return 0;
}

int FlushBuffer(ConsoleNode* cnode) {
  ENTERING();
  const int count = cnode->log_buf.count;
  cnode->log_buf.count = 0;
  return WriteBuffer(cnode, cnode->log_buf.buf, count);
}

int GetNewlineIndex(const char* buf, int pos, int count) {
  ENTERING();
  if (pos >= count) return -1;
  const char* end = buf + count;
  const char* found = std::find_if(buf + pos, end, [](char byte) { return IsLineEnd(byte); });
  return found == end ? -1 : static_cast<int>(found - buf);
}

void CopyBytes(char* dst, const char* src, int count) {
  ENTERING();
  std::copy(src, src + count, dst);
}

void RemoveCRsAndNULLs(const char* inbuf, char* outbuf, int* count) {
  ENTERING();
  int copied = 0;
  for (int i = 0; i < *count; ++i) {
    const auto byte = static_cast<unsigned char>(inbuf[i]);
    if (byte == 255) {
      i += kTelnetCommandLength - 1;  // may lead past the end of the chunk, which ends the loop
    } else if (byte != '\r' && byte != '\0') {
      outbuf[copied++] = inbuf[i];
    }
  }
  *count = copied;
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
