#include "reg_expr.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "hard_pattern.h"
#include "random_patterns.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kFile[] = "root/patterns";

/// What a pattern line says.
struct Line {
  std::string name;
  int priority;
  int case_sensitive;
  std::string pattern;
  bool operator==(const Line& other) const = default;
};

std::ostream& operator<<(std::ostream& out, const Line& line) {
  return out << line.name << " " << line.priority << " " << line.case_sensitive << " \""
             << line.pattern << '"';
}

struct Match {
  int found;
  std::string pattern;
  int priority;
};

class RegExprTest : public test::RelayTest {
 protected:
  RegExprTest() : list_(NewRegExList("re_list")) {}
  ~RegExprTest() override { FreeRegExList(list_); }

  int Parse(std::string_view content) {
    test::WriteFile(kFile, content);
    return ParseRegExFile(kFile, list_);
  }

  std::vector<Line> Lines() const {
    std::vector<Line> lines;
    for (const RegExNode* node : Nodes(*list_)) {
      lines.push_back({node->jix_name, node->priority, node->case_sensitive, node->pattern});
    }
    return lines;
  }

  // The matching pattern's text and priority; unchanged when there is none.
  Match MatchOf(std::string_view record) const {
    char* pattern = nullptr;
    int priority = -12345;
    const int found =
        MatchPattern(record.data(), static_cast<int>(record.size()), list_, &pattern, &priority);
    const std::unique_ptr<char, decltype(&free)> owned(pattern, free);
    return {found, pattern == nullptr ? "" : pattern, priority};
  }

  bool Matches(std::string_view record) const { return MatchOf(record).found == 1; }

  test::StationRoot root_;
  RegExList* list_;
};

// ---- ParseRegExFile: the fields -----------------------------------------------------------------

TEST_F(RegExprTest, ReadsTheFourFieldsInFileOrder) {
  EXPECT_EQ(Parse("disk_err 300 0 disk.*error\nfan 7 1 fan failed\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"disk_err", 300, 0, "disk.*error"},
                                   Line{"fan", 7, 1, "fan failed"}));
  EXPECT_EQ(list_->count, 2);
}

