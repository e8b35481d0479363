// Who is let in, and what is started, while descriptors run short.
#include "descriptor_budget.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <ostream>

#include "cons_conn_steps.h"
#include "daemon_support.h"
#include "debug_support.h"
#include "failure_support.h"
#include "socket_support.h"
#include "user_conn_steps.h"

using namespace zevd;

namespace {

using test::DebugCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kSecond = 1'000'000;  // microseconds

/// Sets the soft limit on descriptors while it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const rlimit changed = {limit, saved_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &changed), 0);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &saved_); }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit saved_{};
};

/// Counts how often it is asked.
struct Look {
  DescriptorUse use;
  int* count;
  DescriptorUse operator()() const {
    ++*count;
    return use;
  }
};

// ---- Looking ------------------------------------------------------------------------------------

TEST(DescriptorCountTest, IsThatOfOpenDescriptors) {
  const int before = CountDescriptors();
  ASSERT_GT(before, 0);
  const test::SocketPair pair;
  EXPECT_EQ(CountDescriptors(), before + 2);
  EXPECT_EQ(CountDescriptors(), before + 2);
}

TEST(DescriptorCountTest, NeedsADescriptorItself) {
  const test::Descriptor next(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const DescriptorLimit limit(static_cast<rlim_t>(next.get()) + 1);
  EXPECT_EQ(CountDescriptors(), -1);
  EXPECT_EQ(errno, EMFILE);
}

TEST(ReserveDescriptorTest, IsOneDescriptor) {
  const int before = CountDescriptors();
  ReserveDescriptor reserve;
  EXPECT_TRUE(reserve.Hold());
  EXPECT_TRUE(reserve.Hold());
  EXPECT_EQ(CountDescriptors(), before + 1);
  reserve.Release();
  reserve.Release();
  EXPECT_EQ(CountDescriptors(), before);
}

TEST(ReserveDescriptorTest, CannotBeHeldWhereThereIsNone) {
  test::Descriptor last(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const DescriptorLimit limit(static_cast<rlim_t>(last.get()) + 1);
  ReserveDescriptor reserve;
  EXPECT_FALSE(reserve.Hold());
  last.Reset();
  EXPECT_TRUE(reserve.Hold());
  reserve.Release();
}

// ---- Callers ------------------------------------------------------------------------------------

struct BudgetCase {
  const char* name;
  rlim_t limit;
  DescriptorUse use;
  bool station;   // callers from the station are let in
  bool stranger;  // others are
};

void PrintTo(const BudgetCase& test_case, std::ostream* out) {
  *out << test_case.name;
}

class DescriptorBudgetTest : public test::DaemonTest,
                             public ::testing::WithParamInterface<BudgetCase> {};

TEST_P(DescriptorBudgetTest, AdmitsAsManyAsItHasRoomFor) {
  const BudgetCase& is = GetParam();
  const DescriptorLimit limit(is.limit);
  const DebugCapture debug(kError);
  const auto look = [&] { return is.use; };
  EXPECT_EQ(DescriptorBudget().Admits(Caller::kStation, look), is.station);
  EXPECT_EQ(DescriptorBudget().Admits(Caller::kStranger, look), is.stranger);
  EXPECT_EQ(debug.Messages().empty(), is.station && is.stranger);
}

INSTANTIATE_TEST_SUITE_P(
    Rooms, DescriptorBudgetTest,
    ::testing::Values(BudgetCase{"AThirdInUse", 1024, {345, 0}, true, true},
                      BudgetCase{"LastOfTheStrangers", 1024, {1024 - 64 - 17, 0}, true, true},
                      BudgetCase{"FirstOfTheStation", 1024, {1024 - 64 - 16, 0}, true, false},
                      BudgetCase{"LastOfTheStation", 1024, {1024 - 64 - 1, 0}, true, false},
                      BudgetCase{"None", 1024, {1024 - 64, 0}, false, false},
                      BudgetCase{"WantedByLogins", 1024, {1024 - 64 - 17, 1}, true, false},
                      BudgetCase{"AllWantedByLogins", 1024, {1024 - 64 - 17, 32}, false, false},
                      BudgetCase{"SmallLimit", 120, {120 - 30 - 17, 0}, true, true},
                      BudgetCase{"SmallLimitForTheStation", 120, {120 - 30 - 1, 0}, true, false},
                      BudgetCase{"SmallLimitReached", 120, {120 - 30, 0}, false, false},
                      BudgetCase{"LookFails", 1024, {-1, 0}, false, false}),
    [](const auto& test_case) { return test_case.param.name; });

using BudgetReportTest = test::DaemonTest;

TEST_F(BudgetReportTest, ShortageIsReportedOnceAMinute) {
  const DescriptorLimit limit(1024);
  const test::FakePassageOfTime time(kSecond);
  DebugCapture debug(kError);
  DescriptorBudget budget;
  const auto look = [] { return DescriptorUse{1000, 0}; };
  const auto refusals = [&](int count) {
    for (int i = 0; i < count; ++i) EXPECT_FALSE(budget.Admits(Caller::kStranger, look));
  };
  refusals(60);
  EXPECT_THAT(debug.NewMessages(), ElementsAre("AcceptConnectionRequests: Running out of "
                                               "descriptors: 1000 of 1024 are in use, 64 are set "
                                               "aside\n"));
  refusals(1);
  zev_debug(kError, "other\n");
  EXPECT_THAT(debug.NewMessages(), ElementsAre("Last message repeated 1 times\n", "other\n"));
}

TEST_F(BudgetReportTest, FailedCountIsReported) {
  const DebugCapture debug(kError);
  DescriptorBudget budget;
  const auto look = [] {
    errno = EMFILE;
    return DescriptorUse{-1, 0};
  };
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(budget.Admits(Caller::kStation, look));
  EXPECT_THAT(debug.Messages(),
              ElementsAre("AcceptConnectionRequests: Cannot count the descriptors in use : "
                          "Too many open files\n"));
}

TEST_F(BudgetReportTest, LooksOnlyNowAndThen) {
  const DescriptorLimit limit(1024);
  int looks = 0;
  DescriptorBudget budget;
  const Look look = {{1024 - 64 - 16 - 600, 0}, &looks};
  for (int i = 0; i < 101; ++i) EXPECT_TRUE(budget.Admits(Caller::kStranger, look));
  EXPECT_EQ(looks, 1);
  EXPECT_TRUE(budget.Admits(Caller::kStation, look));
  EXPECT_EQ(looks, 2);
  budget.Forget();
  EXPECT_TRUE(budget.Admits(Caller::kStranger, look));
  EXPECT_EQ(looks, 3);
}

// ---- Connections to consoles --------------------------------------------------------------------

class AttemptBudgetTest : public test::DaemonTest {
 protected:
  /// The first count of a new budget.
  static bool Admits(int open, int wanted) {
    return AttemptBudget().Admits([&] { return DescriptorUse{open, wanted}; });
  }

  const DescriptorLimit limit_{1024};
  DebugCapture debug_{kError};
};

TEST_F(AttemptBudgetTest, WantsAConnectionAndALog) {
  EXPECT_TRUE(Admits(1022, 0));
  EXPECT_FALSE(Admits(1023, 0));
  EXPECT_FALSE(Admits(1024, 0));
  EXPECT_FALSE(Admits(-1, 0));
}

TEST_F(AttemptBudgetTest, LeavesTheLogsOfOthersAlone) {
  EXPECT_TRUE(Admits(1000, 22));
  EXPECT_FALSE(Admits(1000, 23));
}

TEST_F(AttemptBudgetTest, LooksAgainAfterASecond) {
  const test::FakePassageOfTime time(kSecond / 10);  // each time the clock is read
  int looks = 0;
  AttemptBudget budget;
  const Look look = {{1023, 0}, &looks};
  for (int i = 0; i < 9; ++i) EXPECT_FALSE(budget.Admits(look));
  EXPECT_EQ(looks, 1);
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(budget.Admits(look));
  EXPECT_EQ(looks, 2);
  EXPECT_THAT(debug_.Messages(),
              ElementsAre("ConnectToConsoles: Running out of descriptors: 1023 of 1024 are in "
                          "use, 0 are set aside\n"));
}

TEST_F(AttemptBudgetTest, TellsWhenItLooksAgain) {
  const test::FakePassageOfTime passage(1);
  AttemptBudget budget;
  EXPECT_EQ(budget.TimeToNextLook(), 0);
  const test::DebugCapture capture(kInfo);
  budget.Exhausted(EMFILE);
  EXPECT_GT(budget.TimeToNextLook(), 990);
  EXPECT_LE(budget.TimeToNextLook(), 1000);
}

TEST_F(AttemptBudgetTest, LooksOnlyNowAndThenWhileThereIsRoom) {
  int looks = 0;
  AttemptBudget budget;
  const Look look = {{1024 - 400, 0}, &looks};
  for (int i = 0; i < 101; ++i) EXPECT_TRUE(budget.Admits(look));
  EXPECT_EQ(looks, 1);
  EXPECT_TRUE(budget.Admits(look));
  EXPECT_EQ(looks, 2);
}

TEST_F(AttemptBudgetTest, WaitsAfterTheEndWasMetAllTheSame) {
  const test::FakePassageOfTime time(kSecond / 10);
  int looks = 0;
  AttemptBudget budget;
  const Look look = {{100, 0}, &looks};
  EXPECT_TRUE(budget.Admits(look));
  budget.Exhausted(EMFILE);
  EXPECT_FALSE(budget.Admits(look));
  budget.Exhausted(EMFILE);
  EXPECT_FALSE(budget.Admits(look));
  EXPECT_EQ(looks, 1);
  EXPECT_THAT(debug_.Messages(),
              ElementsAre("ConnectToConsole: socket() failed: Too many open files\n"));
}

}  // namespace
