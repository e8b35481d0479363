// Records of logs: where they end, what they hold and when they are from.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

#include "log_record.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;

// The records of the bytes, as when nothing else comes.
Texts Split(std::string_view bytes, LogKind kind = LogKind::kConsole) {
  Texts records;
  while (!bytes.empty()) {
    size_t length = RecordLength(bytes, kind, true);
    if (length == 0) length = bytes.size();
    records.emplace_back(bytes.substr(0, length));
    bytes.remove_prefix(length);
  }
  return records;
}

TEST(LogRecordTest, EndsAtALineFeedOrCarriageReturn) {
  const std::string one = kStamp + "one\n"s, two = kStamp + "two\r"s, three = kStamp + "\n"s;
  EXPECT_THAT(Split(one + two + three), ElementsAre(one, two, three));
}

TEST(LogRecordTest, MayHoldAnyOtherByte) {
  const std::string one = kStamp + "\0\x01\xff\x1b[31m\t "s + kStamp + "x\n";
  EXPECT_THAT(Split(one + one), ElementsAre(one, one));
}

TEST(LogRecordTest, EndsAfter1024BytesWhenAnotherFollows) {
  const std::string piece = kStamp + std::string(1024, 'x');
  const std::string last = kStamp + "y\n"s;
  EXPECT_THAT(Split(piece + piece + last), ElementsAre(piece, piece, last));
}

TEST(LogRecordTest, GoesOnWhenNoStampFollows1024Bytes) {
  const std::string line = kStamp + std::string(3000, 'x') + "\n";
  EXPECT_THAT(Split(line), ElementsAre(line));
}

TEST(LogRecordTest, EndsBeforeTheEmptyRecordOfAClosedLog) {
  const std::string piece = kStamp + "login: "s;
  for (const char* empty : {"26/11/21_08:00:00 \n", "26/11/21_08:00:01 \n"}) {
    EXPECT_THAT(Split(piece + empty), ElementsAre(piece, empty));
  }
}

TEST(LogRecordTest, MayEndWithTheStampOfAnotherTime) {
  const std::string older = kStamp + "printed 26/11/21_07:59:59 \n"s;
  const std::string later = kStamp + "printed 26/11/21_08:00:02 \n"s;
  const std::string nothing_before = kStamp + ""s + kStamp + "\n";
  EXPECT_THAT(Split(older + later + nothing_before), ElementsAre(older, later, nothing_before));
}

TEST(LogRecordTest, OfTheConsolidatedLogNamesItsConsole) {
  const std::string one = kStamp + "box "s + std::string(1024, 'x');
  const std::string two = kStamp + "other login: "s;
  const std::string three = kStamp + "other \n"s;
  EXPECT_THAT(Split(one + two + three, LogKind::kConsolidated), ElementsAre(one, two, three));
}

TEST(LogRecordTest, OfAnotherConsoleDoesNotCloseALine) {
  const std::string line = kStamp + "other login: "s + kStamp + "box \n";
  EXPECT_THAT(Split(line, LogKind::kConsolidated), ElementsAre(line));
}

TEST(LogRecordTest, NeedsNoStamp) {
  EXPECT_THAT(Split("torn\n"s + kStamp + "x\n"), ElementsAre("torn\n", kStamp + "x\n"s));
}

TEST(LogRecordTest, IsCutWhenItIsTooLong) {
  const auto records = Split(std::string(2 * kLongestRecord + 5, 'x') + "\n");
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[0].size(), kLongestRecord);
  EXPECT_EQ(records[2], "xxxxx\n");
}

TEST(LogRecordTest, HasALengthOnlyWhenItsEndIsThere) {
  const std::string whole = kStamp + std::string(1024, 'x') + kStamp + "y\n";
  for (size_t held = 0; held < whole.size(); ++held) {
    const size_t length = RecordLength(std::string_view(whole).substr(0, held), LogKind::kConsole,
                                       /*at_end=*/false);
    EXPECT_EQ(length, held >= 18 + 1024 + 18 ? 18 + 1024 : 0) << held;
  }
}

TEST(LogRecordTest, Of1024BytesIsCompleteAtTheEnd) {
  const std::string piece = kStamp + std::string(1024, 'x');
  EXPECT_EQ(RecordLength(piece, LogKind::kConsole, true), piece.size());
  EXPECT_EQ(RecordLength(piece + "26/11", LogKind::kConsole, true), piece.size());
  EXPECT_EQ(RecordLength(piece.substr(0, piece.size() - 1), LogKind::kConsole, true), 0U);
}

TEST(LogRecordTest, IsTakenApart) {
  const Zone zone("UTC0");
  StampClock clock;
  const std::string bytes = kStamp + "box some text\r"s;
  const Record record = MakeRecord(bytes, LogKind::kConsolidated, 1, clock);
  EXPECT_EQ(record.time, 1795248000);
  EXPECT_EQ(record.console, "box");
  EXPECT_EQ(record.bytes, bytes);
  EXPECT_EQ(record.body, "box some text");
  EXPECT_EQ(record.text, "some text");
  EXPECT_EQ(MakeRecord("torn\n", LogKind::kConsole, 77, clock).time, 77);
  EXPECT_EQ(MakeRecord("torn\n", LogKind::kConsole, std::nullopt, clock).time, std::nullopt);
}

TEST(StampClockTest, GoesOnInTheHourThatIsShownTwice) {
  const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  StampClock clock;
  const time_t before = clock.Resolve("26/10/25_01:59:59");
  EXPECT_EQ(clock.Resolve("26/10/25_02:59:59"), before + 3600);
  EXPECT_EQ(clock.Resolve("26/10/25_02:00:00"), before + 3601);
  EXPECT_EQ(clock.Resolve("26/10/25_03:00:00"), before + 7201);
}

TEST(StampClockTest, FollowsAClockThatIsSetBack) {
  const Zone zone("UTC0");
  StampClock clock;
  const time_t before = clock.Resolve("26/11/21_08:00:00");
  EXPECT_EQ(clock.Resolve("26/11/21_07:00:00"), before - 3600);
}

}  // namespace

}  // namespace zevctl
