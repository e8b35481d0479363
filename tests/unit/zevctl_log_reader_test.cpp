// Reading one log file: from its start, from its end and from a given time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "log_merge.h"
#include "log_reader.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogReaderTest : public LogFilesTest {};

TEST_F(LogReaderTest, ReadsALargeFileInPieces) {
  std::string bytes;
  for (int number = 0; number < 30000; ++number) {
    bytes += Stamped(number / 100, std::to_string(number) + "\n");
  }
  Append("a", "box", bytes);
  LogReaders readers = Open({"box"});
  const Texts texts = ReadAll(readers);
  ASSERT_EQ(texts.size(), 30000U);
  for (size_t number = 0; number < texts.size(); ++number) {
    ASSERT_EQ(texts[number], std::to_string(number));
  }
}

TEST_F(LogReaderTest, LeavesOrTakesAnUnfinishedRecord) {
  Append("a", "box", Stamped(0, "1\n") + Stamped(1, "begun"));
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers, Unfinished::kLeave), ElementsAre("1"));
  EXPECT_THAT(ReadAll(readers, Unfinished::kLeave), IsEmpty());
  readers[0]->Refresh();
  EXPECT_THAT(ReadAll(readers), ElementsAre("begun"));
}

TEST_F(LogReaderTest, FindsNoRecordInAnEmptyFile) {
  Append("a", "box", "");
  LogReaders readers = Open({"box"});
  EXPECT_THAT(ReadAll(readers), IsEmpty());
  EXPECT_THAT(ReadLast({"box"}, 3), IsEmpty());
}

TEST_F(LogReaderTest, FindsTheLastLines) {
  std::string bytes;
  for (int number = 0; number < 50000; ++number) {
    bytes += Stamped(number / 100, std::to_string(number) + "\n");
  }
  Append("a", "box", bytes);
  LogReaders readers = Open({"box"});
  for (const size_t count : {1U, 2U, 1000U, 40000U, 60000U}) {
    EXPECT_EQ(readers[0]->GoToLastLines(count), std::min<size_t>(count, 50000));
    readers[0]->Refresh();
    EXPECT_EQ(ReadAll(readers).size(), std::min<size_t>(count, 50000));
  }
}

TEST_F(LogReaderTest, SkipsWhatIsTooOld) {
  std::string bytes;
  for (int hour = 0; hour < 24; ++hour) {
    for (int minute = 0; minute < 60; ++minute) {
      char stamp[32];
      snprintf(stamp, sizeof stamp, "26/11/21_%02d:%02d:00 ", hour, minute);
      bytes += stamp + std::string(900, 'x') + "\n";
    }
  }
  Append("a", "box", bytes);
  LogReaders readers = Open({"box"});
  const time_t since = kNow + 4 * kHour;  // 12:00
  readers[0]->SkipBefore(since);
  const auto first = readers[0]->TimeHere();
  ASSERT_TRUE(first);
  EXPECT_LE(*first, since - kClockSlack);
  EXPECT_GE(*first, since - kClockSlack - 1800);
  readers[0]->SkipBefore(0);
  EXPECT_EQ(readers[0]->TimeHere(), kNow - 8 * kHour);
}

TEST_F(LogReaderTest, SkipsNothingWithoutTimes) {
  Append("a", "box", std::string(100000, 'x') + "\n" + Stamped(0, "1\n"));
  LogReaders readers = Open({"box"});
  readers[0]->SkipBefore(kNow + 86400);
  EXPECT_EQ(ReadAll(readers).back(), "1");
}

}  // namespace

}  // namespace zevctl
