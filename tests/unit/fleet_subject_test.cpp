#include "fleet_subject.h"

#include <gtest/gtest.h>

#include <string>

namespace zevfleet {

namespace {

TEST(FleetSubjectTest, PlainNamesStayAsTheyAre) {
  EXPECT_EQ(SubjectOf("hall1", "st-1", "web_03", Topic::kOut), "hall1.st-1.web_03.out");
  EXPECT_EQ(SubjectOf("hall1", "st1", "web", Topic::kEvent), "hall1.st1.web.event");
  EXPECT_EQ(SubjectOf("hall1", "st1", "web", Topic::kState), "hall1.st1.web.state");
}

TEST(FleetSubjectTest, TheStationItselfIsAPercentSign) {
  EXPECT_EQ(SubjectOf("hall1", "st1", "", Topic::kAudit), "hall1.st1.%.audit");
}

TEST(FleetSubjectTest, OtherBytesAreEscaped) {
  EXPECT_EQ(SubjectWord("a.b"), "a%2Eb");
  EXPECT_EQ(SubjectWord("*"), "%2A");
  EXPECT_EQ(SubjectWord(">"), "%3E");
  EXPECT_EQ(SubjectWord("%"), "%25");
  EXPECT_EQ(SubjectWord(" \r\n"), "%20%0D%0A");
  EXPECT_EQ(SubjectWord("\xC3\xA4"), "%C3%A4");
  EXPECT_EQ(SubjectWord(std::string("\0", 1)), "%00");
}

TEST(FleetSubjectTest, NoTwoNamesHaveOneWord) {
  EXPECT_NE(SubjectWord("%2E"), SubjectWord("."));
  EXPECT_NE(SubjectWord(""), SubjectWord("%"));
  EXPECT_NE(SubjectWord(std::string(128, 'a')), SubjectWord(std::string(129, 'a')));
}

TEST(FleetSubjectTest, AWordHasAnEnd) {
  EXPECT_EQ(SubjectWord(std::string(128, 'a')), std::string(128, 'a'));
  EXPECT_EQ(SubjectWord(std::string(60000, 'a')), std::string(128, 'a') + "%");
}

TEST(FleetSubjectTest, HeadersAreOneLineOfAscii) {
  EXPECT_EQ(HeaderText("a.b*c"), "a.b*c");
  EXPECT_EQ(HeaderText("a b\r\nX: y\x7F\xFF%"), "a%20b%0D%0AX:%20y%7F%FF%25");
  EXPECT_EQ(HeaderText(std::string(60000, 'a')).size(), 128U);
}

}  // namespace

}  // namespace zevfleet
