#include "audit.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "error.h"
#include "fixed_text.h"
#include "journal_records.h"
#include "timestamp.h"

namespace zevd {

namespace {

constexpr size_t kLongestValue = 256;
constexpr size_t kKeys = 9;
// Every byte of a value may take four; the rest is for keys and head.
constexpr size_t kEntrySize = kKeys * (4 * kLongestValue + 16) + 128;

// Written before the worker threads start.
int log_socket = -1;
sockaddr_un log_address = {AF_UNIX, ""};

std::atomic<unsigned long> lost{0};

/// Builds one entry; what does not fit is left out, which the sizes above rule out.
class EntryText {
 public:
  explicit EntryText(int severity) {
    char time[32];
    FormatLocalTime(time, sizeof time, "%b %e %H:%M:%S");
    const int length = snprintf(text_, sizeof text_, "<%d>%s zevd[%d]:", LOG_AUTHPRIV | severity,
                                time, static_cast<int>(getpid()));
    size_ = static_cast<size_t>(length);
  }

  ~EntryText() { explicit_bzero(text_, size_); }  // a password may stand in a name's place
  EntryText(const EntryText&) = delete;
  EntryText& operator=(const EntryText&) = delete;

  void Add(const char* key, const char* value) {
    Append(" ");
    Append(key);
    Append("=\"");
    const char* text = value == nullptr ? "" : value;
    const size_t length = strnlen(text, kLongestValue);
    for (size_t i = 0; i < length; ++i) AppendByte(static_cast<unsigned char>(text[i]));
    Append("\"");
  }

  const char* data() const { return text_; }
  size_t size() const { return size_; }

  // Without the line end that the texts of refusals have.
  void AddLine(const char* key, const char* value) {
    char line[kLongestValue + 1] = "";
    if (value != nullptr) CopyText(line, value);
    line[strcspn(line, "\r\n")] = '\0';
    Add(key, line);
  }

 private:
  void AppendByte(unsigned char byte) {
    char shown[5] = {static_cast<char>(byte), '\0'};
    if (byte < 0x20 || byte > 0x7E || byte == '"' || byte == '\\') {
      snprintf(shown, sizeof shown, "\\x%02X", byte);
    }
    Append(shown);
  }

  void Append(const char* more) {
    const size_t length = std::min(strlen(more), sizeof text_ - size_);
    memcpy(text_ + size_, more, length);
    size_ += length;
  }

  char text_[kEntrySize];
  size_t size_ = 0;
};

bool Send(const EntryText& entry) {
  return sendto(log_socket, entry.data(), entry.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&log_address), sizeof log_address) >= 0;
}

void CountLoss(unsigned long count) {
  const int error = errno;
  if (lost.fetch_add(count) != 0) return;
  DEBUG_AS("Audit", kError, "The system log accepts no entries : %s\n", strerror(error));
}

// False when the log still takes nothing.
bool TellLosses() {
  const unsigned long count = lost.exchange(0);
  if (count == 0) return true;
  char reason[80];
  snprintf(reason, sizeof reason, "%lu entries were lost", count);
  EntryText entry(LOG_WARNING);
  entry.Add("what", "audit");
  entry.Add("result", "lost");
  entry.Add("reason", reason);
  if (!Send(entry)) {
    lost += count;
    return false;
  }
  DEBUG_AS("Audit", kError, "The system log accepts entries again: %s\n", reason);
  return true;
}

int SeverityOf(const AuditEntry& entry) {
  const bool welcome = strcmp(entry.result, "accepted") == 0 || strcmp(entry.result, "done") == 0;
  return welcome ? LOG_INFO : LOG_NOTICE;
}

}  // namespace

void OpenAudit(const char* log) {
  ENTERING();
  CopyText(log_address.sun_path, log);
  log_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (log_socket == -1) zev_debug(kError, "%s: socket() failed : %s\n", __func__, strerror(errno));
}

void Audit(const AuditEntry& entry) {
  static constexpr Identity kNobody{};
  const Identity& identity = entry.identity == nullptr ? kNobody : *entry.identity;
  JournalAudit(entry.what, entry.result, identity, entry.console, entry.mode, entry.reason);
  if (log_socket == -1) return;
  EntryText text(SeverityOf(entry));
  text.Add("what", entry.what);
  text.Add("result", entry.result);
  text.Add("user", identity.user);
  text.Add("given_user", identity.given_user);
  text.Add("from", identity.from);
  text.Add("given_from", identity.given_from);
  text.Add("console", entry.console);
  text.Add("mode", entry.mode);
  text.AddLine("reason", entry.reason);
  if (!TellLosses() || !Send(text)) CountLoss(1);
}

}  // namespace zevd
