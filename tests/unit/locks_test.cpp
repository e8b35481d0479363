#include "locks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <ostream>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr char kCaller[] = "Caller";
constexpr int kLine = 123;
constexpr CallSite kSite = {kCaller, kLine};

/// The state of the locks as another thread sees it.
enum class State { kFree, kRead, kWritten };

State StateOf(RwLock& lock) {
  State state = State::kWritten;
  std::thread([&] {
    if (pthread_rwlock_tryrdlock(lock.native()) != 0) return;
    pthread_rwlock_unlock(lock.native());
    state = State::kRead;
    if (pthread_rwlock_trywrlock(lock.native()) != 0) return;
    pthread_rwlock_unlock(lock.native());
    state = State::kFree;
  }).join();
  return state;
}

std::string Hex(RwLock& lock) {
  std::array<char, 32> text{};
  snprintf(text.data(), text.size(), "%lx", reinterpret_cast<unsigned long>(&lock));
  return text.data();
}

// The trace texts, letter by letter.
std::string Requesting(RwLock& lock) {
  return "Caller: Requesting write lock " + Hex(lock) + " at line 123\n";
}
std::string Aquired(const std::string& kind, RwLock& lock) {
  return "Caller: Aquired " + kind + " lock " + Hex(lock) + "\n";
}
std::string Releasing(RwLock& lock) {
  return "Caller: Releasing lock " + Hex(lock) + "\n";
}
std::string Hung(const std::string& kind, RwLock& first, RwLock& second) {
  return "Caller: Hung on " + kind + " locks " + Hex(first) + " and " + Hex(second) +
         " at line 123\n";
}
std::string AquiredBoth(const std::string& kind, RwLock& first, RwLock& second) {
  return "Caller: Aquired " + kind + " locks " + Hex(first) + " and " + Hex(second) +
         " at line 123\n";
}

/// Another thread holds the lock for writing until it is told to release it.
class Holder {
 public:
  explicit Holder(RwLock& lock)
      : thread_([this, &lock] {
          pthread_rwlock_wrlock(lock.native());
          held_.release();
          let_go_.acquire();
          pthread_rwlock_unlock(lock.native());
        }) {
    held_.acquire();
  }
  ~Holder() { LetGo(); }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  /// Does not return before the lock is released.
  void LetGo() {
    if (!thread_.joinable()) return;
    let_go_.release();
    thread_.join();
  }

 private:
  std::binary_semaphore held_{0};
  std::binary_semaphore let_go_{0};
  std::thread thread_;
};

class LocksTest : public ::testing::Test {
 protected:
  LocksTest() { test::StartDebugOutput(); }

  RwLock first_;
  RwLock second_;
};

// ---- One lock -----------------------------------------------------------------------------------

TEST_F(LocksTest, WriteLockIsHeldForItsScope) {
  {
    const WriteLock lock(first_, kSite);
    EXPECT_EQ(StateOf(first_), State::kWritten);
  }
  EXPECT_EQ(StateOf(first_), State::kFree);
}

TEST_F(LocksTest, ReadLockIsHeldForItsScopeAndShared) {
  {
    const ReadLock lock(first_, kSite);
    EXPECT_EQ(StateOf(first_), State::kRead);
  }
  EXPECT_EQ(StateOf(first_), State::kFree);
}

TEST_F(LocksTest, WriteLockIsTraced) {
  const test::DebugCapture capture(kTrace);
  { const WriteLock lock(first_, kSite); }
  EXPECT_THAT(capture.Messages(),
              ElementsAre(Requesting(first_), Aquired("write", first_), Releasing(first_)));
}

TEST_F(LocksTest, ReadLockIsRequestedAsAWriteLock) {
  const test::DebugCapture capture(kTrace);
  { const ReadLock lock(first_, kSite); }
  EXPECT_THAT(capture.Messages(),
              ElementsAre(Requesting(first_), Aquired("read", first_), Releasing(first_)));
}

