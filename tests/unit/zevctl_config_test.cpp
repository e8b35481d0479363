// The readable configuration, its checks, and what a change of it means.
#include <gmock/gmock.h>
#include <sys/sysmacros.h>

#include "config_check.h"
#include "config_diff.h"
#include "config_lines.h"
#include "config_patterns.h"
#include "config_process.h"
#include "config_readable.h"
#include "config_zev.h"

namespace zevctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

std::vector<std::string> LinesOf(const std::vector<ConfigSource>& sources, Findings& findings) {
  std::vector<std::string> lines;
  for (const ConfigConsole& console : ReadReadable(sources, findings)) {
    lines.push_back(ZevConfLine(console));
  }
  return lines;
}

std::vector<std::string> LinesOf(const std::string& text) {
  Findings findings;
  auto lines = LinesOf({{"main", text}}, findings);
  EXPECT_THAT(findings.Sorted(), IsEmpty());
  return lines;
}

// What is wrong with a file, as "LINE:COLUMN WHAT".
std::vector<std::string> Wrong(const std::string& text) {
  Findings findings;
  ReadReadable({{"main", text}}, findings);
  std::vector<std::string> found;
  for (const Finding& finding : findings.Sorted()) {
    EXPECT_FALSE(finding.mend.empty());
    found.push_back(std::to_string(finding.place.line) + ":" +
                    std::to_string(finding.place.column) + " " + finding.what);
  }
  return found;
}

TEST(ConfigReadableTest, WhatIsNotGivenHasItsStandardValue) {
  EXPECT_THAT(LinesOf("[[console]]\nname = 'a'\ntcp = '192.0.2.1'\n"),
              ElementsAre("a 192.0.2.1 23 0 0 - - \"-\" 1 1 1 1 \"\""));
}

TEST(ConfigReadableTest, AConsoleComesBeforeItsGroupAndThatBeforeTheDefaults) {
  EXPECT_THAT(LinesOf("[defaults]\nmodel = 'd'\nplatform = 'd'\nos = 'd d'\n"
                      "[group.g]\nmodel = 'g'\nplatform = 'g'\n"
                      "[[console]]\nname = 'a'\ntcp = '192.0.2.1:7'\ngroup = 'g'\nmodel = 'c'\n"
                      "[[console]]\nname = 'b'\ntcp = '192.0.2.2:7'\n"),
              ElementsAre("a 192.0.2.1 7 0 0 c g \"d d\" 1 1 1 1 \"\"",
                          "b 192.0.2.2 7 0 0 d d \"d d\" 1 1 1 1 \"\""));
}

TEST(ConfigReadableTest, RangesRunTogether) {
  EXPECT_THAT(LinesOf("[[console]]\nname = 'r[09-10]'\ntcp = '192.0.2.[1-2]:7'\n"
                      "port = '65[01-02]'\nlogin = false\n"),
              ElementsAre("r09 192.0.2.1 7 0 6501 - - \"-\" 1 1 1 0 \"\"",
                          "r10 192.0.2.2 7 0 6502 - - \"-\" 1 1 1 0 \"\""));
}

TEST(ConfigReadableTest, AGroupMayStandInAnotherFile) {
  Findings findings;
  const auto lines = LinesOf({{"main", "[[console]]\nname='a'\ntcp='192.0.2.1'\ngroup='g'\n"},
                              {"more", "[group.g]\nlog = false\n"}},
                             findings);
  EXPECT_THAT(lines, ElementsAre("a 192.0.2.1 23 0 0 - - \"-\" 0 1 1 1 \"\""));
  EXPECT_TRUE(findings.empty());
}

TEST(ConfigReadableTest, MistakesHaveTheirPlaces) {
  EXPECT_THAT(Wrong("a = 1\n"), ElementsAre("1:1 unknown key \"a\""));
  EXPECT_THAT(Wrong("[group.g]\nname = 'x'\n"),
              ElementsAre("2:1 \"name\" belongs to a single console"));
  EXPECT_THAT(Wrong("[console]\nname = 'x'\n"),
              ElementsAre(HasSubstr("a console does not begin with [[console]]")));
  EXPECT_THAT(Wrong("[[console]]\ntcp = 'x'\n"), ElementsAre("1:1 a console without a name"));
  EXPECT_THAT(Wrong("[[console]]\nname = 'x'\ntcp = 'x'\nssh = 'y'\n"),
              ElementsAre("1:1 the console \"x\" is reached twice"));
  EXPECT_THAT(Wrong("[[console]]\nname = 'x[1-2]'\ntcp = 'y[1-3]'\n"),
              ElementsAre(HasSubstr("3:7 \"tcp\" stands for 3 values, but the name for 2")));
  EXPECT_THAT(Wrong("[[console]]\nname = 'x[1-2]'\ntcp = 'y[1-2]'\nport = 7\n"),
              ElementsAre(HasSubstr("4:8 \"port\" stands for 1 values, but the name for 2")));
  EXPECT_THAT(Wrong("[[console]]\nname = \"x\n"), SizeIs(1));
}

