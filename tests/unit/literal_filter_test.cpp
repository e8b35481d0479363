#include "literal_filter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Numbers = std::vector<size_t>;

Numbers MembersOf(const NumberSet& set, size_t size) {
  Numbers members;
  for (size_t i = set.Next(0); i < size; i = set.Next(i + 1)) members.push_back(i);
  return members;
}

/// Patterns and the filter for them.
class Filter {
 public:
  explicit Filter(std::vector<std::string> patterns) : patterns_(std::move(patterns)) {
    std::vector<const char*> texts;
    for (const std::string& pattern : patterns_) texts.push_back(pattern.c_str());
    built_ = filter_.Build(texts.data(), texts.size());
  }
  bool built() const { return built_; }
  size_t Size() const { return filter_.Size(); }
  Numbers Candidates(std::string_view text) const {
    return MembersOf(filter_.Candidates(text), patterns_.size());
  }

 private:
  std::vector<std::string> patterns_;
  LiteralFilter filter_;
  bool built_;
};

// ---- NumberSet ----------------------------------------------------------------------------------

TEST(NumberSet, GivesItsMembersInOrder) {
  NumberSet set(200);
  EXPECT_THAT(MembersOf(set, 200), IsEmpty());
  for (const size_t number : {199U, 0U, 64U, 63U, 127U, 63U}) set.Add(number);
  EXPECT_THAT(MembersOf(set, 200), ElementsAre(0, 63, 64, 127, 199));
  EXPECT_EQ(set.Next(65), 127U);
  EXPECT_EQ(set.Next(200), 200U);
  EXPECT_TRUE(set.Contains(63));
  EXPECT_FALSE(set.Contains(62));
}

TEST(NumberSet, CopiesAreApart) {
  NumberSet set(130);
  set.Add(129);
  NumberSet copy = set;
  copy.Add(1);
  EXPECT_THAT(MembersOf(set, 130), ElementsAre(129));
  EXPECT_THAT(MembersOf(copy, 130), ElementsAre(1, 129));
  NumberSet assigned(0);
  assigned = set;
  EXPECT_THAT(MembersOf(assigned, 130), ElementsAre(129));
}

TEST(NumberSet, TakesWhatItSaysItTakes) {
  NumberSet set(NumberSet::kCapacity);
  set.Add(NumberSet::kCapacity - 1);
  EXPECT_THAT(MembersOf(set, NumberSet::kCapacity), ElementsAre(NumberSet::kCapacity - 1));
  EXPECT_EQ(NumberSet(0).Next(0), 0U);
}

// ---- LiteralFilter ------------------------------------------------------------------------------

TEST(LiteralFilter, NamesThePatternsWhoseLiteralIsThere) {
  const Filter filter({"disk.*error", "fan", "power (lost|back)"});
  ASSERT_TRUE(filter.built());
  EXPECT_THAT(filter.Candidates("error on disk 2\n"), ElementsAre(0));
  EXPECT_THAT(filter.Candidates("fan error"), ElementsAre(0, 1));
  EXPECT_THAT(filter.Candidates("power ok, fan ok"), ElementsAre(1, 2));
  EXPECT_THAT(filter.Candidates("err or disk"), IsEmpty());
  EXPECT_THAT(filter.Candidates(""), IsEmpty());
}

TEST(LiteralFilter, CaseIsIgnoredInAsciiAlone) {
  const Filter filter({"Disk", "\\{x", "ab@"});
  EXPECT_THAT(filter.Candidates("dISK"), ElementsAre(0));
  EXPECT_THAT(filter.Candidates("{X"), ElementsAre(1));
  EXPECT_THAT(filter.Candidates("[x"), IsEmpty());
  EXPECT_THAT(filter.Candidates("ab`"), IsEmpty());
  EXPECT_THAT(filter.Candidates("\xe4\xe9sk"), IsEmpty());
}

TEST(LiteralFilter, PatternsWithoutLiteralsAreAlwaysNamed) {
  const Filter filter({"[0-9]+", "disk", ".*", "(a)\\1"});
  EXPECT_THAT(filter.Candidates("x"), ElementsAre(0, 2, 3));
  EXPECT_THAT(filter.Candidates("disk"), ElementsAre(0, 1, 2, 3));
}

TEST(LiteralFilter, OneOfSeveralLiteralsIsEnough) {
  const Filter filter({"disk|fan", "fan|psu"});
  EXPECT_THAT(filter.Candidates("disk"), ElementsAre(0));
  EXPECT_THAT(filter.Candidates("fan"), ElementsAre(0, 1));
  EXPECT_THAT(filter.Candidates("psu fan disk"), ElementsAre(0, 1));
}

TEST(LiteralFilter, LiteralsMayShareAndOverlap) {
  const Filter filter({"she", "hers", "his", "he", "e", "shers", "rsh"});
  EXPECT_THAT(filter.Candidates("ushers"), ElementsAre(0, 1, 3, 4, 5));
  EXPECT_THAT(filter.Candidates("hhis"), ElementsAre(2));
  EXPECT_THAT(filter.Candidates("shhe"), ElementsAre(3, 4));
  EXPECT_THAT(filter.Candidates("shersh"), ElementsAre(0, 1, 3, 4, 5, 6));
  EXPECT_THAT(filter.Candidates("shisher"), ElementsAre(0, 2, 3, 4));
}

TEST(LiteralFilter, SameLiteralMayServeManyPatterns) {
  const std::vector<std::string> patterns(300, "error[0-9]");
  const Filter filter(patterns);
  EXPECT_EQ(filter.Candidates("an error").size(), patterns.size());
  EXPECT_THAT(filter.Candidates("an erro"), IsEmpty());
}