TEST_F(LocksTest, TraceIsOfLevelThree) {
  const test::DebugCapture capture(kDetail);
  { const WriteLock lock(first_, kSite); }
  { const ReadLock lock(first_, kSite); }
  { const WriteLockPair lock(first_, second_, Release::kSecondFirst, kSite); }
  { const ReadLockPair lock(first_, second_, Release::kSecondFirst, kSite); }
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(LocksTest, HereNamesTheCallersFunctionAndLine) {
  constexpr CallSite kHere = HERE;
  EXPECT_STREQ(kHere.function, "TestBody");
  EXPECT_EQ(kHere.line, __LINE__ - 2);
}

TEST_F(LocksTest, EarlyReleaseHappensOnce) {
  const test::DebugCapture capture(kTrace);
  {
    WriteLock lock(first_, kSite);
    lock.Release();
    EXPECT_EQ(StateOf(first_), State::kFree);
    lock.Release();
  }
  {
    ReadLock lock(second_, kSite);
    lock.Release();
    EXPECT_EQ(StateOf(second_), State::kFree);
  }
  EXPECT_EQ(capture.Count(Releasing(first_)), 1);
  EXPECT_EQ(capture.Count(Releasing(second_)), 1);
}

TEST_F(LocksTest, SingleLockIsWaitedFor) {
  Holder holder(first_);
  std::atomic<bool> got = false;
  std::thread waiter([&] {
    const WriteLock lock(first_, kSite);
    got = true;
  });
  EXPECT_FALSE(got);
  holder.LetGo();
  waiter.join();
  EXPECT_TRUE(got);
}

TEST_F(LocksTest, FailedWriteLockIsReportedAndNotReleased) {
  const test::DebugCapture capture(kInfo);
  const test::FailCall unlocks(test::Call::kRwlockUnlock, 0, 1, 0);
  {
    const test::FailCall failure(test::Call::kWrlock, EDEADLK, 1, 1);
    const WriteLock lock(first_, kSite);
  }
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Caller: pthread_rwlock_wrlock failed : Resource deadlock avoided\n"));
  // The one call is that of the debug output.
  EXPECT_EQ(unlocks.calls(), 1);
}

TEST_F(LocksTest, FailedReadLockIsReportedAndNotReleased) {
  const test::DebugCapture capture(kTrace);
  {
    const test::FailCall failure(test::Call::kRdlock, EAGAIN, 1, 1);
    const ReadLock lock(first_, kSite);
  }
  EXPECT_THAT(
      capture.Messages(),
      ElementsAre(Requesting(first_),
                  "Caller: pthread_rwlock_rdlock failed : Resource temporarily unavailable\n"));
}

// A thread cannot lock for writing twice; the inner guard, which fails, must not release the lock
// of the outer one.
TEST_F(LocksTest, InnerGuardThatFailedLeavesTheOuterOneAlone) {
  const WriteLock outer(first_, kSite);
  const test::DebugCapture capture(kError);
  {
    const WriteLock inner(first_, kSite);
    const ReadLock reader(first_, kSite);
  }
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Caller: pthread_rwlock_wrlock failed : Resource deadlock avoided\n",
                          "Caller: pthread_rwlock_rdlock failed : Resource deadlock avoided\n"));
  EXPECT_EQ(StateOf(first_), State::kWritten);
}

TEST_F(LocksTest, FailedUnlockIsReportedAndNothingElse) {
  const test::DebugCapture capture(kTrace);
  {
    WriteLock lock(first_, kSite);
    // Every debug line takes and releases a lock too; those of the trace come first.
    const test::FailCall failure(test::Call::kRwlockUnlock, EPERM, 2, 1);
    lock.Release();
  }
  EXPECT_THAT(capture.Messages(),
              ElementsAre(Requesting(first_), Aquired("write", first_), Releasing(first_),
                          "Caller: pthread_rwlock_unlock failed : Operation not permitted\n"));
  pthread_rwlock_unlock(first_.native());
}

