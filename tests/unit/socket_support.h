// Sockets that close themselves, peers of all kinds, and waiting for what they send.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace test {

/// Closes what it holds.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { Reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return fd_; }
  int Release();
  void Reset(int fd = -1);

 private:
  int fd_;
};

/// Two connected stream sockets: the daemon's end and its peer's.
struct SocketPair {
  SocketPair();
  Descriptor ours;
  Descriptor theirs;
};

/// A listening TCP socket on 127.0.0.1, on a port that the system chose.
class Listener {
 public:
  Listener();
  uint16_t port() const { return port_; }
  int get() const { return sock_.get(); }
  Descriptor Accept() const;
  void Close() { sock_.Reset(); }

 private:
  Descriptor sock_;
  uint16_t port_ = 0;
};

/// A TCP port on 127.0.0.1 on which nobody listens and which no other program gets meanwhile.
class RefusingPort {
 public:
  RefusingPort();
  uint16_t port() const { return port_; }

 private:
  Descriptor sock_;
  uint16_t port_ = 0;
};

/// The address of a port on 127.0.0.1.
sockaddr_in Loopback(uint16_t port);

/// A TCP connection to a port on 127.0.0.1.
Descriptor ConnectTo(uint16_t port);

bool IsOpen(int fd);

/// The number that the next new descriptor gets: the same as before when nothing has leaked.
int NextDescriptor();

/// Waits until the condition holds; false after 10 seconds.
bool Eventually(const std::function<bool()>& condition);

/// Waits until there is something to read, or the end of the stream; false after 10 seconds.
bool WaitReadable(int sock);
void SendText(int sock, std::string_view text);

/// Sends until there is no more room. Returns the number of bytes sent.
size_t FillUp(int sock);

/// Exactly `count` bytes; fewer only at the end of the stream or after 10 seconds without any.
std::string Receive(int sock, size_t count);

/// What has arrived by now.
std::string ReceiveAvailable(int sock);

// ---- Events -------------------------------------------------------------------------------------

/// Listens where the event manager of a StationRoot does, in place of an earlier one.
class EventCollector {
 public:
  EventCollector();
  Descriptor Accept() const;

 private:
  Descriptor sock_;
};

/// The next line with its newline; less only at the end of the stream or after 10 seconds.
std::string ReceiveLine(int sock);

}  // namespace test
