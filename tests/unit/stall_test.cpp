// How long a peer has taken nothing, or too little.
#include "stall.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "socket_support.h"

using namespace zevd;

namespace {

constexpr int64_t kNever = INT64_MAX;
constexpr StallLimits kIdleForAMoment = {.idle = 1, .no_room = kNever};
constexpr StallLimits kPatient = {.idle = kNever, .no_room = kNever};

void LetTimePass() {
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
}

/// A sender and its peer with little room between them.
class StallTest : public ::testing::Test {
 protected:
  void SetUp() override {
    constexpr int kBuffer = 4096;
    ASSERT_EQ(setsockopt(listener_.get(), SOL_SOCKET, SO_RCVBUF, &kBuffer, sizeof kBuffer), 0);
    ours_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(setsockopt(ours_.get(), SOL_SOCKET, SO_SNDBUF, &kBuffer, sizeof kBuffer), 0);
    const sockaddr_in address = test::Loopback(listener_.port());
    ASSERT_EQ(connect(ours_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    theirs_ = listener_.Accept();
  }

  // Somebody sends all that there is room for.
  void Fill() const {
    const std::string text(1024, 'x');
    while (send(ours_.get(), text.data(), text.size(), MSG_DONTWAIT) > 0) {
    }
  }

  int Backlog() const {
    int bytes = 0;
    EXPECT_EQ(ioctl(ours_.get(), SIOCOUTQ, &bytes), 0);
    return bytes;
  }

  // The peer reads until its system has taken something more.
  void HavePeerTakeSome() const {
    const int before = Backlog();
    EXPECT_TRUE(test::Eventually([&] {
      test::ReceiveAvailable(theirs_.get());
      return Backlog() < before;
    }));
  }

  // The peer's system takes what still fits until nothing changes any more.
  void FillToTheBrim() const {
    for (int before = -1; before != Backlog();) {
      before = Backlog();
      std::this_thread::sleep_for(std::chrono::milliseconds(250));  // more than any delayed answer
      Fill();
    }
  }

  bool IsTooLong(const StallLimits& limits) { return stall_.IsTooLong(ours_.get(), limits); }

  test::Listener listener_;
  test::Descriptor ours_, theirs_;
  Stall stall_;
};

TEST_F(StallTest, BeginsWithTheFirstCall) {
  FillToTheBrim();
  LetTimePass();
  EXPECT_FALSE(IsTooLong(kIdleForAMoment));
  LetTimePass();
  EXPECT_TRUE(IsTooLong(kIdleForAMoment));
}

TEST_F(StallTest, EndsWhenThereIsRoomAgain) {
  FillToTheBrim();
  EXPECT_FALSE(IsTooLong(kIdleForAMoment));
  LetTimePass();
  stall_.End();
  EXPECT_FALSE(IsTooLong(kIdleForAMoment));
}

TEST_F(StallTest, APeerThatTakesSomethingIsNotIdleEvenIfItsRoomIsFilledAgain) {
  Fill();
  EXPECT_FALSE(IsTooLong(kIdleForAMoment));
  for (int i = 0; i < 20; ++i) {
    HavePeerTakeSome();
    Fill();
    LetTimePass();
    EXPECT_FALSE(IsTooLong(kIdleForAMoment)) << i;
  }
}

TEST_F(StallTest, RoomMayTakeTooLong) {
  constexpr StallLimits kLimits = {.idle = kNever, .no_room = 1};
  Fill();
  EXPECT_FALSE(IsTooLong(kLimits));
  HavePeerTakeSome();
  LetTimePass();
  EXPECT_TRUE(IsTooLong(kLimits));
}

TEST_F(StallTest, KnowsWhichBeganEarlier) {
  Stall later;
  const Stall none;
  EXPECT_FALSE(IsTooLong(kPatient));
  LetTimePass();
  EXPECT_FALSE(later.IsTooLong(ours_.get(), kPatient));
  EXPECT_TRUE(stall_.IsLongerThan(later));
  EXPECT_FALSE(later.IsLongerThan(stall_));
  EXPECT_FALSE(stall_.IsLongerThan(stall_));
  EXPECT_TRUE(later.IsLongerThan(none));
  EXPECT_FALSE(none.IsLongerThan(later));
  EXPECT_FALSE(none.IsLongerThan(none));
}

}  // namespace
