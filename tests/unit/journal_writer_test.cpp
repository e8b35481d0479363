#include "journal_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "journal_encode.h"
#include "journal_fields.h"
#include "waker.h"

namespace {

using journal::Field;
using journal::FieldReader;
using journal::Kind;
using journal::RecordHeader;
using test::Call;
using test::DebugCapture;
using test::FailCall;
using zevd::JournalQueue;
using zevd::JournalResult;
using zevd::JournalWriter;
using zevd::SegmentLimits;

constexpr char kDirectory[] = "journal";

std::filesystem::path Segment(int number) {
  char name[32];
  snprintf(name, sizeof name, "%020d.seg", number);
  return std::filesystem::path(kDirectory) / name;
}

struct Found {
  RecordHeader header;
  std::string payload;
};

// Checks that the file is a header and whole records, with running numbers.
std::vector<Found> Records(int number) {
  const std::string bytes = test::ReadFile(Segment(number));
  journal::SegmentHeader header;
  EXPECT_EQ(journal::DecodeSegmentHeader(bytes, &header), journal::HeaderFault::kNone);
  EXPECT_EQ(header.segment, static_cast<uint64_t>(number));
  std::vector<Found> records;
  std::string_view rest = std::string_view(bytes).substr(journal::kSegmentHeaderSize);
  while (!rest.empty()) {
    const auto record = journal::DecodeRecord(rest);
    if (!record) {
      ADD_FAILURE() << "no record " << rest.size() << " bytes before the end";
      break;
    }
    EXPECT_EQ(record->number, header.first_record + records.size());
    records.push_back(
        {*record, std::string(rest.substr(journal::kRecordHeaderSize,
                                          record->length - journal::kRecordHeaderSize))});
    rest.remove_prefix(record->length);
  }
  return records;
}

class JournalWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(zevd::journal_waker.descriptor() != -1 || zevd::journal_waker.Open());
    ASSERT_TRUE(queue_->SwitchOn("started"));
  }

  JournalWriter Writer(SegmentLimits limits = {}) { return {*queue_, kDirectory, 77, limits}; }

  void Output(const std::string& text) { queue_->Push(Kind::kOutput, 1, text); }

  test::StationRoot root_;
  DebugCapture debug_;
  static inline auto& kept_ = *new std::vector<JournalQueue*>;
  JournalQueue* queue_ = kept_.emplace_back(new JournalQueue);
};

TEST_F(JournalWriterTest, SegmentsFollowEachOtherAndBeginWithTheNames) {
  auto writer = Writer({.bytes = 1000});
  queue_->Push(Kind::kConsole, 1, "one");
  queue_->Push(Kind::kConsole, 2, "two");
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  queue_->Push(Kind::kConsoleGone, 2, {});
  Output(std::string(900, 'x'));
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  Output("third");
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(1).size(), 3U);
  const auto second = Records(2);
  ASSERT_EQ(second.size(), 4U);
  EXPECT_EQ(second[0].payload, "one");
  EXPECT_EQ(second[1].payload, "two");
  const auto third = Records(3);
  ASSERT_EQ(third.size(), 2U);
  EXPECT_EQ(third[0].header.kind, Kind::kConsole);
  EXPECT_EQ(third[0].header.wall, third[1].header.wall);
  EXPECT_EQ(third[1].payload, "third");
  EXPECT_EQ(third[1].header.number, 9U);
  EXPECT_EQ(writer.end().records, 9U);
  EXPECT_EQ(writer.end().segment, 3U);
  EXPECT_EQ(writer.end().offset, std::filesystem::file_size(Segment(3)));
}

TEST_F(JournalWriterTest, ASegmentEndsWithItsTime) {
  auto writer = Writer({.age = 0});
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(writer.TimeToEnd(), 0);
  writer.EndOldSegment();
  EXPECT_EQ(writer.TimeToEnd(), -1);
  Output("next");
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(2).size(), 1U);
}

TEST_F(JournalWriterTest, ATornEndIsCutOffWhereverItIsTorn) {
  constexpr char kTornText[] = "the last record";
  std::string whole;
  {
    auto writer = Writer();
    Output("kept");
    Output(kTornText);
    ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
    whole = test::ReadFile(Segment(1));
  }
  const size_t last = journal::kRecordHeaderSize + strlen(kTornText);
  for (size_t cut = 0; cut <= last; ++cut) {
    std::filesystem::remove(Segment(2));
    test::WriteFile(Segment(1), whole.substr(0, whole.size() - cut));
    auto writer = Writer();
    Output("next");
    ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone) << cut;
    const bool is_torn = cut != 0 && cut != last;
    ASSERT_EQ(Records(1).size(), cut == 0 ? 3U : 2U) << cut;
    const auto next = Records(2);
    ASSERT_EQ(next.size(), is_torn ? 2U : 1U) << cut;
    EXPECT_EQ(next[0].header.number, cut == 0 ? 4U : 3U);
    if (!is_torn) continue;
    EXPECT_EQ(next[0].header.kind, Kind::kTorn);
    EXPECT_EQ(FieldReader(next[0].payload).Number(Field::kSegment), 1);
    EXPECT_EQ(FieldReader(next[0].payload).Number(Field::kBytes), static_cast<int64_t>(last - cut));
  }
}

