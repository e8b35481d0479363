// Event files tried out on lines: the verdicts are those of the daemon's own code.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "event_file.h"
#include "hard_pattern.h"
#include "random_patterns.h"
#include "reg_expr.h"
#include "rehearsal.h"
#include "support.h"

namespace zevctl {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class EventFileTest : public test::RelayTest {
 protected:
  test::StationRoot root_;
};

TEST_F(EventFileTest, HasTheDaemonsPatterns) {
  constexpr char kText[] =
      "disk 300 0 disk  full\r\n"
      "\n"
      "  spaced   7 1  two blanks \n"
      "short 1\n"
      "nothing 1 0 \n"
      "word x y z\n";
  const EventFile file = ReadEventFile(kText);
  test::WriteFile("root/patterns", kText);
  zevd::RegExList* list = zevd::NewRegExList("re_list");
  ASSERT_EQ(zevd::ParseRegExFile("root/patterns", list), 0);
  ASSERT_EQ(file.patterns.size(), static_cast<size_t>(list->count));
  size_t place = 0;
  for (const zevd::RegExNode* node : zevd::Nodes(*list)) {
    const EventPattern& pattern = file.patterns[place++];
    EXPECT_EQ(pattern.name, node->jix_name);
    EXPECT_EQ(pattern.priority, node->priority);
    EXPECT_EQ(pattern.any_case, node->any_case);
    EXPECT_EQ(pattern.expression, node->pattern);
  }
  zevd::FreeRegExList(list);
  EXPECT_THAT(file.incomplete, ElementsAre(4, 5));
}

/// Lines judged, as one would read it.
class RehearsalTest : public test::RelayTest {
 protected:
  void Rehearse(const std::string& text) {
    rehearsal_ = std::make_unique<Rehearsal>(ReadEventFile(text));
  }

  Verdict Judge(const std::string& line, bool is_attended = false) {
    return rehearsal_->Judge(line, is_attended);
  }

  const PatternFigures& Figures(size_t place) { return rehearsal_->figures().at(place); }

