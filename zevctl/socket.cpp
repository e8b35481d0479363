#include "socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "exit_status.h"

namespace zevctl {

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList Resolve(const std::string& host, uint16_t port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (error != 0) {
    throw Failure(ExitStatus::kNoDaemon,
                  "the host \"" + host + "\" is not known: " + gai_strerror(error));
  }
  return {found, freeaddrinfo};
}

// 0, or the errno value of the failure.
int FinishConnecting(int fd, Milliseconds limit) {
  if (!WaitFor(fd, POLLOUT, limit)) return ETIMEDOUT;
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

int ConnectTo(int fd, const addrinfo& address, Milliseconds limit) {
  if (connect(fd, address.ai_addr, address.ai_addrlen) == 0) return 0;
  return errno == EINPROGRESS ? FinishConnecting(fd, limit) : errno;
}

// A key must not wait for the acknowledgement of the one before it.
void SendAtOnce(int fd) {
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

bool WaitFor(int fd, short events, Milliseconds limit) {
  const bool endless = limit < Milliseconds::zero();
  const auto deadline = Clock::now() + limit;
  pollfd waited = {fd, events, 0};
  for (;;) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
    const int timeout = endless ? -1 : static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
    const int ready = poll(&waited, 1, timeout);
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

Socket Socket::Connect(const std::string& host, uint16_t port, Milliseconds limit,
                       const AddressHandler& before) {
  const AddressList addresses = Resolve(host, port);
  int error = 0;
  for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
    before(*address->ai_addr);
    Socket socket(::socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    error = socket.fd() < 0 ? errno : ConnectTo(socket.fd(), *address, limit);
    if (error != 0) continue;
    SendAtOnce(socket.fd());
    return socket;
  }
  throw Failure(ExitStatus::kNoDaemon, "no daemon answers at " + host + " port " +
                                           std::to_string(port) + ": " + strerror(error) +
                                           ". Is zevd running? See --host and --port.");
}

bool Socket::PeerIsLoopback() const {
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  if (getpeername(fd(), reinterpret_cast<sockaddr*>(&peer), &size) != 0) return false;
  return peer.sin_family == AF_INET && peer.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
}

void Socket::Send(std::string_view bytes, Milliseconds limit) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN) {
      throw Failure(ExitStatus::kNoDaemon,
                    std::string("the connection to the daemon failed: ") + strerror(errno));
    }
    if (WaitFor(fd(), POLLOUT, limit)) continue;
    throw Failure(ExitStatus::kNoDaemon, "the daemon does not take what is sent to it");
  }
}

size_t Socket::Receive(std::span<char> buffer, Milliseconds limit) {
  for (;;) {
    const ssize_t received = recv(fd(), buffer.data(), buffer.size(), 0);
    if (received >= 0) return static_cast<size_t>(received);
    if (errno != EAGAIN && errno != EINTR) return 0;
    if (WaitFor(fd(), POLLIN, limit)) continue;
    throw Failure(ExitStatus::kNoDaemon, "the daemon does not answer");
  }
}

}  // namespace zevctl
