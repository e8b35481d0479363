// The sockets of the relay: their options and bounded sends.
#include "sockets.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <string>

#include "relay_support.h"

using namespace zevd;

namespace {

// ---- Options ------------------------------------------------------------------------------------

/// A prepared TCP connection whose peer reads nothing by itself.
class RelaySocketTest : public test::RelayTest {
 protected:
  RelaySocketTest() {
    const test::Listener listener;
    sock_ = test::ConnectTo(listener.port());
    peer_ = listener.Accept();
    PrepareRelaySocket(sock_.get());
  }

  int Option(int level, int name) const {
    int value = 0;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(sock_.get(), level, name, &value, &length), 0);
    return value;
  }

  test::Descriptor sock_;
  test::Descriptor peer_;
};

TEST_F(RelaySocketTest, KeystrokesAreNotDelayed) {
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_NODELAY), 1);
}

TEST_F(RelaySocketTest, FlagsAreSwitchedOn) {
  EXPECT_EQ(Option(SOL_SOCKET, SO_KEEPALIVE), 0);
  SetSocketFlag(sock_.get(), SOL_SOCKET, SO_KEEPALIVE);
  EXPECT_EQ(Option(SOL_SOCKET, SO_KEEPALIVE), 1);
}

TEST_F(RelaySocketTest, SendToAPeerThatStopsReadingFailsSoon) {
  test::FillUp(sock_.get());
  const auto start = std::chrono::steady_clock::now();
  const std::string chunk(65536, 'x');
  while (send(sock_.get(), chunk.data(), chunk.size(), 0) > 0) {
  }
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

TEST(TelnetOptionsTest, AreTwoOffersInSeparateSends) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  const test::Descriptor ours(ends[0]);
  const test::Descriptor theirs(ends[1]);
  SetTelnetOptions(ours.get());
  EXPECT_EQ(test::Receive(theirs.get(), 3), "\xFF\xFB\x01");
  EXPECT_EQ(test::Receive(theirs.get(), 3), "\xFF\xFB\x03");
  EXPECT_EQ(test::ReceiveAvailable(theirs.get()), "");
}

}  // namespace
