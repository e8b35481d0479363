// Sockets of the load generator. Whatever fails here ends the scenario: an exception tells why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bench {

/// Throws, with the system's reason.
[[noreturn]] void Fail(const std::string& what);

/// The peer has closed the connection.
struct ConnectionOver : std::runtime_error {
  ConnectionOver() : std::runtime_error("the peer closed the connection") {}
};

/// A descriptor that is closed with its owner.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();

  int get() const { return fd_; }

 private:
  int fd_;
};

/// Listens on every address, on `port` or one that the system chooses. Does not block.
Descriptor ListenOn(uint16_t port = 0);
uint16_t PortOf(const Descriptor& socket);

/// Listens on every address, and lets every call hang: its queue is full.
class HangingPort {
 public:
  HangingPort();
  uint16_t port() const { return PortOf(listener_); }

 private:
  Descriptor listener_;
  std::vector<Descriptor> callers_;
};

/// Connected, without delay of small packets. A peer that is silent for 10 seconds fails a receive.
/// A `receive_buffer` of 0 is the system's.
Descriptor ConnectTo(const std::string& address, uint16_t port, int receive_buffer = 0);

/// Listens on a path, for a collector of events.
Descriptor ListenOnPath(const std::string& path);

void SendAll(const Descriptor& socket, std::string_view text);
/// At least one byte; throws ConnectionOver at the end of the stream.
std::string ReceiveSome(const Descriptor& socket);

void SetNoDelay(int socket);
void SetNonBlocking(int socket);

/// Ports that nobody uses, below those from which the system serves outgoing connections: a daemon
/// that connects to thousands of consoles would meet one of its own.
std::vector<uint16_t> FreePorts(size_t count);

/// How many descriptors a process may have.
size_t DescriptorLimit();

}  // namespace bench
