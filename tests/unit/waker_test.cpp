#include "waker.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <thread>

#include "failure_support.h"
#include "socket_support.h"
#include "socket_watch.h"

using namespace zevd;

namespace {

/// An open waker and the socket of one member.
class WakerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(waker_.Open());
    descriptor_.Reset(waker_.descriptor());
    ASSERT_TRUE(set_.Add(member()));
  }

  int member() const { return pair_.ours.get(); }

  int Wait(timeval timeout) {
    timeout_ = timeout;
    return WaitForMembers(member(), set_, waker_, &timeout_);
  }

  static constexpr timeval kNoWait = {0, 0};
  static constexpr timeval kLong = {60, 0};

  Waker waker_;
  test::Descriptor descriptor_;
  test::SocketPair pair_;
  DescriptorSet set_;
  timeval timeout_{};
};

TEST_F(WakerTest, IsNeitherInheritedNorBlocking) {
  EXPECT_NE(fcntl(waker_.descriptor(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(waker_.descriptor(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(UnopenedWakerTest, HasNoDescriptor) {
  const Waker waker;
  EXPECT_EQ(waker.descriptor(), -1);
}

TEST(UnopenedWakerTest, ReportsThatTheSystemHasNoneLeft) {
  const test::FailCall failure(test::Call::kEventfd, EMFILE);
  Waker waker;
  EXPECT_FALSE(waker.Open());
  EXPECT_EQ(errno, EMFILE);
}

TEST_F(WakerTest, TimesOutWithNothingReady) {
  EXPECT_EQ(Wait(kNoWait), 0);
  EXPECT_FALSE(set_.Contains(member()));
}

TEST_F(WakerTest, LeavesTheUnsleptTime) {
  test::SendText(pair_.theirs.get(), "x");
  EXPECT_EQ(Wait(kLong), 1);
  EXPECT_GE(timeout_.tv_sec, 50);
  EXPECT_EQ(Wait({0, 1000}), 1);
}

TEST_F(WakerTest, ReportsAReadableMember) {
  test::SendText(pair_.theirs.get(), "x");
  EXPECT_EQ(Wait(kNoWait), 1);
  EXPECT_TRUE(set_.Contains(member()));
}

TEST_F(WakerTest, ACallBeforeTheWaitEndsIt) {
  waker_.Wake();
  EXPECT_EQ(Wait(kLong), 0);
  EXPECT_FALSE(set_.Contains(member()));
}

TEST_F(WakerTest, IsNeitherCountedNorLeftInTheSet) {
  waker_.Wake();
  test::SendText(pair_.theirs.get(), "x");
  EXPECT_EQ(Wait(kLong), 1);
  EXPECT_TRUE(set_.Contains(member()));
  EXPECT_FALSE(set_.Contains(waker_.descriptor()));
}

TEST_F(WakerTest, IsNotLeftInTheSetAfterATimeOut) {
  EXPECT_EQ(Wait(kNoWait), 0);
  EXPECT_FALSE(set_.Contains(waker_.descriptor()));
}

TEST_F(WakerTest, ManyCallsEndOneWait) {
  for (int i = 0; i < 3; ++i) waker_.Wake();
  EXPECT_EQ(Wait(kLong), 0);
  EXPECT_EQ(Wait(kNoWait), 0);
  EXPECT_EQ(timeout_.tv_usec, 0);
  uint64_t count = 0;
  EXPECT_EQ(read(waker_.descriptor(), &count, sizeof count), -1);  // the calls are forgotten
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(WakerTest, DrainForgetsTheCalls) {
  waker_.Wake();
  waker_.Drain();
  timeval short_wait = {0, 1000};
  EXPECT_EQ(Wait(short_wait), 0);
  EXPECT_EQ(timeout_.tv_usec, 0);  // the whole time was waited
}

TEST_F(WakerTest, DrainingWithoutACallDoesNotBlock) {
  waker_.Drain();
  waker_.Drain();
  EXPECT_EQ(Wait(kNoWait), 0);
}

TEST_F(WakerTest, AFullCounterDoesNotBlockTheCaller) {
  const uint64_t full = UINT64_MAX - 1;
  ASSERT_EQ(write(waker_.descriptor(), &full, sizeof full), static_cast<ssize_t>(sizeof full));
  waker_.Wake();
  EXPECT_EQ(Wait(kLong), 0);
}

TEST_F(WakerTest, AnotherThreadEndsTheWaitThatIsGoingOn) {
  std::thread other([this] { waker_.Wake(); });
  EXPECT_EQ(Wait(kLong), 0);
  EXPECT_GE(timeout_.tv_sec, 50);
  other.join();
}

TEST_F(WakerTest, EveryAskerLearnsOnceThatItWasWoken) {
  unsigned one = 0;
  unsigned other = 0;
  EXPECT_FALSE(waker_.WokenSince(&one));
  waker_.Wake();
  waker_.Wake();
  EXPECT_TRUE(waker_.WokenSince(&one));
  EXPECT_FALSE(waker_.WokenSince(&one));
  EXPECT_TRUE(waker_.WokenSince(&other));
  waker_.Drain();
  waker_.Wake();
  EXPECT_TRUE(waker_.WokenSince(&one));
}

TEST_F(WakerTest, WaitsWithoutMembers) {
  DescriptorSet none;
  waker_.Wake();
  timeval timeout = kLong;
  EXPECT_EQ(WaitForMembers(-1, none, waker_, &timeout), 0);
  timeout = kNoWait;
  EXPECT_EQ(WaitForMembers(-1, none, waker_, &timeout), 0);
}

TEST_F(WakerTest, FindsNobodyReadyWithoutMemoryForTheSet) {
  test::SendText(pair_.theirs.get(), "x");
  DescriptorSet none;
  timeval timeout = kLong;
  const test::FailAllocation failure(1);
  EXPECT_EQ(WaitForMembers(-1, none, waker_, &timeout), 0);
}

TEST_F(WakerTest, EachDescriptorBesideItEndsTheWait) {
  const test::SocketPair one;
  const test::SocketPair other;
  waker_.Beside(one.ours.get());
  waker_.Beside(other.ours.get());
  for (const test::SocketPair* said : {&one, &other}) {
    test::SendText(said->theirs.get(), "x");
    EXPECT_EQ(Wait(kLong), 0);
    EXPECT_FALSE(set_.Contains(said->ours.get()));
    EXPECT_EQ(test::Receive(said->ours.get(), 1), "x");
    ASSERT_TRUE(set_.Add(member()));
  }
  test::SendText(one.theirs.get(), "x");
  test::SendText(other.theirs.get(), "x");
  test::SendText(pair_.theirs.get(), "x");
  EXPECT_EQ(Wait(kLong), 1);  // the member alone counts
}

TEST_F(WakerTest, DescriptorThatIsNoLongerBesideItEndsNoWait) {
  const test::SocketPair one;
  const test::SocketPair other;
  waker_.Beside(one.ours.get());
  waker_.Beside(other.ours.get());
  waker_.NotBeside(one.ours.get());
  EXPECT_THAT(waker_.beside(), ::testing::ElementsAre(other.ours.get()));
  waker_.NotBeside(other.ours.get());
  EXPECT_THAT(waker_.beside(), ::testing::IsEmpty());
}

TEST_F(WakerTest, MistakenDescriptorsBesideItEndTheProcess) {
  EXPECT_EXIT(waker_.NotBeside(member()), ::testing::ExitedWithCode(1), "");
  EXPECT_EXIT(
      {
        for (size_t i = 0; i <= Waker::kMostBeside; ++i) waker_.Beside(member());
      },
      ::testing::ExitedWithCode(1), "");
}

TEST_F(WakerTest, ReportsAFailedSelect) {
  const test::FailCall failure(test::Call::kSelect, EINTR);
  EXPECT_EQ(Wait(kNoWait), -1);
  EXPECT_EQ(errno, EINTR);
}

TEST_F(WakerTest, WaitsForDescriptorsBelowAndAboveItsOwn) {
  ASSERT_LT(member(), waker_.descriptor());
  const test::Descriptor above(dup(member()));
  ASSERT_GT(above.get(), waker_.descriptor());
  ASSERT_TRUE(set_.Add(above.get()));
  test::SendText(pair_.theirs.get(), "x");
  timeval timeout = kNoWait;
  EXPECT_EQ(WaitForMembers(above.get(), set_, waker_, &timeout), 2);
  EXPECT_TRUE(set_.Contains(member()));
  EXPECT_TRUE(set_.Contains(above.get()));
}

}  // namespace
