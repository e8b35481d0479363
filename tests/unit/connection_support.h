// A console that connects, and the peer that it connects to.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "failure_support.h"
#include "relay_support.h"

namespace test {

inline constexpr time_t kNow = 1'000'000'000;

/// What a management port says when another client holds its session.
inline constexpr char kRefusal[] =
    "~NET-E-IN-USE, Session is already open to the partition/CLI by client 10.9.8.7, port 1025\r\n";

/// Waits for some of `events` of poll(2) on the socket; false after 10 seconds.
bool WaitFor(int sock, short events);

/// A port that answers no more connection requests.
class SilentPort {
 public:
  SilentPort();
  uint16_t port() const { return listener_.port(); }

 private:
  Listener listener_;
  Descriptor filler_;
};

/// A console on i_cons_list and the port that it connects to. "M100" is the one managed model.
class ConnectionTest : public RelayTest {
 protected:
  ConnectionTest();
  ~ConnectionTest() override;

  static ConsoleNode* AddAt(const char* name, uint16_t port);

  /// Connects the console and returns the other end.
  Descriptor Connect();

  /// Sends to the console and waits until it has arrived there.
  void Say(const Descriptor& peer, std::string_view text);

  /// The console as messages name it, with its address and port.
  std::string Place() const;

  FakeClock clock_{kNow};
  Listener listener_;
  ConsoleNode* cnode_;
};

}  // namespace test
