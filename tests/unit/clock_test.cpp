// The clock that nobody sets, and what is done at most once in an interval.
#include "clock.h"

#include <gtest/gtest.h>

#include "failure_support.h"
#include "liveness.h"

using namespace zevd;

namespace {

TEST(ThrottleTest, LookIsDueEveryTenSeconds) {
  Throttle looks(kVanishedLookInterval);
  const test::FakePassageOfTime second_by_second(1'000'000);
  EXPECT_TRUE(looks.IsDue());
  for (int round = 0; round < 3; ++round) {
    for (int second = 1; second < 10; ++second) EXPECT_FALSE(looks.IsDue()) << second;
    EXPECT_TRUE(looks.IsDue());
  }
}

}  // namespace
