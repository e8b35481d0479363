// Reading while segments grow, are sealed, compressed and removed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "journal/journal.h"
#include "journal_files_support.h"

namespace journal {

namespace {

using test::At;
using test::Damages;
using test::JournalFiles;
using test::ReadOutput;
using test::ReadRest;
using test::SegmentBytes;
using test::Strings;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class JournalFollowTest : public ::testing::Test {
 protected:
  // One record each, as the daemon may flush them.
  void Write(const std::string& text) {
    segment_.Output(1, text);
    files_.Put(segment_);
  }

  void NewSegment() {
    segment_ = SegmentBytes(segment_.header.segment + 1, segment_.next_record());
    files_.Put(segment_);
  }

  JournalFiles files_;
  SegmentBytes segment_;
};

TEST_F(JournalFollowTest, GoesOnOverSegments) {
  Write("1");
  Journal journal(files_.path());
  const auto cursor = journal.Read({});
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("1"));
  EXPECT_THAT(ReadRest(*cursor), IsEmpty());
  Write("2");
  EXPECT_THAT(ReadRest(*cursor), IsEmpty());  // nobody has looked
  journal.Refresh();
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("2"));
  Write("3");
  NewSegment();
  Write("4");
  NewSegment();
  Write("5");
  journal.Refresh();
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("3", "4", "5"));
  EXPECT_EQ(cursor->position(), journal.end());
  EXPECT_THAT(cursor->damages(), IsEmpty());
}

// The segment is there byte by byte: what is whole is shown once, what is not is no damage.
TEST_F(JournalFollowTest, WaitsForTheRestOfARecord) {
  segment_.Define(1, "web");
  for (const char* text : {"one", "two", "three"}) segment_.Output(1, text);
  const std::string whole = segment_.bytes;
  SegmentBytes part = segment_;
  part.bytes.clear();
  files_.Put(part);
  Journal journal(files_.path());
  Query query;
  query.kinds = KindBit(Kind::kOutput);
  const auto cursor = journal.Read(query);
  Strings found;
  for (size_t size = 0; size <= whole.size(); ++size) {
    part.bytes = whole.substr(0, size);
    files_.Put(part);
    journal.Refresh();
    for (const std::string& text : ReadRest(*cursor)) found.push_back(text);
    Journal opened(files_.path());
    ASSERT_EQ(ReadOutput(opened), found) << size;
    ASSERT_EQ(opened.end(), journal.end()) << size;
  }
  EXPECT_THAT(found, ElementsAre("one", "two", "three"));
  EXPECT_THAT(cursor->damages(), IsEmpty());
}

TEST_F(JournalFollowTest, TakesUpAnyPosition) {
  Strings written;
  std::string position;
  for (int i = 0; i < 9; ++i) {
    written.push_back(std::to_string(i));
    Write(written.back());
    if (i % 3 == 2) NewSegment();
    Journal journal(files_.path());
    Query query;
    query.from = ParsePosition(position);
    const auto cursor = journal.Read(query);
    EXPECT_THAT(ReadRest(*cursor), ElementsAre(written.back())) << position;
    position = PositionText(cursor->position());
  }
}

TEST_F(JournalFollowTest, FiltersWhatComes) {
  Write("1");
  Journal journal(files_.path());
  Query query;
  query.kinds = KindBit(Kind::kStarted);
  query.from = journal.end();
  const auto cursor = journal.Read(query);
  Write("2");
  journal.Refresh();
  EXPECT_THAT(ReadRest(*cursor), IsEmpty());
  segment_.Add(Kind::kStarted, 0, "started");
  Write("3");
  journal.Refresh();
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("started"));
  EXPECT_GE(cursor->position(), *query.from);
}

// A position is never behind the one that it was asked from, even where nothing was wanted.
TEST_F(JournalFollowTest, NeverGoesBack) {
  Write("1");
  Write("2");
  const Journal journal(files_.path());
  Query query;
  query.from = journal.end();
  EXPECT_EQ(journal.Read(query)->position(), journal.end());
}

