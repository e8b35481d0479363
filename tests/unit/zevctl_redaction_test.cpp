// What is left out of the daemon's messages before others see them.
#include <gtest/gtest.h>

#include <string>

#include "redaction.h"

namespace zevctl {
namespace {

constexpr char kStamp[] = "ZEV 26/11/22_08:00:00:<user_mon>: ";

std::string Taken(const std::string& message) {
  return Redaction("abcdefghijklmnop").Take(kStamp + message);
}

TEST(ZevctlRedactionTest, HarmlessMessagesStay) {
  for (const std::string message :
       {"ListenOnPort: bind() to port 6500 succeeded", "connect() failed : Connection refused"}) {
    EXPECT_EQ(Taken(message), kStamp + message);
  }
}

TEST(ZevctlRedactionTest, WhatWasSentIsRemoved) {
  for (const std::string before :
       {"ProcessUserInput: Received ", "F: Received arguments: ", "F: user_cookie(",
        "Login failed (username=", "Invalid argument ", "PostJixEvent: message="}) {
    const std::string shown = Taken(before + "->geheim<- (6 bytes)");
    EXPECT_EQ(shown.find("geheim"), std::string::npos) << shown;
    EXPECT_TRUE(shown.ends_with("[removed]")) << shown;
  }
}

TEST(ZevctlRedactionTest, FurtherLinesOfAMessageGoWithIt) {
  Redaction redaction("");
  EXPECT_EQ(redaction.Take("geheim<- (end of what was cut off)"), "");
  EXPECT_EQ(redaction.Take(std::string(kStamp) + "Received ->one"),
            std::string(kStamp) + "Received [removed]");
  EXPECT_EQ(redaction.Take("geheim"), "");
  EXPECT_EQ(redaction.Take("<- (12 bytes)"), "");
  EXPECT_EQ(redaction.Take(std::string(kStamp) + "goes on"), std::string(kStamp) + "goes on");
  EXPECT_EQ(redaction.Take(" with this"), " with this");
}

TEST(ZevctlRedactionTest, JournalLinesAreKnown) {
  const std::string prefix = "2026-11-22T08:00:00+0000 station zevd[42]: ";
  Redaction redaction("");
  EXPECT_EQ(redaction.Take(prefix + "geheim"), "");
  EXPECT_EQ(redaction.Take(prefix + kStamp + "Received ->a"),
            prefix + kStamp + "Received [removed]");
  EXPECT_EQ(redaction.Take(prefix + "geheim"), "");
  const std::string manager = "2026-11-22T08:00:01+0000 station systemd[1]: Started zevd.service.";
  EXPECT_EQ(redaction.Take(manager), manager);
}

TEST(ZevctlRedactionTest, TheCookieIsRemovedWhereverItIs) {
  EXPECT_EQ(Taken("x abcdefghijklmnop y abcdefghijklmnop"),
            std::string(kStamp) + "x [removed] y [removed]");
}

}  // namespace
}  // namespace zevctl
