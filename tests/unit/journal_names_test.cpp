// Consoles through runs of the daemon and under all their names.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "journal/journal.h"
#include "journal_files_support.h"

namespace journal {

namespace {

using test::JournalFiles;
using test::ReadOutput;
using test::SegmentBytes;
using test::Strings;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class JournalNamesTest : public ::testing::Test {
 protected:
  // Ends the segment that is written, and begins one of a run.
  void NewSegment(uint64_t run) {
    const uint64_t segment = segment_.header.segment;
    segment_ = test::SegmentOfRun(run, is_first_ ? segment : segment + 1, segment_.next_record());
    is_first_ = false;
  }

  void Put() const { files_.Put(segment_); }

  Strings OutputOf(const Journal& journal, const char* name) const {
    Query query;
    query.consoles = journal.Find(name);
    if (query.consoles.empty()) return {};
    return ReadOutput(journal, query);
  }

  static Strings NamesOf(const Console& console) {
    Strings names;
    for (const ConsoleName& name : console.names) names.push_back(name.name);
    return names;
  }

  JournalFiles files_;
  SegmentBytes segment_;
  bool is_first_ = true;
};

TEST_F(JournalNamesTest, GoFromRunToRunByName) {
  NewSegment(1);
  segment_.Define(1, "web");
  segment_.Define(2, "db");
  segment_.Output(1, "w1");
  segment_.Output(2, "d1");
  Put();
  NewSegment(2);
  segment_.Define(1, "db");
  segment_.Define(2, "web");
  segment_.Output(1, "d2");
  segment_.Output(2, "w2");
  Put();
  const Journal journal(files_.path());
  EXPECT_EQ(journal.consoles().size(), 2U);
  EXPECT_THAT(OutputOf(journal, "web"), ElementsAre("w1", "w2"));
  EXPECT_THAT(OutputOf(journal, "db"), ElementsAre("d1", "d2"));
}

TEST_F(JournalNamesTest, AreToldOnce) {
  for (int i = 0; i < 3; ++i) {
    NewSegment(1);
    segment_.Define(1, "web");
    Put();
  }
  NewSegment(2);
  segment_.Define(1, "web", 4002);
  Put();
  const Journal journal(files_.path());
  ASSERT_EQ(journal.consoles().size(), 1U);
  const Console& console = journal.consoles()[0];
  ASSERT_EQ(console.names.size(), 2U);
  EXPECT_EQ(console.names[0].address, "10.0.0.1");
  EXPECT_EQ(console.names[0].port, 4001);
  EXPECT_EQ(console.names[1].port, 4002);
  EXPECT_EQ(console.names[0].since, 1'000'001'000'000);
  EXPECT_EQ(console.name(), "web");
}

// Console X was called Y: it is the Y of earlier runs, but not a Y that comes later.
TEST_F(JournalNamesTest, AreTracedThroughARename) {
  NewSegment(1);
  segment_.Define(1, "y");
  segment_.Output(1, "as y");
  segment_.Define(1, "x");
  segment_.Output(1, "as x");
  segment_.Define(2, "y");
  segment_.Output(2, "another");
  Put();
  NewSegment(2);
  segment_.Define(1, "y");
  segment_.Define(2, "x");
  segment_.Output(1, "another again");
  segment_.Output(2, "as x again");
  Put();
  const Journal journal(files_.path());
  ASSERT_EQ(journal.consoles().size(), 2U);
  EXPECT_THAT(OutputOf(journal, "x"), ElementsAre("as y", "as x", "as x again"));
  const auto called_y = journal.Find("y");
  ASSERT_EQ(called_y.size(), 2U);
  Query query;
  query.consoles = {called_y[0]};  // who is called so now comes first
  EXPECT_THAT(ReadOutput(journal, query), ElementsAre("another", "another again"));
  EXPECT_THAT(NamesOf(journal.consoles()[called_y[1]]), ElementsAre("y", "x"));
}

TEST_F(JournalNamesTest, MayBeExchanged) {
  NewSegment(1);
  segment_.Define(1, "a");
  segment_.Define(2, "b");
  Put();
  NewSegment(2);
  segment_.Define(1, "a");
  segment_.Define(2, "b");
  segment_.Define(1, "c");
  segment_.Define(2, "a");
  segment_.Define(1, "b");
  Put();
  const Journal journal(files_.path());
  ASSERT_EQ(journal.consoles().size(), 2U);
  EXPECT_THAT(NamesOf(journal.consoles()[0]), ElementsAre("a", "c", "b"));
  EXPECT_THAT(NamesOf(journal.consoles()[1]), ElementsAre("b", "a"));
  EXPECT_THAT(journal.Find("a"), ElementsAre(1, 0));
  EXPECT_THAT(journal.Find("c"), ElementsAre(0));
}

TEST_F(JournalNamesTest, MayBeHadByTwoConsoles) {
  NewSegment(1);
  segment_.Define(1, "web", 4001);
  segment_.Define(2, "web", 4002);
  segment_.Output(1, "one");
  segment_.Output(2, "two");
  Put();
  NewSegment(2);  // their numbers are exchanged: the address tells which is which
  segment_.Define(1, "web", 4002);
  segment_.Define(2, "web", 4001);
  segment_.Output(2, "one again");
  Put();
  const Journal journal(files_.path());
  ASSERT_EQ(journal.consoles().size(), 2U);
  EXPECT_THAT(OutputOf(journal, "web"), ElementsAre("one", "two", "one again"));
  Query query;
  query.consoles = {0};
  EXPECT_THAT(ReadOutput(journal, query), ElementsAre("one", "one again"));
}

TEST_F(JournalNamesTest, OfADeletedConsoleMayComeBack) {
  NewSegment(1);
  segment_.Define(1, "web");
  segment_.Output(1, "old");
  segment_.Add(Kind::kConsoleGone, 1, "");
  segment_.Define(2, "web");
  segment_.Output(2, "new");
  Put();
  NewSegment(2);
  segment_.Define(1, "web");
  segment_.Output(1, "newest");
  Put();
  const Journal journal(files_.path());
  ASSERT_EQ(journal.consoles().size(), 2U);
  EXPECT_TRUE(journal.consoles()[0].is_gone);
  EXPECT_FALSE(journal.consoles()[1].is_gone);
  EXPECT_THAT(journal.Find("web"), ElementsAre(1, 0));
  EXPECT_THAT(OutputOf(journal, "web"), ElementsAre("old", "new", "newest"));
  Query query;
  query.consoles = {1};
  EXPECT_THAT(ReadOutput(journal, query), ElementsAre("new", "newest"));
}

TEST_F(JournalNamesTest, AreGoneWhenTheNewestRunLeavesThemOut) {
  NewSegment(1);
  segment_.Define(1, "web");
  segment_.Define(2, "db");
  Put();
  NewSegment(2);
  segment_.Add(Kind::kStarted, 0, "");
  Put();
  Journal journal(files_.path());
  EXPECT_FALSE(journal.consoles()[0].is_gone);  // that run has not told of any yet
  segment_.Define(1, "db");
  Put();
  journal.Refresh();
  EXPECT_TRUE(journal.consoles()[0].is_gone);
  EXPECT_FALSE(journal.consoles()[1].is_gone);
}

TEST_F(JournalNamesTest, StandForNumbersWhoseDefinitionIsLost) {
  NewSegment(1);
  segment_.Output(5, "from nowhere");
  Put();
  Journal journal(files_.path());
  ASSERT_EQ(journal.consoles().size(), 1U);
  EXPECT_EQ(journal.consoles()[0].name(), "#5");
  EXPECT_THAT(OutputOf(journal, "#5"), ElementsAre("from nowhere"));
  segment_.Define(5, "web");
  segment_.Output(5, "from web");
  Put();
  journal.Refresh();
  EXPECT_EQ(journal.consoles().size(), 1U);
  EXPECT_THAT(OutputOf(journal, "web"), ElementsAre("from nowhere", "from web"));
}

TEST_F(JournalNamesTest, ComeFromSealedSegmentsAlike) {
  NewSegment(1);
  segment_.Define(1, "old");
  segment_.Output(1, "as old");
  segment_.Define(1, "new");
  Put();
  files_.Seal(1);
  NewSegment(1);
  segment_.Define(1, "new");
  segment_.Output(1, "as new");
  Put();
  const Journal journal(files_.path());
  EXPECT_THAT(OutputOf(journal, "old"), ElementsAre("as old", "as new"));
  EXPECT_THAT(NamesOf(journal.consoles()[0]), ElementsAre("old", "new"));
  EXPECT_THAT(journal.Find("neither"), IsEmpty());
}

}  // namespace

}  // namespace journal