TEST_F(JournalFollowTest, ReadsOnWhenSegmentsAreSealedAndCompressed) {
  Write("1");
  Write("2");
  Journal journal(files_.path());
  const auto cursor = journal.Read({});
  Record record;
  ASSERT_TRUE(cursor->Next(&record));
  NewSegment();
  Write("3");
  files_.Seal(1);
  files_.Compress(1);
  journal.Refresh();
  EXPECT_TRUE(journal.segments()[0].is_compressed);
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("2", "3"));
  const auto again = journal.Read({});
  EXPECT_THAT(ReadRest(*again), ElementsAre("1", "2", "3"));
  EXPECT_THAT(again->damages(), IsEmpty());
}

// The name has vanished since the journal was looked at: the other form is found.
TEST_F(JournalFollowTest, FindsTheOtherFormByItself) {
  Write("1");
  NewSegment();
  Write("2");
  const Journal journal(files_.path());
  files_.Seal(1);
  files_.Compress(1);
  const auto cursor = journal.Read({});
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("1", "2"));
  EXPECT_THAT(cursor->damages(), IsEmpty());
}

TEST_F(JournalFollowTest, TellsWhatHasBeenRemoved) {
  Write("1");
  NewSegment();
  Write("2");
  NewSegment();
  Write("3");
  Journal journal(files_.path());
  Query query;
  const auto reading = journal.Read(query);
  Record record;
  ASSERT_TRUE(reading->Next(&record));
  files_.Remove(1);
  files_.Remove(2);
  const auto late = journal.Read(query);
  EXPECT_THAT(ReadRest(*late), ElementsAre("3"));
  EXPECT_THAT(Damages(*late), ElementsAre("1:0+0 has been removed", "2:0+0 has been removed"));
  journal.Refresh();
  EXPECT_THAT(ReadRest(*reading), ElementsAre("3"));
  EXPECT_THAT(Damages(*reading), ElementsAre("2:0+0 is missing"));
  EXPECT_EQ(journal.segments().size(), 1U);
  for (const uint64_t segment : {1U, 2U}) {
    query.from = At(segment, kSegmentHeaderSize);
    try {
      journal.Read(query);
      FAIL() << segment;
    } catch (const JournalError& error) {
      EXPECT_EQ(error.cause(), JournalError::Cause::kGone);
    }
  }
}

TEST_F(JournalFollowTest, ReadsOnInAFileThatHasBeenRemoved) {
  Write("1");
  Write("2");
  Journal journal(files_.path());
  const auto cursor = journal.Read({});
  Record record;
  ASSERT_TRUE(cursor->Next(&record));
  NewSegment();
  Write("3");
  files_.Remove(1);
  journal.Refresh();
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("2", "3"));
}

TEST_F(JournalFollowTest, RefusesAPositionOfAnotherStation) {
  Write("1");
  const Journal journal(files_.path());
  Query query;
  query.from = Position{SegmentBytes::kStation + 1, 1, 64};
  try {
    journal.Read(query);
    FAIL();
  } catch (const JournalError& error) {
    EXPECT_EQ(error.cause(), JournalError::Cause::kStation);
  }
}

TEST_F(JournalFollowTest, WaitsForASegmentThatIsToCome) {
  Write("1");
  Journal journal(files_.path());
  Query query;
  query.from = At(2, kSegmentHeaderSize);
  const auto cursor = journal.Read(query);
  EXPECT_THAT(ReadRest(*cursor), IsEmpty());
  NewSegment();
  Write("2");
  journal.Refresh();
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("2"));
}

// A write that failed has left records, and the daemon has cut them off.
TEST_F(JournalFollowTest, ReadsASegmentAnewThatHasBeenCut) {
  Write("1");
  SegmentBytes before = segment_;
  Write("2");
  Journal journal(files_.path());
  EXPECT_THAT(ReadOutput(journal), ElementsAre("1", "2"));
  files_.Put(before);
  journal.Refresh();
  EXPECT_THAT(ReadOutput(journal), ElementsAre("1"));
  before.Output(1, "other");
  files_.Put(before);
  journal.Refresh();
  EXPECT_THAT(ReadOutput(journal), ElementsAre("1", "other"));
}

TEST_F(JournalFollowTest, OutlivesItsJournal) {
  Write("1");
  std::unique_ptr<Cursor> cursor;
  {
    const Journal journal(files_.path());
    cursor = journal.Read({});
  }
  EXPECT_THAT(ReadRest(*cursor), ElementsAre("1"));
}

}  // namespace

}  // namespace journal
