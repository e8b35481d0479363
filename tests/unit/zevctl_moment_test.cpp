// Moments as people write them, and as they are shown.
#include <gtest/gtest.h>

#include <optional>
#include <utility>

#include "journal_text.h"
#include "moment.h"
#include "past_time.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

constexpr time_t kMorning = 1'795'000'000;  // 2026-11-18 11:06:40 UTC

TEST(MomentTest, HasManyForms) {
  const Zone zone("ZON-2");
  const time_t midnight = kNow - 10 * kHour;  // local time is two hours ahead
  EXPECT_EQ(ParseMoment("2026-11-21 08:05", kNow), midnight + 8 * kHour + 300);
  EXPECT_EQ(ParseMoment("2026-11-21 08:05:30", kNow), midnight + 8 * kHour + 330);
  EXPECT_EQ(ParseMoment("2026-11-21T08:05:30", kNow), midnight + 8 * kHour + 330);
  EXPECT_EQ(ParseMoment("08:05", kNow), midnight + 8 * kHour + 300);
  EXPECT_EQ(ParseMoment("08:05:30", kNow), midnight + 8 * kHour + 330);
  EXPECT_EQ(ParseMoment("2026-11-21", kNow), midnight);
  EXPECT_EQ(ParseMoment("2026-11-21T08:00:00Z", kNow), kNow);
  EXPECT_EQ(ParseMoment("2026-11-21t08:00:00.75z", kNow), kNow);
  EXPECT_EQ(ParseMoment("2026-11-21T08:00:00+05:30", kNow), kNow - 19800);
  EXPECT_EQ(ParseMoment("2026-11-21 08:00:00-01:00", kNow), kNow + 3600);
  EXPECT_EQ(ParseMoment("2024-02-29T00:00:00Z", kNow), 1709164800);
  EXPECT_EQ(ParseMoment("30s", kNow), kNow - 30);
  EXPECT_EQ(ParseMoment("15m", kNow), kNow - 900);
  EXPECT_EQ(ParseMoment("2h", kNow), kNow - 7200);
  EXPECT_EQ(ParseMoment("3d", kNow), kNow - 3 * kDay);
  EXPECT_EQ(ParseMoment("1w", kNow), kNow - 7 * kDay);
  EXPECT_EQ(ParseMoment("0m", kNow), kNow);
  EXPECT_EQ(ParseMoment("1h30m", kNow), kNow - 5400);
  EXPECT_EQ(ParseMoment("1w2d3h4m5s", kNow), kNow - 9 * kDay - 3 * kHour - 245);
  EXPECT_EQ(ParseMoment("today", kNow), midnight);
  EXPECT_EQ(ParseMoment("yesterday", kNow), midnight - kDay);
  EXPECT_EQ(ParseMoment("yesterday 08:05", kNow), midnight - kDay + 8 * kHour + 300);
  EXPECT_EQ(ParseMoment("today 23:00", kNow), midnight + 23 * kHour);
}

TEST(MomentTest, WithoutADateIsTheLastOne) {
  const Zone zone("ZON-2");
  const time_t midnight = kNow - 10 * kHour;
  EXPECT_EQ(ParseMoment("10:00", kNow), kNow);
  EXPECT_EQ(ParseMoment("10:00:01", kNow), kNow + 1 - kDay);
  EXPECT_EQ(ParseMoment("23:00", kNow), midnight - kHour);
  EXPECT_EQ(ParseMoment("00:00", kNow), midnight);
}

TEST(MomentTest, OfAnotherDayKeepsItsTimeWhenClocksChange) {
  const Zone zone("CET-1CEST,M3.5.0,M10.5.0/3");
  const time_t noon = 1774778400;  // 2026-03-29 12:00 in summer time, which began that night
  EXPECT_EQ(ParseMoment("23:00", noon), noon - 12 * kHour);
  EXPECT_EQ(ParseMoment("yesterday 12:00", noon), noon - 23 * kHour);
}

