// How long the console connection thread waits between two passes, and what ends the wait.
#include "attempt_wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <thread>

#include "connection_support.h"
#include "debug_support.h"
#include "failure_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr time_t kNow = 1'000'000'000;
constexpr int64_t kTick = 10;  // for which time() may not show a second that has begun

// ---- For how long -------------------------------------------------------------------------------

class WaitTimeTest : public ::testing::Test {
 protected:
  test::FakeClock clock_{kNow};
  AttemptWait wait_;
};

TEST_F(WaitTimeTest, IsTwoSecondsWhenNothingIsDue) {
  EXPECT_EQ(wait_.Milliseconds(), 2000);
}

TEST_F(WaitTimeTest, EndsWhenTheSecondBegins) {
  clock_.SetMicroseconds(250'999);
  wait_.NoteSecond(kNow + 1);
  EXPECT_EQ(wait_.Milliseconds(), 750 + kTick);
}

TEST_F(WaitTimeTest, EndsWithTheEarliestSecond) {
  wait_.NoteSecond(kNow + 2);
  wait_.NoteSecond(kNow + 1);
  wait_.NoteSecond(kNow + 60);
  EXPECT_EQ(wait_.Milliseconds(), 1000 + kTick);
}

TEST_F(WaitTimeTest, IsNeverLongerThanTwoSeconds) {
  wait_.NoteSecond(kNow + 2);
  EXPECT_EQ(wait_.Milliseconds(), 2000);
  wait_.BeginPass();
  wait_.NoteSecond(kNow + 60);
  wait_.NoteDelay(5000);
  EXPECT_EQ(wait_.Milliseconds(), 2000);
}

TEST_F(WaitTimeTest, IsNothingWhenTheSecondHasBegun) {
  clock_.SetMicroseconds(20'000);
  wait_.NoteSecond(kNow);
  EXPECT_EQ(wait_.Milliseconds(), 0);
}

TEST_F(WaitTimeTest, EndsWithTheShortestDelay) {
  wait_.NoteDelay(300);
  wait_.NoteDelay(200);
  wait_.NoteSecond(kNow + 1);
  EXPECT_EQ(wait_.Milliseconds(), 200);
  wait_.NoteDelay(0);
  EXPECT_EQ(wait_.Milliseconds(), 0);
}

TEST_F(WaitTimeTest, IsNotedAnewInEachPass) {
  wait_.NoteDelay(0);
  wait_.NoteSecond(kNow);
  wait_.BeginPass();
  EXPECT_EQ(wait_.Milliseconds(), 2000);
}

// ---- What ends it -------------------------------------------------------------------------------

bool IsReadable(int descriptor) {
  pollfd asked = {descriptor, POLLIN, 0};
  return poll(&asked, 1, 0) == 1;
}

class AttemptWaitTest : public ::testing::Test {
 protected:
  AttemptWaitTest() {
    EXPECT_TRUE(waker_.Open());
    waker_descriptor_.Reset(waker_.descriptor());
    wait_.Open();
    descriptor_.Reset(wait_.descriptor());
  }

  bool HasNews() const { return IsReadable(wait_.descriptor()); }

  // What has happened so far ends this wait and no other.
  void WaitOnce() {
    wait_.NoteDelay(0);
    wait_.Wait(waker_);
  }

  Waker waker_;
  AttemptWait wait_;
  test::Descriptor waker_descriptor_;
  test::Descriptor descriptor_;
  test::SocketPair pair_;
};

TEST_F(AttemptWaitTest, CallOfTheWakerEndsOneWait) {
  std::thread other([this] { waker_.Wake(); });
  other.join();
  wait_.Wait(waker_);
  EXPECT_FALSE(IsReadable(waker_.descriptor()));
}

TEST_F(AttemptWaitTest, EstablishedConnectionIsNewsOnce) {
  wait_.Watch(pair_.ours.get());
  EXPECT_TRUE(HasNews());
  WaitOnce();
  EXPECT_FALSE(HasNews());
}

TEST_F(AttemptWaitTest, WhatAnEstablishedConnectionReceivesIsNews) {
  wait_.Watch(pair_.ours.get());
  WaitOnce();
  for (int i = 0; i < 2; ++i) {
    test::SendText(pair_.theirs.get(), "x");
    EXPECT_TRUE(HasNews());
    WaitOnce();
    EXPECT_FALSE(HasNews());  // although nobody has read it
  }
}

TEST_F(AttemptWaitTest, EndOfAConnectionIsNews) {
  wait_.Watch(pair_.ours.get());
  WaitOnce();
  pair_.theirs.Reset();
  EXPECT_TRUE(HasNews());
}

TEST_F(AttemptWaitTest, ConnectionThatIsForgottenIsNoNews) {
  wait_.Watch(pair_.ours.get());
  wait_.Forget(pair_.ours.get());
  EXPECT_FALSE(HasNews());
  test::SendText(pair_.theirs.get(), "x");
  EXPECT_FALSE(HasNews());
}

TEST_F(AttemptWaitTest, ForgettingWhatIsNotWatchedDoesNothing) {
  wait_.Forget(pair_.ours.get());
  wait_.Forget(-1);
  EXPECT_FALSE(HasNews());
}

TEST_F(AttemptWaitTest, SocketThatCannotBeWatchedIsReported) {
  const test::DebugCapture capture(0);
  const test::FailCall failure(test::Call::kEpollCtl, ENOSPC);
  wait_.Watch(pair_.ours.get());
  EXPECT_THAT(capture.Messages(),
              ElementsAre("ConnectToConsole: epoll_ctl() failed : No space left on device\n"));
}

TEST(AttemptWaitWithoutDescriptorTest, IsReportedAndStillEndsWithTheWaker) {
  Waker waker;
  ASSERT_TRUE(waker.Open());
  const test::Descriptor waker_descriptor(waker.descriptor());
  AttemptWait wait;
  {
    const test::DebugCapture capture(0);
    const test::FailCall failure(test::Call::kEpollCreate, EMFILE);
    wait.Open();
    EXPECT_THAT(capture.Messages(),
                ElementsAre("ConsoleConnectionsThreadStart: epoll_create1() failed : Too many open "
                            "files\n"));
  }
  const test::SocketPair pair;
  const test::DebugCapture capture(0);
  wait.Watch(pair.ours.get());
  waker.Wake();
  wait.Wait(waker);
  EXPECT_FALSE(IsReadable(waker.descriptor()));
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

}  // namespace
