// Stand-in for the event-manager client library. A connection is a Unix stream socket; an event is
// one JSON object on one line, so that any line-oriented collector can receive it.
#include "jix.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utf8.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

// A daemon error that may be posted by the hundred.
struct Fold {
  std::string body;   // of its line; empty while the place is free
  int64_t sent = 0;   // when its last line went out
  int repeats = 0;    // equal ones since then that did not go out
  time_t latest = 0;  // the clock's time of the latest of them
};

constexpr size_t kMostFolds = 16;

}  // namespace

struct JixConn {
  std::mutex mutex;
  int sock = -1;
  std::string unsent;  // the rest of a line that has begun; goes out before the next one
  // Monotonic microseconds: the time up to which the waits of posts have used up their share. A
  // wait moves it on by kShare times its own length.
  int64_t repaid = 0;
  std::array<Fold, kMostFolds> folds;
};

struct JixEvent {
  std::string name;
  int priority = 0;
  std::vector<std::pair<std::string, std::string>> vars;
};

namespace {

constexpr char kDefaultAddress[] = QOR_ROOT "/run/jix.sock";
constexpr int64_t kPatience = 100000;  // microseconds that a post may wait
constexpr int64_t kShare = 10;         // posts may wait one part in this many of all time
constexpr int64_t kMillisecond = 1000;
constexpr int64_t kSecond = 1000000;
constexpr std::string_view kFoldedNames = "qor.zevd.daemon.error";  // what they begin with
constexpr char kReplacement[] = "\xEF\xBF\xBD";                     // U+FFFD

struct StatusText {
  JixStatus status;
  const char* text;
};
constexpr StatusText kStatusTexts[] = {
    {JixERROR_NONE, "No error"},
    {JixERROR_NO_MEMORY, "Out of memory"},
    {JixERROR_INVALID, "Invalid argument"},
    {JixERROR_CANNOT_CONNECT, "Cannot connect to the event manager"},
    {JixERROR_BUSY, "The event manager does not read"},
    {JixERROR_CONNECTION_LOST, "Connection to the event manager lost"},
};

void AppendCharacter(std::string& out, std::string_view character) {
  const char c = character[0];
  if (c == '"' || c == '\\') {
    out += '\\';
    out += c;
  } else if (static_cast<uint8_t>(c) < 0x20) {
    char escape[8];
    snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
    out += escape;
  } else {
    out += character;
  }
}

void AppendString(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const size_t length = zevd::Utf8Length(text);
    if (length == 0) {
      out += kReplacement;
      text.remove_prefix(1);
    } else {
      AppendCharacter(out, text.substr(0, length));
      text.remove_prefix(length);
    }
  }
  out += '"';
}

// RFC 3339 with the local zone: 2024-05-06T07:08:09+02:00.
std::string LocalTime(time_t time) {
  tm local{};
  localtime_r(&time, &local);
  char text[40];
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
  const std::string_view stamp = text;
  const size_t minutes = stamp.size() - 2;
  return std::string(stamp.substr(0, minutes)).append(":").append(stamp.substr(minutes));
}

std::string HostName() {
  char host[65] = "";
  if (gethostname(host, sizeof host) != 0) return "<unknown>";
  host[sizeof host - 1] = '\0';
  return host;
}

// The part of a line in which equal events are equal.
std::string Body(const JixEvent& event) {
  std::string body = "\"name\": ";
  AppendString(body, event.name);
  body += ", \"priority\": " + std::to_string(event.priority) + ", \"vars\": {";
  const char* separator = "";
  for (const auto& [name, value] : event.vars) {
    body += separator;
    AppendString(body, name);
    body += ": ";
    AppendString(body, value);
    separator = ", ";
  }
  body += "}";
  return body;
}

