// The client's pieces that need no daemon: records, refusals, the login dialogue, tables, names.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "command_port.h"
#include "command_wire.h"
#include "console_words.h"
#include "login.h"
#include "output.h"
#include "refusal.h"
#include "selection.h"

namespace zevctl {
namespace {

using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::ResultOf;

// ---- Records ------------------------------------------------------------------------------------

std::string Padded(std::string text, size_t width) {
  text.resize(width, '\0');
  return text;
}

TEST(ZevctlRecordTest, ConsoleOnTheWire) {
  const std::string bytes = Padded("box", 64) + Padded("10.1.2.3", 64) + "\x34\x12" + "\x17\0"s +
                            Padded("A200", 64) + Padded("rack1", 64) + "1\0"s + "3\0"s;
  ASSERT_EQ(bytes.size(), zevd::kConsolePacketSize);
  const ConsoleRecord console = DecodeConsole(bytes);
  EXPECT_EQ(console.name, "box");
  EXPECT_EQ(console.address, "10.1.2.3");
  EXPECT_EQ(console.port, 0x1234);
  EXPECT_EQ(console.management_port, 0x17);
  EXPECT_EQ(console.model, "A200");
  EXPECT_EQ(console.platform, "rack1");
  EXPECT_EQ(console.state, "1");
  EXPECT_EQ(console.mode, "3");
}

TEST(ZevctlRecordTest, TextsThatFillTheirFieldsHaveNoTerminator) {
  const std::string name(64, 'n');
  const std::string bytes = name + std::string(64, 'a') + "\xFF\xFF\xFF\xFF" +
                            std::string(64, 'm') + std::string(64, 'p') + "99" + "0\0"s;
  const ConsoleRecord console = DecodeConsole(bytes);
  EXPECT_EQ(console.name, name);
  EXPECT_EQ(console.address, std::string(64, 'a'));
  EXPECT_EQ(console.port, 65535);
  EXPECT_EQ(console.model, std::string(64, 'm'));
  EXPECT_EQ(console.platform, std::string(64, 'p'));
  EXPECT_EQ(console.state, "99");
}

TEST(ZevctlRecordTest, UserOnTheWire) {
  const UserRecord user = DecodeUser(Padded("ann", 32) + Padded("10.0.0.1", 64) + "2\0"s);
  EXPECT_EQ(user.name, "ann");
  EXPECT_EQ(user.address, "10.0.0.1");
  EXPECT_EQ(user.mode, "2");
}

TEST(ZevctlRecordTest, MappedPortOnTheWire) {
  const MappedPortRecord console = DecodeMappedPort(Padded("box", 64) + Padded("10.1.2.3", 64) +
                                                    "\x17\0"s + "\x65\x19" + "\1\0"s);
  EXPECT_EQ(console.name, "box");
  EXPECT_EQ(console.port, 23);
  EXPECT_EQ(console.mapped_port, 6501);
  EXPECT_EQ(console.authentication, 1);
}

TEST(ZevctlRecordTest, PortHolderOnTheWire) {
  EXPECT_EQ(DecodePortHolder(Padded("10.9.8.7", 64)), "10.9.8.7");
}

// ---- Refusals -----------------------------------------------------------------------------------

TEST(ZevctlRefusalTest, IsTheLastLine) {
  const auto refusal = ParseRefusal("006 - Console is locked exclusively.\r\n");
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->number, 6);
  EXPECT_EQ(refusal->text, "006 - Console is locked exclusively.");
  EXPECT_EQ(refusal->status(), ExitStatus::kInUse);
  EXPECT_EQ(refusal->Message(),
            "refused: 006 - Console is locked exclusively. Watch it with --mode ro, or wait; "
            "\"zevctl who\" tells who has it.");
}

TEST(ZevctlRefusalTest, OtherTextsAreNotRefusals) {
  for (const char* bytes : {"", "\r\n", "006 - \r\n", "006 - Console", "06 - x\r\n", "0a6 - x\r\n",
                            "006- x\r\n", "006 - one\r\ntwo\r\n", "login: \r\n", "0061 - x\r\n"}) {
    EXPECT_FALSE(ParseRefusal(bytes)) << bytes;
  }
}

TEST(ZevctlRefusalTest, EveryNumberHasAStatus) {
  const std::vector<std::pair<std::string, ExitStatus>> rows = {
      {"001", ExitStatus::kNotAdmitted},   {"002", ExitStatus::kRefused},
      {"003", ExitStatus::kRefused},       {"004", ExitStatus::kNoSuchConsole},
      {"005", ExitStatus::kNotAccessible}, {"006", ExitStatus::kInUse},
      {"007", ExitStatus::kInUse},         {"008", ExitStatus::kRefused},
      {"009", ExitStatus::kRefused},       {"010", ExitStatus::kRefused},
      {"011", ExitStatus::kNotAccessible}, {"012", ExitStatus::kNotAccessible},
      {"013", ExitStatus::kRefused},       {"014", ExitStatus::kNotAdmitted},
      {"015", ExitStatus::kRefused},       {"016", ExitStatus::kRefused},
      {"999", ExitStatus::kRefused}};
  for (const auto& [number, status] : rows) {
    EXPECT_EQ(ParseRefusal(number + " - x\r\n")->status(), status) << number;
  }
}

TEST(ZevctlRefusalTest, AnUnknownNumberHasAdviceToo) {
  EXPECT_EQ(ParseRefusal("999 - Odd.\r\n")->Message(),
            "refused: 999 - Odd. The daemon's messages tell more.");
}

// ---- Login --------------------------------------------------------------------------------------

constexpr char kOffers[] = "\xFF\xFB\x01\xFF\xFB\x03";

TEST(ZevctlLoginTest, AnythingButAPromptEndsTheDialogue) {
  for (const std::string& first : {std::string(kOffers), "005 - x\r\n"s, "user"s + kOffers}) {
    LoginDialogue dialogue;
    std::string received = first;
    EXPECT_EQ(dialogue.Next(received), LoginStep::kOver);
    EXPECT_EQ(received, first);
  }
}

TEST(ZevctlLoginTest, TwoTriesByteByByte) {
  const std::string stream =
      "username: "
      "\xFF\xFB\x01password: "
      "\xFF\xFC\x01\r\nusername: "
      "\xFF\xFB\x01password: "
      "\xFF\xFC\x01\r\n"s +
      kOffers;
  LoginDialogue dialogue;
  std::string received;
  std::vector<LoginStep> steps;
  for (const char byte : stream) {
    received += byte;
    const LoginStep step = dialogue.Next(received);
    if (step != LoginStep::kWait) steps.push_back(step);
    if (step == LoginStep::kOver) break;
  }
  EXPECT_THAT(steps, ElementsAre(LoginStep::kName, LoginStep::kPassword, LoginStep::kName,
                                 LoginStep::kPassword, LoginStep::kOver));
  EXPECT_EQ(received, "\xFF");
}

TEST(ZevctlLoginTest, PromptsThatArriveTogetherAreTakenOneByOne) {
  LoginDialogue dialogue;
  std::string received = "username: \xFF\xFB\x01password: \xFF\xFC\x01\r\n001 - no\r\n";
  EXPECT_EQ(dialogue.Next(received), LoginStep::kName);
  EXPECT_EQ(dialogue.Next(received), LoginStep::kPassword);
  EXPECT_EQ(dialogue.Next(received), LoginStep::kOver);
  EXPECT_EQ(received, "001 - no\r\n");
}

TEST(ZevctlLoginTest, NamesAreCutToWhatTheDaemonKeeps) {
  Settings settings;
  settings.user = std::string(40, 'u');
  EXPECT_EQ(UserName(settings), std::string(32, 'u'));
}

TEST(ZevctlLoginTest, UnaskedCredentialsAskNobody) {
  Credentials nobody = Credentials::Unasked();
  EXPECT_THROW(nobody.Name(), Failure);
}

// ---- Output -------------------------------------------------------------------------------------

TEST(ZevctlOutputTest, PrintableReplacesWhatControlsTheTerminal) {
  EXPECT_EQ(Printable("plain ~"), "plain ~");
  EXPECT_EQ(Printable("a\x1b[2Jb\n\t\x7f"), "a?[2Jb???");
  EXPECT_EQ(Printable("caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"),
            "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(Printable("\xC2\x9B"
                      "31m"),
            "?31m");
  EXPECT_EQ(Printable("\xC3"), "?");
  EXPECT_EQ(Printable("\xC0\xAF\xED\xA0\x80\xF4\x90\x80\x80\xFF"), std::string(10, '?'));
  EXPECT_EQ(Printable("\0"s), "?");
}