TEST(MomentTest, RefusesOtherTexts) {
  for (const char* text : {"",
                           " ",
                           "x",
                           "15",
                           "15x",
                           "-15m",
                           "1.5h",
                           "9999999999s",
                           "30m1h",
                           "1h 30m",
                           "1h1h",
                           "h",
                           "Yesterday",
                           "yesterday-08:05",
                           "yesterday 24:00",
                           "yesterday 08:05Z",
                           "8:05",
                           "08:5",
                           "08:05:3",
                           "24:00",
                           "08:60",
                           "08:00:61",
                           "2026-13-01",
                           "2026-00-10",
                           "2026-02-29",
                           "2026-11-31",
                           "2026-11-00",
                           "2026-11-21 ",
                           "2026-11-21T",
                           "2026-11-2108:05",
                           "26-11-21",
                           "2026/11/21",
                           "2026-11-21 08:05 ",
                           " 2026-11-21",
                           "08:05Z",
                           "2026-11-21Z",
                           "2026-11-21T08:05:30+1:00",
                           "2026-11-21T08:05:30+24:00",
                           "2026-11-21T08:05:30+01:60",
                           "08:05\n",
                           "T08:05"}) {
    EXPECT_EQ(ParseMoment(text, kNow), std::nullopt) << text;
  }
}

TEST(MomentTest, IsShownWithItsZone) {
  const Zone zone("ZON+3:30");
  EXPECT_EQ(Rfc3339(kNow), "2026-11-21T04:30:00-03:30");
  EXPECT_EQ(ParseMoment(Rfc3339(kNow), 0), kNow);
}

TEST(MomentTest, OfAnotherDayIsShownWithItsDate) {
  const Zone zone("UTC");
  EXPECT_EQ(ClockTime(kMorning - 5, kMorning), "11:06:35");
  EXPECT_EQ(ClockTime(kMorning - kDay, kMorning), "2026-11-17 11:06:40");
  EXPECT_EQ(ClockTime(kMorning - 365 * kDay, kMorning), "2025-11-18 11:06:40");
  EXPECT_EQ(ShortClockTime(kMorning - 5, kMorning), "11:06:35");
  EXPECT_EQ(ShortClockTime(kMorning - kDay, kMorning), "2026-11-17 11:06");
}

TEST(MomentTest, IsShownAsAnAge) {
  struct Case {
    time_t age;
    const char* words;
  };
  constexpr Case kCases[] = {
      {-100, "just now"},      {0, "just now"},      {1, "just now"},          {2, "2 seconds ago"},
      {59, "59 seconds ago"},  {60, "1 minute ago"}, {3599, "59 minutes ago"}, {3600, "1 hour ago"},
      {86399, "23 hours ago"}, {86400, "1 day ago"}, {900000, "10 days ago"},
  };
  for (const Case& tried : kCases) EXPECT_EQ(Ago(kMorning - tried.age, kMorning), tried.words);
}

TEST(DurationTextTest, HasTwoUnitsAtMost) {
  constexpr int64_t kSecond = 1'000'000'000;
  const std::pair<int64_t, const char*> rows[] = {
      {0, "0 seconds"},
      {1, "1 second"},
      {60, "1 minute"},
      {61, "1 minute 1 second"},
      {7199, "1 hour 59 minutes"},
      {3605, "1 hour"},
      {90000, "1 day 1 hour"},
      {86400 + 3599, "1 day"},
  };
  for (const auto& [seconds, text] : rows) EXPECT_EQ(DurationText(seconds * kSecond), text);
}

TEST(NanosecondsOfTest, EndsWhereNanosecondsDo) {
  EXPECT_EQ(NanosecondsOf(2), 2'000'000'000);
  EXPECT_GT(NanosecondsOf(time_t{1} << 60), NanosecondsOf(time_t{9'000'000'000}));
  EXPECT_LT(NanosecondsOf(-(time_t{1} << 60)), NanosecondsOf(-time_t{9'000'000'000}));
}

}  // namespace

}  // namespace zevctl