// ---- Two locks ----------------------------------------------------------------------------------

TEST_F(LocksTest, WritePairIsHeldForItsScope) {
  {
    const WriteLockPair lock(first_, second_, Release::kSecondFirst, kSite);
    EXPECT_EQ(StateOf(first_), State::kWritten);
    EXPECT_EQ(StateOf(second_), State::kWritten);
  }
  EXPECT_EQ(StateOf(first_), State::kFree);
  EXPECT_EQ(StateOf(second_), State::kFree);
}

TEST_F(LocksTest, ReadPairIsHeldForItsScopeAndShared) {
  {
    const ReadLockPair lock(first_, second_, Release::kSecondFirst, kSite);
    EXPECT_EQ(StateOf(first_), State::kRead);
    EXPECT_EQ(StateOf(second_), State::kRead);
  }
  EXPECT_EQ(StateOf(first_), State::kFree);
  EXPECT_EQ(StateOf(second_), State::kFree);
}

TEST_F(LocksTest, WritePairIsTracedAndReleasedSecondFirst) {
  const test::DebugCapture capture(kTrace);
  { const WriteLockPair lock(first_, second_, Release::kSecondFirst, kSite); }
  EXPECT_THAT(capture.Messages(),
              ElementsAre(Requesting(first_), Aquired("write", first_), Requesting(second_),
                          Aquired("write", second_), Releasing(second_), Releasing(first_)));
}

TEST_F(LocksTest, WritePairIsReleasedInTheOtherOrderOnRequest) {
  const test::DebugCapture capture(kTrace);
  { const WriteLockPair lock(first_, second_, Release::kFirstFirst, kSite); }
  EXPECT_THAT(capture.Messages(),
              ElementsAre(Requesting(first_), Aquired("write", first_), Requesting(second_),
                          Aquired("write", second_), Releasing(first_), Releasing(second_)));
}

TEST_F(LocksTest, ReadPairIsTracedAsWriteLocks) {
  const test::DebugCapture capture(kTrace);
  { const ReadLockPair lock(first_, second_, Release::kSecondFirst, kSite); }
  { const ReadLockPair lock(first_, second_, Release::kFirstFirst, kSite); }
  EXPECT_THAT(capture.Messages(),
              ElementsAre(Requesting(first_), Aquired("write", first_), Requesting(second_),
                          Aquired("write", second_), Releasing(second_), Releasing(first_),
                          Requesting(first_), Aquired("write", first_), Requesting(second_),
                          Aquired("write", second_), Releasing(first_), Releasing(second_)));
}

TEST_F(LocksTest, ReadPairThatReleasesOnlyItsFirstLeavesTheSecondHeld) {
  const test::DebugCapture capture(kTrace);
  {
    ReadLockPair lock(first_, second_, Release::kSecondFirst, kSite);
    lock.ReleaseFirstAndKeepSecondForEver();
    EXPECT_EQ(StateOf(first_), State::kFree);
  }
  EXPECT_EQ(StateOf(second_), State::kRead);
  EXPECT_EQ(capture.Messages().back(), Releasing(first_));
  EXPECT_FALSE(capture.Has(Releasing(second_)));
  pthread_rwlock_unlock(second_.native());
}

TEST_F(LocksTest, ReadPairThatReleasesOnlyItsSecondLeavesTheFirstHeld) {
  const test::DebugCapture capture(kTrace);
  {
    ReadLockPair lock(first_, second_, Release::kSecondFirst, kSite);
    lock.ReleaseSecondAndKeepFirstForEver();
    EXPECT_EQ(StateOf(second_), State::kFree);
  }
  EXPECT_EQ(StateOf(first_), State::kRead);
  EXPECT_EQ(capture.Messages().back(), Releasing(second_));
  EXPECT_FALSE(capture.Has(Releasing(first_)));
  pthread_rwlock_unlock(first_.native());
}