// The line of an event, or of `repeats` of them, the latest at `time`.
std::string EventLine(time_t time, std::string_view body, int repeats = 0) {
  std::string line = "{\"time\": ";
  AppendString(line, LocalTime(time));
  line += ", \"host\": ";
  AppendString(line, HostName());
  line.append(", ").append(body);
  if (repeats > 0) line += ", \"repeats\": " + std::to_string(repeats);
  line += "}\n";
  return line;
}

int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// When the event manager has closed its end, one more line would be sent without an error and lost;
// asking first saves that line.
bool PeerHasClosed(int sock) {
  char byte = 0;
  return recv(sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
}

// Waits until the event manager has read something; false when posts have waited enough. A manager
// that reads, but too slowly, would otherwise bring its clients down to its own pace, post by post.
bool WaitForRoom(JixConn& conn) {
  const int64_t begin = Now();
  conn.repaid = std::max(conn.repaid, begin - kShare * kPatience);
  const int64_t left = (begin - conn.repaid) / kShare;
  if (left < kMillisecond) return false;
  pollfd writable = {conn.sock, POLLOUT, 0};
  poll(&writable, 1, static_cast<int>(left / kMillisecond));
  conn.repaid += kShare * (Now() - begin);
  return true;
}

// Leaves in `text` what the event manager has no room for.
JixStatus Send(JixConn& conn, std::string& text) {
  while (!text.empty()) {
    const ssize_t n = send(conn.sock, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n > 0) {
      text.erase(0, static_cast<size_t>(n));
    } else if (errno == EAGAIN) {
      if (!WaitForRoom(conn)) return JixERROR_BUSY;
    } else if (errno != EINTR) {
      return JixERROR_CONNECTION_LOST;
    }
  }
  return JixERROR_NONE;
}

// A line that has begun must be finished or the stream is torn; one that has not begun may be
// dropped. Only a line that is longer than the socket's buffer can be taken in part.
JixStatus SendLine(JixConn& conn, std::string line) {
  const JixStatus before = Send(conn, conn.unsent);
  if (before != JixERROR_NONE) return before;
  const size_t length = line.size();
  const JixStatus status = Send(conn, line);
  if (status != JixERROR_BUSY || line.size() == length) return status;
  conn.unsent = std::move(line);
  return JixERROR_NONE;
}

bool SecondIsOver(const Fold& fold, int64_t now) {
  return now - fold.sent >= kSecond;
}

Fold* FindFold(JixConn& conn, std::string_view body) {
  Fold* found = std::find_if(conn.folds.begin(), conn.folds.end(),
                             [&](const Fold& fold) { return fold.body == body; });
  return found == conn.folds.end() ? nullptr : found;
}

// Sends what was left out once its second is over, and frees the places of events that did not
// recur. `own` is the place of the event that is about to be posted.
JixStatus SendLeftOut(JixConn& conn, const Fold* own, int64_t now) {
  for (Fold& fold : conn.folds) {
    if (&fold == own || fold.body.empty() || !SecondIsOver(fold, now)) continue;
    if (fold.repeats == 0) {
      fold = Fold{};
      continue;
    }
    const JixStatus status = SendLine(conn, EventLine(fold.latest, fold.body, fold.repeats));
    if (status != JixERROR_NONE) return status;
    fold.sent = now;
    fold.repeats = 0;
  }
  return JixERROR_NONE;
}

// At most one line of equal events goes out in a second; it stands for those that were left out,
// too.
JixStatus PostFolded(JixConn& conn, Fold& fold, std::string body, int64_t now) {
  const time_t time_of_day = time(nullptr);
  if (!fold.body.empty() && !SecondIsOver(fold, now)) {
    ++fold.repeats;
    fold.latest = time_of_day;
    return JixERROR_NONE;
  }
  const int repeats = fold.repeats == 0 ? 0 : fold.repeats + 1;
  const JixStatus status = SendLine(conn, EventLine(time_of_day, body, repeats));
  if (status == JixERROR_NONE) fold = {std::move(body), now, 0, 0};
  return status;
}

JixStatus Post(JixConn& conn, const JixEvent& event) {
  const int64_t now = Now();
  std::string body = Body(event);
  const bool folded = event.name.starts_with(kFoldedNames);
  Fold* fold = folded ? FindFold(conn, body) : nullptr;
  const JixStatus before = SendLeftOut(conn, fold, now);
  if (before != JixERROR_NONE) return before;
  if (folded && fold == nullptr) fold = FindFold(conn, "");  // a free place
  if (fold != nullptr) return PostFolded(conn, *fold, std::move(body), now);
  return SendLine(conn, EventLine(time(nullptr), body));
}

JixStatus SetItem(JixEvent& event, int item, va_list& args) {
  if (item == JixITEM_NAME) {
    event.name = va_arg(args, const char*);
  } else if (item == JixITEM_PRIORITY) {
    event.priority = va_arg(args, int);
  } else {
    return JixERROR_INVALID;
  }
  return JixERROR_NONE;
}

JixStatus SetItems(JixEvent& event, va_list& args) try {
  for (int item = va_arg(args, int); item != JixITEM_END; item = va_arg(args, int)) {
    const JixStatus status = SetItem(event, item, args);
    if (status != JixERROR_NONE) return status;
  }
  return JixERROR_NONE;
} catch (const std::bad_alloc&) {
  return JixERROR_NO_MEMORY;
}

int ConnectTo(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (strlen(path) >= sizeof address.sun_path) return -1;
  memcpy(address.sun_path, path, strlen(path));
  const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (sock == -1) return -1;
  if (connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return sock;
  close(sock);
  return -1;
}

}  // namespace

JixStatus JixConnCreate(const JixConnOptions* options, JixConn** conn) {
  *conn = nullptr;
  const bool given = options != nullptr && options->address != nullptr;
  const int sock = ConnectTo(given ? options->address : kDefaultAddress);
  if (sock == -1) return JixERROR_CANNOT_CONNECT;
  *conn = new (std::nothrow) JixConn;
  if (*conn == nullptr) {
    close(sock);
    return JixERROR_NO_MEMORY;
  }
  (*conn)->sock = sock;
  return JixERROR_NONE;
}

void JixConnDestroy(JixConn* conn) {
  if (conn == nullptr) return;
  close(conn->sock);
  delete conn;
}

JixStatus JixEventCreateVa(JixEvent** event, ...) {
  *event = new (std::nothrow) JixEvent;
  if (*event == nullptr) return JixERROR_NO_MEMORY;
  va_list args;
  va_start(args, event);
  const JixStatus status = SetItems(**event, args);
  va_end(args);
  return status;
}

JixStatus JixItemSetVa(JixEvent* event, ...) {
  va_list args;
  va_start(args, event);
  const JixStatus status = SetItems(*event, args);
  va_end(args);
  return status;
}

JixStatus JixVarSet(JixEvent* event, const char* name, int type, const char* value) try {
  if (type != JixTYPE_STRING) return JixERROR_INVALID;
  event->vars.emplace_back(name, value);
  return JixERROR_NONE;
} catch (const std::bad_alloc&) {
  return JixERROR_NO_MEMORY;
}

JixStatus JixEventPost(JixConn* conn, const JixEvent* event) try {
  const std::lock_guard lock(conn->mutex);
  if (PeerHasClosed(conn->sock)) return JixERROR_CONNECTION_LOST;
  return Post(*conn, *event);
} catch (const std::bad_alloc&) {
  return JixERROR_NO_MEMORY;
}

void JixEventDestroy(JixEvent* event) {
  delete event;
}

void JixStatusTextGet(JixStatus status, char* text, size_t size) {
  const char* found = "Unknown status";
  for (const StatusText& row : kStatusTexts) {
    if (row.status == status) found = row.text;
  }
  snprintf(text, size, "%s", found);
}
