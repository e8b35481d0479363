// What the long-lived threads have in common: standing still for a reload.
#include "threads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>

#include "clock.h"
#include "daemon_support.h"
#include "failure_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;

class ParkTest : public ::testing::Test {
 private:
  test::OptionsGuard options_;  // the masks are set back
};

TEST_F(ParkTest, NobodyIsAskedAtFirst) {
  EXPECT_EQ(thread_waitreq_mask, 0U);
  EXPECT_EQ(thread_waiting_mask, 0U);
}

TEST_F(ParkTest, ThreadThatIsNotAskedGoesOn) {
  thread_waitreq_mask = ~static_cast<unsigned>(kPauseUserConn);
  ParkIfAsked(kPauseUserConn);
  EXPECT_EQ(thread_waiting_mask, 0U);
}

TEST_F(ParkTest, ThreadThatIsAskedStandsStillUntilItIsReleased) {
  for (const unsigned bit : {0x1U, 0x2U, 0x4U, 0x8U, 0x10U}) {
    thread_waiting_mask = 0xFFU & ~bit;  // other threads' bits stay
    thread_waitreq_mask = bit;
    std::atomic<bool> went_on = false;
    std::thread parked([&] {
      ParkIfAsked(bit);
      went_on = true;
    });
    ASSERT_TRUE(test::Eventually([&] { return thread_waiting_mask == 0xFFU; }));
    EXPECT_FALSE(went_on);
    thread_waitreq_mask = 0xFFU & ~bit;  // requests for others
    parked.join();
    EXPECT_TRUE(went_on);
    EXPECT_EQ(thread_waiting_mask, 0xFFU & ~bit);
  }
}

TEST_F(ParkTest, WaitsInStepsOf100Microseconds) {
  test::FakeClock clock;
  clock.OnSleep([&](useconds_t) {
    EXPECT_EQ(thread_waiting_mask, 0x1U);
    if (clock.sleeps().size() == 3) thread_waitreq_mask = 0;
  });
  thread_waitreq_mask = kPauseConsConn;
  ParkIfAsked(kPauseConsConn);
  EXPECT_THAT(clock.sleeps(), ElementsAre(100, 100, 100));
  EXPECT_EQ(thread_waiting_mask, 0U);
}

TEST_F(ParkTest, BitsAreThoseOfThePauseProtocol) {
  EXPECT_EQ(kPauseConsConn, 0x1);
  EXPECT_EQ(kPauseConsMon, 0x2);
  EXPECT_EQ(kPauseUserConn, 0x4);
  EXPECT_EQ(kPauseUserMon, 0x8);
  EXPECT_EQ(kPauseCmdMon, 0x10);
}

// ---- Passes -------------------------------------------------------------------------------------

constexpr unsigned kAllBits[] = {kPauseConsConn, kPauseConsMon, kPauseUserConn, kPauseUserMon,
                                 kPauseCmdMon};

class PassTest : public ParkTest {
 protected:
  PassTest() { ExpectPasses(); }

  /// Lets the time go on by nearly as much as a thread may stay away.
  void Wait() { passage_.Pass(kPassLimit - kMicrosecondsPerSecond); }

  test::FakePassageOfTime passage_{1};
};

TEST_F(PassTest, ThreadsThatHaveJustBegunAreNotStuck) {
  EXPECT_TRUE(AllThreadsPass());
  Wait();
  EXPECT_TRUE(AllThreadsPass());
}

TEST_F(PassTest, EachThreadIsMissedAfterTenSeconds) {
  for (const unsigned missing : kAllBits) {
    ExpectPasses();
    Wait();
    for (const unsigned bit : kAllBits) {
      if (bit != missing) ParkIfAsked(bit);
    }
    EXPECT_TRUE(AllThreadsPass());
    Wait();
    EXPECT_FALSE(AllThreadsPass()) << missing;
    NotePass(missing);
    EXPECT_TRUE(AllThreadsPass()) << missing;
  }
}

TEST_F(PassTest, ThreadThatStandsStillMakesPasses) {
  test::FakeClock clock;
  clock.OnSleep([&](useconds_t) {
    if (clock.sleeps().size() == 3) thread_waitreq_mask = 0;
    Wait();
    for (const unsigned bit : kAllBits) {
      if (bit != kPauseCmdMon) NotePass(bit);
    }
  });
  thread_waitreq_mask = kPauseCmdMon;
  ParkIfAsked(kPauseCmdMon);
  EXPECT_TRUE(AllThreadsPass());
}

}  // namespace