/// What differs between the two kinds of pair.
struct PairKind {
  std::string name;
  test::Call try_call;
  std::string try_name;
  void (*with_pair)(RwLock& first, RwLock& second, const std::function<void()>& body);
};

void PrintTo(const PairKind& kind, std::ostream* out) {
  *out << kind.name;
}

template <typename Pair>
void WithPair(RwLock& first, RwLock& second, const std::function<void()>& body) {
  const Pair lock(first, second, Release::kSecondFirst, kSite);
  body();
}

class LockPairTest : public LocksTest, public ::testing::WithParamInterface<PairKind> {
 protected:
  void TakeAndRelease() {
    GetParam().with_pair(first_, second_, [] {});
  }

  // The lines of one try that gets the first lock and not the second.
  std::vector<std::string> FailedTry() {
    return {Requesting(first_), Aquired("write", first_), Requesting(second_), Releasing(first_)};
  }

  // The lines of the try that gets both, and of their release.
  std::vector<std::string> GoodTry() {
    return {Requesting(first_),        Aquired("write", first_), Requesting(second_),
            Aquired("write", second_), Releasing(second_),       Releasing(first_)};
  }

  RwLock first_;
  RwLock second_;
};

INSTANTIATE_TEST_SUITE_P(
    Kinds, LockPairTest,
    ::testing::Values(PairKind{"write", test::Call::kTrywrlock, "pthread_rwlock_trywrlock",
                               WithPair<WriteLockPair>},
                      PairKind{"read", test::Call::kTryrdlock, "pthread_rwlock_tryrdlock",
                               WithPair<ReadLockPair>}),
    [](const auto& test_case) { return test_case.param.name; });

std::vector<std::string> Join(std::vector<std::vector<std::string>> parts) {
  std::vector<std::string> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST_P(LockPairTest, EachLockIsTriedOnceWhenFree) {
  const test::FailCall tries(GetParam().try_call, 0, 1, 0);
  const test::FailCall sleeps(test::Call::kUsleep, 0, 1, 0);
  TakeAndRelease();
  EXPECT_EQ(tries.calls(), 2);
  EXPECT_EQ(sleeps.calls(), 0);
}

TEST_P(LockPairTest, BusyFirstLockIsTriedElevenTimesThenBacksOff) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(0);
  clock.SetMicroseconds(777);
  const test::FailCall tries(GetParam().try_call, EBUSY, 1, 11);
  const test::DebugCapture capture(kTrace);
  TakeAndRelease();
  EXPECT_EQ(tries.calls(), 11 + 2);
  // Ten pauses of 100 microseconds between the tries, then the back-off.
  EXPECT_THAT(clock.sleeps(), ElementsAre(100, 100, 100, 100, 100, 100, 100, 100, 100, 100, 777));
  EXPECT_THAT(capture.Messages(),
              ElementsAreArray(Join({
                  // The request that follows repeats the one that failed.
                  {Requesting(first_), "Last message repeated 1 times\n"},
                  {Aquired("write", first_), Requesting(second_), Aquired("write", second_),
                   Releasing(second_), Releasing(first_)},
              })));
}

TEST_P(LockPairTest, LockThatIsFreedBetweenTriesIsTaken) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(0);
  const test::FailCall tries(GetParam().try_call, EBUSY, 1, 10);
  TakeAndRelease();
  EXPECT_EQ(tries.calls(), 10 + 2);
  EXPECT_THAT(clock.sleeps(), SizeIs(10));  // and no back-off
}

