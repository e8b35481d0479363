// Moments as people write them.
#include <gtest/gtest.h>

#include <optional>

#include "moment.h"
#include "zevctl_log_support.h"

namespace zevctl {

namespace {

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

}  // namespace

}  // namespace zevctl
