// Reading several log files in the order of time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "log_merge.h"
#include "log_reader.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogMergeTest : public LogFilesTest {};

TEST_F(LogMergeTest, ReadsDirectoriesInTheOrderOfTime) {
  Append("30-Dec-00:00", "box", Stamped(0, "1\n") + Stamped(1, "2\n"));
  Append("02-Jan-00:00", "box", Stamped(2, "3\n"));
  Append("15-Mar-00:00", "box", Stamped(2, "4\n") + Stamped(9, "5\n"));
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1", "2", "3", "4", "5"));
}

TEST_F(LogMergeTest, MergesTheLogsOfOneConsole) {
  Append("a", "sys-1", Stamped(0, "1\n") + Stamped(4, "4\n"));
  Append("a", "sys_1", Stamped(1, "2\n") + Stamped(6, "5\n"));
  Append("b", "old", Stamped(3, "3\n") + Stamped(8, "6\n"));
  Append("b", "other", Stamped(5, "other\n"));
  LogReaders readers = Open({"sys_1", "old"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1", "2", "3", "4", "5", "6"));
}

TEST_F(LogMergeTest, KeepsTheOrderOfAFileWhenTheClockWasSetBack) {
  Append("a", "box", Stamped(5, "1\n") + Stamped(1, "2\n") + Stamped(2, "3\n"));
  Append("b", "box", Stamped(7, "4\n"));
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), ElementsAre("1", "2", "3", "4"));
}

TEST_F(LogMergeTest, StopsAtTheGivenTime) {
  Append("a", "box", Stamped(0, "1\n") + Stamped(2, "2\n") + Stamped(4, "3\n"));
  LogReaders readers = Open({"box"});
  Texts texts;
  ReadInOrder(
      readers, [](const LogReader&) { return Unfinished::kTake; }, kNow + 2,
      [&](const LogReader&, const Record& record) { texts.emplace_back(record.text); });
  EXPECT_THAT(texts, ElementsAre("1", "2"));
}

TEST_F(LogMergeTest, ReadsTheLastRecords) {
  Append("a", "box", Stamped(0, "1\n") + Stamped(1, "2\n"));
  Append("b", "box", Stamped(2, "3\n") + Stamped(3, "4\n") + Stamped(4, "5\n"));
  EXPECT_THAT(ReadLast({"box"}, 1), ElementsAre("5"));
  EXPECT_THAT(ReadLast({"box"}, 3), ElementsAre("3", "4", "5"));
  EXPECT_THAT(ReadLast({"box"}, 4), ElementsAre("2", "3", "4", "5"));
  EXPECT_THAT(ReadLast({"box"}, 9), ElementsAre("1", "2", "3", "4", "5"));
  EXPECT_THAT(ReadLast({"box"}, 0), IsEmpty());
}

TEST_F(LogMergeTest, ReadsTheLastRecordsOfFilesThatOverlap) {
  Append("a", "sys-1", Stamped(0, "1\n") + Stamped(5, "4\n") + Stamped(7, "6\n"));
  Append("a", "sys_1", Stamped(1, "2\n") + Stamped(4, "3\n") + Stamped(6, "5\n"));
  Append("b", "sys_1", "");
  for (size_t count = 0; count <= 6; ++count) {
    const Texts all = {"1", "2", "3", "4", "5", "6"};
    EXPECT_EQ(ReadLast({"sys-1"}, count),
              Texts(all.end() - static_cast<ptrdiff_t>(count), all.end()));
  }
}

}  // namespace

}  // namespace zevctl
