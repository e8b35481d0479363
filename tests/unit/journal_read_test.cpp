// Finding records by console, kind, time and place, forward and backward.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include "journal/journal.h"
#include "journal_files_support.h"

namespace journal {

namespace {

using test::At;
using test::JournalFiles;
using test::ReadOutput;
using test::ReadRest;
using test::SegmentBytes;
using test::Strings;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kHour = 3600 * kSecond;

// Two consoles in three segments; the second and third have more blocks than one.
class JournalReadTest : public ::testing::TestWithParam<int> {
 protected:
  JournalReadTest() {
    uint64_t number = 1;
    for (uint64_t segment = 1; segment <= 3; ++segment) {
      SegmentBytes bytes(segment, number);
      bytes.SetWall(static_cast<int64_t>(segment) * 1000 * kSecond);
      bytes.Define(1, "web");
      bytes.Define(2, "db");
      for (int turn = 0; turn < 3; ++turn) {
        const std::string name = std::to_string(segment) + std::to_string(turn);
        bytes.Output(1, "w" + name);
        bytes.Output(2, "d" + name);
        bytes.Add(Kind::kStarted, 0, "s" + name);
        if (segment > 1) AddBlock(bytes);
      }
      number = bytes.next_record();
      files_.Put(bytes);
      // The parameter tells the forms in which the older segments are kept.
      if (segment < 3 && GetParam() > 0) files_.Seal(segment);
      if (segment < 2 && GetParam() > 1) files_.Compress(segment);
      segments_.push_back(bytes);
    }
  }

  // Fills a block with records that nobody asks for.
  static void AddBlock(SegmentBytes& bytes) {
    for (int i = 0; i < 5; ++i) bytes.Add(Kind::kAudit, 0, std::string(60000, 'x'));
  }

  static Query Of(std::vector<size_t> consoles) {
    Query query;
    query.consoles = std::move(consoles);
    return query;
  }

  static Strings Reversed(Strings strings) {
    std::reverse(strings.begin(), strings.end());
    return strings;
  }

  JournalFiles files_;
  std::vector<SegmentBytes> segments_;
};

INSTANTIATE_TEST_SUITE_P(Forms, JournalReadTest, ::testing::Values(0, 1, 2));

TEST_P(JournalReadTest, GivesEverythingInItsOrder) {
  const Journal journal(files_.path());
  EXPECT_EQ(journal.station(), SegmentBytes::kStation);
  const auto cursor = journal.Read({});
  uint64_t number = 0;
  Position expected = At(1, kSegmentHeaderSize);
  for (Record record; cursor->Next(&record);) {
    ASSERT_EQ(record.header.number, ++number);
    ASSERT_EQ(record.run, 7U);
    if (record.position.segment != expected.segment) expected = At(expected.segment + 1, 64);
    ASSERT_EQ(record.position, expected);
    const auto& bytes = segments_[record.position.segment - 1].bytes;
    ASSERT_EQ(record.payload,
              std::string_view(bytes).substr(record.position.offset + kRecordHeaderSize,
                                             record.header.length - kRecordHeaderSize));
    expected = record.next;
  }
  EXPECT_EQ(number + 1, segments_[2].next_record());
  EXPECT_EQ(expected, journal.end());
  EXPECT_EQ(cursor->position(), journal.end());
  EXPECT_THAT(cursor->damages(), IsEmpty());
}

TEST_P(JournalReadTest, FindsAConsole) {
  const Journal journal(files_.path());
  EXPECT_THAT(ReadOutput(journal, Of(journal.Find("web"))),
              ElementsAre("w10", "w11", "w12", "w20", "w21", "w22", "w30", "w31", "w32"));
  EXPECT_THAT(ReadOutput(journal, Of(journal.Find("db"))),
              ElementsAre("d10", "d11", "d12", "d20", "d21", "d22", "d30", "d31", "d32"));
  EXPECT_THAT(journal.Find("we"), IsEmpty());
  EXPECT_THAT(ReadOutput(journal, Of({99})), IsEmpty());
}

TEST_P(JournalReadTest, GivesTheNewestFirst) {
  const Journal journal(files_.path());
  for (const auto& consoles : {std::vector<size_t>{}, {0}, {1}, {0, 1}}) {
    Query query = Of(consoles);
    const Strings forward = ReadRest(*journal.Read(query));
    query.backward = true;
    EXPECT_EQ(ReadRest(*journal.Read(query)), Reversed(forward));
    EXPECT_THAT(forward, ::testing::Not(IsEmpty()));
  }
}

TEST_P(JournalReadTest, FindsTheStationsOwnRecordsOnDemand) {
  const Journal journal(files_.path());
  Query query = Of({0});
  query.kinds = KindBit(Kind::kStarted) | KindBit(Kind::kOutput);
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), 9U);
  query.with_station = true;
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), 18U);
  query.consoles = {};
  query.with_station = false;
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), 27U);
}

