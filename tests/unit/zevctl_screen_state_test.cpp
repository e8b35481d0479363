// What a terminal has been shown: where a line of the client's own may begin.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "screen_state.h"

namespace zevctl {
namespace {

bool InLine(std::string_view text) {
  ScreenState state;
  state.Add(text);
  return state.InLine();
}

bool InSequence(std::string_view text) {
  ScreenState state;
  for (const char byte : text) state.Add({&byte, 1});
  return state.InSequence();
}

TEST(ScreenState, KnowsTheStartOfALine) {
  for (const char* text :
       {"", "\n", "login: \n", "login: \r\n", "\r\n\x1b[0m", "\a", "a\n\x1b[2J"}) {
    EXPECT_FALSE(InLine(text)) << text;
  }
  for (const char* text :
       {"a", "login: ", "\nx", "x\r", "\x1b[1mx", "\x1b[1mx\x1b[0m", "\xC3\xA9"}) {
    EXPECT_TRUE(InLine(text)) << text;
  }
}

TEST(ScreenState, KnowsTheMiddleOfASequence) {
  for (const char* text :
       {"\x1b", "\x1b[", "\x1b[1", "\x1b[1;31", "\x1b[?25", "\x1b(", "\x1b]0;title", "\x1b]0;t\x1b",
        "\x1bPq", "\x1b[0m\x1b", "\x1b\x1b", "\xC3", "\xE2\x82", "\xF0\x9F\x98", "\x1b[1\n"}) {
    EXPECT_TRUE(InSequence(text)) << text;
  }
}

TEST(ScreenState, KnowsTheEndOfASequence) {
  for (const char* text : {"",
                           "a",
                           "\x1b[m",
                           "\x1b[1;31m",
                           "\x1b[?25h",
                           "\x1b(B",
                           "\x1b=",
                           "\x1b"
                           "7",
                           "\x1b]0;title\a",
                           "\x1b]0;title\x1b\\",
                           "\x1bPq\x1b\\",
                           "\x1b[1\x18",
                           "\x1b]0;\x1a",
                           "\xC3\xA9",
                           "\xE2\x82\xAC",
                           "\xF0\x9F\x98\x80",
                           "\xFF",
                           "\x80",
                           "\xC3(",
                           "\xC0"}) {
    EXPECT_FALSE(InSequence(text)) << text;
  }
}

TEST(RecentOutput, KeepsTheLastOfIt) {
  RecentOutput recent;
  EXPECT_EQ(recent.Text(), "");
  recent.Add("first\r\n");
  recent.Add("second");
  EXPECT_EQ(recent.Text(), "first\r\nsecond");
}

TEST(RecentOutput, BeginsWithAWholeLineWhereTheRestIsGone) {
  const std::string line = "0123456\n";  // whose length divides the size
  RecentOutput recent;
  for (size_t i = 0; i < RecentOutput::kSize; i += line.size()) recent.Add(line);
  EXPECT_EQ(recent.Text().size(), RecentOutput::kSize);
  recent.Add("x");
  EXPECT_EQ(recent.Text().size(), RecentOutput::kSize - line.size() + 1);
  EXPECT_TRUE(recent.Text().starts_with(line));
  RecentOutput at_once;
  at_once.Add("gone" + std::string(RecentOutput::kSize - 4, 'x') + "\nend");
  EXPECT_EQ(at_once.Text(), "end");
}

TEST(RecentOutput, KeepsALineThatIsLongerThanAll) {
  RecentOutput recent;
  recent.Add(std::string(3 * RecentOutput::kSize, 'x'));
  EXPECT_EQ(recent.Text(), std::string(RecentOutput::kSize, 'x'));
}

}  // namespace
}  // namespace zevctl
