// How threads keep out of the way of those that want two locks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "locks.h"

using namespace zevd;

namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr CallSite kSite = {"Caller", 123};

bool IsFree(RwLock& lock) {
  if (pthread_rwlock_trywrlock(lock.native()) != 0) return false;
  pthread_rwlock_unlock(lock.native());
  return true;
}

class CourtesyTest : public ::testing::Test {
 protected:
  CourtesyTest() {
    test::StartDebugOutput();
    TakeSingle();  // the tests before this one may have let a pair go first
    clock_.OnSleep([](useconds_t) {});
  }

  void TakeSingle() { const WriteLock lock(first_, kSite); }
  void TakePair() { const WriteLockPair lock(first_, second_, Release::kSecondFirst, kSite); }

  // The pauses since the last call.
  std::vector<useconds_t> Pauses() {
    const std::vector<useconds_t> all = clock_.sleeps();
    std::vector<useconds_t> pauses(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return pauses;
  }

  RwLock first_;
  RwLock second_;
  test::FakeClock clock_;
  size_t seen_ = 0;
};

// ---- Announced pairs ----------------------------------------------------------------------------

constexpr size_t kPausesOfTwoMilliseconds = 13;  // of 100 microseconds, with the slack of a timer

TEST_F(CourtesyTest, SingleLockIsTakenAtOnceWhileNoPairIsWanted) {
  TakeSingle();
  EXPECT_THAT(Pauses(), IsEmpty());
}

TEST_F(CourtesyTest, SingleLockWaitsUntilThePairIsThrough) {
  first_.Announce();
  clock_.OnSleep([&](useconds_t) {
    EXPECT_TRUE(IsFree(first_));
    if (clock_.sleeps().size() == 3) first_.Withdraw();
  });
  const WriteLock lock(first_, kSite);
  EXPECT_THAT(Pauses(), ElementsAre(100, 100, 100));
  EXPECT_EQ(pthread_rwlock_tryrdlock(first_.native()), EBUSY);
}

TEST_F(CourtesyTest, LockForReadingWaitsToo) {
  first_.Announce();
  clock_.OnSleep([&](useconds_t) { first_.Withdraw(); });
  { const ReadLock lock(first_, kSite); }
  EXPECT_THAT(Pauses(), ElementsAre(100));
}

TEST_F(CourtesyTest, SingleLockWaitsForEveryPair) {
  first_.Announce();
  first_.Announce();
  clock_.OnSleep([&](useconds_t) { first_.Withdraw(); });
  TakeSingle();
  EXPECT_THAT(Pauses(), SizeIs(2));
}

TEST_F(CourtesyTest, PairOfOtherLocksIsNotWaitedFor) {
  second_.Announce();
  TakeSingle();
  EXPECT_THAT(Pauses(), IsEmpty());
}

TEST_F(CourtesyTest, WaitIsOverAfterTwoMilliseconds) {
  first_.Announce();
  TakeSingle();
  const std::vector<useconds_t> pauses = Pauses();
  EXPECT_THAT(pauses, SizeIs(kPausesOfTwoMilliseconds));
  EXPECT_THAT(pauses, Each(100));
}

TEST_F(CourtesyTest, ThreadThatLetAPairGoFirstTakesItsNextSingleLockAtOnce) {
  first_.Announce();
  second_.Announce();
  TakeSingle();
  EXPECT_THAT(Pauses(), SizeIs(kPausesOfTwoMilliseconds));
  { const ReadLock lock(second_, kSite); }  // whichever lock that is
  EXPECT_THAT(Pauses(), IsEmpty());
  TakeSingle();
  EXPECT_THAT(Pauses(), SizeIs(kPausesOfTwoMilliseconds));
}

TEST_F(CourtesyTest, WhatOneThreadDidDoesNotBindAnother) {
  first_.Announce();
  TakeSingle();
  size_t pauses = 0;
  std::thread([&] {
    test::FakeClock clock;
    clock.OnSleep([](useconds_t) {});
    TakeSingle();
    pauses = clock.sleeps().size();
  }).join();
  EXPECT_EQ(pauses, kPausesOfTwoMilliseconds);
}

TEST_F(CourtesyTest, WaitComesAfterTheRequestIsTraced) {
  first_.Announce();
  const test::DebugCapture capture(kTrace);
  clock_.OnSleep([&](useconds_t) {
    EXPECT_THAT(capture.Messages(), SizeIs(1));
    first_.Withdraw();
  });
  TakeSingle();
  EXPECT_THAT(capture.Messages(), SizeIs(3));  // requested, acquired, released
}

TEST_F(CourtesyTest, PairIsAnnouncedWhileItIsTriedForAndNotInTheBackOff) {
  constexpr useconds_t kBackOff = 777;
  clock_.SetMicroseconds(kBackOff);
  std::vector<bool> between_tries;
  std::vector<bool> backing_off;
  clock_.OnSleep([&](useconds_t pause) {
    const bool both = first_.IsAnnounced() && second_.IsAnnounced();
    const bool either = first_.IsAnnounced() || second_.IsAnnounced();
    pause == kBackOff ? backing_off.push_back(either) : between_tries.push_back(both);
  });
  const test::FailCall tries(test::Call::kTrywrlock, EBUSY, 2, 11);
  {
    const WriteLockPair lock(first_, second_, Release::kSecondFirst, kSite);
    EXPECT_FALSE(first_.IsAnnounced());
    EXPECT_FALSE(second_.IsAnnounced());
  }
  EXPECT_THAT(between_tries, SizeIs(10));
  EXPECT_THAT(between_tries, Each(true));
  EXPECT_THAT(backing_off, ElementsAre(false));
}

TEST_F(CourtesyTest, PairsDoNotLetEachOtherGoFirst) {
  first_.Announce();
  second_.Announce();
  TakePair();
  EXPECT_THAT(Pauses(), IsEmpty());
}

// ---- Letting others in --------------------------------------------------------------------------

TEST_F(CourtesyTest, OthersMayHaveTheLockInBetween) {
  WriteLock lock(first_, kSite);
  first_.Announce();
  int times_free = 0;
  clock_.OnSleep([&](useconds_t) {
    times_free += IsFree(first_) ? 1 : 0;
    first_.Withdraw();
  });
  lock.LetOthersIn();
  EXPECT_EQ(times_free, 1);
  EXPECT_EQ(pthread_rwlock_tryrdlock(first_.native()), EBUSY);
  lock.Release();
  EXPECT_TRUE(IsFree(first_));
}

TEST_F(CourtesyTest, LettingOthersInIsTracedAsReleaseAndRequest) {
  const test::DebugCapture once(kTrace);
  TakeSingle();
  std::vector<std::string> expected = once.Messages();
  const std::vector<std::string> again = expected;
  expected.insert(expected.end(), again.begin(), again.end());
  const test::DebugCapture twice(kTrace);
  {
    WriteLock lock(first_, kSite);
    lock.LetOthersIn();
  }
  EXPECT_EQ(twice.Messages(), expected);
}

// ---- Long holds ---------------------------------------------------------------------------------

/// A long hold of another thread.
class OthersHold {
 public:
  OthersHold()
      : thread_([this] {
          const LongHold hold;
          begun_.release();
          end_.acquire();
        }) {
    begun_.acquire();
  }
  ~OthersHold() { End(); }
  OthersHold(const OthersHold&) = delete;
  OthersHold& operator=(const OthersHold&) = delete;

