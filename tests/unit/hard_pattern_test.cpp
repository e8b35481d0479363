#include "hard_pattern.h"

#include <gtest/gtest.h>
#include <regex.h>

#include <ctime>
#include <iostream>
#include <string>
#include <string_view>

#include "random_patterns.h"

using namespace zevd;

namespace {

std::string Repeated(std::string_view text, size_t times) {
  std::string all;
  for (size_t i = 0; i < times; ++i) all += text;
  return all;
}

bool IsHard(const std::string& pattern) {
  return IsHardPattern(pattern.c_str());
}

TEST(HardPatternTest, UsualPatternsAreNotHard) {
  for (const char* pattern :
       {"", "error", "disk.*error", "(disk|fan)[0-9]+ (bad|worn){1,2}", "^ERR-[0-9]{5}:", "x{80}",
        "([0-9]{1,3}\\.){3}[0-9]{1,3}", "([0-9a-f]{2}:){5}[0-9a-f]{2}", "[[:alpha:]_]+=[^ ]*",
        "(^|[^0-9])12([^0-9]|$)", "^a$|^b$|^c$", "(warn|err)(ing|or)?s?", "-{20,}", "a\\.b\\(c\\)",
        "((a|b)*c)*", "(a|b|c|)x", "\\bword\\b"}) {
    EXPECT_FALSE(IsHardPattern(pattern)) << pattern;
  }
}

TEST(HardPatternTest, BackReferencesAreHard) {
  for (const char* pattern : {"(a)\\1", "(ab+)\\1", "(a*)*\\1b", "x|(a)(b)\\2", "((a)\\2)", "\\9",
                              "[a](b)\\1", "[]](b)\\1", "[^]](b)\\1", "[[:alpha:]](b)\\1",
                              "\\\\(b)\\1", "[\\](b)\\1", "a{2}(b)\\1", "[[.].]](b)\\1"}) {
    EXPECT_TRUE(IsHardPattern(pattern)) << pattern;
  }
}

TEST(HardPatternTest, WhatOnlyLooksLikeABackReferenceIsNot) {
  for (const char* pattern :
       {"[\\1]", "[^\\1]", "[]\\1]", "[[:alpha:]\\1]", "[[=a=]\\1]", "\\\\1", "(a)1", "(a)\\0",
        "[[.].]\\1]", "(a)[\\]1", "a\\", "[\\1", "[a[:\\1"}) {
    EXPECT_FALSE(IsHardPattern(pattern)) << pattern;
  }
}

TEST(HardPatternTest, NestedCountsAreHardOnceThereAreMany) {
  EXPECT_TRUE(IsHardPattern("((a{1,255}){1,255}){1,255}"));
  EXPECT_TRUE(IsHardPattern("(a{20}){20}"));
  EXPECT_TRUE(IsHardPattern("(((((a{4}){4}){4}){4}){4})"));
  EXPECT_TRUE(IsHardPattern("(a{99999999999999999999}){99999999999999999999}"));
  EXPECT_FALSE(IsHardPattern("(a{4}){4}"));
}

TEST(HardPatternTest, OneCountIsHardBeyondTheBound) {
  EXPECT_FALSE(IsHardPattern("a{257}"));
  EXPECT_TRUE(IsHardPattern("a{258}"));
  EXPECT_FALSE(IsHardPattern("a{1,257}"));
  EXPECT_TRUE(IsHardPattern("a{1,258}"));
  EXPECT_TRUE(IsHardPattern("a{,258}"));
  EXPECT_TRUE(IsHardPattern("a{258,}"));
  EXPECT_TRUE(IsHardPattern("(ab){200}"));
  EXPECT_FALSE(IsHardPattern("a{0}b{1}c{,}d{}e{,1}"));
}

TEST(HardPatternTest, CountsAddUp) {
  EXPECT_FALSE(IsHard(Repeated("a{100}", 2)));
  EXPECT_TRUE(IsHard(Repeated("a{100}", 3)));
}

TEST(HardPatternTest, PlusesThatDoubleAreHardOnceThereAreMany) {
  EXPECT_FALSE(IsHardPattern("a+"));
  EXPECT_FALSE(IsHardPattern("((a+b)+c)+"));
  EXPECT_TRUE(IsHard("a" + Repeated("+", 12)));
  EXPECT_TRUE(IsHard(Repeated("(", 12) + "a" + Repeated(")+", 12)));
}

TEST(HardPatternTest, OptionalPartsAreHardOnceTheyAreLong) {
  EXPECT_FALSE(IsHard(Repeated("a?", 256) + "b"));
  EXPECT_TRUE(IsHard(Repeated("a?", 257) + "b"));
  EXPECT_TRUE(IsHard(Repeated("(a|)", 257)));
  EXPECT_TRUE(IsHard(Repeated("|", 257)));
  EXPECT_TRUE(IsHard(Repeated("()", 257)));
  EXPECT_TRUE(IsHard(Repeated("^", 257)));
  EXPECT_TRUE(IsHard(Repeated("(a?)*", 9)));
  EXPECT_TRUE(IsHard(Repeated("(^|$)", 9)));
  EXPECT_TRUE(IsHard(Repeated("(\\b|\\<)", 9)));
  EXPECT_FALSE(IsHard(Repeated("(a*)b*", 9)));
}

TEST(HardPatternTest, ManyChoicesAfterAPartOfUnknownLengthAreHard) {
  for (const char* pattern :
       {"a.*a.{20}x", "a.*a....................x", "^.*a.{20}x", "[ab]+a[ab]{30}x",
        "(a|b)*a(a|b){12}x", "[^x]{1,100}a[^x]{1,100}x", "a.*(\\w\\w\\W\\W){3}x", "(.*a|b).{20}x",
        "(a.{20}b)*", "a{3,}.{11}"}) {
    EXPECT_TRUE(IsHardPattern(pattern)) << pattern;
  }
  for (const char* pattern : {"a.*a.{10}x", "a.{200}x", "error.*code [0-9]{4}", "[0-9]{40}.*",
                              ".*[A-Z]+.*[0-9]+.*fail(ed|ure)", "x*0123456789abcdef", "[ab]{200}",
                              "disk.*(error|fail|bad).*on (sd[a-z]|nvme[0-9]n[0-9])"}) {
    EXPECT_FALSE(IsHardPattern(pattern)) << pattern;
  }
}

TEST(HardPatternTest, DeepGroupsAreHard) {
  EXPECT_FALSE(IsHard(Repeated("(", kDeepestPattern) + "a" + Repeated(")", kDeepestPattern)));
  EXPECT_TRUE(
      IsHard(Repeated("(", kDeepestPattern + 1) + "a" + Repeated(")", kDeepestPattern + 1)));
  EXPECT_TRUE(IsHard(Repeated("(", 8000)));
  EXPECT_FALSE(IsHard(Repeated(")", 8000)));
  EXPECT_FALSE(IsHard(Repeated("(a)", 1000)));
}

TEST(HardPatternTest, LongListsOfWordsAreNotHard) {
  EXPECT_FALSE(IsHard(Repeated("word|", 1000) + "last"));
}

// In processor time, which other programs do not add to.
TEST(HardPatternTest, OtherPatternsAreCompiledAndMatchedAtOnce) {
  constexpr double kMost = 0.5;  // seconds; a build with sanitizers takes ten times as long
  constexpr const char* kPieces[] = {"a", "b", ".", "^", "$", "()", "(a|)", "(a|b)", "(^|$)", "a?"};
  constexpr const char* kRepetitions[] = {"",     "*",    "+",      "?",     "{2}", "{1,3}",
                                          "{,4}", "{3,}", "{1,60}", "{200}", "+*",  "*+"};
  std::cout << "ZEVD_TEST_SEED=" << test::Seed() << '\n';
  test::Dice dice(test::Seed());
  const std::string line = Repeated("aababbb", 146);
  int not_hard = 0;
  for (int i = 0; i < 10000; ++i) {
    std::string pattern;
    for (size_t left = 1 + dice.Below(12); left > 0; --left) {
      if (dice.OneIn(6)) pattern = "(" + pattern + ")" + dice.Choose(kRepetitions);
      pattern += std::string(dice.Choose(kPieces)) + dice.Choose(kRepetitions);
    }
    if (IsHard(pattern)) continue;
    ++not_hard;
    const clock_t start = clock();
    regex_t expression;
    if (regcomp(&expression, pattern.c_str(), REG_EXTENDED) == 0) {
      regexec(&expression, line.c_str(), 0, nullptr, 0);
      regfree(&expression);
    }
    EXPECT_LT(static_cast<double>(clock() - start) / CLOCKS_PER_SEC, kMost) << pattern;
  }
  EXPECT_GT(not_hard, 1000);
}

}  // namespace
