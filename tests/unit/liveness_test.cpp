// Peers that vanish: what the kernel is told to do, and what follows from what it knows.
#include "liveness.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstdint>

#include "socket_support.h"

using namespace zevd;

namespace {

constexpr uint32_t kFiveMinutes = 300'000;  // milliseconds

TEST(LivenessTest, PeerThatIsSilentWhileSomethingWaitsForItIsGone) {
  EXPECT_TRUE(IsGone({.waiting = 1, .since_ack = kFiveMinutes, .since_data = kFiveMinutes}));
  EXPECT_TRUE(IsGone({.waiting = 70000, .since_ack = UINT32_MAX, .since_data = UINT32_MAX}));
}

TEST(LivenessTest, PeerIsGoneAfterFiveMinutesAndNotBefore) {
  EXPECT_FALSE(IsGone({.waiting = 1, .since_ack = kFiveMinutes - 1, .since_data = UINT32_MAX}));
  EXPECT_FALSE(IsGone({.waiting = 1, .since_ack = 0, .since_data = UINT32_MAX}));
}

TEST(LivenessTest, PeerWithNothingWaitingIsLeftToTheKernel) {
  EXPECT_FALSE(IsGone({.waiting = 0, .since_ack = UINT32_MAX, .since_data = UINT32_MAX}));
}

// A user may paste into a console that prints nothing: there is nothing to acknowledge for minutes.
TEST(LivenessTest, PeerThatSendsIsNotGone) {
  EXPECT_FALSE(IsGone({.waiting = 1, .since_ack = UINT32_MAX, .since_data = kFiveMinutes - 1}));
  EXPECT_FALSE(IsGone({.waiting = 1, .since_ack = UINT32_MAX, .since_data = 0}));
}

/// A TCP connection.
class LiveSocketTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ours_ = test::ConnectTo(listener_.port());
    theirs_ = listener_.Accept();
  }

  int Option(int level, int option) const {
    int value = -1;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(ours_.get(), level, option, &value, &size), 0);
    return value;
  }

  int Waiting() const {
    int bytes = -1;
    EXPECT_EQ(ioctl(ours_.get(), SIOCOUTQ, &bytes), 0);
    return bytes;
  }

  test::Listener listener_;
  test::Descriptor ours_, theirs_;
};

TEST_F(LiveSocketTest, SilentPeerIsAskedAfterAMinuteAndThenSixTimesInAll) {
  ASSERT_EQ(Option(SOL_SOCKET, SO_KEEPALIVE), 0);
  AskSilentPeer(ours_.get());
  EXPECT_EQ(Option(SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_KEEPIDLE), 60);
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_KEEPINTVL), 10);
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_KEEPCNT), 6);
}

// It would end the connection of a peer that answers but takes nothing.
TEST_F(LiveSocketTest, NoUserTimeOutIsSet) {
  AskSilentPeer(ours_.get());
  EXPECT_EQ(Option(IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
}

TEST_F(LiveSocketTest, PeerThatIsThereHasNotVanished) {
  EXPECT_FALSE(HasVanished(ours_.get())) << "with nothing waiting";
  test::FillUp(ours_.get());  // more than the peer's system takes
  EXPECT_GT(Waiting(), 0);
  EXPECT_FALSE(HasVanished(ours_.get())) << "with its window shut";
}

TEST(LivenessTest, PeerUnknownToTheKernelHasNotVanished) {
  const test::SocketPair local;
  test::SendText(local.ours.get(), "unread");
  EXPECT_FALSE(HasVanished(local.ours.get())) << "no TCP connection";
  EXPECT_FALSE(HasVanished(-1));
}

TEST(LivenessTest, LookIsDueEveryTenSeconds) {
  EXPECT_EQ(kVanishedLookInterval, 10'000);  // milliseconds
}

}  // namespace