TEST_P(LockPairTest, BusySecondLockReleasesTheFirst) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(0);
  clock.SetMicroseconds(999'999);
  const test::FailCall tries(GetParam().try_call, EBUSY, 2, 11);
  const test::DebugCapture capture(kTrace);
  TakeAndRelease();
  EXPECT_EQ(tries.calls(), 1 + 11 + 2);
  EXPECT_THAT(clock.sleeps(), SizeIs(11));
  EXPECT_EQ(clock.sleeps().back(), 999'999U);
  EXPECT_THAT(capture.Messages(), ElementsAreArray(Join({FailedTry(), GoodTry()})));
}

TEST_P(LockPairTest, NothingIsHeldDuringTheBackOff) {
  constexpr useconds_t kBackOff = 777;
  test::FakeClock clock;
  clock.SetMicroseconds(kBackOff);
  std::vector<State> between_tries;
  std::vector<State> backing_off;
  clock.OnSleep([&](useconds_t pause) {
    (pause == kBackOff ? backing_off : between_tries).push_back(StateOf(first_));
  });
  const test::FailCall tries(GetParam().try_call, EBUSY, 2, 11);
  TakeAndRelease();
  EXPECT_THAT(between_tries, SizeIs(10));
  EXPECT_THAT(between_tries, ::testing::Each(::testing::Ne(State::kFree)));
  EXPECT_THAT(backing_off, ElementsAre(State::kFree));
}

TEST_P(LockPairTest, OtherErrorIsTracedAndNotRetriedAtOnce) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(0);
  clock.SetMicroseconds(5);
  const test::FailCall tries(GetParam().try_call, EAGAIN, 1, 1);
  const test::DebugCapture capture(kTrace);
  TakeAndRelease();
  EXPECT_EQ(tries.calls(), 1 + 2);
  EXPECT_THAT(clock.sleeps(), ElementsAre(5));  // the back-off alone
  const std::string failed =
      "Caller: " + GetParam().try_name + " failed : Resource temporarily unavailable\n";
  EXPECT_THAT(capture.Messages(),
              ElementsAreArray(Join({{Requesting(first_), failed}, GoodTry()})));
}

TEST_P(LockPairTest, OtherErrorOfTheSecondLockReleasesTheFirst) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(0);
  const test::FailCall tries(GetParam().try_call, EINVAL, 2, 1);
  const test::DebugCapture capture(kTrace);
  TakeAndRelease();
  const std::string failed = "Caller: " + GetParam().try_name + " failed : Invalid argument\n";
  EXPECT_THAT(capture.Messages(),
              ElementsAreArray(Join({{Requesting(first_), Aquired("write", first_),
                                      Requesting(second_), failed, Releasing(first_)},
                                     GoodTry()})));
}

TEST_P(LockPairTest, TriesThatFailAreSilentAtLevelTwo) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(0);
  const test::FailCall tries(GetParam().try_call, EINVAL, 1, 3);
  const test::DebugCapture capture(kDetail);
  TakeAndRelease();
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

// A clock that every pause moves on by `seconds`; each try fails at its first call.
std::vector<std::string> MessagesOfAWait(time_t seconds, int failed_tries, const PairKind& kind,
                                         RwLock& first, RwLock& second) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(seconds);
  const test::FailCall tries(kind.try_call, EINVAL, 1, failed_tries);
  const test::DebugCapture capture(kInfo);
  kind.with_pair(first, second, [] {});
  return capture.Messages();
}

TEST_P(LockPairTest, WaitOfFiveSecondsIsNotReported) {
  EXPECT_THAT(MessagesOfAWait(5, 1, GetParam(), first_, second_), IsEmpty());
}

TEST_P(LockPairTest, WaitOfSixSecondsIsReportedAtItsBeginningAndEnd) {
  EXPECT_THAT(MessagesOfAWait(6, 1, GetParam(), first_, second_),
              ElementsAre(Hung(GetParam().name, first_, second_),
                          AquiredBoth(GetParam().name, first_, second_)));
}

TEST_P(LockPairTest, LongWaitIsReportedOnce) {
  EXPECT_THAT(MessagesOfAWait(6, 50, GetParam(), first_, second_),
              ElementsAre(Hung(GetParam().name, first_, second_),
                          AquiredBoth(GetParam().name, first_, second_)));
}

