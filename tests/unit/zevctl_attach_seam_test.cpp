// Where a history ends and a session begins.
#include <gtest/gtest.h>

#include <string>

#include "attach_seam.h"

namespace zevctl {
namespace {

TEST(RepeatedBytes, NoneWithoutARepetition) {
  EXPECT_EQ(RepeatedBytes("", "one\r\n", ""), 0);
  EXPECT_EQ(RepeatedBytes("new\r\n", "one\r\n", "new\r\nmore"), 0);
}

TEST(RepeatedBytes, CountsWhatTheDaemonSentAgain) {
  EXPECT_EQ(RepeatedBytes("two\r\n", "one\r\ntwo\r\n", ""), 5);
  EXPECT_EQ(RepeatedBytes("two\r\nnew", "one\r\ntwo\r\n", "newer"), 5);
}

TEST(RepeatedBytes, DoesNotTakeAnEqualLineForARepetition) {
  EXPECT_EQ(RepeatedBytes("same\r\n", "same\r\n", "same\r\n"), 0);
  EXPECT_EQ(RepeatedBytes("same\r\nsame\r\n", "same\r\n", "same\r\n"), 6);
}

TEST(RepeatedBytes, WaitsForTheJournal) {
  EXPECT_EQ(RepeatedBytes("new\r\n", "one\r\n", ""), std::nullopt);
  EXPECT_EQ(RepeatedBytes("new\r\n", "one\r\n", "new"), std::nullopt);
}

TEST(RepeatedBytes, TakesTheLongestOfSeveralRepetitions) {
  EXPECT_EQ(RepeatedBytes("aaaa", "baaaa", ""), 4);
  EXPECT_EQ(RepeatedBytes("aaaa", "baa", "aa"), 2);
  EXPECT_EQ(RepeatedBytes("abab", "ab", "ab"), 2);
}

TEST(RepeatedBytes, IsQuickForEqualBytes) {
  const std::string many(1 << 20, 'x');
  EXPECT_EQ(RepeatedBytes(many, many, ""), many.size());
  EXPECT_EQ(RepeatedBytes(many + "y", many, ""), std::nullopt);
}

TEST(ProbablyRepeatedBytes, NeedsWhatCannotBeChance) {
  const std::string line(40, 'x');
  EXPECT_EQ(ProbablyRepeatedBytes(line + "new", "old" + line), 40);
  EXPECT_EQ(ProbablyRepeatedBytes("two", "one two"), 3);
  EXPECT_EQ(ProbablyRepeatedBytes("two\r\nnew", "two\r\n"), 0);
  EXPECT_EQ(ProbablyRepeatedBytes("new", ""), 0);
}

}  // namespace
}  // namespace zevctl