TEST(ZevctlOutputTest, PrintableReplacesWhatReordersALine) {
  EXPECT_EQ(Printable("\u061C\u200E\u200F\u2028\u2029\u202A\u202E\u2066\u2069"),
            std::string(9, '?'));
  const std::string neighbours = "\u061B\u061D\u200D\u2010\u2027\u202F\u2065\u206A\u00A0";
  EXPECT_EQ(Printable(neighbours), neighbours);
  EXPECT_EQ(Printable("\u0080\u009F"), "??");
}

TEST(ZevctlOutputTest, EscapedJsonIsTheSameData) {
  EXPECT_EQ(EscapedJson("[\"a\u202Eb\x7F\u009B \u00E9\U0001F600\\u001b\"]"),
            "[\"a\\u202eb\\u007f\\u009b \u00E9\U0001F600\\u001b\"]");
}

TEST(ZevctlOutputTest, Utf8ReplacesMalformedBytes) {
  EXPECT_EQ(Utf8("a\n\xC3\xA9"), "a\n\xC3\xA9");
  EXPECT_EQ(Utf8("a\xFFz"), "a\xEF\xBF\xBDz");
  EXPECT_EQ(Utf8("\xE2\x82"), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

std::string Shown(const Table& table, size_t width, bool colours = false) {
  std::ostringstream out;
  table.Print(out, width, colours);
  return out.str();
}

Table Example() {
  Table table({"NAME", "STATE"});
  table.Add({{"a-long-name"}, {"connected", Colour::kGreen}});
  table.Add({{"b"}, {"x"}});
  return table;
}

TEST(ZevctlOutputTest, ColumnsAreAsWideAsTheirWidestCell) {
  EXPECT_EQ(Shown(Example(), 0),
            "NAME         STATE\n"
            "a-long-name  connected\n"
            "b            x\n");
}

TEST(ZevctlOutputTest, TheWidestColumnIsCut) {
  EXPECT_EQ(Shown(Example(), 20),
            "NAME       STATE\n"
            "a-long-n~  connected\n"
            "b          x\n");
  EXPECT_EQ(Shown(Example(), 16),
            "NAME     STATE\n"
            "a-long~  connec~\n"
            "b        x\n");
}

TEST(ZevctlOutputTest, NoColumnIsCutBelowTheLeastWidth) {
  EXPECT_EQ(Shown(Example(), 1),
            "NAME  STA~\n"
            "a-l~  con~\n"
            "b     x\n");
}

TEST(ZevctlOutputTest, WidthsCountCharactersNotBytes) {
  Table table({"N", "S"});
  table.Add({{"\xC3\xA9\xC3\xA9"}, {"x"}});
  table.Add({{"ab"}, {"y"}});
  EXPECT_EQ(Shown(table, 0), "N   S\n\xC3\xA9\xC3\xA9  x\nab  y\n");
}

TEST(ZevctlOutputTest, WideCharactersTakeTwoColumnsAndMarksNone) {
  EXPECT_EQ(Columns("\u4E2D\u6587"), 4);
  EXPECT_EQ(Columns("e\u0301"), 1);
  EXPECT_EQ(Columns("\U0001F600"), 2);
  EXPECT_EQ(Columns("a\xFF"), 2);
  EXPECT_EQ(Cut("\u4E2D\u6587\u4E2D", 5), "\u4E2D\u6587~");
  EXPECT_EQ(Cut("\u4E2D\u6587\u4E2D", 4), "\u4E2D~");
  EXPECT_EQ(Cut("e\u0301e\u0301", 2), "e\u0301e\u0301");
  EXPECT_EQ(Cut("abc", 0), "");
}

TEST(ZevctlOutputTest, WholeColumnsAreNeverCut) {
  Table table({"NAME", "STATE", "PLATFORM"}, 2);
  table.Add({{"a-long-name"}, {"not-connected"}, {"platform-1"}});
  EXPECT_EQ(Shown(table, 33),
            "NAME         STATE          PLAT~\n"
            "a-long-name  not-connected  plat~\n");
  EXPECT_EQ(Shown(table, 31),
            "NAME         STATE\n"
            "a-long-name  not-connected\n");
  EXPECT_EQ(Shown(table, 3), Shown(table, 31));
}

TEST(ZevctlOutputTest, WhatStandsBelowARowIsWrappedAndNeverCut) {
  Table table({"NAME", "STATE"}, 1);
  table.Add({{"web"}, {"silent"}}, {"it has printed nothing", "press Enter"});
  table.Add({{"db"}, {"up"}});
  EXPECT_EQ(Shown(table, 20),
            "NAME  STATE\n"
            "web   silent\n"
            "    it has printed\n"
            "    nothing\n"
            "    press Enter\n"
            "db    up\n");
  EXPECT_EQ(Shown(table, 0),
            "NAME  STATE\n"
            "web   silent\n"
            "    it has printed nothing\n"
            "    press Enter\n"
            "db    up\n");
}

TEST(ZevctlOutputTest, WrappedLinesEndAtBlanks) {
  EXPECT_THAT(Wrapped("one two three", 7), ElementsAre("one two", "three"));
  EXPECT_THAT(Wrapped("one two three", 6), ElementsAre("one", "two", "three"));
  EXPECT_THAT(Wrapped("a longer word", 4), ElementsAre("a", "longer", "word"));
  EXPECT_THAT(Wrapped("one  two", 0), ElementsAre("one  two"));
}

TEST(ZevctlOutputTest, OneIsNoPlural) {
  EXPECT_EQ(CountText(0, "byte"), "0 bytes");
  EXPECT_EQ(CountText(1, "byte"), "1 byte");
  EXPECT_EQ(CountText(2, "byte"), "2 bytes");
}

TEST(ZevctlOutputTest, ColoursAreShownWhereTheyAreWanted) {
  EXPECT_THAT(Shown(Example(), 0, true), ::testing::HasSubstr("\x1b[32mconnected\x1b[0m\n"));
  EXPECT_THAT(Shown(Example(), 0, false), ::testing::Not(::testing::HasSubstr("\x1b")));
}

// ---- Names --------------------------------------------------------------------------------------

ConsoleRecord Named(const std::string& name) {
  ConsoleRecord console;
  console.name = name;
  return console;
}

TEST(ZevctlSelectionTest, NamesAndPatterns) {
  EXPECT_TRUE(NameMatches("web1", "WEB1"));
  EXPECT_TRUE(NameMatches("WEB1", "w*"));
  EXPECT_TRUE(NameMatches("a[1]", "a[1]"));
  EXPECT_TRUE(NameMatches("a1", "a[1]"));
  EXPECT_FALSE(NameMatches("web1", "web"));
  EXPECT_FALSE(NameMatches("web1", ""));
}

TEST(ZevctlSelectionTest, KeepsTheOrderOfTheRecordsAndTakesEachOnce) {
  const std::vector<ConsoleRecord> all = {Named("b1"), Named("a1"), Named("a2")};
  const auto names = [&](const std::vector<std::string>& patterns) {
    return NamesOf(Select(all, patterns, Purpose::kAct).records);
  };
  EXPECT_THAT(names({}), ElementsAre("b1", "a1", "a2"));
  EXPECT_THAT(names({"a*", "*1"}), ElementsAre("b1", "a1", "a2"));
  EXPECT_THAT(names({"a2", "a1"}), ElementsAre("a1", "a2"));
  EXPECT_THROW(names({"a1", "c*"}), Failure);
  EXPECT_THROW(names({"b"}), Failure);
}

TEST(ZevctlSelectionTest, LookingTakesTheStartOfOneName) {
  const std::vector<ConsoleRecord> all = {Named("web-1"), Named("web-2"), Named("db")};
  const auto names = [&](const std::vector<std::string>& patterns) {
    return NamesOf(Select(all, patterns, Purpose::kLook).records);
  };
  EXPECT_THAT(names({"d", "WEB_1"}), ElementsAre("web-1", "db"));
  EXPECT_THROW(names({"web"}), Failure);
}

TEST(ZevctlSelectionTest, ANameIsToldFromAPattern) {
  const std::vector<ConsoleRecord> all = {Named("a-b"), Named("a_b"), Named("c")};
  const auto chosen = [&](const std::string& pattern) {
    return Select(all, {pattern}, Purpose::kAct);
  };
  EXPECT_THAT(NamesOf(chosen("A-B").records), ElementsAre("a-b"));
  EXPECT_TRUE(chosen("A-B").by_name);
  EXPECT_THAT(NamesOf(chosen("a?b").records), ElementsAre("a-b", "a_b"));
  EXPECT_FALSE(chosen("a?b").by_name);
  EXPECT_FALSE(chosen("[c]").by_name);
}

TEST(ZevctlSelectionTest, NamesThatDifferOnlyInCaseAreListedOnce) {
  const std::vector<ConsoleRecord> all = {Named("Box"), Named("box"), Named("BOX2")};
  EXPECT_THAT(NamesOf(all), ElementsAre("Box", "BOX2"));
}

TEST(ZevctlSelectionTest, RecordsOfOneNameAreTogetherAndInOrder) {
  const std::vector<ConsoleRecord> all = {Named("Box"), Named("a"), Named("box"), Named("BOX")};
  const auto groups = GroupedByName(all);
  ASSERT_EQ(groups.size(), 2);
  const auto name = [](const ConsoleRecord& console) { return console.name; };
  EXPECT_THAT(groups[0],
              ElementsAre(ResultOf(name, "Box"), ResultOf(name, "box"), ResultOf(name, "BOX")));
  EXPECT_THAT(groups[1], ElementsAre(ResultOf(name, "a")));
  EXPECT_THAT(GroupedByName(std::vector<ConsoleRecord>()), IsEmpty());
}

TEST(ZevctlConsoleWordsTest, CodesInWords) {
  EXPECT_THAT(StateWords(), ElementsAre("connected", "in-use", "not-connected", "refused",
                                        "connecting", "disabled"));
  EXPECT_EQ(StateInWords("0"), "connected");
  EXPECT_EQ(StateInWords("5"), "disabled");
  EXPECT_EQ(StateInWords("99"), "unknown");
  EXPECT_THAT(StatesByUrgency(), ::testing::IsSupersetOf(StateWords()));
  EXPECT_EQ(ModeInWords("0"), "none");
  EXPECT_EQ(ModeInWords("4"), "exclusive-revoke");
  EXPECT_EQ(ModeInWords("5"), "management-port");
  EXPECT_EQ(ModeInWords(""), "unknown");
}

TEST(ZevctlConsoleWordsTest, DownIsWhatShouldBeConnectedAndIsNot) {
  for (const std::string state : {"not-connected", "refused", "connecting", "unknown"}) {
    EXPECT_TRUE(StateIsOf(state, "down")) << state;
    EXPECT_FALSE(StateIsOf(state, "up")) << state;
    EXPECT_TRUE(StateIsOf(state, state)) << state;
  }
  for (const std::string state : {"connected", "in-use"}) {
    EXPECT_FALSE(StateIsOf(state, "down")) << state;
    EXPECT_TRUE(StateIsOf(state, "up")) << state;
  }
  EXPECT_FALSE(StateIsOf("disabled", "down"));
  EXPECT_FALSE(StateIsOf("disabled", "up"));
}

}  // namespace
}  // namespace zevctl
