#include "password_socket.h"

#include <pwd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace {

constexpr time_t kLongestWait = 60;       // seconds for one answer; who asks gives up earlier
constexpr time_t kRoomWait = 20;          // seconds
constexpr long kFirstPause = 50'000'000;  // nanoseconds
constexpr long kLongestPause = 800'000'000;

/// One connection to the service.
class Connection {
 public:
  Connection() : sock_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    constexpr timeval kLimit = {kLongestWait, 0};
    setsockopt(sock_, SOL_SOCKET, SO_RCVTIMEO, &kLimit, sizeof kLimit);
    setsockopt(sock_, SOL_SOCKET, SO_SNDTIMEO, &kLimit, sizeof kLimit);
  }
  ~Connection() {
    if (sock_ != -1) close(sock_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool Open() {
    sockaddr_un address = {AF_UNIX, ""};
    memcpy(address.sun_path, kPasswordSocket, sizeof kPasswordSocket);
    return connect(sock_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  }

  bool Send(const char* bytes, size_t length) {
    while (length > 0) {
      const ssize_t count = TEMP_FAILURE_RETRY(send(sock_, bytes, length, MSG_NOSIGNAL));
      if (count < 0) return false;
      bytes += count;
      length -= static_cast<size_t>(count);
    }
    return true;
  }

  bool EndSending() { return shutdown(sock_, SHUT_WR) == 0; }

  // The next byte; a null byte when there is none.
  char Receive() {
    char byte = '\0';
    return TEMP_FAILURE_RETRY(recv(sock_, &byte, 1, 0)) == 1 ? byte : '\0';
  }

 private:
  int sock_;
};

Verdict Ask(Connection& service, const char* address, const char* pair, size_t length) {
  if (strlen(address) > kLongestAddress) address = "";
  const bool asked = service.Send(address, strlen(address) + 1) && service.Send(pair, length) &&
                     service.EndSending();
  return asked && service.Receive() == kAcceptedByte ? Verdict::kAccepted : Verdict::kRefused;
}

time_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec;
}

}  // namespace

Verdict AskPasswordService(const char* address, const char* pair, size_t length) {
  const time_t end = Now() + kRoomWait;
  for (long pause = kFirstPause; Now() < end; pause = std::min(2 * pause, kLongestPause)) {
    Connection service;
    if (!service.Open()) return Verdict::kNoService;
    if (service.Receive() == kReadyByte) return Ask(service, address, pair, length);
    const timespec time = {0, pause};
    nanosleep(&time, nullptr);
  }
  return Verdict::kRefused;
}

bool MayAsk(int sock) {
  ucred caller{};
  socklen_t length = sizeof caller;
  if (getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &caller, &length) != 0) return false;
  if (caller.uid == 0) return true;
  const passwd* user = getpwnam(kServiceUser);
  return user != nullptr && user->pw_uid == caller.uid;
}
