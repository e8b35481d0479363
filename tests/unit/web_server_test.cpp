// The parts of zevweb's server that need no connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "web_answer_head.h"
#include "web_head.h"
#include "web_rate.h"
#include "web_routes.h"

namespace zevweb {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::Optional;

TEST(WebRoutesTest, APathFitsWordByWord) {
  EXPECT_THAT(MatchPath("/api/consoles", "/api/consoles"), Optional(IsEmpty()));
  EXPECT_THAT(MatchPath("/api/consoles/{name}/history", "/api/consoles/box/history"),
              Optional(ElementsAre("box")));
  EXPECT_EQ(MatchPath("/api/consoles/{name}", "/api/consoles/"), std::nullopt);
  EXPECT_EQ(MatchPath("/api/consoles/{name}", "/api/consoles/box/"), std::nullopt);
  EXPECT_EQ(MatchPath("/api/consoles", "/api/consoles/box"), std::nullopt);
  EXPECT_EQ(MatchPath("/api/consoles", "/api/consol"), std::nullopt);
}

TEST(WebRoutesTest, ThePatternsOwnWordWins) {
  const auto handler = [](const Request&) { return Response(); };
  const WebRoutes routes({{"POST", "/api/{any}", Access::kPerson, handler},
                          {"POST", "/api/login", Access::kAnyone, handler}},
                         {});
  Request request;
  request.method = "POST";
  request.path = "/api/login";
  bool exists = false;
  EXPECT_EQ(routes.FindRoute(&request, &exists)->access, Access::kAnyone);
  EXPECT_THAT(request.parts, IsEmpty());
  request.path = "/api/other";
  EXPECT_EQ(routes.FindRoute(&request, &exists)->access, Access::kPerson);
  EXPECT_THAT(request.parts, ElementsAre("other"));
}

TEST(WebRoutesTest, AnotherMethodOfAPathIsTold) {
  const WebRoutes routes({{"GET", "/a", Access::kAnyone, {}}}, {});
  Request request;
  request.path = "/a";
  request.method = "PUT";
  bool exists = false;
  EXPECT_EQ(routes.FindRoute(&request, &exists), nullptr);
  EXPECT_TRUE(exists);
  request.method = "HEAD";
  EXPECT_NE(routes.FindRoute(&request, &exists), nullptr);
}

TEST(WebHeadTest, TheCookieOfANameIsFound) {
  EXPECT_EQ(CookieIn("a=1; zevweb=secret; b=2", "zevweb"), "secret");
  EXPECT_EQ(CookieIn("zevweb=secret", "zevweb"), "secret");
  EXPECT_EQ(CookieIn("__Host-zevweb=secret", "zevweb"), std::nullopt);
  EXPECT_EQ(CookieIn("zevweb2=secret", "zevweb"), std::nullopt);
  EXPECT_EQ(CookieIn("", "zevweb"), std::nullopt);
}

TEST(WebHeadTest, OneOfTwoCookiesOfANameIsForgedSoNeitherCounts) {
  EXPECT_EQ(CookieIn("zevweb=one; zevweb=two", "zevweb"), std::nullopt);
}

TEST(WebRateTest, SoManyAtOnceAndThenOneInEachPause) {
  WebRate rate(2, std::chrono::seconds(10));
  const WebRate::Clock::time_point begin{std::chrono::hours(1)};
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(rate.WaitOf("key", begin).count(), 0);
    rate.Note("key", begin);
  }
  EXPECT_EQ(rate.WaitOf("key", begin).count(), 10);
  EXPECT_EQ(rate.WaitOf("other", begin).count(), 0);
  EXPECT_EQ(rate.WaitOf("key", begin + std::chrono::seconds(10)).count(), 0);
  rate.Forgive("key");
  EXPECT_EQ(rate.WaitOf("key", begin).count(), 0);
}

TEST(WebRateTest, AddressesOfOneNetworkCountAsOne) {
  EXPECT_EQ(RateKeyOf("192.0.2.7"), "192.0.2.7");
  EXPECT_EQ(RateKeyOf("2001:db8:1:2:3:4:5:6"), "2001:db8:1:2::");
  EXPECT_EQ(RateKeyOf("2001:db8:1:2::7"), "2001:db8:1:2::");
  EXPECT_EQ(RateKeyOf(""), "");
}

TEST(WebAnswerHeadTest, NoLineEndGetsIntoAHeader) {
  Response response;
  response.headers = {{"X-Good", "yes"}, {"X-Bad", "a\r\nSet-Cookie: b"}};
  const std::string head = AnswerHead(response, {});
  EXPECT_THAT(head, HasSubstr("X-Good: yes\r\n"));
  EXPECT_THAT(head, Not(HasSubstr("Set-Cookie")));
}

}  // namespace
}  // namespace zevweb
