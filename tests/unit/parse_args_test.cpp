// The argument line with which a client of the main port says what it wants.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "attach.h"
#include "serv_conn.h"
#include "support.h"
#include "user.h"
#include "user_conn.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StrEq;

constexpr char kInvalidText[] = "002 - Invalid argument.\r\n";
constexpr char kInsufficientText[] = "009 - Insufficient data.\r\n";

class ParseConsoleArgsTest : public test::DaemonTest {
 protected:
  /// Parses a copy of `line` that ends where the line does; the record holds rubbish before.
  int Parse(const std::string& line) {
    memset(&args_, 'x', sizeof args_);
    u_err_msg = nullptr;
    std::vector<char> buf(line.c_str(), line.c_str() + line.size() + 1);
    return ParseConsoleArgs(buf.data(), &args_);
  }

  void ExpectRefused(const std::string& line, const char* error, const std::string& message) {
    SCOPED_TRACE(line);
    const test::DebugCapture debug;
    EXPECT_EQ(Parse(line), -1);
    EXPECT_STREQ(u_err_msg, error);
    EXPECT_THAT(debug.Messages(), ElementsAre("ParseConsoleArgs: " + message + "\n"));
  }

  void ExpectMode(const std::string& line, int mode) {
    SCOPED_TRACE(line);
    EXPECT_EQ(Parse(line), 0);
    EXPECT_EQ(args_.mode, mode);
  }

  ConsoleArgs args_;
};

