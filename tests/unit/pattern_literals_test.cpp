#include "pattern_literals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "random_patterns.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Texts = std::vector<std::string>;

// A pattern that the system refuses would promise nothing.
Texts LiteralsOf(const std::string& pattern) {
  regex_t compiled;
  EXPECT_EQ(regcomp(&compiled, pattern.c_str(), REG_EXTENDED), 0) << pattern;
  regfree(&compiled);
  Texts texts;
  for (const Literal& literal : MandatoryLiterals(pattern.c_str())) {
    texts.emplace_back(literal.Text());
  }
  return texts;
}

struct Row {
  const char* pattern;
  Texts literals;
};

void ExpectRows(const std::vector<Row>& rows) {
  for (const Row& row : rows) EXPECT_EQ(LiteralsOf(row.pattern), row.literals) << row.pattern;
}

TEST(PatternLiterals, PlainTextIsItsOwnLiteral) {
  ExpectRows(
      {{"error", {"error"}}, {" disk error", {" disk error"}}, {"a", {"a"}}, {"\t-", {"\t-"}}});
}

TEST(PatternLiterals, LettersAreFolded) {
  ExpectRows({{"Disk ERROR [A]", {"disk error a"}}, {"\\[Z\\]@`", {"[z]@`"}}});
}

TEST(PatternLiterals, TheLongestRunIsTaken) {
  ExpectRows({{"disk.*error", {"error"}},
              {"errors.*disk", {"errors"}},
              {"abc.def", {"abc"}},
              {"a.bc.def.g", {"def"}},
              {"[0-9]+: link [[:alpha:]]", {": link "}}});
}

TEST(PatternLiterals, OptionalPartsAreNotPromised) {
  ExpectRows({{"colou?r", {"colo"}},
              {"ab*cd", {"cd"}},
              {"ab{0}cd", {"cd"}},
              {"ab{0,3}cd", {"cd"}},
              {"ab{,3}cd", {"cd"}},
              {"ab{,}cd", {"cd"}},
              {"ab{00}cd", {"cd"}},
              {"(error)?x", {"x"}},
              {"(error)*", {}},
              {"(error){0,1}", {}},
              {"(error)+?", {}},
              {"(error){2}{0}", {}},
              {"x?", {}}});
}

TEST(PatternLiterals, RepeatedPartsAreThereOnce) {
  ExpectRows({{"ab+cd", {"bcd"}},
              {"abc+d", {"abc"}},
              {"x(error)+y", {"xerror"}},
              {"(error){2}", {"error"}},
              {"(error){1,}", {"error"}},
              {"(error){10,20}", {"error"}},
              {"(ab.*c)+def", {"cdef"}},
              {"(error)++", {"error"}}});
}

TEST(PatternLiterals, GroupsAreTransparent) {
  ExpectRows({{"(disk) (error)", {"disk error"}},
              {"((d)((i)s))k", {"disk"}},
              {"a()b", {"ab"}},
              {"(a.b)c", {"bc"}},
              {"x(abc.*de)f", {"xabc"}},
              {"()", {}}});
}

TEST(PatternLiterals, AnchorsTakeNoRoom) {
  ExpectRows({{"^error$", {"error"}},
              {"disk\\> \\<error", {"disk error"}},
              {"\\bdisk\\b", {"disk"}},
              {"\\`a\\Bb\\'", {"ab"}},
              {"a^b$c", {"abc"}},
              {"^$", {}},
              {"(^|x)error", {"error"}}});
}

TEST(PatternLiterals, EveryAlternativePromisesOne) {
  ExpectRows({{"disk|fan", {"disk", "fan"}},
              {"(disk|fan|psu)", {"disk", "fan", "psu"}},
              {"the (disk|fan) is", {"the "}},
              {"a(disk|fan)b", {"disk", "fan"}},
              {"(disk|fan)[0-9] is bad", {" is bad"}},
              {"(disk.*bad|worn.*fan)", {"disk", "worn"}},
              {"(dis|wor)(k1|n23)", {"dis", "wor"}},
              {"((a1|b12)|c123)", {"a1", "b12", "c123"}}});
}

TEST(PatternLiterals, AlternativesThatPromiseNothingSpoilTheRest) {
  ExpectRows({{"disk|", {}},
              {"|disk", {}},
              {"disk||fan", {}},
              {"disk|.*", {}},
              {"disk|fan?|f?", {}},
              {"(disk|)x", {"x"}},
              {"(|disk)x", {"x"}},
              {"disk|[0-9]", {}}});
}