TEST(ConfigReadableTest, NoMistakeHidesAnother) {
  EXPECT_THAT(Wrong("[[console]]\nname = 'x'\ntcp = 'y'\nlog = 1\nmodl = 'z'\ngroup = 'g'\n"),
              SizeIs(3));
}

TEST(ConfigReadableTest, WhatIsWrittenIsReadAgain) {
  const std::string text =
      "a 192.0.2.1 7 0 6501 A p \"o\\s \" 1 1 1 1 disk \nb 192.0.2.1 8 3 0 B p \"o\" 1 0 0 0 \"\" "
      "\n";
  Findings findings;
  const std::string readable = WriteReadable(ReadZevConf(text, "f", findings));
  EXPECT_THAT(LinesOf(readable), ElementsAre("a 192.0.2.1 7 0 6501 A p \"o\\s \" 1 1 1 1 disk",
                                             "b 192.0.2.1 8 3 0 B p \"o\" 1 0 0 0 \"\""));
}

// ---- Lines --------------------------------------------------------------------------------------

constexpr char kTwoLines[] =
    "[[console]]\nname = 'a'\nserial = '/dev/ttyS0,9600n8'\nport = 10001\n"
    "[[console]]\nname = 'b'\nexec = 'cat'\n";

std::vector<std::string> PortsOf(const std::string& before) {
  Findings findings;
  auto consoles = ReadReadable({{"main", kTwoLines}}, findings);
  AssignLinePorts(consoles, ReadZevConf(before, "f", findings));
  std::vector<std::string> ports;
  for (const ConfigConsole& console : consoles) {
    EXPECT_EQ(console.Text(kFieldAddress), kLinesAddress);
    EXPECT_EQ(console.Text(kFieldPort), std::to_string(console.line->port));
    ports.push_back(console.Text(kFieldPort));
  }
  return ports;
}

TEST(ConfigLinesTest, ALineGetsTheLowestPortThatIsNotAUserPort) {
  EXPECT_THAT(PortsOf(""), ElementsAre("10002", "10003"));
}

TEST(ConfigLinesTest, ALineKeepsThePortThatItHad) {
  EXPECT_THAT(PortsOf("b 127.65.0.1 10002 0 0 - - \"-\" 1 1 1 1 \"\" \n"),
              ElementsAre("10003", "10002"));
  EXPECT_THAT(PortsOf("a 127.65.0.1 10007 0 0 - - \"-\" 1 1 1 1 \"\" \n"),
              ElementsAre("10007", "10002"));
}

TEST(ConfigLinesTest, APortThatHasBecomeAUserPortIsNotKept) {
  EXPECT_THAT(PortsOf("b 127.65.0.1 10001 0 0 - - \"-\" 1 1 1 1 \"\" \n"),
              ElementsAre("10002", "10003"));
}

// ---- Differences --------------------------------------------------------------------------------

std::vector<Change> Changes(const std::string& before, const std::string& after) {
  Findings findings;
  return Compare(ReadZevConf(before, "f", findings), ReadZevConf(after, "f", findings));
}

TEST(ConfigDiffTest, AConsoleIsKnownByItsAddress) {
  const auto changes = Changes("a 192.0.2.1 7 0 0 A p \"o\" 1 1 1 1 \"\" \n",
                               "b 192.0.2.1 7 0 0 A p \"o\" 1 1 1 1 \"\" \n");
  ASSERT_THAT(changes, SizeIs(1));
  EXPECT_EQ(changes.front().kind, ChangeKind::kChanges);
  EXPECT_FALSE(changes.front().costs_users);
  EXPECT_EQ(InWords(changes.front().fields.front()), "console name a -> b");
}

