// How long a console is usually silent, and how little is read to know it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "health_judge.h"
#include "usual_pause.h"

namespace zevctl {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kMinute = 60 * kSecond;
constexpr int64_t kHour = 60 * kMinute;
constexpr int64_t kDay = 24 * kHour;

TEST(PausesTest, HaveAMedianWhenThereAreEnough) {
  Pauses pauses;
  for (const int64_t at : {0, 10, 20, 30, 40}) pauses.Add(at * kSecond);
  EXPECT_EQ(pauses.Median(), std::nullopt);
  pauses.Add(1000 * kSecond);
  EXPECT_EQ(pauses.Median(), 10 * kSecond);
}

TEST(PausesTest, DoNotCountWithinAnOutput) {
  Pauses pauses;
  for (int64_t burst = 0; burst < 6; ++burst) {
    for (int64_t i = 0; i < 100; ++i) pauses.Add(burst * kMinute + i * kSecond / 1000);
  }
  EXPECT_EQ(pauses.count(), 5U);
  EXPECT_GT(pauses.Median().value_or(0), 59 * kSecond);
}

TEST(PausesTest, DoNotReachAcrossWhatWasNotRead) {
  Pauses pauses;
  pauses.Add(0);
  pauses.Break();
  pauses.Add(kHour);
  pauses.Add(kHour - kMinute);  // the clock was set back
  EXPECT_EQ(pauses.count(), 0U);
}

/// Output at given times, and how much of it was read.
class Past {
 public:
  explicit Past(std::vector<int64_t> times) : times_(std::move(times)) {}

  CursorMaker Maker() {
    return [this](const journal::Query& query) -> std::unique_ptr<journal::Cursor> {
      return std::make_unique<Reading>(this, query);
    };
  }

  size_t read() const { return read_; }

 private:
  class Reading : public journal::Cursor {
   public:
    Reading(Past* past, const journal::Query& query)
        : past_(past),
          at_(std::lower_bound(past->times_.begin(), past->times_.end(), *query.since)),
          until_(*query.until) {}

    bool Next(journal::Record* record) override {
      if (at_ == past_->times_.end() || *at_ > until_) return false;
      record->header.wall = *at_++;
      ++past_->read_;
      return true;
    }
    const std::vector<journal::Damage>& damages() const override { return damages_; }
    journal::Position position() const override { return {}; }

   private:
    Past* past_;
    std::vector<int64_t>::const_iterator at_;
    int64_t until_;
    std::vector<journal::Damage> damages_;
  };

  std::vector<int64_t> times_;
  size_t read_ = 0;
};

std::vector<int64_t> Every(int64_t pause, int64_t end, int64_t span) {
  std::vector<int64_t> times;
  for (int64_t at = end - span; at <= end; at += pause) times.push_back(at);
  return times;
}

TEST(UsualPauseTest, IsThatOfARegularConsole) {
  for (const int64_t pause : {2 * kSecond, kMinute, 3 * kHour, kDay}) {
    Past past(Every(pause, 30 * kDay, 20 * kDay));
    EXPECT_EQ(UsualPause(past.Maker(), 0, 30 * kDay), pause) << pause / kSecond << " s";
  }
}

TEST(UsualPauseTest, IsUnknownWithFewOutputs) {
  Past past({kDay, 2 * kDay});
  EXPECT_EQ(UsualPause(past.Maker(), 0, 2 * kDay), std::nullopt);
}

TEST(UsualPauseTest, IsThatOfTheWholeSpanNotOfTheLastBurst) {
  std::vector<int64_t> times = Every(kHour, 7 * kDay, 7 * kDay);
  for (int64_t i = 0; i < 60; ++i) times.push_back(7 * kDay + i * 2 * kSecond);
  Past past(times);
  EXPECT_EQ(UsualPause(past.Maker(), 0, times.back()), kHour);
}

TEST(UsualPauseTest, ReadsLittleHoweverMuchThereIs) {
  Past past(Every(kSecond / 5, 7 * kDay, 7 * kDay));
  UsualPause(past.Maker(), 0, 7 * kDay);
  const SampleSize size;
  EXPECT_LE(past.read(), size.parts * size.records);
}

// ---- What follows from it -----------------------------------------------------------------------

class HealthJudgeTest : public ::testing::Test {
 protected:
  HealthJudgeTest() {
    facts_.name = "web";
    facts_.state = "connected";
    rules_.now = 100 * kDay;
  }

  std::vector<std::string> Kinds() const {
    std::vector<std::string> kinds;
    for (const Problem& problem : ProblemsOf(facts_, rules_)) kinds.push_back(problem.kind);
    return kinds;
  }

  // Silent for so long.
  void Silent(int64_t silence, std::optional<int64_t> usual) {
    facts_.last_output = rules_.now - silence;
    facts_.usual_pause = usual;
  }

  ConsoleFacts facts_;
  HealthRules rules_;
};

TEST_F(HealthJudgeTest, FindsNothingWrongWithAConsoleThatPrints) {
  Silent(kMinute, kSecond);
  EXPECT_THAT(Kinds(), IsEmpty());
}

TEST_F(HealthJudgeTest, CallsAConsoleSilentAfterTenUsualPausesAndAnHour) {
  Silent(kHour, kMinute);
  EXPECT_THAT(Kinds(), IsEmpty());
  Silent(kHour + 1, kMinute);
  EXPECT_THAT(Kinds(), ElementsAre("silent"));
  Silent(10 * kHour, kHour);
  EXPECT_THAT(Kinds(), IsEmpty());
  Silent(10 * kHour + 1, kHour);
  EXPECT_THAT(Kinds(), ElementsAre("silent"));
  Silent(50 * kDay, std::nullopt);
  EXPECT_THAT(Kinds(), IsEmpty());
}

TEST_F(HealthJudgeTest, TakesAnotherLimitForAll) {
  rules_.silence = kMinute;
  Silent(2 * kMinute, kHour);
  EXPECT_THAT(Kinds(), ElementsAre("silent"));
}

TEST_F(HealthJudgeTest, DoesNotCallAConsoleSilentThatIsDown) {
  Silent(50 * kDay, kMinute);
  facts_.state = "refused";
  EXPECT_THAT(Kinds(), ElementsAre("down"));
}

TEST_F(HealthJudgeTest, CallsAConsoleFloodingFromTheLimitOn) {
  facts_.recent_bytes = rules_.flood - 1;
  EXPECT_THAT(Kinds(), IsEmpty());
  facts_.recent_bytes = rules_.flood;
  EXPECT_THAT(Kinds(), ElementsAre("flooding"));
}

TEST_F(HealthJudgeTest, CountsTheWorst) {
  facts_.is_log_missing = true;
  facts_.recent_bytes = rules_.flood;
  const std::vector<Problem> problems = ProblemsOf(facts_, rules_);
  EXPECT_EQ(problems.size(), 2U);
  EXPECT_EQ(LevelOf(problems), HealthLevel::kCritical);
  EXPECT_EQ(LevelOf({}), HealthLevel::kFine);
}

TEST(HealthOfStationTest, CountsWhatIsMissingInWords) {
  StationFacts facts;
  facts.last_gap = 1;
  facts.lost_records = 1;
  EXPECT_EQ(ProblemsOf(facts).at(0).what, "1 record is missing in the journal");
  facts.lost_records = 2;
  EXPECT_EQ(ProblemsOf(facts).at(0).what, "2 records are missing in the journal");
}

}  // namespace

}  // namespace zevctl
