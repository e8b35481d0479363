// Positions and kinds as words.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "journal/journal.h"

namespace journal {

namespace {

TEST(JournalWordsTest, WritesAndReadsPositions) {
  const Position position{0x00ff00ff00ff00ff, 12, 345};
  EXPECT_EQ(PositionText(position), "00ff00ff00ff00ff:12:345");
  EXPECT_EQ(ParsePosition("00ff00ff00ff00ff:12:345"), position);
  const Position largest{~uint64_t{0}, ~uint64_t{0}, ~uint64_t{0}};
  EXPECT_EQ(ParsePosition(PositionText(largest)), largest);
  EXPECT_EQ(ParsePosition(PositionText({})), Position{});
}

TEST(JournalWordsTest, RefusesWhatIsNoPosition) {
  for (const char* text :
       {"", ":", "::", "00ff00ff00ff00ff", "00ff00ff00ff00ff:1",
        "00ff00ff00ff00ff:1:", "00ff00ff00ff00ff::1", "00ff00ff00ff00ff:1:2:3",
        "00ff00ff00ff00ff:1:2 ", " 00ff00ff00ff00ff:1:2", "0ff00ff00ff00ff:1:2",
        "000ff00ff00ff00ff:1:2", "00FF00FF00FF00FF:1:2", "00ff00ff00ff00fg:1:2",
        "00ff00ff00ff00ff:-1:2", "00ff00ff00ff00ff:+1:2", "00ff00ff00ff00ff:01:2",
        "00ff00ff00ff00ff:1:0x2", "00ff00ff00ff00ff:1:18446744073709551616"}) {
    EXPECT_FALSE(ParsePosition(text)) << text;
  }
}

TEST(JournalWordsTest, HasAWordForEachKind) {
  std::set<std::string> words;
  for (int kind = 1; kind <= 22; ++kind) words.insert(KindWord(static_cast<Kind>(kind)));
  EXPECT_EQ(words.size(), 22U);
  EXPECT_THAT(words, ::testing::Not(::testing::Contains("unknown")));
  EXPECT_STREQ(KindWord(Kind::kNotLogged), "not-logged");
  EXPECT_STREQ(KindWord(static_cast<Kind>(0)), "unknown");
  EXPECT_STREQ(KindWord(static_cast<Kind>(23)), "unknown");
}

}  // namespace

}  // namespace journal
