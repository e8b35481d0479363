// A TCP connection with time limits.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "descriptor.h"

namespace zevctl {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

class Socket {
 public:
  /// Called with each address before it is connected to.
  using AddressHandler = std::function<void(const sockaddr& address)>;

  /// Connects to the first address of the host that answers. Throws Failure(kNoDaemon).
  static Socket Connect(const std::string& host, uint16_t port, Milliseconds limit,
                        const AddressHandler& before);

  int fd() const { return descriptor_.get(); }

  /// True when the other end has the address 127.0.0.1; the daemon then sees the same address at
  /// this end.
  bool PeerIsLoopback() const;

  /// Sends everything. Throws Failure(kNoDaemon) when the connection fails, or when it takes
  /// nothing within the limit.
  void Send(std::string_view bytes, Milliseconds limit);

  /// Receives what is there, at least one byte; 0 at the end of the connection, also when it broke.
  /// Throws Failure(kNoDaemon) when nothing comes within the limit.
  size_t Receive(std::span<char> buffer, Milliseconds limit);

 private:
  explicit Socket(int fd) : descriptor_(fd) {}

  Descriptor descriptor_;
};

/// Waits until poll() finds one of the events, an error or the end of the stream; false when that
/// takes longer than the limit. A negative limit stands for none.
bool WaitFor(int fd, short events, Milliseconds limit);

}  // namespace zevctl
