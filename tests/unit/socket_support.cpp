#include "socket_support.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "errno_support.h"
#include "fixed_text.h"

using namespace zevd;

namespace test {

namespace {

constexpr int kPatience = 10'000;  // milliseconds

}  // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  Reset(other.Release());
  return *this;
}

int Descriptor::Release() {
  return std::exchange(fd_, -1);
}

void Descriptor::Reset(int fd) {
  if (fd_ != -1) close(fd_);
  fd_ = fd;
}

SocketPair::SocketPair() {
  std::array<int, 2> ends{};
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
  ours.Reset(ends[0]);
  theirs.Reset(ends[1]);
}

namespace {

// A TCP socket bound to a port of the loopback that the system chooses.
int BindToLoopback(uint16_t* port) {
  const int sock = Check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
  sockaddr_in address = Loopback(0);
  socklen_t length = sizeof address;
  Check(bind(sock, reinterpret_cast<sockaddr*>(&address), length), "bind");
  Check(getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
  *port = ntohs(address.sin_port);
  return sock;
}

}  // namespace

Listener::Listener() {
  sock_.Reset(BindToLoopback(&port_));
  Check(listen(sock_.get(), SOMAXCONN), "listen");
}

Descriptor Listener::Accept() const {
  if (!WaitReadable(sock_.get())) throw std::runtime_error("nobody connected");
  return Descriptor(Check(accept4(sock_.get(), nullptr, nullptr, SOCK_CLOEXEC), "accept4"));
}

RefusingPort::RefusingPort() {
  sock_.Reset(BindToLoopback(&port_));
}

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

Descriptor ConnectTo(uint16_t port) {
  Descriptor sock(Check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  const sockaddr_in address = Loopback(port);
  Check(connect(sock.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
        "connect");
  return sock;
}

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

int NextDescriptor() {
  return Descriptor(Check(dup(STDIN_FILENO), "dup")).get();
}

bool Eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatience);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool WaitReadable(int sock) {
  pollfd readable = {sock, POLLIN, 0};
  return poll(&readable, 1, kPatience) == 1;
}

void SendText(int sock, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = send(sock, text.data(), text.size(), MSG_NOSIGNAL);
    if (count == -1) ThrowErrno("send");
    text.remove_prefix(static_cast<size_t>(count));
  }
}

size_t FillUp(int sock) {
  const std::string chunk(65536, 'x');
  size_t filling = 0;
  for (ssize_t sent = 0; sent >= 0; sent = send(sock, chunk.data(), chunk.size(), MSG_DONTWAIT)) {
    filling += static_cast<size_t>(sent);
  }
  return filling;
}

std::string Receive(int sock, size_t count) {
  std::string received;
  std::string chunk(count, '\0');
  while (received.size() < count && WaitReadable(sock)) {
    const ssize_t got = recv(sock, chunk.data(), count - received.size(), 0);
    if (got <= 0) break;
    received.append(chunk, 0, static_cast<size_t>(got));
  }
  return received;
}

std::string ReceiveAvailable(int sock) {
  std::string received;
  std::array<char, 65536> chunk{};
  for (;;) {
    const ssize_t got = recv(sock, chunk.data(), chunk.size(), MSG_DONTWAIT);
    if (got <= 0) return received;
    received.append(chunk.data(), static_cast<size_t>(got));
  }
}
EventCollector::EventCollector() {
  constexpr char kPath[] = "root/run/jix.sock";
  std::filesystem::remove(kPath);
  sock_.Reset(Check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  CopyText(address.sun_path, kPath);
  Check(bind(sock_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
  Check(listen(sock_.get(), SOMAXCONN), "listen");
}

Descriptor EventCollector::Accept() const {
  if (!WaitReadable(sock_.get())) throw std::runtime_error("nobody connected");
  return Descriptor(Check(accept(sock_.get(), nullptr, nullptr), "accept"));
}

std::string ReceiveLine(int sock) {
  std::string line;
  while (line.empty() || line.back() != '\n') {
    const std::string byte = Receive(sock, 1);
    if (byte.empty()) break;
    line += byte;
  }
  return line;
}

}  // namespace test
