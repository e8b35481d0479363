// Numbers that know since when they have had their value.
#include "dated_word.h"

#include <gtest/gtest.h>

#include <ctime>

#include "failure_support.h"

using namespace zevd;

namespace {

constexpr time_t kNow = 1'000'000'000;

TEST(DatedWordTest, KnowsWhenItLastChanged) {
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

TEST(DatedWordTest, CopyHasTheValueSinceItWasMade) {
  test::FakeClock clock(kNow);
  const DatedWord original = 3;
  clock.Advance(5);
  const DatedWord copy = original;
  EXPECT_EQ(copy, 3);
  EXPECT_EQ(copy.since(), kNow + 5);
  EXPECT_EQ(original.since(), kNow);
}

TEST(DatedWordTest, CopyOfANewWordHasNoDate) {
  const test::FakeClock clock(kNow);
  const DatedWord original;
  const DatedWord copy = original;
  EXPECT_EQ(copy, 0);
  EXPECT_EQ(copy.since(), 0);
}

TEST(DatedWordTest, AssignedWordHasItsOwnDate) {
  test::FakeClock clock(kNow);
  const DatedWord original = 3;
  clock.Advance(5);
  DatedWord other = 4;
  clock.Advance(5);
  other = original;
  EXPECT_EQ(other, 3);
  EXPECT_EQ(other.since(), kNow + 10);
}

TEST(DatedWordTest, AssigningAnEqualWordKeepsTheDate) {
  test::FakeClock clock(kNow);
  DatedWord word = 3;
  clock.Advance(5);
  const DatedWord equal = 3;
  clock.Advance(5);
  word = equal;
  EXPECT_EQ(word, 3);
  EXPECT_EQ(word.since(), kNow);
}

}  // namespace
