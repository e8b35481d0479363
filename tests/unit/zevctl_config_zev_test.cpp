#include <gmock/gmock.h>

#include "config_zev.h"

namespace zevctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kLine[] = "lab1 192.0.2.10 2001 23 6501 A200 rack1 \"Some OS 5.1\" 1 0 1 0 disk \n";

std::vector<Finding> FindingsOf(const std::string& text) {
  Findings findings;
  ReadZevConf(text, "f", findings);
  return findings.Sorted();
}

TEST(ConfigZevTest, EveryFieldHasItsPlace) {
  Findings findings;
  const auto consoles = ReadZevConf(std::string("# first\n") + kLine, "f", findings);
  ASSERT_THAT(consoles, SizeIs(1));
  std::vector<std::string> texts;
  std::vector<size_t> columns;
  for (const ConfigText& field : consoles.front().fields) {
    texts.push_back(field.text);
    columns.push_back(field.place.column);
    EXPECT_EQ(field.place.line, 2U);
  }
  EXPECT_THAT(texts, ElementsAre("lab1", "192.0.2.10", "2001", "23", "6501", "A200", "rack1",
                                 "Some OS 5.1", "1", "0", "1", "0", "disk"));
  EXPECT_THAT(columns, ElementsAre(1, 6, 17, 22, 25, 30, 35, 41, 55, 57, 59, 61, 63));
  EXPECT_TRUE(findings.empty());
}

TEST(ConfigZevTest, CommentsAndBlankLinesAreSkipped) {
  EXPECT_THAT(FindingsOf("\n#\n   \n  # a b\n \n"), IsEmpty());
}

TEST(ConfigZevTest, ManyBlanksSeparateAsOneDoes) {
  Findings findings;
  const auto consoles =
      ReadZevConf("  a   1.2.3.4 1 0 0  A p \"o\"  1 1 1 1 \"\"   \n", "f", findings);
  ASSERT_THAT(consoles, SizeIs(1));
  EXPECT_EQ(consoles.front().Text(kFieldEventsFile), kNoEventsFile);
  EXPECT_TRUE(findings.empty());
}

TEST(ConfigZevTest, TheLastLineNeedsNoLineEndAndThenNoBlank) {
  const std::string line = kLine;
  EXPECT_THAT(FindingsOf(line.substr(0, line.size() - 2)), IsEmpty());
}

TEST(ConfigZevTest, EachMissingFieldIsNamed) {
  const std::vector<std::string> words = {"a", "1.2.3.4", "1", "0", "0", "A",
                                          "p", "\"o\"",   "1", "1", "1", "1"};
  std::string line;
  for (size_t i = 0; i < words.size(); ++i) {
    line += (i == 0 ? "" : " ") + words[i];
    for (const char* end : {"\n", " \n", ""}) {
      const auto findings = FindingsOf(line + end);
      ASSERT_THAT(findings, SizeIs(1)) << line;
      EXPECT_THAT(findings.front().what, HasSubstr(kConfigFieldTitles.at(i + 1))) << line;
    }
  }
}

TEST(ConfigZevTest, WhatIsWrittenIsReadAgain) {
  Findings findings;
  const auto consoles = ReadZevConf(kLine, "f", findings);
  const std::string text = WriteZevConf(consoles);
  EXPECT_EQ(text.substr(text.find('\n') + 1), kLine);
  EXPECT_EQ(OriginOf(text), ZevConfOrigin::kApplied);
}

TEST(ConfigZevTest, TheFirstLineTellsWhoWroteTheFile) {
  Findings findings;
  const std::string text = WriteZevConf(ReadZevConf(kLine, "f", findings));
  EXPECT_EQ(OriginOf(text + kLine), ZevConfOrigin::kEdited);
  EXPECT_EQ(OriginOf(text.substr(0, text.find('\n') + 1)), ZevConfOrigin::kEdited);
  EXPECT_EQ(OriginOf(kLine), ZevConfOrigin::kForeign);
  EXPECT_EQ(OriginOf("# nothing\n\n  \n"), ZevConfOrigin::kEmpty);
  EXPECT_EQ(OriginOf(""), ZevConfOrigin::kEmpty);
  EXPECT_EQ(OriginOf(WriteZevConf({})), ZevConfOrigin::kApplied);
}

TEST(ConfigZevTest, BytesThatTheDaemonTakesOtherwiseAreNamed) {
  using std::string_literals::operator""s;
  EXPECT_THAT(FindingsOf("a\0b 1.2.3.4\n"s).front().what, HasSubstr("NUL"));
  EXPECT_EQ(FindingsOf(std::string(8190, 'x') + " \n").front().place.column, 8192U);
}

}  // namespace
}  // namespace zevctl