TEST_F(JournalWriterTest, RecordsWithinARecordThatIsTornAreNotTakenForOurs) {
  std::string printed;
  {
    auto writer = Writer();
    for (int i = 0; i < 50; ++i) Output("noise");
    ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
    printed = test::ReadFile(Segment(1)).substr(journal::kSegmentHeaderSize + 47);
    Output(printed + std::string(500, 'y'));
    ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  }
  std::filesystem::resize_file(Segment(1), std::filesystem::file_size(Segment(1)) - 100);
  auto writer = Writer();
  Output("next");
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(1).size(), 51U);
  EXPECT_EQ(Records(2)[0].header.kind, Kind::kTorn);
}

TEST_F(JournalWriterTest, AFailedWriteIsTriedAgainWithoutALoss) {
  auto writer = Writer();
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  const auto size = std::filesystem::file_size(Segment(1));
  Output("waits");
  {
    const FailCall fail(Call::kWrite, ENOSPC);
    EXPECT_EQ(writer.WriteWaiting(), JournalResult::kFailed);
    EXPECT_EQ(writer.trouble(), "write failed : No space left on device");
  }
  EXPECT_EQ(std::filesystem::file_size(Segment(1)), size);
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(1).back().payload, "waits");
}

TEST_F(JournalWriterTest, ASegmentThatCannotBeBegunLeavesNothing) {
  auto writer = Writer();
  Output("waits");
  {
    const FailCall fail(Call::kFlock, ENOLCK, 2);
    EXPECT_EQ(writer.WriteWaiting(), JournalResult::kFailed);
    EXPECT_EQ(writer.trouble(), "flock failed : No locks available");
  }
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(kDirectory)) {
    files.push_back(entry.path().filename());
  }
  EXPECT_THAT(files, ::testing::ElementsAre("id"));
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(1).size(), 2U);
}

TEST_F(JournalWriterTest, TwoWritersDoNotShareAJournal) {
  auto first = Writer();
  ASSERT_EQ(first.WriteWaiting(), JournalResult::kDone);
  Output("for the second");
  auto second = Writer();
  EXPECT_EQ(second.WriteWaiting(), JournalResult::kRefused);
  EXPECT_EQ(second.trouble(), "another daemon keeps the journal in journal");
  first.Close();
  EXPECT_EQ(second.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(2).size(), 1U);
}

TEST_F(JournalWriterTest, NoNumberIsGivenTwiceWhenTheNewestSegmentsAreRemoved) {
  auto writer = Writer({.bytes = 1000});
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  Output(std::string(950, 'x'));
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  std::filesystem::remove(Segment(2));
  writer.EndOldSegment();
  Output("next");
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(3)[0].header.number, 3U);
}

TEST_F(JournalWriterTest, RecordsAreWrittenOnceWhenMemoryIsShort) {
  auto writer = Writer();
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  queue_->Push(Kind::kConsole, 1, "one");
  Output("kept");
  {
    const test::FailAllocation fail(1, test::FailAllocation::kForEver);
    EXPECT_EQ(writer.WriteWaiting(), JournalResult::kDone);
    EXPECT_TRUE(fail.reached());
  }
  EXPECT_TRUE(queue_->WantsNames());
  Output("next");
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(1).size(), 4U);
}

TEST_F(JournalWriterTest, TheNumberGoesOnBehindASealedSegment) {
  {
    auto writer = Writer();
    ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  }
  const std::string id = test::ReadFile(std::filesystem::path(kDirectory) / "id");
  std::string index(97, '\0');
  index.replace(0, 8, "ZEVJIDX\n");
  index[8] = 1;
  journal::PutNumber(&index[24], std::stoull(id, nullptr, 16));
  journal::PutNumber(&index[32], uint64_t{1});
  journal::PutNumber(&index[89], uint64_t{1234});
  std::filesystem::rename(Segment(1), Segment(1).replace_extension(".seg.zst"));
  auto index_file = Segment(1);
  test::WriteFile(index_file.replace_extension(".idx"), index);
  auto writer = Writer();
  Output("next");
  ASSERT_EQ(writer.WriteWaiting(), JournalResult::kDone);
  EXPECT_EQ(Records(2)[0].header.number, 1234U);
}

}  // namespace
