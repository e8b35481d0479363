// What the daemon tells about a console and its users, and the words for it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "console_status.h"
#include "moment.h"

namespace zevctl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr time_t kNow = 1'795'000'000;

constexpr char kAnswer[] =
    R"({"console":"BOX","state":"disabled","since":1,"last_output":null,"users":[]})"
    "\n"
    R"({"console":"box","state":"in-use","since":100,"last_output":200,"users":[)"
    R"({"user":null,"given_user":"ann","from":"10.0.0.1","given_from":null,"mode":"shared",)"
    R"("since":300},)"
    R"({"user":"bob","given_user":"op","from":"127.0.0.1","given_from":"10.0.0.2",)"
    R"("mode":"read-only","since":301,"later":1}]})"
    "\n";

TEST(ConsoleStatus, IsReadFromTheLineOfTheVeryName) {
  const auto status = ParseStatus(kAnswer, "box");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->state, "in-use");
  EXPECT_EQ(status->since, 100);
  EXPECT_EQ(status->last_output, 200);
  EXPECT_THAT(status->users, ElementsAre(Attendee{"ann", "10.0.0.1", "shared", 300},
                                         Attendee{"bob", "10.0.0.2", "read-only", 301}));
  EXPECT_EQ(ParseStatus(kAnswer, "BOX")->last_output, 0);
  EXPECT_FALSE(ParseStatus(kAnswer, "Box"));
}

TEST(ConsoleStatus, IsNothingWhereTheAnswerMakesNoSense) {
  for (const char* answer : {"", "\n", "null\n", "[]\n", "{\n", "\xFF\n", R"({"console":1})"}) {
    EXPECT_FALSE(ParseStatus(answer, "box")) << answer;
  }
  const auto odd = ParseStatus(R"({"console":"box","since":"x","users":[1,{}]})", "box");
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->since, 0);
  EXPECT_THAT(odd->users, SizeIs(1));
}

TEST(ConsoleStatus, AreReadInTheirOrderFromAWholeAnswer) {
  const StatusAnswer answer = ParseStatus(kAnswer);
  EXPECT_TRUE(answer.whole);
  ASSERT_THAT(answer.consoles, SizeIs(2));
  EXPECT_EQ(answer.consoles[0].console, "BOX");
  EXPECT_THAT(answer.consoles[0].users, IsEmpty());
  EXPECT_EQ(answer.consoles[1].console, "box");
  EXPECT_THAT(answer.consoles[1].users, SizeIs(2));
  EXPECT_TRUE(ParseStatus("").whole);
}

TEST(ConsoleStatus, OfAnAnswerThatIsNotWholeIsWhatMakesSense) {
  for (const char* line :
       {"", "null", "[]", "{", "\xFF", "{}", R"({"console":1,"users":[]})", R"({"console":"a"})",
        R"({"console":"a","users":null})", R"({"console":"a","users":[1]})"}) {
    const StatusAnswer answer = ParseStatus(std::string(line) + "\n" + kAnswer);
    EXPECT_FALSE(answer.whole) << line;
    EXPECT_EQ(answer.consoles.back().console, "box") << line;
  }
}

TEST(ConsoleStatus, TellsWhenTheDaemonStarted) {
  EXPECT_EQ(ParseStarted("{\"started\":5,\"console_bytes\":6}\n"), 5);
  for (const char* answer : {"", "{}\n", "7\n", "{\"started\":null}"}) {
    EXPECT_FALSE(ParseStarted(answer)) << answer;
  }
}

TEST(ConsoleStatus, TellsWhoIsMissing) {
  const Attendee ann{"ann", "a", "shared", 1};
  const Attendee bob{"bob", "b", "shared", 2};
  EXPECT_THAT(Without({ann, bob, ann}, {ann}), ElementsAre(bob, ann));
  EXPECT_THAT(Without({ann}, {ann, ann}), IsEmpty());
  Attendee again = ann;
  again.since = 3;
  EXPECT_THAT(Without({again}, {ann}), ElementsAre(again));
}

TEST(ConsoleStatus, DescribesUsers) {
  setenv("TZ", "UTC", 1);
  tzset();
  const Attendee ann{"ann", "10.0.0.1", "exclusive", kNow - 5};
  const Attendee nobody{"", "10.0.0.2", "read-only", kNow - 5};
  const std::string time = ClockTime(kNow - 5, kNow);
  EXPECT_EQ(time, "11:06:35");
  const std::string first = "ann (exclusive, from 10.0.0.1, since " + time + ")";
  const std::string second = "somebody from 10.0.0.2 (read-only, since " + time + ")";
  EXPECT_EQ(Described(ann, kNow), first);
  EXPECT_EQ(Described(nobody, kNow), second);
  EXPECT_EQ(Described(std::vector{ann, nobody}, kNow), first + " and " + second);
  EXPECT_EQ(Described(std::vector{ann, ann, nobody}, kNow),
            first + ", " + first + " and " + second);
}

}  // namespace
}  // namespace zevctl
