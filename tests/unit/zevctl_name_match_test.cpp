// What a typed name means, and which words are near to a mistyped one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "exit_status.h"
#include "name_match.h"

namespace zevctl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Names = std::vector<std::string>;

std::string FailureOf(const Names& names, const std::string& typed) {
  try {
    return "found: " + FindOneName(names, typed);
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.status(), ExitStatus::kNoSuchConsole);
    return failure.what();
  }
}

TEST(ZevctlNameMatchTest, OneConsoleHasTwoNames) {
  EXPECT_TRUE(IsSameName("rack-1-a", "Rack_1_A"));
  EXPECT_TRUE(IsSameName("rack_1", "rack-1"));
  EXPECT_FALSE(IsSameName("rack-1", "rack-12"));
  EXPECT_FALSE(IsSameName("rack-1", "rack.1"));
  EXPECT_FALSE(IsSameName("", "-"));
}

TEST(ZevctlNameMatchTest, PatternsMatchBothNames) {
  EXPECT_TRUE(NameMatches("rack_1_a", "rack-1*"));
  EXPECT_TRUE(NameMatches("rack-1-a", "RACK_?_a"));
  EXPECT_TRUE(NameMatches("rack_b", "rack-[a-c]"));
  EXPECT_FALSE(NameMatches("rack_d", "rack-[a-c]"));
  EXPECT_FALSE(NameMatches("rack__", "rack-[a-c]"));
  EXPECT_TRUE(NameMatches("rack-]", "rack_[]-]"));
  EXPECT_TRUE(NameMatches("rack_[a", "rack-[a"));
  EXPECT_FALSE(NameMatches("rack_1_a", "rack-1"));
}

TEST(ZevctlNameMatchTest, SameNameComesFirst) {
  const Names names = {"web-1", "web-10", "Web_2"};
  EXPECT_EQ(FindOneName(names, "WEB-1"), "web-1");
  EXPECT_EQ(FindOneName(names, "web_1"), "web-1");
  EXPECT_EQ(FindOneName(names, "web-2"), "Web_2");
}

TEST(ZevctlNameMatchTest, TheNameThatIsTypedWinsOverTheOtherOne) {
  const Names names = {"a-b", "a_b"};
  EXPECT_EQ(FindOneName(names, "a_b"), "a_b");
  EXPECT_EQ(FindOneName(names, "A-B"), "a-b");
}

TEST(ZevctlNameMatchTest, NamesThatDifferInCaseAreOne) {
  EXPECT_EQ(FindOneName({"box", "BOX"}, "b"), "BOX");
}

TEST(ZevctlNameMatchTest, UniquePrefixAndGlob) {
  const Names names = {"mail-1", "web-1", "web-2"};
  EXPECT_EQ(FindOneName(names, "ma"), "mail-1");
  EXPECT_EQ(FindOneName(names, "MAIL_"), "mail-1");
  EXPECT_EQ(FindOneName(names, "*2"), "web-2");
  EXPECT_EQ(FindOneName(names, "m*1"), "mail-1");
}

TEST(ZevctlNameMatchTest, CandidatesAreNamedInOrder) {
  const Names names = {"web-10", "web-2", "web-1", "mail"};
  EXPECT_EQ(FailureOf(names, "web"),
            "\"web\" may mean web-1, web-2, web-10; type more of the name");
  EXPECT_EQ(FailureOf(names, "*-1*"), "\"*-1*\" may mean web-1, web-10; type more of the name");
}

TEST(ZevctlNameMatchTest, NoMoreCandidatesThanCanBeRead) {
  Names names;
  for (int i = 1; i <= 9; ++i) names.push_back("n" + std::to_string(i));
  EXPECT_EQ(FailureOf(names, "n"),
            "\"n\" may mean n1, n2, n3, n4, n5, n6, n7, n8, ...; type more of the name");
}

TEST(ZevctlNameMatchTest, NobodyHasTheName) {
  EXPECT_EQ(FailureOf({"box"}, "xyzzy"),
            "no console is named \"xyzzy\"; \"zevctl list\" shows the names");
  EXPECT_EQ(FailureOf({"box", "bix"}, "bux"),
            "no console is named \"bux\"; did you mean bix or box? \"zevctl list\" shows the "
            "names");
  EXPECT_EQ(FailureOf({"box"}, ""), "no console is named \"\"; \"zevctl list\" shows the names");
}

TEST(ZevctlNameMatchTest, NumbersInNamesAreNumbers) {
  EXPECT_TRUE(ComesBefore("web2", "Web10"));
  EXPECT_FALSE(ComesBefore("web10", "web2"));
  EXPECT_TRUE(ComesBefore("A", "b"));
  EXPECT_FALSE(ComesBefore("same", "same"));
}

TEST(ZevctlNameMatchTest, NearestWordsFirst) {
  const Names commands = {"list", "log", "login", "clear", "enable", "disable", "reconnect"};
  EXPECT_THAT(NearestWords("lsit", commands), ElementsAre("list"));
  EXPECT_THAT(NearestWords("recon", commands), ElementsAre("reconnect"));
  EXPECT_THAT(NearestWords("enabel", commands), ElementsAre("enable"));
  EXPECT_THAT(NearestWords("dsable", commands), ElementsAre("disable", "enable"));
  EXPECT_THAT(NearestWords("LOG", commands), ElementsAre("log", "login"));
  EXPECT_THAT(NearestWords("frobnicate", commands), IsEmpty());
  EXPECT_THAT(NearestWords("x", commands), IsEmpty());
  EXPECT_THAT(NearestWords("", commands), IsEmpty());
}

TEST(ZevctlNameMatchTest, AtMostThreeAreNear) {
  EXPECT_THAT(NearestWords("web05", {"web04", "web03", "web02", "web01"}),
              ElementsAre("web01", "web02", "web03"));
}

TEST(ZevctlNameMatchTest, AlternativesAreReadable) {
  EXPECT_EQ(Alternatives({"a"}), "a");
  EXPECT_EQ(Alternatives({"a", "b"}), "a or b");
  EXPECT_EQ(Alternatives({"a", "b\x1b", "c"}), "a, b? or c");
}

}  // namespace
}  // namespace zevctl