TEST_F(ParseConsoleArgsTest, ConsoleNameAloneLeavesTheDefaults) {
  const test::DebugCapture debug(kDetail);
  EXPECT_EQ(Parse("sys1\n"), 0);
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_STREQ(args_.user_name, "<unknown>");
  EXPECT_EQ(args_.mode, 2);
  EXPECT_STREQ(args_.addr, "");
  EXPECT_STREQ(args_.auth_mechanism, "");
  EXPECT_STREQ(args_.user_cookie, "");
  EXPECT_EQ(u_err_msg, nullptr);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(ParseConsoleArgsTest, WritesItsEntryLine) {
  const test::DebugCapture debug(kTrace);
  EXPECT_EQ(Parse("sys1"), 0);
  EXPECT_THAT(debug.Messages(), ElementsAre("Entering ParseConsoleArgs\n"));
}

TEST_F(ParseConsoleArgsTest, TakesEveryOption) {
  EXPECT_EQ(Parse("sys1 mode=ex user=anna addr=192.0.2.7\r\n"), 0);
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_EQ(args_.mode, 3);
  EXPECT_STREQ(args_.user_name, "anna");
  EXPECT_STREQ(args_.addr, "192.0.2.7");
}

TEST_F(ParseConsoleArgsTest, TakesOptionsInAnyOrder) {
  EXPECT_EQ(Parse("sys1 addr=192.0.2.7 user=anna mode=ro"), 0);
  EXPECT_EQ(args_.mode, 1);
  EXPECT_STREQ(args_.user_name, "anna");
  EXPECT_STREQ(args_.addr, "192.0.2.7");
}

TEST_F(ParseConsoleArgsTest, EveryModeWord) {
  ExpectMode("sys1 mode=ro", 1);
  ExpectMode("sys1 mode=sh", 2);
  ExpectMode("sys1 mode=ex", 3);
  ExpectMode("sys1 mode=er", 4);
}

TEST_F(ParseConsoleArgsTest, LaterOptionOverridesEarlier) {
  EXPECT_EQ(Parse("sys1 mode=ex user=anna addr=a mode=ro user=bert addr=b"), 0);
  EXPECT_EQ(args_.mode, 1);
  EXPECT_STREQ(args_.user_name, "bert");
  EXPECT_STREQ(args_.addr, "b");
}

TEST_F(ParseConsoleArgsTest, TellsWhetherAndHowOftenAUserIsNamed) {
  EXPECT_EQ(Parse("sys1"), 0);
  EXPECT_FALSE(args_.names_user);
  EXPECT_EQ(Parse("sys1 user=anna"), 0);
  EXPECT_TRUE(args_.names_user);
  EXPECT_STREQ(args_.earlier_user_name, "");
  EXPECT_EQ(Parse("sys1 user=anna user=bert user=carl"), 0);
  EXPECT_STREQ(args_.earlier_user_name, "bert");
  EXPECT_STREQ(args_.user_name, "carl");
}

TEST_F(ParseConsoleArgsTest, ControlCharactersOfNameAndAddressBecomeMarks) {
  EXPECT_EQ(Parse("sys1 user=\x1b[2Jro\xC2\x9Bot\x07 addr=10.0\x9b.0.1\x7f"), 0);
  EXPECT_STREQ(args_.user_name, "?[2Jro?ot?");
  EXPECT_STREQ(args_.addr, "10.0?.0.1?");
}

TEST_F(ParseConsoleArgsTest, SeparatorsAreRunsOfBlanksTabsAndLineEnds) {
  EXPECT_EQ(Parse("\r\n\t  sys1 \t\tmode=ro\ruser=anna\n\naddr=a\t\r\n "), 0);
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_EQ(args_.mode, 1);
  EXPECT_STREQ(args_.user_name, "anna");
  EXPECT_STREQ(args_.addr, "a");
}

TEST_F(ParseConsoleArgsTest, OtherWhiteSpaceBelongsToTheToken) {
  EXPECT_EQ(Parse("sys\v1\f"), 0);
  EXPECT_STREQ(args_.cons_name, "sys\v1\f");
}

TEST_F(ParseConsoleArgsTest, NoTokenIsInsufficientData) {
  for (const char* line : {"", " ", "   \t ", "\n", "\r\n", " \t\r\n\r\n "}) {
    ExpectRefused(line, kInsufficientText, "No console arguments found.");
  }
}

TEST_F(ParseConsoleArgsTest, TokenAloneLacksTheCookie) {
  ExpectRefused("token", kInsufficientText, "Cookie not specified.");
  ExpectRefused(" token \r\n", kInsufficientText, "Cookie not specified.");
}

TEST_F(ParseConsoleArgsTest, TokenAndCookieLackTheConsoleName) {
  ExpectRefused("token 0123456789abcdef", kInsufficientText, "Console name not specified.");
  ExpectRefused("token mode=ro\n", kInsufficientText, "Console name not specified.");
}

TEST_F(ParseConsoleArgsTest, PrefixIsSkipped) {
  EXPECT_EQ(Parse("token 0123456789abcde sys1 mode=ex user=anna\n"), 0);
  EXPECT_STREQ(args_.auth_mechanism, "token");
  EXPECT_STREQ(args_.user_cookie, "0123456789abcde");
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_EQ(args_.mode, 3);
  EXPECT_STREQ(args_.user_name, "anna");
}

TEST_F(ParseConsoleArgsTest, CookieIsCutTo16Characters) {
  EXPECT_EQ(Parse("token 0123456789abcdefgh sys1"), 0);
  EXPECT_STREQ(args_.user_cookie, "0123456789abcdef");
  EXPECT_STREQ(args_.cons_name, "sys1");
}

TEST_F(ParseConsoleArgsTest, OnlyTheExactWordIsThePrefix) {
  for (const char* name : {"Token", "TOKEN", "tokens", "toke", "token="}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Parse(name), 0);
    EXPECT_STREQ(args_.cons_name, name);
    EXPECT_STREQ(args_.auth_mechanism, "");
  }
}

TEST_F(ParseConsoleArgsTest, ConsoleMayBeCalledTokenBehindThePrefix) {
  EXPECT_EQ(Parse("token cookie token mode=ro"), 0);
  EXPECT_STREQ(args_.cons_name, "token");
  EXPECT_EQ(args_.mode, 1);
}

