#include "service_manager.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "clock.h"
#include "error.h"
#include "threads.h"

namespace zevd {

namespace {

constexpr int kFirstPassed = STDERR_FILENO + 1;
constexpr const char* kVariables[] = {"LISTEN_PID",    "LISTEN_FDS",    "LISTEN_FDNAMES",
                                      "NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"};

// Written by the main thread before there is another; from then on by user_conn alone.
int passed_count = 0;
int passed_socket = -1;
int notify_socket = -1;
sockaddr_un notify_address = {AF_UNIX, ""};
socklen_t notify_length = 0;
int64_t feeding_interval = 0;  // microseconds; 0: there is no watchdog
int64_t last_fed = 0;
char report[160] = "";  // empty: sent already

// The variable's value, if it is a whole number above 0; else 0.
int64_t NumberIn(const char* variable) {
  const char* text = getenv(variable);
  if (text == nullptr || *text < '0' || *text > '9') return 0;
  char* end = nullptr;
  const long long number = strtoll(text, &end, 10);
  return *end == '\0' ? number : 0;
}

bool IsMine(const char* variable) {
  return NumberIn(variable) == getpid();
}

void CountPassedSockets() {
  const int64_t count = IsMine("LISTEN_PID") ? NumberIn("LISTEN_FDS") : 0;
  while (passed_count < count && fcntl(kFirstPassed + passed_count, F_SETFD, FD_CLOEXEC) == 0) {
    ++passed_count;
  }
}

// A name that begins with "@" is one of the abstract namespace, where a null byte stands for it.
void OpenNotifySocket() {
  const char* name = getenv("NOTIFY_SOCKET");
  if (name == nullptr || (*name != '/' && *name != '@')) return;
  const std::string_view path = name;
  if (path.size() >= sizeof notify_address.sun_path) return;
  path.copy(notify_address.sun_path, path.size());
  notify_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  if (*name == '@') {
    notify_address.sun_path[0] = '\0';
  } else {
    ++notify_length;
  }
  notify_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

// Four signs of life in the time that the manager waits for one: a late pass costs nothing.
void SetFeedingInterval() {
  constexpr int64_t kSignsInTime = 4;
  const bool is_mine = getenv("WATCHDOG_PID") == nullptr || IsMine("WATCHDOG_PID");
  feeding_interval = is_mine ? NumberIn("WATCHDOG_USEC") / kSignsInTime : 0;
}

bool ListensOn(int fd, uint16_t port) {
  int listens = 0;
  socklen_t size = sizeof listens;
  if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &size) != 0 || listens == 0) return false;
  sockaddr_in address{};
  socklen_t length = sizeof address;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
         address.sin_family == AF_INET && ntohs(address.sin_port) == port;
}

bool Send(const char* text) {
  return sendto(notify_socket, text, strlen(text), MSG_DONTWAIT | MSG_NOSIGNAL,
                reinterpret_cast<const sockaddr*>(&notify_address), notify_length) >= 0;
}

void FeedWatchdog() {
  const int64_t now = MonotonicMicroseconds();
  if (feeding_interval == 0 || now - last_fed < feeding_interval || !AllThreadsPass()) return;
  if (Send("WATCHDOG=1")) last_fed = now;
}

}  // namespace

void MeetServiceManager() {
  CountPassedSockets();
  OpenNotifySocket();
  SetFeedingInterval();
  for (const char* variable : kVariables) unsetenv(variable);
}

void ChoosePassedSocket(uint16_t port) {
  ENTERING();
  for (int fd = kFirstPassed; fd < kFirstPassed + passed_count; ++fd) {
    if (passed_socket == -1 && ListensOn(fd, port)) {
      passed_socket = fd;
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
      continue;
    }
    zev_debug(kError,
              "%s: Closed descriptor %d, which was passed to the daemon: it does not listen on "
              "port %d of IPv4, or another one does.\n",
              __func__, fd, port);
    close(fd);
  }
  passed_count = 0;
}

int DuplicatePassedSocket(uint16_t port) {
  if (passed_socket == -1 || !ListensOn(passed_socket, port)) return -1;
  return fcntl(passed_socket, F_DUPFD_CLOEXEC, 0);
}

void ReportToServiceManager(const char* status) {
  ENTERING();
  if (notify_socket != -1) snprintf(report, sizeof report, "READY=1\nSTATUS=%s", status);
}

void ServeServiceManager() {
  if (notify_socket == -1) return;
  if (report[0] != '\0' && Send(report)) report[0] = '\0';
  FeedWatchdog();
}

}  // namespace zevd
