// Well-formed UTF-8, and control characters that are not shown to anybody.
#include "utf8.h"

#include <gtest/gtest.h>

#include <string>

using namespace zevd;

namespace {

std::string Replaced(std::string text) {
  text.push_back('\0');
  ReplaceControls(text.data());
  return text.c_str();
}

std::string ReplacedLine(std::string text) {
  text.push_back('\0');
  ReplaceControlsOfLine(text.data());
  return text.c_str();
}

TEST(Utf8LengthTest, KnowsEveryLength) {
  EXPECT_EQ(Utf8Length("a\xC3"), 1U);
  EXPECT_EQ(Utf8Length("\xC3\xA9"), 2U);
  EXPECT_EQ(Utf8Length("\xE2\x82\xAC!"), 3U);
  EXPECT_EQ(Utf8Length("\xF0\x9F\x98\x80"), 4U);
  EXPECT_EQ(Utf8Length("\xF4\x8F\xBF\xBF"), 4U);
}

TEST(Utf8LengthTest, RefusesWhatIsNotWellFormed) {
  for (const char* text : {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC3", "\xC3(", "\xE0\x9F\xBF",
                           "\xED\xA0\x80", "\xE2\x82", "\xE2\x82(", "\xF0\x8F\xBF\xBF",
                           "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF"}) {
    EXPECT_EQ(Utf8Length(text), 0U) << testing::PrintToString(text);
  }
}

TEST(ReplaceControlsTest, LeavesTextAndTabs) {
  for (const char* text : {"", "anna", "a\tb", "\xC3\xA9t\xC3\xA9", "\xE2\x82\xAC",
                           "\xF0\x9F\x98\x80", "latin \xE9t\xE9"}) {
    EXPECT_EQ(Replaced(text), text);
  }
}

TEST(ReplaceControlsTest, ReplacesEveryControlCharacterByOneMark) {
  EXPECT_EQ(Replaced("\x1b[2Jroot"), "?[2Jroot");
  EXPECT_EQ(Replaced("\x01\x07\b\n\r\x1f\x7f"), "???????");
  EXPECT_EQ(Replaced("a\x9b"
                     "31mb"),
            "a?31mb");
  EXPECT_EQ(Replaced("a\xC2\x9b"
                     "31mb\xC2\x80\xC2\x9F"),
            "a?31mb??");
  EXPECT_EQ(Replaced("\xC2\xA0"), "\xC2\xA0");
}

// A terminal that takes overlong forms would find a control character in these.
TEST(ReplaceControlsTest, FindsBareBytesInMalformedCharacters) {
  EXPECT_EQ(Replaced("\xE0\x82\x9B"), "\xE0??");
  EXPECT_EQ(Replaced("\xF0\x9F\x98"), "\xF0??");
}

TEST(ReplaceControlsOfLineTest, KeepsTheLineEnd) {
  EXPECT_EQ(ReplacedLine("reboot at five\n"), "reboot at five\n");
  EXPECT_EQ(ReplacedLine("a\x1b[7m\r\n"), "a?[7m\r\n");
  EXPECT_EQ(ReplacedLine("a\rb\xC2\x9B\n"), "a?b?\n");
  EXPECT_EQ(ReplacedLine("\n"), "\n");
  EXPECT_EQ(ReplacedLine(""), "");
}

}  // namespace