TEST_F(ParseConsoleArgsTest, FirstTokenIsTheNameWhateverItLooksLike) {
  EXPECT_EQ(Parse("mode=EX mode=ro"), 0);
  EXPECT_STREQ(args_.cons_name, "mode=EX");
  EXPECT_EQ(args_.mode, 1);
  EXPECT_EQ(Parse("@@@@"), 0);
  EXPECT_STREQ(args_.cons_name, "@@@@");
}

TEST_F(ParseConsoleArgsTest, TextsAreCutToTheirFields) {
  EXPECT_EQ(Parse(std::string(65, 'c') + " user=" + std::string(40, 'u') +
                  " addr=" + std::string(1000, 'a')),
            0);
  EXPECT_EQ(args_.cons_name, std::string(64, 'c'));
  EXPECT_EQ(args_.user_name, std::string(32, 'u'));
  EXPECT_EQ(args_.addr, std::string(64, 'a'));
}

TEST_F(ParseConsoleArgsTest, TextsThatFitAreWhole) {
  EXPECT_EQ(Parse(std::string(64, 'c') + " user=" + std::string(32, 'u') +
                  " addr=" + std::string(64, 'a')),
            0);
  EXPECT_EQ(args_.cons_name, std::string(64, 'c'));
  EXPECT_EQ(args_.user_name, std::string(32, 'u'));
  EXPECT_EQ(args_.addr, std::string(64, 'a'));
}

TEST_F(ParseConsoleArgsTest, UserAndAddressMayBeEmpty) {
  EXPECT_EQ(Parse("sys1 user=anna user= addr=a addr="), 0);
  EXPECT_STREQ(args_.user_name, "");
  EXPECT_STREQ(args_.addr, "");
}

TEST_F(ParseConsoleArgsTest, ValueMayHoldAnEqualsSign) {
  EXPECT_EQ(Parse("sys1 user=mode=EX addr=user=x"), 0);
  EXPECT_STREQ(args_.user_name, "mode=EX");
  EXPECT_STREQ(args_.addr, "user=x");
  EXPECT_EQ(args_.mode, 2);
}

TEST_F(ParseConsoleArgsTest, UnknownModeIsRefused) {
  for (const std::string value : {"EX", "Ro", "", "e", "exx", "shared", "3", "=ro"}) {
    ExpectRefused("sys1 mode=" + value, kInvalidText, "Unrecognized mode \"" + value + "\".");
  }
}

TEST_F(ParseConsoleArgsTest, ModeMustFollowItsKeyAtOnce) {
  ExpectRefused("sys1 mode= ro", kInvalidText, "Unrecognized mode \"\".");
}

TEST_F(ParseConsoleArgsTest, UnknownOptionIsRefused) {
  for (const std::string option :
       {"verbose", "mode", "Mode=ro", "USER=anna", "=", "xmode=ro", "address=a", "token", "@@@@"}) {
    ExpectRefused("sys1 " + option, kInvalidText, "Invalid argument \"" + option + "\".");
  }
}

TEST_F(ParseConsoleArgsTest, FirstWrongOptionIsTheOneReported) {
  ExpectRefused("sys1 mode=ro first mode=EX", kInvalidText, "Invalid argument \"first\".");
  ExpectRefused("sys1 mode=EX first", kInvalidText, "Unrecognized mode \"EX\".");
}

TEST_F(ParseConsoleArgsTest, HighBytesPassUnchanged) {
  EXPECT_EQ(Parse("\xC3\xBC\xFF user=\xE9"), 0);
  EXPECT_STREQ(args_.cons_name, "\xC3\xBC\xFF");
  EXPECT_STREQ(args_.user_name, "\xE9");
}

TEST_F(ParseConsoleArgsTest, MessagesAreOfLevelOne) {
  const test::DebugCapture debug(0);
  EXPECT_EQ(Parse(""), -1);
  EXPECT_EQ(Parse("token"), -1);
  EXPECT_EQ(Parse("token cookie"), -1);
  EXPECT_EQ(Parse("sys1 mode=EX"), -1);
  EXPECT_EQ(Parse("sys1 other"), -1);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

}  // namespace
