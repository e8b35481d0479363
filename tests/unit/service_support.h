// The listening ports, clients that call them, and the service threads that these start.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "debug_support.h"
#include "mapped_port.h"
#include "relay_support.h"

namespace test {

using namespace zevd;

/// IAC WILL ECHO, IAC WILL SUPPRESS-GO-AHEAD
inline constexpr char kOffers[] = "\xFF\xFB\x01\xFF\xFB\x03";

template <typename T>
T Option(int sock, int level, int name) {
  T value{};
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(sock, level, name, &value, &length), 0);
  return value;
}

/// A port on which the daemon can listen and which no other program gets meanwhile: it is bound
/// here for shared use, without listening.
class ReservedPort {
 public:
  ReservedPort();
  uint16_t port() const { return port_; }

 private:
  Descriptor sock_;
  uint16_t port_ = 0;
};

/// What the client is sent until the daemon closes the connection.
std::string ReceiveAll(const Descriptor& client);

/// Calls CheckForConnectionRequests() with every listening socket.
int CheckPorts(DescriptorSet* fdset);

/// A main port that is free to listen on.
class PortTest : public RelayTest {
 protected:
  PortTest();
  ~PortTest() override;

  static std::vector<uint16_t> ListedPorts();
  static MappedPortNode* FindPort(uint16_t port);
  static std::string Number(uint16_t port) { return std::to_string(port); }

  ReservedPort main_port_;
};

/// Waits until all service threads have ended.
void AwaitThreads();

/// Captures what service threads write too, so it waits for their end.
class ServiceCapture : public DebugCapture {
 public:
  using DebugCapture::DebugCapture;
  ~ServiceCapture() { AwaitThreads(); }
};

/// The daemon listens on the main port and on the mapped port of "sys2"; "sys1" is connected too.
class ServiceTest : public PortTest {
 protected:
  ServiceTest();
  ~ServiceTest() override;

  uint16_t mapped_port() const { return mapped_port_.port(); }

  /// One pass of the listening thread, with a request pending on `port`.
  static void Accept(uint16_t port);

  static Descriptor Call(uint16_t port);
  static Descriptor CallAndSay(uint16_t port, std::string_view line);

  /// Calls the main port, says `line`, and expects `text` and then the end of the connection.
  static void ExpectRefused(const std::string& line, const std::string& text);

  ReservedPort mapped_port_;
  Attached<ConsoleNode> console_ = ConnectConsole("sys1");
  Attached<ConsoleNode> mapped_ = ConnectConsole("sys2");
};

}  // namespace test
