// What the daemon's command "status" adds to the records of consoles.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "console_view.h"

namespace zevctl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

ConsoleRecord Record(const std::string& name, const std::string& state = "0") {
  ConsoleRecord record;
  record.name = name;
  record.state = state;
  return record;
}

TEST(ZevctlConsoleViewTest, StatusIsAddedByName) {
  const auto views = WithStatus(
      {Record("a"), Record("b", "3")},
      R"({"console":"b","state":"refused","since":20,"last_output":null,"users":[]})"
      "\n"
      R"({"console":"a","state":"in-use","since":10,"last_output":11,"users":[)"
      R"({"user":"ann","given_user":"x"},{"user":null,"given_user":"bob"},{"user":null,"from":"10.0.0.5"}]})"
      "\n");
  ASSERT_EQ(views.size(), 2);
  EXPECT_EQ(views[0].state_word, "in-use");
  EXPECT_EQ(views[0].since, 10);
  EXPECT_EQ(views[0].last_output, 11);
  EXPECT_THAT(*views[0].users, ElementsAre("ann", "bob", "somebody from 10.0.0.5"));
  EXPECT_TRUE(views[0].IsUp());
  EXPECT_EQ(views[1].since, 20);
  EXPECT_EQ(views[1].last_output, 0);
  EXPECT_THAT(*views[1].users, IsEmpty());
  EXPECT_FALSE(views[1].IsUp());
}

TEST(ZevctlConsoleViewTest, ConsolesOfOneNameKeepTheirOrder) {
  const auto views = WithStatus({Record("a"), Record("a", "5")},
                                "{\"console\":\"a\",\"state\":\"connected\",\"since\":1}\n"
                                "{\"console\":\"a\",\"state\":\"disabled\",\"since\":2}\n");
  EXPECT_EQ(views[0].since, 1);
  EXPECT_EQ(views[1].since, 2);
  EXPECT_TRUE(views[1].IsDisabled());
}

TEST(ZevctlConsoleViewTest, HiddenUsersAreHiddenHereToo) {
  const auto views = WithStatus(
      {Record("a")},
      R"({"console":"a","state":"connected","users":[{"user":"vrq"},{"given_user":"VRQ"}]})");
  EXPECT_THAT(*views[0].users, IsEmpty());
}

TEST(ZevctlConsoleViewTest, WhatTheAnswerLacksStaysAsItIs) {
  for (const char* const answer :
       {"", "{\"console\":\"b\"}\n", "nonsense\n", "[]\n", "{\"console\":7}\n"}) {
    const auto views = WithStatus({Record("a", "2")}, answer);
    ASSERT_EQ(views.size(), 1);
    EXPECT_EQ(views[0].state_word, "not-connected");
    EXPECT_EQ(views[0].since, 0);
    EXPECT_FALSE(views[0].users.has_value()) << answer;
  }
}

TEST(ZevctlConsoleViewTest, KeysOfOtherKindsAreTakenForMissing) {
  const auto views = WithStatus({Record("a")},
                                "{\"console\":\"a\",\"state\":\"connected\",\"since\":\"x\","
                                "\"last_output\":1.5,\"users\":[{\"from\":3}]}\n");
  EXPECT_EQ(views[0].since, 0);
  EXPECT_EQ(views[0].last_output, 0);
  EXPECT_THAT(*views[0].users, ElementsAre("somebody from "));
}

}  // namespace
}  // namespace zevctl
