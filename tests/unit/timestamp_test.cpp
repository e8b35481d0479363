#include "timestamp.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "failure_support.h"

using namespace zevd;

namespace {

/// Sets the local time zone for as long as it lives.
class TimeZone {
 public:
  explicit TimeZone(const char* name) {
    if (const char* former = getenv("TZ")) former_ = former;
    setenv("TZ", name, 1);
    tzset();
  }
  ~TimeZone() {
    if (former_.empty()) {
      unsetenv("TZ");
    } else {
      setenv("TZ", former_.c_str(), 1);
    }
    tzset();
  }
  TimeZone(const TimeZone&) = delete;
  TimeZone& operator=(const TimeZone&) = delete;

 private:
  std::string former_;
};

// Each test has moments of its own, because a thread keeps the stamp that it made last.

TEST(TimeStampTest, GivesDateAndTimeToTheSecond) {
  const TimeZone utc("UTC0");
  const test::FakeClock clock(1237277142);
  char stamp[80];
  EXPECT_EQ(GetTimeStamp(stamp, sizeof stamp), 17U);
  EXPECT_STREQ(stamp, "09/03/17_08:05:42");
}

TEST(TimeStampTest, IsLocalTime) {
  const TimeZone east("EAST-5:30");
  const test::FakeClock clock(1237277143);
  char stamp[80];
  GetTimeStamp(stamp, sizeof stamp);
  EXPECT_STREQ(stamp, "09/03/17_13:35:43");
}

TEST(TimeStampTest, FillsEveryFieldWithTwoDigits) {
  const TimeZone utc("UTC0");
  const test::FakeClock clock(946684800);
  char stamp[80];
  GetTimeStamp(stamp, sizeof stamp);
  EXPECT_STREQ(stamp, "00/01/01_00:00:00");
}

TEST(TimeStampTest, NeedsRoomForSeventeenCharactersAndATerminator) {
  const TimeZone utc("UTC0");
  test::FakeClock clock(1237277144);
  char small[17];
  EXPECT_EQ(GetTimeStamp(small, sizeof small), 0U);
  char exact[18];
  EXPECT_EQ(GetTimeStamp(exact, sizeof exact), 17U);
  EXPECT_STREQ(exact, "09/03/17_08:05:44");
  EXPECT_EQ(GetTimeStamp(small, sizeof small), 0U);
}

TEST(TimeStampTest, StaysForTheSecondAndChangesWithTheNext) {
  const TimeZone utc("UTC0");
  test::FakeClock clock(1237277150);
  char stamp[80];
  for (const char* expected : {"09/03/17_08:05:50", "09/03/17_08:05:51", "09/03/17_08:05:52"}) {
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(GetTimeStamp(stamp, sizeof stamp), 17U);
      EXPECT_STREQ(stamp, expected);
    }
    clock.Advance(1);
  }
  clock.Set(1237277150);  // a clock that was set back
  GetTimeStamp(stamp, sizeof stamp);
  EXPECT_STREQ(stamp, "09/03/17_08:05:50");
}

TEST(TimeStampTest, FollowsTheClock) {
  const TimeZone utc("UTC0");
  char stamp[80] = "";
  const time_t before = time(nullptr);
  std::thread([&stamp] { GetTimeStamp(stamp, sizeof stamp); }).join();
  const time_t after = time(nullptr);
  tm parsed{};
  ASSERT_NE(strptime(stamp, "%y/%m/%d_%T", &parsed), nullptr);
  const time_t stamped = timegm(&parsed);
  EXPECT_GE(stamped, before);
  EXPECT_LE(stamped, after);
}

TEST(TimeStampTest, TakesAnyFormat) {
  const TimeZone utc("UTC0");
  const test::FakeClock clock(1237277142);
  char text[80];
  EXPECT_EQ(FormatLocalTime(text, sizeof text, "%Y-%m-%d %H.%M.%S"), 19U);
  EXPECT_STREQ(text, "2009-03-17 08.05.42");
  char small[19];
  EXPECT_EQ(FormatLocalTime(small, sizeof small, "%Y-%m-%d %H.%M.%S"), 0U);
}

}  // namespace
