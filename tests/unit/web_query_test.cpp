// The parameters of requests, the places of pages and what is searched for.
#include "web_query.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>

#include "exchange.h"
#include "web_pattern.h"
#include "web_place.h"

namespace zevweb {
namespace {

using testing::ElementsAre;

constexpr int64_t kSecond = 1'000'000'000;

/// The status and the text of the problem that this throws.
std::string Refusal(const std::function<void()>& work) {
  try {
    work();
  } catch (const Problem& problem) {
    return std::to_string(problem.status()) + " " + problem.what();
  }
  return "nothing was thrown";
}

TEST(WebQuery, ReadsWhatIsThere) {
  const WebQuery::Parameters parameters = {{"a", "x"}, {"b", ""},  {"n", "12"}, {"f", ""},
                                           {"g", "0"}, {"r", "1"}, {"r", "2"}};
  const WebQuery query(parameters, {"a", "b", "n", "f", "g", "h"}, {"r"});
  EXPECT_EQ(query.Text("a"), "x");
  EXPECT_EQ(query.Text("b"), std::nullopt);
  EXPECT_EQ(query.Number("n", 3, 100), 12U);
  EXPECT_EQ(query.Number("h", 3, 100), 3U);
  EXPECT_TRUE(query.Flag("f"));
  EXPECT_FALSE(query.Flag("g"));
  EXPECT_FALSE(query.Flag("h"));
  EXPECT_THAT(query.All("r"), ElementsAre("1", "2"));
}

TEST(WebQuery, RefusesWhatItDoesNotKnow) {
  const WebQuery::Parameters parameters = {{"last", "5"}, {"lsat", "5"}};
  EXPECT_EQ(Refusal([&] {
              WebQuery(parameters, {"last", "grep"});
            }),
            "400 the parameter \"lsat\" is not known here; there are last, grep");
  EXPECT_EQ(Refusal([&] { WebQuery(parameters, {}); }),
            "400 the parameter \"last\" is not known here; leave it out");
  const WebQuery::Parameters doubled = {{"last", "5"}, {"last", "6"}};
  EXPECT_EQ(Refusal([&] { WebQuery(doubled, {"last"}); }),
            "400 the parameter \"last\" is there twice; give it once");
}

TEST(WebQuery, RefusesValuesThatAreNone) {
  const WebQuery::Parameters parameters = {
      {"n", "101"}, {"m", "-1"}, {"o", "1x"}, {"f", "yes"}, {"t", "soon"}};
  const WebQuery query(parameters, {"n", "m", "o", "f", "t"});
  for (const char* name : {"n", "m", "o"}) {
    EXPECT_EQ(Refusal([&] { query.Number(name, 0, 100); }),
              "400 the parameter \"" + std::string(name) + "\" is a number from 0 to 100");
  }
  EXPECT_EQ(Refusal([&] { query.Flag("f"); }), "400 the parameter \"f\" is 1 or 0");
  EXPECT_THAT(
      Refusal([&] { query.Since("t"); }),
      testing::StartsWith("400 the parameter \"t\" is no time; write \"2026-11-21 08:05\""));
}

TEST(WebQuery, TimesMayHaveNanoseconds) {
  constexpr time_t kNow = 1'000'000'000;
  EXPECT_EQ(ParseWall("2001-09-09T01:46:40Z", kNow, false), kNow * kSecond);
  EXPECT_EQ(ParseWall("2001-09-09T01:46:40Z", kNow, true), kNow * kSecond + kSecond - 1);
  EXPECT_EQ(ParseWall("2001-09-09T01:46:40.5Z", kNow, true), kNow * kSecond + kSecond / 2);
  EXPECT_EQ(ParseWall("2001-09-09T03:46:40.000000001+02:00", kNow, false), kNow * kSecond + 1);
  EXPECT_EQ(ParseWall("1h", kNow, false), (kNow - 3600) * kSecond);
  for (const char* text : {"1.5h", "2001-09-09T01:46:40.Z", "2001-09-09T01:46:40.1234567890Z", "",
                           "2001-09-09 01:46.5"}) {
    EXPECT_EQ(ParseWall(text, kNow, false), std::nullopt) << text;
  }
  EXPECT_EQ(ParseWall(std::string(100'000, '1'), kNow, false), std::nullopt);
}

TEST(WebPlace, ComesBackAsItWent) {
  for (const char* text : {"1122334455667788:7:64", "log:1000000000", "log:-5"}) {
    const auto place = ParsePlace(text);
    ASSERT_TRUE(place) << text;
    EXPECT_EQ(PlaceText(*place), text);
  }
  for (const char* text : {"", "log:", "log:x", "log:1 ", "log:99999999999999999999", "7:64",
                           "log:9223372036854775807", "1122334455667788:7:64:"}) {
    EXPECT_EQ(ParsePlace(text), std::nullopt) << text;
  }
}

TEST(WebPattern, PlainTextIsFoundAsItIs) {
  const auto pattern = MakeWebPattern("a.c [x]", false, true);
  EXPECT_TRUE(pattern->Matches("see a.c [x] there"));
  EXPECT_FALSE(pattern->Matches("see abc x there"));
}

TEST(WebPattern, RefusesWhatWouldTakeTooLong) {
  EXPECT_EQ(Refusal([] { MakeWebPattern("((a{1,255}){1,255}){1,255}", false, false); }),
            "400 the pattern would take too long on each line; use one with fewer repetitions and "
            "without back-references");
  EXPECT_EQ(Refusal([] { MakeWebPattern(std::string(1001, 'a'), false, false); }),
            "400 the pattern is too long or has a NUL in it; use at most 1000 characters");
  EXPECT_THAT(Refusal([] { MakeWebPattern("(", false, false); }), testing::StartsWith("400 "));
  EXPECT_TRUE(MakeWebPattern("(", false, true)->Matches("f(x)"));
}

}  // namespace
}  // namespace zevweb