TEST(PatternLiterals, CommonPartsOfAlternativesAreKept) {
  ExpectRows({{"(error|error [0-9]x)", {"error"}},
              {"xy(za|zb)", {"xyz"}},
              {"(bad|sad) day", {"ad day"}},
              {"(abcd1|abcd2|abcd3)", {"abcd1", "abcd2", "abcd3"}}});
}

TEST(PatternLiterals, SixteenAlternativesAreKeptApart) {
  std::string pattern = "xa";
  for (char letter = 'b'; letter <= 'p'; ++letter) pattern += std::string("|x") + letter;
  EXPECT_EQ(LiteralsOf(pattern).size(), LiteralSet::kCapacity);
  EXPECT_EQ(LiteralsOf(pattern).back(), "xp");
  EXPECT_THAT(LiteralsOf(pattern + "|xq"), ElementsAre("x")) << "only what they have in common";
  EXPECT_THAT(LiteralsOf(pattern + "|q"), IsEmpty());
}

TEST(PatternLiterals, EscapedBytesStandForThemselves) {
  ExpectRows({{"10\\.0\\.0\\.1", {"10.0.0.1"}},
              {"\\(a\\)\\*\\+\\?\\{\\|\\}\\[\\]\\^\\$\\\\", {"(a)*+?{|}[]^$\\"}},
              {"a\\*?b", {"a"}},
              {"\\-\\/\\ \\\"", {"-/ \""}}});
}

TEST(PatternLiterals, EscapedLettersAreSetsOrNotKnown) {
  for (const char* letter : {"\\w", "\\W", "\\s", "\\S", "\\d", "\\n", "\\Q", "\\0"}) {
    EXPECT_THAT(LiteralsOf(std::string("ab") + letter + "cde"), ElementsAre("cde")) << letter;
  }
}

TEST(PatternLiterals, BackReferencesAreNotUnderstood) {
  ExpectRows({{"(a)\\1", {}}, {"(disk)error\\1", {}}, {"error|(x)\\1", {}}, {"a\\\\1", {"a\\1"}}});
}

TEST(PatternLiterals, BracketsOfOneByteAreThatByte) {
  ExpectRows({{"10[.]0[.]0", {"10.0.0"}},
              {"[Ee]rror", {"error"}},
              {"x[]]y", {"x]y"}},
              {"x[[]y", {"x[y"}},
              {"x[-]y", {"x-y"}},
              {"x[\\]y", {"x\\y"}},
              {"x[$]y", {"x$y"}},
              {"x[aAa]*y", {"x"}}});
}

TEST(PatternLiterals, BracketsEndWhereTheSystemSaysSo) {
  ExpectRows({{"a[xyz]bc", {"bc"}},        {"a[^x]bc", {"bc"}},         {"a[^]x]bc", {"bc"}},
              {"a[]x]bc", {"bc"}},         {"a[x[]bc", {"bc"}},         {"a[a-z]bc", {"bc"}},
              {"a[a-a]bc", {"bc"}},        {"a[x-]bc", {"bc"}},         {"a[[:alpha:]]bc", {"bc"}},
              {"a[[:alpha:]x]bc", {"bc"}}, {"a[^[:alpha:]]bc", {"bc"}}, {"a[[=a=]]bc", {"bc"}},
              {"a[[=]=]x]bc", {"bc"}},     {"a[[.].]x]bc", {"bc"}},     {"a[[.-.]x]bc", {"bc"}},
              {"a[+-[.a.]]bc", {"bc"}},    {"a[\\]]bc", {"a\\]bc"}},    {"a[\\w]bc", {"bc"}},
              {"a[(|]bc", {"bc"}},         {"a[*][{]bc", {"a*{bc"}}});
}

TEST(PatternLiterals, SpecialBytesInOddPlacesStandForThemselves) {
  ExpectRows({{"a)b", {"a)b"}},
              {"a)*b", {"a"}},
              {"a}b", {"a}b"}},
              {"a]b", {"a]b"}},
              {"a|)", {"a", ")"}},
              {"a,b-c", {"a,b-c"}}});
}