TEST_F(RegExprTest, SpacesBeforeTheFirstThreeFieldsAreSkipped) {
  EXPECT_EQ(Parse("  disk   300    0 disk\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"disk", 300, 0, "disk"}));
}

TEST_F(RegExprTest, FurtherSpacesAfterTheCaseIndicatorBelongToThePattern) {
  EXPECT_EQ(Parse("a 1 0  x\nb 1 0   \nc 1 0 x  y \n"), 0);
  EXPECT_THAT(Lines(),
              ElementsAre(Line{"a", 1, 0, " x"}, Line{"b", 1, 0, "  "}, Line{"c", 1, 0, "x  y "}));
}

TEST_F(RegExprTest, TabIsNotASeparator) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(Parse("a\tb 1 0 \tx\ty\na\t1\t0\tx\n\t\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"a\tb", 1, 0, "\tx\ty"}));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("ParseRegExFile: Priority missing in line 2 of root/patterns\n",
                          "ParseRegExFile: Priority missing in line 3 of root/patterns\n"));
}

TEST_F(RegExprTest, LineEndsAreNotPartOfThePattern) {
  EXPECT_EQ(Parse("a 1 0 x\r\nb 2 0 y\rz\nc 3 0 last"), 0);
  EXPECT_THAT(Lines(),
              ElementsAre(Line{"a", 1, 0, "x"}, Line{"b", 2, 0, "y"}, Line{"c", 3, 0, "last"}));
}

TEST_F(RegExprTest, CarriageReturnSeparatesTheFirstThreeFields) {
  EXPECT_EQ(Parse("\ra\r1\r0\rx\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"a", 1, 0, "x"}));
}

TEST_F(RegExprTest, PriorityThatIsNoNumberIsZero) {
  EXPECT_EQ(Parse("a high 0 x\nb -5 0 x\nc 12th 0 x\nd +3 0 x\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"a", 0, 0, "x"}, Line{"b", -5, 0, "x"},
                                   Line{"c", 12, 0, "x"}, Line{"d", 3, 0, "x"}));
}

TEST_F(RegExprTest, OnlyAPlainZeroIgnoresCase) {
  for (const char* indicator : {"0", "1", "00", "-0", "0x", "no", "2"}) {
    EXPECT_EQ(Parse("a 1 " + std::string(indicator) + " Disk\n"), 0);
    EXPECT_EQ(Lines().at(0).case_sensitive, atoi(indicator)) << indicator;
    EXPECT_TRUE(Matches("Disk\n")) << indicator;
    EXPECT_EQ(Matches("dISK\n"), strcmp(indicator, "0") == 0) << indicator;
  }
}

TEST_F(RegExprTest, ThereAreNoComments) {
  EXPECT_EQ(Parse("# 5 1 not a comment\n#two words here\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"#", 5, 1, "not a comment"}));
  EXPECT_EQ(Parse("# one word more than three\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"#", 0, 0, "more than three"}));
}

TEST_F(RegExprTest, FileReplacesTheList) {
  EXPECT_EQ(Parse("a 1 0 x\n"), 0);
  EXPECT_EQ(Parse("b 2 1 y\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"b", 2, 1, "y"}));
}

// ---- ParseRegExFile: what is wrong --------------------------------------------------------------

TEST_F(RegExprTest, BlankLinesAreSkippedSilentlyButCounted) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(Parse("\n   \n\r\n \r \nbad\n"), 0);
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(capture.Messages(),
              ElementsAre("ParseRegExFile: Priority missing in line 5 of root/patterns\n"));
}

TEST_F(RegExprTest, EveryMissingFieldIsReportedByLineNumberAndLosesOnlyItsLine) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(Parse("a 1 0 first\nb 2 0\nc\nd 4\n\ne 5 0 \nf 6 0 last\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"a", 1, 0, "first"}, Line{"f", 6, 0, "last"}));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("ParseRegExFile: Pattern missing in line 2 of root/patterns\n",
                          "ParseRegExFile: Priority missing in line 3 of root/patterns\n",
                          "ParseRegExFile: Case indicator missing in line 4 of root/patterns\n",
                          "ParseRegExFile: Pattern missing in line 6 of root/patterns\n"));
}

TEST_F(RegExprTest, BadExpressionsAreReportedAndLeftOut) {
  constexpr const char* kBad[] = {"a(b", "a[b", "a\\", "*a", "a{2,1}", "[[:nothing:]]", "a**{"};
  for (const char* pattern : kBad) {
    regex_t compiled;
    const int error = regcomp(&compiled, pattern, REG_EXTENDED);
    if (error == 0) {  // "*a" and its like are taken by some libraries
      regfree(&compiled);
      continue;
    }
    char reason[200];
    regerror(error, &compiled, reason, sizeof reason);
    const test::DebugCapture capture(0);
    EXPECT_EQ(Parse("a 1 1 good\nb 2 1 " + std::string(pattern) + "\nc 3 1 good too\n"), 0);
    EXPECT_THAT(Lines(), ElementsAre(Line{"a", 1, 1, "good"}, Line{"c", 3, 1, "good too"}));
    EXPECT_THAT(capture.Messages(), ElementsAre("ParseRegExFile: regcomp() failed for pattern " +
                                                std::string(pattern) + " : " + reason + "\n"));
  }
}

TEST_F(RegExprTest, ReasonsAreThoseOfTheSystem) {
  const test::DebugCapture capture(0);
  Parse("a 1 1 a(b\n");
  EXPECT_THAT(
      capture.Messages(),
      ElementsAre("ParseRegExFile: regcomp() failed for pattern a(b : Unmatched ( or \\(\n"));
}

TEST_F(RegExprTest, LineIsReadInPiecesOf8191Bytes) {
  const std::string first = "a 1 0 " + std::string(8185, 'x');
  EXPECT_EQ(Parse(first + "b 2 0 y\nc 3 0 z\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"a", 1, 0, std::string(8185, 'x')}, Line{"b", 2, 0, "y"},
                                   Line{"c", 3, 0, "z"}));
}

TEST_F(RegExprTest, RestOfALineAfterANulIsNotSeen) {
  using namespace std::string_view_literals;
  EXPECT_EQ(Parse("a 1 0 x\0y\nb 2 0 z\n"sv), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"a", 1, 0, "x"}, Line{"b", 2, 0, "z"}));
}

TEST_F(RegExprTest, BytesBeyondAsciiAreTakenAsTheyAre) {
  EXPECT_EQ(Parse("a 1 1 \xff\xfe\n"), 0);
  EXPECT_TRUE(Matches("x\xff\xfey\n"));
  EXPECT_FALSE(Matches("x\xfe\xffy\n"));
}

TEST_F(RegExprTest, EmptyFileGivesNoPatterns) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(Parse(""), 0);
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(RegExprTest, DirectoryGivesNoPatterns) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(ParseRegExFile("root", list_), 0);
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(RegExprTest, PipesAndDevicesGiveNoPatternsAndAreNotWaitedFor) {
  constexpr char kPipe[] = "root/pipe";
  ASSERT_EQ(mkfifo(kPipe, 0600), 0);
  const test::DebugCapture capture(0);
  EXPECT_EQ(ParseRegExFile(kPipe, list_), 0) << "nobody writes";
  const test::Descriptor both_ends(open(kPipe, O_RDWR | O_CLOEXEC));
  EXPECT_EQ(ParseRegExFile(kPipe, list_), 0) << "somebody may write";
  test::WriteFile(kPipe, "a 1 0 x\n");
  EXPECT_EQ(ParseRegExFile(kPipe, list_), 0) << "somebody has written";
  for (const char* device : {"/dev/zero", "/dev/null"}) {
    EXPECT_EQ(ParseRegExFile(device, list_), 0) << device;
  }
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(RegExprTest, NoFileIsLeftOpen) {
  const int next = test::NextDescriptor();
  Parse("a 1 0 x\n");
  ParseRegExFile("root", list_);
  ParseRegExFile("root/nowhere", list_);
  {
    const test::FailAllocation failure(1);
    EXPECT_EQ(Parse("a 1 0 x\n"), -1);
  }
  EXPECT_EQ(test::NextDescriptor(), next);
}

TEST_F(RegExprTest, MissingFileFailsAndEmptiesTheList) {
  Parse("a 1 0 x\n");
  const test::DebugCapture capture(0);
  EXPECT_EQ(ParseRegExFile("root/nowhere", list_), -1);
  EXPECT_THAT(Lines(), IsEmpty());
  EXPECT_THAT(capture.Messages(), ElementsAre("ParseRegExFile: fopen( \"root/nowhere\", ...) "
                                              "failed : No such file or directory\n"));
}

TEST_F(RegExprTest, RunningOutOfMemoryAnywhereFailsTheFile) {
  const std::vector<std::vector<std::string>> reports = {
      {"ParseRegExFile: malloc() failed : Cannot allocate memory\n"},
      {"NewRegExNode: malloc() failed : Cannot allocate memory\n",
       "ParseRegExFile: NewRegExNode() failed.\n"},
      {"AddRegExToList: malloc() failed : Cannot allocate memory\n",
       "ParseRegExFile: AddRegExToList() failed.\n"},
  };
  std::vector<std::vector<std::string>> seen;
  for (int failing = 1;; ++failing) {
    const test::DebugCapture capture(kDetail);
    test::WriteFile(kFile, "a 1 0 x\nb 2 0 y\n");
    const test::FailAllocation failure(failing);
    const int result = ParseRegExFile(kFile, list_);
    if (result == 0) break;
    EXPECT_EQ(result, -1) << failing;
    EXPECT_THAT(capture.Messages(),
                ::testing::Contains(test::AnnouncesDaemonError("Out of memory")));
    const std::vector<std::string> reported = test::Reports(capture.Messages());
    EXPECT_THAT(reports, ::testing::Contains(reported));
    if (seen.empty() || seen.back() != reported) seen.push_back(reported);
  }
  // Each of the three occurred on the first line and again on the second.
  ASSERT_THAT(seen, SizeIs(2 * reports.size()));
  EXPECT_THAT(Lines(), SizeIs(2));
}

TEST_F(RegExprTest, FilterWithoutMemoryLosesNoMatchAndIsNotReported) {
  int without_filter = 0;
  bool reached = true;
  for (int failing = 1; reached; ++failing) {
    const test::DebugCapture capture(0);
    test::WriteFile(kFile, "a 1 0 x\nb 2 0 y\n");
    {
      const test::FailAllocation failure(failing);
      const int result = ParseRegExFile(kFile, list_);
      reached = failure.reached();
      if (result != 0) continue;
    }
    EXPECT_EQ(list_->filter == nullptr, reached) << failing;
    without_filter += reached;
    EXPECT_THAT(capture.Messages(), IsEmpty());
    EXPECT_EQ(MatchOf("an x and a y\n").priority, 1);
    EXPECT_EQ(MatchOf("only a y\n").priority, 2);
    EXPECT_FALSE(Matches("neither\n"));
  }
  EXPECT_GT(without_filter, 5);
}

// ---- MatchPattern -------------------------------------------------------------------------------

TEST_F(RegExprTest, IgnoresCaseWhenToldTo) {
  Parse("disk_err 300 0 disk.*error\n");
  EXPECT_TRUE(Matches("Disk Error on drive 2\n"));
  Parse("disk_err 300 1 disk.*error\n");
  EXPECT_FALSE(Matches("Disk Error on drive 2\n"));
  EXPECT_TRUE(Matches("disk error on drive 2\n"));
}

TEST_F(RegExprTest, FirstMatchInFileOrderWins) {
  Parse("a 1 0 nothing\nb 5 0 error\nc 900 0 disk error\n");
  const Match match = MatchOf("disk error\n");
  EXPECT_EQ(match.found, 1);
  EXPECT_EQ(match.pattern, "error");
  EXPECT_EQ(match.priority, 5);
}

TEST_F(RegExprTest, WithoutAMatchNothingIsSet) {
  Parse("a 1 0 error\n");
  const Match match = MatchOf("all is well\n");
  EXPECT_EQ(match.found, 0);
  EXPECT_EQ(match.pattern, "");
  EXPECT_EQ(match.priority, -12345);
}

TEST_F(RegExprTest, MatchThatCannotBeCopiedDoesNotCount) {
  Parse("a 5 0 x\n");
  const test::DebugCapture capture(0);
  const test::FailAllocation failure(1, 1);
  const Match match = MatchOf("x\n");
  EXPECT_TRUE(failure.reached());
  EXPECT_EQ(match.found, 0);
  EXPECT_EQ(match.pattern, "");
  EXPECT_EQ(match.priority, -12345);
  EXPECT_THAT(test::Reports(capture.Messages()),
              ElementsAre("MatchPattern: malloc() failed : Cannot allocate memory\n"));
}

TEST_F(RegExprTest, NoListNeverMatches) {
  char* pattern = nullptr;
  int priority = 0;
  EXPECT_EQ(MatchPattern("error\n", 6, nullptr, &pattern, &priority), 0);
  EXPECT_EQ(pattern, nullptr);
}

TEST_F(RegExprTest, EmptyListNeverMatches) {
  EXPECT_FALSE(Matches("error\n"));
}

TEST_F(RegExprTest, PatternIsAnExtendedExpression) {
  Parse("a 1 1 (disk|fan)[0-9]+ (bad|worn){1,2}$\n");
  EXPECT_TRUE(Matches("my disk12 badworn"));
  EXPECT_FALSE(Matches("my disk bad"));
}

TEST_F(RegExprTest, DollarDoesNotSkipTheTerminator) {
  Parse("a 1 0 error$\n");
  EXPECT_TRUE(Matches("disk error"));
  EXPECT_FALSE(Matches("disk error\n"));
  EXPECT_FALSE(Matches("disk error\r"));
  Parse("a 1 0 error.$\n");
  EXPECT_TRUE(Matches("disk error\n"));
  EXPECT_TRUE(Matches("disk error\r"));
}

TEST_F(RegExprTest, CaretIsTheStartOfTheRecordOnly) {
  Parse("a 1 0 ^error\n");
  EXPECT_TRUE(Matches("error\n"));
  EXPECT_FALSE(Matches("disk\nerror\n"));
}

TEST_F(RegExprTest, PatternThatBeginsWithASpace) {
  Parse("a 1 0  error\n");
  EXPECT_TRUE(Matches("disk error\n"));
  EXPECT_FALSE(Matches("error\n"));
}

TEST_F(RegExprTest, NulEndsTheText) {
  using namespace std::string_view_literals;
  Parse("a 1 0 error\n");
  EXPECT_FALSE(Matches("disk\0error\n"sv));
  EXPECT_TRUE(Matches("error\0disk\n"sv));
}

TEST_F(RegExprTest, CountBoundsTheText) {
  Parse("a 1 0 error\n");
  char* pattern = nullptr;
  int priority = 0;
  EXPECT_EQ(MatchPattern("error", 4, list_, &pattern, &priority), 0);
  EXPECT_EQ(MatchPattern("", 0, list_, &pattern, &priority), 0);
}

TEST_F(RegExprTest, AtMost8192BytesAreLookedAt) {
  Parse("a 1 0 error\n");
  EXPECT_TRUE(Matches(std::string(8187, 'x') + "error"));
  EXPECT_FALSE(Matches(std::string(8188, 'x') + "error"));
  EXPECT_FALSE(Matches(std::string(20000, 'x') + "error"));
}

// ---- The filter ---------------------------------------------------------------------------------

TEST_F(RegExprTest, FilterIsMadeWhereItHelps) {
  Parse("a 1 0 disk\nb 1 0 fan\n");
  EXPECT_NE(list_->filter, nullptr);
  Parse("a 1 0 disk\n");
  EXPECT_EQ(list_->filter, nullptr) << "one pattern";
  Parse("a 1 0 [0-9]\nb 1 0 .\n");
  EXPECT_EQ(list_->filter, nullptr) << "no literal";
  Parse("");
  EXPECT_EQ(list_->filter, nullptr) << "no pattern";
}

TEST_F(RegExprTest, FilterGoesWhenTheListChanges) {
  Parse("a 1 0 disk\nb 2 0 fan\n");
  RegExNode* first = list_->head->node;
  RemoveRegExFromList(first, list_);
  EXPECT_EQ(list_->filter, nullptr);
  EXPECT_FALSE(Matches("disk\n"));
  EXPECT_TRUE(Matches("fan\n"));
  Parse("b 2 0 fan\nc 3 0 psu\n");
  AddRegExToList(first, list_);
  EXPECT_EQ(list_->filter, nullptr);
  EXPECT_EQ(MatchOf("disk\n").priority, 1);
  EXPECT_EQ(MatchOf("psu\n").priority, 3);
  Parse("b 2 0 fan\nc 3 0 psu\n");
  EmptyRegExList(list_);
  EXPECT_EQ(list_->filter, nullptr);
  EXPECT_FALSE(Matches("fan\n"));
}

TEST_F(RegExprTest, FileThatCannotBeReadLeavesNoFilter) {
  Parse("a 1 0 disk\nb 2 0 fan\n");
  EXPECT_EQ(ParseRegExFile("root/nowhere", list_), -1);
  EXPECT_EQ(list_->filter, nullptr);
  EXPECT_FALSE(Matches("disk\n"));
}

TEST_F(RegExprTest, FileOrderHoldsAmongAllCandidates) {
  Parse("a 1 0 disk [0-9]\nb 2 0 [0-9][0-9]\nc 3 0 disk\nd 4 0 .\n");
  ASSERT_NE(list_->filter, nullptr);
  EXPECT_EQ(MatchOf("disk 12\n").priority, 1);
  EXPECT_EQ(MatchOf("disk12\n").priority, 2);
  EXPECT_EQ(MatchOf("disk1\n").priority, 3);
  EXPECT_EQ(MatchOf("fan\n").priority, 4);
}

TEST_F(RegExprTest, CandidateIsNotYetAMatch) {
  Parse("a 1 1 Disk.*Error\nb 2 1 fan$\n");
  ASSERT_NE(list_->filter, nullptr);
  EXPECT_FALSE(Matches("disk error\n"));
  EXPECT_FALSE(Matches("fan\n"));
  EXPECT_TRUE(Matches("Disk Error\n"));
}

TEST_F(RegExprTest, FilterAndMatcherSeeTheSameText) {
  using namespace std::string_view_literals;
  Parse("a 1 0 error\nb 2 0 fan\n");
  ASSERT_NE(list_->filter, nullptr);
  EXPECT_FALSE(Matches("disk\0error\n"sv));
  EXPECT_TRUE(Matches("error\0disk\n"sv));
  EXPECT_TRUE(Matches(std::string(8187, 'x') + "error"));
  EXPECT_FALSE(Matches(std::string(8188, 'x') + "error"));
  EXPECT_FALSE(Matches(""));
}

TEST_F(RegExprTest, TooManyPatternsForAFilterAreAllTried) {
  std::string file;
  for (int i = 0; i < 9000; ++i)
    file += "a " + std::to_string(i) + " 1 x" + std::to_string(i) + "y\n";
  ASSERT_EQ(Parse(file), 0);
  EXPECT_EQ(list_->filter, nullptr);
  EXPECT_EQ(MatchOf("x8999y\n").priority, 8999);
  EXPECT_FALSE(Matches("x9000y\n"));
}

// ---- Lists for the matcher ----------------------------------------------------------------------

TEST_F(RegExprTest, OneHardPatternHandsTheListToTheMatcher) {
  for (const char* file : {"a 1 0 (r)\\1\nb 2 0 error\n", "b 2 0 error\na 1 0 (r)\\1\n",
                           "b 2 0 error\na 1 0 (r)\\1\nc 3 0 fan\n"}) {
    ASSERT_EQ(Parse(file), 0);
    EXPECT_NE(list_->matcher_set, 0U) << file;
    EXPECT_EQ(list_->filter, nullptr) << file;
    for (const RegExNode* node : Nodes(*list_)) EXPECT_EQ(node->comp_regex, nullptr) << file;
    EXPECT_FALSE(Matches("error\n")) << file;
  }
}

TEST_F(RegExprTest, EveryListForTheMatcherHasANumberOfItsOwn) {
  std::vector<uint32_t> numbers;
  for (int i = 0; i < 3; ++i) {
    Parse("a 1 0 (r)\\1\n");
    numbers.push_back(list_->matcher_set);
  }
  EXPECT_LT(numbers[0], numbers[1]);
  EXPECT_LT(numbers[1], numbers[2]);
  Parse("a 1 0 error\n");
  EXPECT_EQ(list_->matcher_set, 0U);
  EXPECT_TRUE(Matches("error\n"));
}

TEST_F(RegExprTest, ListForTheMatcherKeepsBadPatterns) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(Parse("a 1 0 a(b\nb 2 00 (r)\\1\nc 3 0 c(d\nd 4\n"), 0);
  EXPECT_THAT(Lines(), ElementsAre(Line{"b", 2, 0, "(r)\\1"}, Line{"c", 3, 0, "c(d"}));
  EXPECT_FALSE(list_->head->node->any_case);
  EXPECT_TRUE(list_->tail->node->any_case);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("ParseRegExFile: regcomp() failed for pattern a(b : Unmatched ( or \\(\n",
                          "ParseRegExFile: Case indicator missing in line 4 of root/patterns\n"));
}

TEST_F(RegExprTest, RunningOutOfMemoryFailsAFileForTheMatcherToo) {
  bool reached = true;
  for (int failing = 1; reached; ++failing) {
    const test::DebugCapture capture(0);
    test::WriteFile(kFile, "a 1 0 x\nb 2 0 (r)\\1\nc 3 0 y\n");
    const test::FailAllocation failure(failing);
    const int result = ParseRegExFile(kFile, list_);
    reached = failure.reached();
    EXPECT_EQ(result, reached ? -1 : 0) << failing;
  }
}

/// Random patterns, and the system's matcher run over them one by one.
class PlainList {
 public:
  explicit PlainList(test::Dice& dice) {
    for (size_t left = 1 + dice.Below(10); left > 0; --left) Add(test::MakePattern(dice));
  }
  ~PlainList() {
    for (regex_t& expression : compiled_) regfree(&expression);
  }
  PlainList(const PlainList&) = delete;
  PlainList& operator=(const PlainList&) = delete;

  /// The priority of a pattern is its index.
  std::string File() const {
    std::string file;
    for (size_t i = 0; i < patterns_.size(); ++i) {
      file += "name " + std::to_string(i) + (patterns_[i].any_case ? " 0 " : " 1 ") +
              patterns_[i].pattern + "\n";
    }
    return file;
  }

  /// -1 for none.
  int FirstMatch(const std::string& line) const {
    for (size_t i = 0; i < compiled_.size(); ++i) {
      if (regexec(&compiled_[i], line.c_str(), 0, nullptr, 0) == 0) return static_cast<int>(i);
    }
    return -1;
  }

  const std::vector<test::RandomPattern>& patterns() const { return patterns_; }

 private:
  void Add(const test::RandomPattern& pattern) {
    regex_t expression;
    const int flags = REG_EXTENDED | (pattern.any_case ? REG_ICASE : 0);
    if (IsHardPattern(pattern.pattern.c_str())) return;  // the list would be one for the matcher
    if (pattern.pattern.empty() || regcomp(&expression, pattern.pattern.c_str(), flags) != 0)
      return;
    patterns_.push_back(pattern);
    compiled_.push_back(expression);
  }

  std::vector<test::RandomPattern> patterns_;
  std::vector<regex_t> compiled_;
};

TEST_F(RegExprTest, FirstMatchIsWhatTheSystemFindsOneByOne) {
  constexpr int kFiles = 1500;
  constexpr int kLines = 10;
  std::cout << "ZEVD_TEST_SEED=" << test::Seed() << '\n';
  test::Dice dice(test::Seed());
  int matches = 0;
  int filters = 0;
  for (int file = 0; file < kFiles; ++file) {
    const PlainList plain(dice);
    if (plain.patterns().empty()) continue;
    ASSERT_EQ(Parse(plain.File()), 0);
    ASSERT_EQ(static_cast<size_t>(list_->count), plain.patterns().size());
    filters += list_->filter != nullptr;
    for (int i = 0; i < kLines; ++i) {
      const std::string line = test::MakeLine(plain.patterns(), dice);
      const int expected = plain.FirstMatch(line);
      const Match match = MatchOf(line);
      ASSERT_EQ(match.found == 1 ? match.priority : -1, expected) << '"' << line << "\" among\n"
                                                                  << plain.File();
      matches += match.found;
    }
  }
  EXPECT_GT(filters, kFiles / 2);
  EXPECT_GT(matches, kFiles * kLines / 3);
  EXPECT_LT(matches, kFiles * kLines * 19 / 20);
}

// ---- Emptying -----------------------------------------------------------------------------------

TEST_F(RegExprTest, EmptyingLeavesAListThatCanBeFilledAgain) {
  Parse("a 1 0 x\nb 1 0 y\nc 1 0 z\n");
  EmptyRegExList(list_);
  EXPECT_EQ(list_->head, nullptr);
  EXPECT_EQ(list_->tail, nullptr);
  EXPECT_EQ(list_->count, 0);
  EXPECT_EQ(Parse("a 1 0 x\n"), 0);
  EXPECT_TRUE(Matches("x\n"));
}

}  // namespace
