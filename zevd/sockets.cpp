#include "sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "clock.h"
#include "error.h"

namespace zevd {

namespace {

// The longest wait for a peer: of the few sends that wait at all, and of a whole replay.
constexpr timeval kSendLimit = {0, 200000};
constexpr int kSendBuffer = 256 * 1024;

}  // namespace

void SetSocketFlag(int sock, int level, int option) {
  const int on = 1;
  setsockopt(sock, level, option, &on, sizeof on);
}

void PrepareRelaySocket(int sock) {
  SetSocketFlag(sock, IPPROTO_TCP, TCP_NODELAY);
  setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof kSendLimit);
  setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
}

bool HasSendRoom(int sock) {
  pollfd writable = {sock, POLLOUT, 0};
  return poll(&writable, 1, 0) != 0;
}

void SetTelnetOptions(int sock) {
  ENTERING();
  constexpr unsigned char kOffers[][3] = {{255, 251, 1}, {255, 251, 3}};  // IAC WILL ECHO, ... SGA
  for (const auto& offer : kOffers) send(sock, offer, sizeof offer, 0);
}

SendBudget::SendBudget() : deadline_(MonotonicMicroseconds() + kSendLimit.tv_usec) {}

ssize_t SendBudget::Send(int sock, const char* buf, size_t count, int flags) {
  for (;;) {
    const ssize_t sent = send(sock, buf, count, flags | MSG_DONTWAIT);
    if (sent >= 0 || errno != EAGAIN) return sent;
    const int64_t left = (deadline_ - MonotonicMicroseconds()) / 1000;
    pollfd writable = {sock, POLLOUT, 0};
    if (left <= 0 || poll(&writable, 1, static_cast<int>(left)) <= 0) {
      errno = EAGAIN;
      return -1;
    }
  }
}

}  // namespace zevd
