// The daemon's last words to a user.
#include <gtest/gtest.h>

#include <string>

#include "session_end.h"

namespace zevctl {
namespace {

std::string Framed(const std::string& message) {
  const std::string line(78, '*');
  return "\a\a\a\a\a\r\n\r\n" + line + "\r\n\r\n" + message + "\r\n\r\n" + line + "\r\n\r\n";
}

TEST(LastWords, TellTheCauseAndWhoItWas) {
  struct Case {
    const char* message;
    Cause cause;
    const char* who;
  };
  constexpr Case kCases[] = {
      {"Your session has been terminated by ann@10.0.0.5", Cause::kTerminated, "ann@10.0.0.5"},
      {"Console has been disabled by op@127.0.0.1", Cause::kDisabledBy, "op@127.0.0.1"},
      {"Console has been disabled.", Cause::kDisabled, ""},
      {"Console has been deleted.", Cause::kDeleted, ""},
  };
  for (const Case& tried : kCases) {
    for (const char* after : {"", "printed meanwhile\r\n"}) {
      const LastWords words = ParseLastWords("login: " + Framed(tried.message) + after);
      EXPECT_EQ(words.cause, tried.cause) << tried.message;
      EXPECT_EQ(words.who, tried.who);
    }
  }
}

TEST(LastWords, TheLastMessageCounts) {
  const std::string deleted = Framed("Console has been deleted.");
  EXPECT_FALSE(ParseLastWords(deleted + Framed("Message from op@10.0.0.1: \n\n\rhello")).cause);
  EXPECT_EQ(ParseLastWords(Framed("Message from op@10.0.0.1: \n\n\rhello") + deleted).cause,
            Cause::kDeleted);
}

TEST(LastWords, AreNothingElseThatAConsolePrints) {
  const std::string line(78, '*');
  for (const std::string& text :
       {std::string(), std::string("Console has been deleted."), Framed("Console has been built."),
        line + "\r\nConsole has been deleted.\r\n" + line,
        "\r\n\r\n" + line + "\r\n\r\nConsole has been deleted."}) {
    EXPECT_FALSE(ParseLastWords(text).cause) << text;
  }
}

}  // namespace
}  // namespace zevctl