  void End() {
    if (!thread_.joinable()) return;
    end_.release();
    thread_.join();
  }

 private:
  std::binary_semaphore begun_{0};
  std::binary_semaphore end_{0};
  std::thread thread_;
};

TEST_F(CourtesyTest, PairIsNotTriedForBeforeALongHoldHasEnded) {
  OthersHold hold;
  const test::FailCall tries(test::Call::kTrywrlock, 0, 1, 0);
  clock_.OnSleep([&](useconds_t) {
    EXPECT_EQ(tries.calls(), 0);
    EXPECT_FALSE(first_.IsAnnounced());
    if (clock_.sleeps().size() == 5) hold.End();
  });
  TakePair();
  EXPECT_THAT(Pauses(), ElementsAre(100, 100, 100, 100, 100));
  EXPECT_EQ(tries.calls(), 2);
}

TEST_F(CourtesyTest, PairThatBacksOffWaitsForALongHoldAsWell) {
  const test::FailCall tries(test::Call::kTrywrlock, EINVAL, 1, 1);
  clock_.SetMicroseconds(777);
  std::unique_ptr<OthersHold> hold;
  clock_.OnSleep([&](useconds_t pause) {
    if (pause == 777) {
      hold = std::make_unique<OthersHold>();
    } else {
      hold->End();
    }
  });
  TakePair();
  EXPECT_THAT(Pauses(), ElementsAre(777, 100));
}

TEST_F(CourtesyTest, LongHoldIsWaitedForTwoSecondsAtMost) {
  const OthersHold hold;
  TakePair();
  const std::vector<useconds_t> pauses = Pauses();
  EXPECT_THAT(pauses, SizeIs(13333));  // with the slack of a timer
  EXPECT_THAT(pauses, Each(100));
}

// What happens while the calling thread tries for a pair, at its second pause.
class TurnTest : public CourtesyTest {
 protected:
  /// Another thread does `want`, and must not get it before this one has its pair.
  void ExpectAfterwards(const std::function<void()>& want) {
    const test::FailCall tries(test::Call::kTrywrlock, EBUSY, 1, 3);
    std::atomic<bool> got{false};
    std::thread other;
    int pauses = 0;
    clock_.OnSleep([&](useconds_t) {
      if (++pauses == 1) {
        other = std::thread([&] {
          want();
          got = true;
        });
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      EXPECT_FALSE(got);
    });
    TakePair();
    other.join();
    EXPECT_EQ(pauses, 3);
  }
};

TEST_F(TurnTest, LongHoldWaitsWhileAPairIsTriedFor) {
  ExpectAfterwards([] { const LongHold hold; });
}

TEST_F(TurnTest, PairsAreTriedForOneAfterTheOther) {
  RwLock third;
  RwLock fourth;
  ExpectAfterwards([&] { const WriteLockPair lock(third, fourth, Release::kSecondFirst, kSite); });
}

TEST_F(CourtesyTest, WhoDeclaresALongHoldTakesPairsAtOnce) {
  const LongHold hold;
  TakePair();
  EXPECT_THAT(Pauses(), IsEmpty());
}

TEST_F(CourtesyTest, NothingIsWaitedForOnceALongHoldHasEnded) {
  { const LongHold hold; }
  { const OthersHold others; }
  TakePair();
  EXPECT_THAT(Pauses(), IsEmpty());
}

TEST_F(CourtesyTest, SingleLockDoesNotWaitForALongHold) {
  const OthersHold hold;
  TakeSingle();
  { const ReadLock lock(first_, kSite); }
  EXPECT_THAT(Pauses(), IsEmpty());
}

}  // namespace