  test::StationRoot root_;
  std::unique_ptr<Rehearsal> rehearsal_;
};

TEST_F(RehearsalTest, TellsAllThatMatchAndTheFirstInTheFileWins) {
  Rehearse("none 1 0 zebra\nany 2 0 ERR\nexact 3 1 err\nlater 4 0 error\n");
  const Verdict verdict = Judge("an error\n");
  EXPECT_THAT(verdict.matches, ElementsAre(1, 2, 3));
  EXPECT_EQ(verdict.winner, 1U);
  EXPECT_EQ(Judge("quiet\n").winner, std::nullopt);
  EXPECT_EQ(Figures(0).matched, 0U);
  EXPECT_EQ(Figures(2).matched, 1U);
  EXPECT_EQ(Figures(2).wins, 0U);
  EXPECT_EQ(Figures(1).wins, 1U);
}

TEST_F(RehearsalTest, CountsNoEventWhileSomebodyWatches) {
  Rehearse("any 2 0 error\n");
  Judge("error\n", true);
  Judge("error\n", false);
  EXPECT_EQ(Figures(0).wins, 2U);
  EXPECT_EQ(Figures(0).events, 1U);
}

TEST_F(RehearsalTest, SaysWhyAPatternIsLeftOut) {
  Rehearse("bad 1 0 (((\ngood 2 0 error\n");
  EXPECT_EQ(Judge("error\n").winner, 1U);
  EXPECT_THAT(Figures(0).left_out, HasSubstr("does not compile"));
  EXPECT_THAT(Figures(1).left_out, IsEmpty());
}

TEST_F(RehearsalTest, HasHardPatternsMatchedElsewhere) {
  Rehearse("twice 42 1 (ab+)\\1\nplain 7 0 error\n");
  EXPECT_THAT(Judge("an abbabb error\n").matches, ElementsAre(0, 1));
  EXPECT_EQ(Judge("an abbabb error\n").winner, 0U);
  EXPECT_EQ(Judge("an abb error\n").winner, 1U);
  EXPECT_EQ(Figures(0).tried, 3U);
}

TEST_F(RehearsalTest, OutlivesAPatternThatTakesMinutesOrTheWholeStack) {
  Rehearse("endless 1 1 (a*)*\\1b\ndeep 2 1 (x|)(\\1\\1|t1)+\nplain 3 0 error\n");
  Judge(std::string(1000, 'a') + "\n");
  Judge("t1t1\n");
  EXPECT_EQ(Judge("error\n").winner, 2U);
  EXPECT_EQ(Figures(0).left_out, "took too long on a line");
  EXPECT_GE(Figures(0).worst_cost, 50'000);
}

/// What the daemon says of the same line.
class DaemonsVerdict {
 public:
  explicit DaemonsVerdict(const std::string& text) : list_(zevd::NewRegExList("re_list")) {
    test::WriteFile("root/patterns", text);
    EXPECT_EQ(zevd::ParseRegExFile("root/patterns", list_), 0);
  }
  ~DaemonsVerdict() { zevd::FreeRegExList(list_); }
  DaemonsVerdict(const DaemonsVerdict&) = delete;
  DaemonsVerdict& operator=(const DaemonsVerdict&) = delete;

  bool IsForMatcher() const { return list_->matcher_set != 0; }

  // The priority of the winner, which is its place; -1 for none.
  int Winner(const std::string& line) const {
    char* pattern = nullptr;
    int priority = -1;
    zevd::MatchPattern(line.data(), static_cast<int>(line.size()), list_, &pattern, &priority);
    free(pattern);
    return priority;
  }

 private:
  zevd::RegExList* list_;
};

std::string FileOf(const std::vector<test::RandomPattern>& patterns) {
  std::string text;
  int place = 0;
  for (const test::RandomPattern& pattern : patterns) {
    text += "p " + std::to_string(place++) + (pattern.any_case ? " 0 " : " 1 ") + pattern.pattern +
            "\n";
  }
  return text;
}

TEST_F(RehearsalTest, AgreesWithTheDaemonOnRandomPatternsAndLines) {
  test::Dice dice(test::Seed());
  size_t winners = 0;
  for (int round = 0; round < 60; ++round) {
    std::vector<test::RandomPattern> patterns(1 + dice.Below(12));
    for (auto& pattern : patterns) {
      do {
        pattern = test::MakePattern(dice);
      } while (zevd::IsHardPattern(pattern.pattern.c_str()));
    }
    const std::string text = FileOf(patterns);
    const DaemonsVerdict daemon(text);
    ASSERT_FALSE(daemon.IsForMatcher());
    Rehearse(text);
    for (int i = 0; i < 40; ++i) {
      const std::string line = test::MakeLine(patterns, dice);
      const Verdict verdict = Judge(line);
      const int found = verdict.winner ? rehearsal_->file().patterns[*verdict.winner].priority : -1;
      ASSERT_EQ(found, daemon.Winner(line)) << text << "line: " << line;
      if (verdict.winner) ++winners;
    }
  }
  EXPECT_GT(winners, 100U);
}

// The winner is the daemon's process's; here it must be the first of those that match.
TEST_F(RehearsalTest, HasOneOpinionOfHardPatterns) {
  test::Dice dice(test::Seed());
  for (int round = 0; round < 6; ++round) {
    std::vector<test::RandomPattern> patterns(3);
    for (auto& pattern : patterns) pattern = test::MakePattern(dice);
    patterns.push_back({"(ab|c)\\1", "abab", false});
    Rehearse(FileOf(patterns));
    for (int i = 0; i < 30; ++i) {
      const std::string line = test::MakeLine(patterns, dice);
      const Verdict verdict = Judge(line);
      ASSERT_EQ(verdict.winner.has_value(), !verdict.matches.empty()) << line;
      if (!verdict.winner) continue;
      ASSERT_EQ(*verdict.winner, verdict.matches.front()) << line;
    }
  }
}

}  // namespace

}  // namespace zevctl