TEST(ConfigDiffTest, WhoeverGoesOrIsDisabledCostsUsers) {
  const auto changes = Changes(
      "a 192.0.2.1 7 0 0 A p \"o\" 1 1 1 1 \"\" \nb 192.0.2.1 8 0 0 A p \"o\" 1 1 1 1 \"\" \n",
      "b 192.0.2.1 8 0 0 A p \"o\" 1 1 0 1 \"\" \na 192.0.2.1 9 0 0 A p \"o\" 1 1 1 1 \"\" \n");
  ASSERT_THAT(changes, SizeIs(3));
  EXPECT_EQ(changes[0].address, "192.0.2.1:7");
  EXPECT_TRUE(changes[0].kind == ChangeKind::kGoes && changes[0].costs_users);
  EXPECT_TRUE(changes[1].kind == ChangeKind::kChanges && changes[1].costs_users);
  EXPECT_TRUE(changes[2].kind == ChangeKind::kComes && !changes[2].costs_users);
}

TEST(ConfigDiffTest, ALineThatChangesCostsUsers) {
  Findings findings;
  const std::string line = "a 127.65.0.1 10001 0 0 A p \"o\" 1 1 1 1 \"\" \n";
  const std::string other = "b 192.0.2.1 10001 0 0 A p \"o\" 1 1 1 1 \"\" \n";
  const auto consoles = ReadZevConf(line + other, "f", findings);
  const auto changes = Compare(consoles, consoles, {"10001"});
  ASSERT_THAT(changes, SizeIs(1));
  EXPECT_EQ(changes.front().name, "a");
  EXPECT_TRUE(changes.front().costs_users);
  EXPECT_EQ(InWords(changes.front()), "line: changed");
}

TEST(LinesChangeTest, MoreLinesMayTakeLonger) {
  EXPECT_EQ(StartLimit(0), std::chrono::seconds(5));
  EXPECT_EQ(StartLimit(500), std::chrono::seconds(105));
}

TEST(ConfigDiffTest, WhatIsTheSameDoesNotShow) {
  const std::string line = "a 192.0.2.1 7 0 0 A p \"o\" 1 1 1 1 \"\" \n";
  EXPECT_THAT(Changes(line, "# a comment\n" + line), IsEmpty());
}

// ---- Patterns -----------------------------------------------------------------------------------

std::vector<std::string> WrongPatterns(const std::string& text) {
  Findings findings;
  CheckPatterns(text, "f", findings);
  std::vector<std::string> found;
  for (const Finding& finding : findings.Sorted()) {
    found.push_back(finding.place.InWords() + " " + finding.what);
  }
  return found;
}

TEST(ConfigPatternsTest, UsualPatternsAreFine) {
  EXPECT_THAT(WrongPatterns("disk 300 0 disk.*error\n\n  \na 1 1  x y \nb 1 0 cost .$\n"),
              IsEmpty());
}

TEST(ConfigPatternsTest, WhatIsWrongIsNamed) {
  EXPECT_THAT(WrongPatterns("a 1 0 (\n"), ElementsAre(HasSubstr("f:1:7 the pattern does not")));
  EXPECT_THAT(WrongPatterns("a 1 0 (x)\\1\n"),
              ElementsAre(HasSubstr("f:1:7 the pattern is costly")));
  EXPECT_THAT(WrongPatterns("a\t1\t0\tx\n"), ElementsAre(HasSubstr("the priority is missing")));
  EXPECT_THAT(WrongPatterns("a 1 0\n"), ElementsAre(HasSubstr("the pattern is missing")));
  EXPECT_THAT(WrongPatterns("a 1 0 x$\n"),
              ElementsAre(HasSubstr("f:1:8 a pattern that ends in $")));
  EXPECT_THAT(WrongPatterns("a x y x\n"), SizeIs(2));
}

// ---- The process --------------------------------------------------------------------------------

TEST(ConfigProcessTest, ALockIsFoundByDeviceAndInode) {
  const std::string locks =
      "1: FLOCK  ADVISORY  WRITE 4711 08:01:99 0 EOF\n"
      "2: FLOCK  ADVISORY  WRITE 4712 00:2a:123456 0 EOF\n";
  EXPECT_TRUE(TellsOfLock(locks, makedev(8, 1), 99));
  EXPECT_TRUE(TellsOfLock(locks, makedev(0, 0x2a), 123456));
  EXPECT_FALSE(TellsOfLock(locks, makedev(8, 1), 9));
  EXPECT_FALSE(TellsOfLock(locks, makedev(8, 2), 99));
}

TEST(ConfigProcessTest, NumbersAreReadFromTheStatusOfAProcess) {
  const std::string status = "Name:\tx\nUid:\t1\t2\t3\t4\nGroups:\t7 8 \nVmRSS:\t1 kB\n";
  EXPECT_THAT(StatusNumbers(status, "Groups:"), ElementsAre(7, 8));
  EXPECT_THAT(StatusNumbers(status, "Uid:"), ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(StatusNumbers(status, "Gid:"), IsEmpty());
}

}  // namespace
}  // namespace zevctl