TEST_P(JournalReadTest, FindsKinds) {
  const Journal journal(files_.path());
  Query query;
  query.kinds = KindBit(Kind::kStarted);
  EXPECT_THAT(ReadRest(*journal.Read(query)),
              ElementsAre("s10", "s11", "s12", "s20", "s21", "s22", "s30", "s31", "s32"));
  query.kinds = KindBit(Kind::kConsole);
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), 6U);
  query.consoles = {1};
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), 3U);
  query.kinds = 0;
  EXPECT_THAT(ReadRest(*journal.Read(query)), IsEmpty());
}

// Whatever the query, the blocks that it leaves out change nothing.
TEST_P(JournalReadTest, FindsTimes) {
  const Journal journal(files_.path());
  std::vector<Record> all;
  const auto cursor = journal.Read({});
  for (Record record; cursor->Next(&record);) all.push_back(record);
  for (size_t first = 0; first < all.size(); first += 3) {
    for (size_t last = first; last < all.size(); last += 4) {
      Query query;
      query.since = all[first].header.wall;
      query.until = all[last].header.wall;
      const auto part = journal.Read(query);
      uint64_t number = first;
      for (Record record; part->Next(&record);) ASSERT_EQ(record.header.number, ++number);
      ASSERT_EQ(number, last + 1);
    }
  }
}

TEST_P(JournalReadTest, FindsNothingOutsideItsTimes) {
  const Journal journal(files_.path());
  Query query;
  query.until = 0;
  EXPECT_THAT(ReadRest(*journal.Read(query)), IsEmpty());
  query.until.reset();
  query.since = std::numeric_limits<int64_t>::max();
  EXPECT_THAT(ReadRest(*journal.Read(query)), IsEmpty());
}

TEST_P(JournalReadTest, BeginsAtAnyPosition) {
  const Journal journal(files_.path());
  std::vector<Position> positions;
  const auto cursor = journal.Read({});
  for (Record record; cursor->Next(&record);) positions.push_back(record.position);
  for (size_t place = 0; place < positions.size(); ++place) {
    Query query;
    query.from = positions[place];
    ASSERT_EQ(ReadRest(*journal.Read(query)).size(), positions.size() - place);
    query.backward = true;
    ASSERT_EQ(ReadRest(*journal.Read(query)).size(), place);
  }
}

// A position that nobody was given stands for the next record.
TEST_P(JournalReadTest, BeginsBehindAPositionWithinARecord) {
  const Journal journal(files_.path());
  const Strings all = ReadRest(*journal.Read({}));
  Query query;
  for (const uint64_t offset : {0U, 1U, 63U, 64U}) {
    query.from = At(1, offset);
    EXPECT_EQ(ReadRest(*journal.Read(query)), all);
  }
  query.from = At(1, 65);
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), all.size() - 1);
  query.backward = true;
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), 1U);
  query.from = At(3, uint64_t{1} << 60);
  EXPECT_EQ(ReadRest(*journal.Read(query)).size(), all.size());
  query.backward = false;
  EXPECT_THAT(ReadRest(*journal.Read(query)), IsEmpty());
}

TEST_P(JournalReadTest, TellsOfItsSegments) {
  const Journal journal(files_.path());
  const auto infos = journal.segments();
  ASSERT_EQ(infos.size(), 3U);
  for (const SegmentInfo& info : infos) {
    const bool is_old = info.segment < 3;
    EXPECT_EQ(info.is_sealed, is_old && GetParam() > 0);
    EXPECT_EQ(info.is_compressed, info.segment == 1 && GetParam() > 1);
    EXPECT_EQ(info.size, segments_[info.segment - 1].bytes.size());
    EXPECT_EQ(info.file_size == info.size, !info.is_compressed);
    EXPECT_EQ(info.first_wall, static_cast<int64_t>(info.segment) * 1000 * kSecond + 1'000'000);
    EXPECT_GT(info.last_wall, info.first_wall);
  }
}

// ---- The clock ----------------------------------------------------------------------------------

TEST(JournalClockTest, MayStandBefore1970) {
  const JournalFiles files;
  SegmentBytes bytes;
  bytes.SetWall(-5 * kSecond);
  bytes.Output(1, "before");
  bytes.SetWall(5 * kSecond);
  bytes.Output(1, "behind");
  bytes.SetWall(std::numeric_limits<int64_t>::min());
  bytes.Output(1, "earliest");
  files.Put(bytes);
  const Journal journal(files.path());
  Query query;
  query.until = 0;
  EXPECT_THAT(ReadOutput(journal, query), ElementsAre("before", "earliest"));
  query.since = -6 * kSecond;
  EXPECT_THAT(ReadOutput(journal, query), ElementsAre("before"));
}

TEST(JournalClockTest, MayStepBackAndForth) {
  const JournalFiles files;
  SegmentBytes bytes;
  for (const int hour : {5, 3, 9, 4, 1}) {
    bytes.SetWall(hour * kHour);
    bytes.Output(1, std::to_string(hour));
    for (int i = 0; i < 6; ++i) bytes.Output(2, std::string(60000, 'x'));
  }
  files.Put(bytes);
  const Journal journal(files.path());
  Query query;
  query.consoles = {0};
  query.since = 3 * kHour;
  query.until = 6 * kHour;
  EXPECT_THAT(ReadOutput(journal, query), ElementsAre("5", "3", "4"));
}

}  // namespace

}  // namespace journal
