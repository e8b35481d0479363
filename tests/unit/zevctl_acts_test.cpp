// Acts put together from records: what stands in the journal twice, and pauses with two ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "acts.h"
#include "journal/journal_fields.h"

namespace zevctl {

namespace {

using journal::Field;
using journal::Kind;
using ::testing::ElementsAre;
using ::testing::Pair;

constexpr int64_t kSecond = 1'000'000'000;

using Fields = std::vector<std::pair<Field, std::string>>;

const Fields kByAnn = {{Field::kUser, "ann"}, {Field::kFrom, "10.1.1.1"}};

class ActListTest : public ::testing::Test {
 protected:
  void Take(Kind kind, int64_t wall, const Fields& fields, const std::string& console = "web") {
    std::array<char, 1024> room{};
    journal::FieldWriter writer(room.data(), room.size());
    for (const auto& [field, text] : fields) writer.Add(field, std::string_view(text));
    journal::Record record;
    record.header.kind = kind;
    record.header.wall = wall;
    record.payload = {room.data(), writer.length()};
    list_.Take(record, console);
  }

  void Audit(const std::string& what, const std::string& result, int64_t wall) {
    Fields fields = kByAnn;
    fields.insert(fields.end(),
                  {{Field::kWhat, what}, {Field::kResult, result}, {Field::kConsole, "web"}});
    Take(Kind::kAudit, wall, fields, "");
  }

  std::vector<std::string> Words() const {
    std::vector<std::string> words;
    for (const Act& act : list_.acts()) words.push_back(act.what);
    return words;
  }

  ActList list_;
};

TEST_F(ActListTest, FoldsDoublesInEitherOrder) {
  Audit("attach", "accepted", 0);
  Take(Kind::kAttached, 1, kByAnn);
  Take(Kind::kLeft, 2, kByAnn);
  Audit("leave", "done", 3);
  EXPECT_THAT(Words(), ElementsAre("attach", "leave"));
}

TEST_F(ActListTest, FoldsDoublesOverOtherActs) {
  Audit("disable", "done", 0);
  Audit("clear", "done", 1);
  Take(Kind::kDisabled, 2, kByAnn);
  EXPECT_THAT(Words(), ElementsAre("disable", "clear"));
}

TEST_F(ActListTest, FoldsDoublesOfWhichOneTellsTheNameAlone) {
  Take(Kind::kMessage, 0, {{Field::kUser, "ann"}, {Field::kText, "hello"}});
  Audit("msg", "done", 1);
  ASSERT_THAT(Words(), ElementsAre("msg"));
  EXPECT_EQ(list_.acts()[0].from, "10.1.1.1");
  EXPECT_EQ(list_.acts()[0].text, "hello");
}

TEST_F(ActListTest, KeepsWhatHappenedTwice) {
  Take(Kind::kAttached, 0, kByAnn);
  Take(Kind::kAttached, 1, kByAnn);
  Audit("attach", "accepted", 2);
  Audit("attach", "accepted", 3);
  Audit("attach", "accepted", 4);
  EXPECT_THAT(Words(), ElementsAre("attach", "attach", "attach"));
}

TEST_F(ActListTest, KeepsWhatIsFarApartOrOfOthers) {
  Audit("attach", "accepted", 0);
  Take(Kind::kAttached, 3 * kSecond, kByAnn);
  Audit("attach", "refused", 4 * kSecond);
  Take(Kind::kAttached, 4 * kSecond, {{Field::kUser, "bob"}, {Field::kFrom, "10.1.1.1"}});
  Audit("leave", "done", 5 * kSecond);
  Take(Kind::kLeft, 5 * kSecond, kByAnn, "db");
  EXPECT_EQ(Words().size(), 6U);
}

TEST_F(ActListTest, KnowsAConsoleByItsNameAfterAnEvent) {
  Take(Kind::kAttached, 0, kByAnn, "rack-1");
  Fields audit = kByAnn;
  audit.insert(
      audit.end(),
      {{Field::kWhat, "attach"}, {Field::kResult, "accepted"}, {Field::kConsole, "rack_1"}});
  Take(Kind::kAudit, 1, audit, "");
  EXPECT_THAT(Words(), ElementsAre("attach"));
}

TEST_F(ActListTest, TellsAPauseOnceWithBothEnds) {
  Take(Kind::kPaused, kSecond, kByAnn);
  Take(Kind::kPaused, 2 * kSecond, kByAnn, "db");
  Take(Kind::kNotLogged, 60 * kSecond, kByAnn);
  ASSERT_THAT(Words(), ElementsAre("not-logged", "not-logged"));
  EXPECT_EQ(list_.acts()[0].begin, kSecond);
  EXPECT_EQ(list_.acts()[0].end, 60 * kSecond);
  EXPECT_EQ(list_.acts()[1].end, std::nullopt);
}

TEST_F(ActListTest, TellsAPauseWhoseBeginningIsTooOld) {
  Take(Kind::kNotLogged, 60 * kSecond, kByAnn);
  EXPECT_THAT(Words(), ElementsAre("not-logged"));
}

TEST_F(ActListTest, EndsAPauseWithTheDaemonOrItsJournal) {
  Take(Kind::kPaused, 1 * kSecond, kByAnn);
  Take(Kind::kStarted, 2 * kSecond, {}, "");
  Take(Kind::kPaused, 3 * kSecond, {{Field::kReason, "The console's logging flag is not 1."}});
  Take(Kind::kStopped, 4 * kSecond, {}, "");
  Take(Kind::kStarted, 5 * kSecond, {}, "");
  Take(Kind::kPaused, 6 * kSecond, kByAnn);
  Take(Kind::kStopped, 7 * kSecond, {{Field::kReason, "The journal was switched off."}}, "");
  Take(Kind::kPaused, 8 * kSecond, kByAnn);
  std::vector<std::pair<std::optional<int64_t>, std::string>> ends;
  for (const Act& act : list_.acts()) {
    if (act.what == "not-logged") ends.emplace_back(act.end, act.reason);
  }
  EXPECT_THAT(
      ends,
      ElementsAre(Pair(2 * kSecond, "The daemon ended."),
                  Pair(4 * kSecond, "The console's logging flag is not 1. The daemon ended."),
                  Pair(7 * kSecond, "The journal was switched off."), Pair(std::nullopt, "")));
}

TEST(KindsOfActsTest, HaveNoOutput) {
  EXPECT_EQ(KindsOfActs() & journal::KindBit(Kind::kOutput), 0U);
  EXPECT_NE(KindsOfActs() & journal::KindBit(Kind::kAudit), 0U);
}

}  // namespace

}  // namespace zevctl
