// Numbers that remember since when they have had their value.
#include "dated_word.h"

#include <gtest/gtest.h>

#include <ctime>

#include "failure_support.h"

using namespace zevd;

namespace {

constexpr time_t kNow = 1'000'000'000;

TEST(DatedWordTest, KnowsWhenItWasGivenAnotherValue) {
  test::FakeClock clock(kNow);
  DatedWord word;
  EXPECT_EQ(word, 0);
  EXPECT_EQ(word.since(), 0);
  word = 3;
  clock.Advance(5);
  word = 3;
  EXPECT_EQ(word, 3);
  EXPECT_EQ(word.since(), kNow);
  word = 0;
  EXPECT_EQ(word.load(), 0);
  EXPECT_EQ(word.since(), kNow + 5);
}

}  // namespace