TEST(LiteralFilter, EveryByteIsLookedAt) {
  const Filter filter({"abc"});
  const std::string line(8189, 'x');
  EXPECT_THAT(filter.Candidates(line + "abc"), ElementsAre(0));
  EXPECT_THAT(filter.Candidates("abc" + line), ElementsAre(0));
  EXPECT_THAT(filter.Candidates(line + "ab"), IsEmpty());
}

// Every literal of up to three out of three letters, and lines of such letters, compared with a
// plain search.
TEST(LiteralFilter, AgreesWithAPlainSearch) {
  std::vector<std::string> words = {"a", "b", "c"};
  for (size_t i = 0; words[i].size() < 3; ++i) {
    for (const char letter : {'a', 'b', 'c'}) words.push_back(words[i] + letter);
  }
  const size_t all = words.size();
  for (size_t step = 1; step <= all; ++step) {
    std::vector<std::string> patterns;
    for (size_t i = step - 1; i < all; i += step) patterns.push_back(words[i]);
    const Filter filter(patterns);
    for (size_t i = 0; i < all * all; ++i) {
      const std::string line = words[i % all] + "x" + words[i / all] + words[i % all];
      Numbers expected;
      for (size_t number = 0; number < patterns.size(); ++number) {
        if (line.find(patterns[number]) != std::string::npos) expected.push_back(number);
      }
      ASSERT_EQ(filter.Candidates(line), expected) << line << " with every " << step << "th word";
    }
  }
}

// ---- Where there is no filter -------------------------------------------------------------------

TEST(LiteralFilter, WithoutLiteralsThereIsNone) {
  EXPECT_FALSE(Filter({}).built());
  EXPECT_FALSE(Filter({"[0-9]+", ".*", ""}).built());
}

std::string Number(size_t number) {
  return std::to_string(1000000 + number);
}

TEST(LiteralFilter, SoManyPatternsAndNotOneMore) {
  std::vector<std::string> patterns(NumberSet::kCapacity, "error");
  EXPECT_THAT(Filter(patterns).Candidates("errors").size(), NumberSet::kCapacity);
  patterns.emplace_back("error");
  EXPECT_FALSE(Filter(patterns).built());
}

// That many different alternatives of three bytes, sixteen in each pattern.
std::vector<std::string> PatternsWithLiterals(size_t count) {
  constexpr std::string_view kBytes = "abcdefghijklmnopqrstuvwxyz0123456789";
  std::vector<std::string> patterns;
  for (size_t i = 0; i < count; ++i) {
    if (i % 16 == 0) patterns.emplace_back();
    if (i % 16 != 0) patterns.back() += '|';
    for (size_t rest = i, byte = 0; byte < 3; ++byte, rest /= kBytes.size()) {
      patterns.back() += kBytes[rest % kBytes.size()];
    }
  }
  return patterns;
}

TEST(LiteralFilter, SoManyLiteralsAndNotOneMore) {
  EXPECT_TRUE(Filter(PatternsWithLiterals(NumberSet::kCapacity - 1)).built());
  EXPECT_FALSE(Filter(PatternsWithLiterals(NumberSet::kCapacity)).built());
}

TEST(LiteralFilter, LongLiteralsAreCutWhenThereAreVeryMany) {
  std::vector<std::string> patterns;
  while (patterns.size() < 1500) patterns.push_back(Number(patterns.size()) + " of many words");
  EXPECT_THAT(Filter(patterns).Candidates("1001234 of many words"), ElementsAre(1234));
  EXPECT_THAT(Filter(patterns).Candidates("1001234 of many"), IsEmpty());
  while (patterns.size() < 3000) patterns.push_back(Number(patterns.size()) + " of many words");
  EXPECT_THAT(Filter(patterns).Candidates("1001234 of many"), ElementsAre(1234)) << "7 bytes";
  EXPECT_THAT(Filter(patterns).Candidates("100123"), IsEmpty());
  while (patterns.size() < 8000) patterns.push_back(Number(patterns.size()) + " of many words");
  EXPECT_THAT(Filter(patterns).Candidates("100").size(), patterns.size()) << "3 bytes";
  EXPECT_LT(Filter(patterns).Size(), LiteralFilter::kMostTableBytes);
}

TEST(LiteralFilter, TablesAreLimited) {
  std::vector<std::string> patterns;
  for (size_t i = 0; i < 700; ++i) {
    patterns.emplace_back("aaaa");
    for (char letter = 'b'; letter <= 'p'; ++letter)
      patterns.back() += "|" + std::string(4, letter);
  }
  EXPECT_FALSE(Filter(patterns).built());
  patterns.resize(600);
  EXPECT_TRUE(Filter(patterns).built());
}

TEST(LiteralFilter, TakesFewBytesForEachPattern) {
  std::vector<std::string> patterns;
  for (size_t i = 0; i < 100; ++i) patterns.push_back("unit " + Number(i) + " is (bad|worn)");
  EXPECT_LT(Filter(patterns).Size(), 100U * 1024U);
}

TEST(LiteralFilter, RunningOutOfMemoryGivesNoFilter) {
  const std::vector<const char*> patterns = {"disk", "fan"};
  int failing = 1;
  for (;; ++failing) {
    LiteralFilter filter;
    const test::DebugCapture capture(kDetail);
    bool built = false;
    {
      const test::FailAllocation failure(failing);
      built = filter.Build(patterns.data(), patterns.size());
      EXPECT_EQ(built, !failure.reached()) << failing;
    }
    EXPECT_THAT(capture.Messages(), IsEmpty());
    if (built) break;
  }
  EXPECT_GT(failing, 5);
}

}  // namespace