TEST(PatternLiterals, BytesBeyondAsciiAreNeverPromised) {
  ExpectRows({{"\xc3\x9c"
               "berlauf",
               {"berlauf"}},
              {"\xff\xfe", {}},
              {"ab\xe9*cd", {"ab"}},
              {"ab\\\xe9"
               "cde",
               {"cde"}},
              {"ab[\xe9]cde", {"cde"}}});
}

TEST(PatternLiterals, LongRunsAreCut) {
  const std::string run = "0123456789abcdefghijklmnopqrstuvwxyz";
  EXPECT_THAT(LiteralsOf(run), ElementsAre(run.substr(0, Literal::kCapacity)));
  EXPECT_THAT(LiteralsOf("(" + run + ")"), ElementsAre(run.substr(0, Literal::kCapacity)));
  EXPECT_THAT(LiteralsOf(run + ".*" + run), ElementsAre(run.substr(0, Literal::kCapacity)));
  EXPECT_THAT(LiteralsOf(std::string(8000, 'x')), ElementsAre(std::string(31, 'x')));
}

TEST(PatternLiterals, DeepGroupsAreNotUnderstood) {
  const auto nested = [](size_t depth) {
    return std::string(depth, '(') + "error" + std::string(depth, ')');
  };
  EXPECT_THAT(LiteralsOf(nested(24)), ElementsAre("error"));
  EXPECT_THAT(LiteralsOf(nested(25)), IsEmpty());
}

// The system refuses these; nothing may depend on it.
TEST(PatternLiterals, InvalidPatternsPromiseNothing) {
  for (const char* pattern : {"*a", "+a",  "?a",  "{2}a", "a|*b",      "(*a)",   "^*a", "\\b*a",
                              "a{", "a{2", "a{}", "a{b}", "a{1,2,3}",  "a{\\0}", "a(",  "a(b",
                              "a[", "a[b", "a[]", "a[^]", "a[[:alpha", "a[[.x]", "a\\"}) {
    EXPECT_EQ(MandatoryLiterals(pattern).count, 0U) << pattern;
  }
}

// ---- Compared with the system's matcher ---------------------------------------------------------

bool HoldsOne(const std::string& line, const LiteralSet& literals) {
  std::string folded = line;
  for (char& byte : folded) byte = static_cast<char>(FoldCase(static_cast<unsigned char>(byte)));
  return std::any_of(literals.begin(), literals.end(), [&](const Literal& literal) {
    return folded.find(literal.Text()) != std::string::npos;
  });
}

/// What a comparison has come across; without enough of each it would prove nothing.
struct Tally {
  int patterns = 0;
  int with_literals = 0;
  int matches_with_literals = 0;
  int lines_without_literal = 0;
};

void ComparePattern(const test::RandomPattern& random, test::Dice& dice, Tally& tally) {
  constexpr int kLines = 8;
  regex_t compiled;
  const int flags = REG_EXTENDED | REG_NOSUB | (random.any_case ? REG_ICASE : 0);
  if (regcomp(&compiled, random.pattern.c_str(), flags) != 0) return;
  const LiteralSet literals = MandatoryLiterals(random.pattern.c_str());
  ++tally.patterns;
  tally.with_literals += literals.count > 0;
  for (int i = 0; i < kLines && literals.count > 0; ++i) {
    const std::string line = test::MakeLine({random}, dice);
    const bool matches = regexec(&compiled, line.c_str(), 0, nullptr, 0) == 0;
    const bool holds_one = HoldsOne(line, literals);
    EXPECT_TRUE(holds_one || !matches)
        << '"' << random.pattern << "\" matches \"" << line << "\" without "
        << ::testing::PrintToString(LiteralsOf(random.pattern));
    tally.matches_with_literals += matches;
    tally.lines_without_literal += !holds_one;
  }
  regfree(&compiled);
}

TEST(PatternLiterals, NoTextIsMatchedWithoutThem) {
  constexpr int kPatterns = 20000;
  std::cout << "ZEVD_TEST_SEED=" << test::Seed() << '\n';
  test::Dice dice(test::Seed());
  Tally tally;
  for (int i = 0; i < kPatterns && !HasFailure(); ++i) {
    ComparePattern(test::MakePattern(dice), dice, tally);
  }
  if (HasFailure()) return;
  EXPECT_GT(tally.patterns, kPatterns * 9 / 10);
  EXPECT_GT(tally.with_literals, kPatterns / 2);
  EXPECT_GT(tally.matches_with_literals, kPatterns);
  EXPECT_GT(tally.lines_without_literal, kPatterns / 4);
}

}  // namespace