TEST_P(LockPairTest, SecondsAddUpOverManyTries) {
  EXPECT_THAT(MessagesOfAWait(1, 5, GetParam(), first_, second_), IsEmpty());
  EXPECT_THAT(MessagesOfAWait(1, 6, GetParam(), first_, second_), SizeIs(2));
}

TEST_P(LockPairTest, ReportsOfALongWaitAreOfLevelOne) {
  test::FakeClock clock;
  clock.AdvanceOnSleep(6);
  const test::FailCall tries(GetParam().try_call, EINVAL, 1, 1);
  const test::DebugCapture capture(0);
  TakeAndRelease();
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

/// A pair whose second lock another thread holds, with a thread that waits for it.
class HungPair {
 public:
  HungPair(std::string kind, void (*with_pair)(RwLock&, RwLock&, const std::function<void()>&))
      : kind_(std::move(kind)),
        holder_(second_),
        waiter_([this, with_pair] { with_pair(first_, second_, [this] { got_ = true; }); }) {}

  std::string HungText() { return Hung(kind_, first_, second_); }
  std::string AquiredText() { return AquiredBoth(kind_, first_, second_); }
  bool got() const { return got_; }

  void LetGo() {
    holder_.LetGo();
    waiter_.join();
  }

 private:
  RwLock first_;
  RwLock second_;
  std::string kind_;
  std::atomic<bool> got_ = false;
  Holder holder_;
  std::thread waiter_;
};

// The same with locks that are really held and with the real clock, for both kinds at once.
TEST_F(LocksTest, WaitForALockThatIsHeldForLongEndsWhenItIsReleased) {
  const test::DebugCapture capture(kInfo);
  std::array<HungPair, 2> pairs = {
      {{"write", WithPair<WriteLockPair>}, {"read", WithPair<ReadLockPair>}}};
  const time_t give_up = time(nullptr) + 30;
  while (capture.Messages().size() < pairs.size() && time(nullptr) < give_up) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_THAT(capture.Messages(), UnorderedElementsAre(pairs[0].HungText(), pairs[1].HungText()));
  for (HungPair& pair : pairs) {
    EXPECT_FALSE(pair.got());
    pair.LetGo();
    EXPECT_TRUE(pair.got());
    EXPECT_EQ(capture.Messages().back(), pair.AquiredText());
  }
  EXPECT_THAT(capture.Messages(), SizeIs(4));
}

TEST_F(LocksTest, ReadersOfAPairDoNotWaitForEachOther) {
  const ReadLockPair mine(first_, second_, Release::kSecondFirst, kSite);
  std::atomic<bool> done = false;
  std::thread([&] {
    const ReadLockPair other(second_, first_, Release::kSecondFirst, kSite);
    done = true;
  }).join();
  EXPECT_TRUE(done);
}

// With opposite orders and single locks among them, all threads get through, one at a time.
TEST_F(LocksTest, OppositeOrdersDoNotDeadlock) {
  constexpr int kRounds = 50;
  int guarded = 0;  // by both locks
  const auto work = [&](RwLock& one, RwLock& other) {
    for (int i = 0; i < kRounds; ++i) {
      const WriteLockPair lock(one, other, Release::kFirstFirst, kSite);
      ++guarded;
    }
  };
  std::thread forwards([&] { work(first_, second_); });
  std::thread backwards([&] { work(second_, first_); });
  forwards.join();
  backwards.join();
  EXPECT_EQ(guarded, 2 * kRounds);
}

TEST(SharedLocksTest, AreFourDifferentLocks) {
  const std::array<RwLock*, 4> locks = {&icl_lock, &acl_lock, &ul_lock, &cmd_lock};
  std::vector<std::unique_ptr<WriteLock>> held;
  for (RwLock* lock : locks) {
    EXPECT_EQ(StateOf(*lock), State::kFree);
    held.push_back(std::make_unique<WriteLock>(*lock, kSite));
  }
  for (RwLock* lock : locks) EXPECT_EQ(StateOf(*lock), State::kWritten);
}

}  // namespace
