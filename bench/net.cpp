#include "net.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace bench {

namespace {

constexpr int kBacklog = 65535;  // cut by the system to what it allows
constexpr timeval kPatience = {10, 0};
constexpr uint16_t kFirstPort = 10000;
constexpr uint16_t kLastPort = 32767;

sockaddr_in Internet(const char* address, uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = inet_addr(address);
  return result;
}

Descriptor NewSocket(int family) {
  Descriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (socket.get() == -1) Fail("socket");
  return socket;
}

void SetFlag(int socket, int level, int option) {
  const int on = 1;
  setsockopt(socket, level, option, &on, sizeof on);
}

bool IsFree(uint16_t port) {
  const Descriptor socket = NewSocket(AF_INET);
  const sockaddr_in address = Internet("0.0.0.0", port);
  return bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::generic_category().message(errno));
}

Descriptor::~Descriptor() {
  if (fd_ != -1) close(fd_);
}

Descriptor ListenOn(uint16_t port) {
  Descriptor socket = NewSocket(AF_INET);
  SetFlag(socket.get(), SOL_SOCKET, SO_REUSEADDR);
  const sockaddr_in address = Internet("0.0.0.0", port);
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket.get(), kBacklog) != 0) {
    Fail("listen on port " + std::to_string(port));
  }
  SetNonBlocking(socket.get());
  return socket;
}

HangingPort::HangingPort() : listener_(ListenOn()) {
  constexpr int kMoreThanTheQueueHolds = 4;
  if (listen(listener_.get(), 0) != 0) Fail("listen");
  const sockaddr_in address = Internet("127.0.0.1", port());
  for (int i = 0; i < kMoreThanTheQueueHolds; ++i) {
    callers_.push_back(NewSocket(AF_INET));
    SetNonBlocking(callers_.back().get());
    const auto* peer = reinterpret_cast<const sockaddr*>(&address);
    if (connect(callers_.back().get(), peer, sizeof address) != 0 && errno != EINPROGRESS) {
      Fail("connect");
    }
  }
}

uint16_t PortOf(const Descriptor& socket) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    Fail("getsockname");
  }
  return ntohs(address.sin_port);
}

Descriptor ConnectTo(const std::string& address, uint16_t port, int receive_buffer) {
  Descriptor socket = NewSocket(AF_INET);
  SetNoDelay(socket.get());
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  if (receive_buffer != 0) {
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
  }
  const sockaddr_in peer = Internet(address.c_str(), port);
  if (connect(socket.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    Fail("connect to port " + std::to_string(port));
  }
  return socket;
}

Descriptor ListenOnPath(const std::string& path) {
  Descriptor socket = NewSocket(AF_UNIX);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
  unlink(path.c_str());
  if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(socket.get(), 1) != 0) {
    Fail("listen on " + path);
  }
  return socket;
}

void SendAll(const Descriptor& socket, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0) Fail("send");
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string ReceiveSome(const Descriptor& socket) {
  constexpr size_t kRoom = 65536;
  std::string text(kRoom, '\0');
  const ssize_t count = recv(socket.get(), text.data(), text.size(), 0);
  if (count < 0 && errno == EAGAIN) throw std::runtime_error("the peer was silent for 10 seconds");
  if (count < 0) Fail("recv");
  if (count == 0) throw ConnectionOver();
  text.resize(static_cast<size_t>(count));
  return text;
}

void SetNoDelay(int socket) {
  SetFlag(socket, IPPROTO_TCP, TCP_NODELAY);
}

void SetNonBlocking(int socket) {
  fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
}

std::vector<uint16_t> FreePorts(size_t count) {
  std::vector<uint16_t> ports;
  for (uint16_t port = kFirstPort; port <= kLastPort && ports.size() < count; ++port) {
    if (IsFree(port)) ports.push_back(port);
  }
  if (ports.size() < count) throw std::runtime_error("not enough free ports");
  return ports;
}

size_t DescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) Fail("getrlimit");
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) Fail("setrlimit");
  return static_cast<size_t>(limit.rlim_cur);
}

}  // namespace bench
