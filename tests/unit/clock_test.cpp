// The clock that nobody sets, and what is done at most once in an interval.
#include "clock.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "failure_support.h"

using namespace zevd;

namespace {

TEST(ClockTest, MillisecondsAreThousandsOfMicroseconds) {
  const test::FakePassageOfTime passage(1'500'000);
  const int64_t microseconds = MonotonicMicroseconds();
  EXPECT_EQ(MonotonicMilliseconds(), (microseconds + 1'500'000) / 1000);
}

TEST(ThrottleTest, IsDueAtOnceAndThenOnceInAnInterval) {
  Throttle throttle(10'000);
  const test::FakePassageOfTime second_by_second(1'000'000);
  EXPECT_TRUE(throttle.IsDue());
  for (int round = 0; round < 3; ++round) {
    for (int second = 1; second < 10; ++second) EXPECT_FALSE(throttle.IsDue()) << second;
    EXPECT_TRUE(throttle.IsDue());
  }
}

TEST(ThrottleTest, IntervalBeginsWhenItWasLastDue) {
  Throttle throttle(10'000);
  test::FakePassageOfTime second_by_second(1'000'000);
  EXPECT_TRUE(throttle.IsDue());
  second_by_second.Pass(14'000'000);
  EXPECT_TRUE(throttle.IsDue());
  for (int second = 1; second < 10; ++second) EXPECT_FALSE(throttle.IsDue()) << second;
  EXPECT_TRUE(throttle.IsDue());
}

}  // namespace
