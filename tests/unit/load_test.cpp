// Reading the console configuration file.
#include "load.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "lists.h"
#include "load_steps.h"
#include "load_support.h"
#include "options.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using test::AddEventSet;
using test::ConfigLine;
using test::kConfig;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// A well-formed line; it ends with a space.
constexpr char kGoodLine[] =
    "mycons 10.1.2.3 2001 23 6501 M100 sys1 \"Some OS 5.1\" 1 1 1 0 myevents \n";

class LoadTest : public test::LoadTest {
 protected:
  // What is said about a file at level 0, which leaves out the lists.
  std::vector<std::string> Complaints(std::string_view content) {
    const test::DebugCapture capture(0);
    EXPECT_EQ(Load(content), 0);
    return capture.Messages();
  }

  const ConsoleNode& First() const { return *list_.head->cnode; }
};

// ---- Fields -------------------------------------------------------------------------------------

TEST_F(LoadTest, EveryFieldIsTaken) {
  EventSetNode* events = AddEventSet("myevents");
  EXPECT_EQ(Load(kGoodLine), 0);
  ASSERT_EQ(list_.count, 1);
  const ConsoleNode& console = First();
  EXPECT_STREQ(console.cname, "mycons");
  EXPECT_STREQ(console.ipaddr, "10.1.2.3");
  EXPECT_EQ(console.cons_port, 2001);
  EXPECT_EQ(console.mgmt_port, 23);
  EXPECT_EQ(console.mapped_port, 6501);
  EXPECT_STREQ(console.model, "M100");
  EXPECT_STREQ(console.pname, "sys1");
  EXPECT_EQ(console.logging, 1);
  EXPECT_EQ(console.events, 1);
  EXPECT_EQ(console.enable, 1);
  EXPECT_EQ(console.auth, 0);
  EXPECT_EQ(console.enode, events);
  EXPECT_EQ(console.status, kNotConnected);
  EXPECT_EQ(console.sock, -1);
}

TEST_F(LoadTest, FlagsAreSeparate) {
  Load("a 1.1.1.1 1 2 3 m p \"o\" 10 11 12 13 \"\" \n");
  EXPECT_EQ(First().logging, 10);
  EXPECT_EQ(First().events, 11);
  EXPECT_EQ(First().enable, 12);
  EXPECT_EQ(First().auth, 13);
}

TEST_F(LoadTest, FlagThatIsNoNumberIsZero) {
  Load("a 1.1.1.1 1 2 3 m p \"o\" yes on x1 1x \"\" \n");
  EXPECT_EQ(First().logging, 0);
  EXPECT_EQ(First().events, 0);
  EXPECT_EQ(First().enable, 0);
  EXPECT_EQ(First().auth, 1);
}

TEST_F(LoadTest, PortsAreCutTo16Bits) {
  Load("a 1.1.1.1 65537 70000 -1 m p \"o\" 0 0 1 0 \"\" \n");
  EXPECT_EQ(First().cons_port, 1);
  EXPECT_EQ(First().mgmt_port, 4464);
  EXPECT_EQ(First().mapped_port, 65535);
}

TEST_F(LoadTest, PortThatIsNoNumberIsZero) {
  Load("a 1.1.1.1 telnet 0x17 12ab m p \"o\" 0 0 1 0 \"\" \n");
  EXPECT_EQ(First().cons_port, 0);
  EXPECT_EQ(First().mgmt_port, 0);
  EXPECT_EQ(First().mapped_port, 12);
}

TEST_F(LoadTest, TextsAreCutTo64Characters) {
  const std::string name(70, 'n');
  const std::string address(65, '1');
  const std::string model(100, 'm');
  const std::string platform(64, 'p');
  Load(name + " " + address + " 1 2 3 " + model + " " + platform + " \"o\" 0 0 1 0 \"\" \n");
  EXPECT_EQ(First().cname, name.substr(0, 64));
  EXPECT_EQ(First().ipaddr, address.substr(0, 64));
  EXPECT_EQ(First().model, model.substr(0, 64));
  EXPECT_EQ(First().pname, platform);
}

TEST_F(LoadTest, AddressIsNotChecked) {
  Load("a not-an-address 1 2 3 m p \"o\" 0 0 1 0 \"\" \n");
  EXPECT_STREQ(First().ipaddr, "not-an-address");
}

TEST_F(LoadTest, RestOfTheLineIsIgnored) {
  AddEventSet("ev");
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"o\" 0 0 1 0 ev and \"more\" words\n"), IsEmpty());
  EXPECT_EQ(list_.count, 1);
  EXPECT_STREQ(First().enode->name, "ev");
}

// ---- The tokenizer ------------------------------------------------------------------------------

TEST_F(LoadTest, RunOfSpacesIsOneSeparator) {
  EXPECT_THAT(Complaints("   a   1.1.1.1  1  2   3  m    p \"o\"   1  0  1   0   \"\"   \n"),
              IsEmpty());
  ASSERT_EQ(list_.count, 1);
  EXPECT_STREQ(First().cname, "a");
  EXPECT_STREQ(First().pname, "p");
  EXPECT_EQ(First().logging, 1);
}

TEST_F(LoadTest, TabIsAnOrdinaryCharacter) {
  EXPECT_THAT(Complaints("a\tb 1.1.1.1 1\t2 2 3 m\t p \"o\" 0 0 1 0 \"\" \n"), IsEmpty());
  EXPECT_STREQ(First().cname, "a\tb");
  EXPECT_EQ(First().cons_port, 1);
  EXPECT_STREQ(First().model, "m\t");
}

TEST_F(LoadTest, OsTypeMayHoldSpaces) {
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"  One  of  many \" 0 0 1 0 \"\" \n"), IsEmpty());
  EXPECT_EQ(list_.count, 1);
}

TEST_F(LoadTest, FlagMayFollowTheClosingQuoteAtOnce) {
  Load("a 1.1.1.1 1 2 3 m p \"o\"1 0 1 0 \"\" \n");
  EXPECT_EQ(First().logging, 1);
}

TEST_F(LoadTest, OsTypeEndsAtTheFirstQuote) {
  // The text that was meant to be quoted is read as flags.
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p x\"4 5\" 6 7 ev \n"),
              ElementsAre("LoadConfigFile: Event file ev not found for console a\n"));
  ASSERT_EQ(list_.count, 1);
  EXPECT_EQ(First().logging, 4);
  EXPECT_EQ(First().events, 5);
  EXPECT_EQ(First().enable, 6);
  EXPECT_EQ(First().auth, 7);
}

TEST_F(LoadTest, TwoSpacesBeforeTheOsTypeShiftTheFields) {
  EXPECT_THAT(
      Complaints("mycons 10.1.2.3 2001 23 6501 M100 sys1  \"Some OS 5.1\" 1 1 1 0 myevents \n"),
      ElementsAre("LoadConfigFile: Event file 1 not found for console mycons\n"));
  ASSERT_EQ(list_.count, 1);
  EXPECT_EQ(First().logging, 0);  // Some
  EXPECT_EQ(First().events, 0);   // OS
  EXPECT_EQ(First().enable, 5);   // 5.1"
  EXPECT_EQ(First().auth, 1);
  EXPECT_EQ(First().enode, nullptr);
}

TEST_F(LoadTest, UnquotedOsTypeTakesTheRestOfTheLine) {
  EXPECT_THAT(Complaints("mycons 10.1.2.3 2001 23 6501 M100 sys1 OSNAME 1 1 1 0 ev\n"),
              ElementsAre("LoadConfigFile: Missing logging flag at line 1\n"));
  EXPECT_EQ(list_.count, 0);
}

TEST_F(LoadTest, EmptyOsTypeTakesTheRestOfTheLine) {
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"\" 1 1 1 0 ev\n"),
              ElementsAre("LoadConfigFile: Missing logging flag at line 1\n"));
}

TEST_F(LoadTest, LastFieldCarriesTheNewline) {
  AddEventSet("myevents");
  EXPECT_THAT(Complaints("mycons 10.1.2.3 1 2 3 M100 sys1 \"OS\" 1 1 1 0 myevents\n"),
              ElementsAre("LoadConfigFile: Event file myevents\n not found for console mycons\n"));
  ASSERT_EQ(list_.count, 1);
  EXPECT_EQ(First().enode, nullptr);
}

TEST_F(LoadTest, LastFieldOfAFileWithoutAFinalNewlineIsFound) {
  EventSetNode* events = AddEventSet("ev");
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 ev"), IsEmpty());
  EXPECT_EQ(First().enode, events);
}

TEST_F(LoadTest, TwoQuotesMeanNoEventFile) {
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 \"\" \n"), IsEmpty());
  EXPECT_EQ(First().enode, nullptr);
}

TEST_F(LoadTest, TwoQuotesAtTheEndOfTheLineAreAName) {
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 \"\"\n"),
              ElementsAre("LoadConfigFile: Event file \"\"\n not found for console a\n"));
  EXPECT_EQ(First().enode, nullptr);
}

TEST_F(LoadTest, NewlineAloneCanBeTheEventFile) {
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 \n"),
              ElementsAre("LoadConfigFile: Event file \n not found for console a\n"));
  EXPECT_EQ(list_.count, 1);
}

TEST_F(LoadTest, EventFileIsFoundByItsExactName) {
  AddEventSet("other");
  EventSetNode* events = AddEventSet("ev");
  EXPECT_THAT(Complaints("a 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 ev \n"
                         "b 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 EV \n"
                         "c 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 e \n"),
              ElementsAre("LoadConfigFile: Event file EV not found for console b\n",
                          "LoadConfigFile: Event file e not found for console c\n"));
  EXPECT_EQ(list_.count, 3);
  EXPECT_EQ(First().enode, events);
  EXPECT_EQ(list_.tail->cnode->enode, nullptr);
}

TEST_F(LoadTest, ConsoleIsNamedInFullWhenItsEventFileIsNotFound) {
  const std::string name(80, 'n');
  EXPECT_THAT(Complaints(name + " 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 ev \n"),
              ElementsAre("LoadConfigFile: Event file ev not found for console " + name + "\n"));
}

TEST_F(LoadTest, CarriageReturnIsAnOrdinaryCharacter) {
  AddEventSet("ev");
  EXPECT_THAT(Complaints("\r\n"
                         "a 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 ev\r\n"
                         "b 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 ev \r\n"),
              ElementsAre("LoadConfigFile: Missing IP address at line 1\n",
                          "LoadConfigFile: Event file ev\r\n not found for console a\n"));
  EXPECT_EQ(list_.count, 2);
  EXPECT_NE(list_.tail->cnode->enode, nullptr);
}

TEST_F(LoadTest, NulEndsTheLine) {
  using std::string_literals::operator""s;
  EXPECT_THAT(Complaints("a 1.1.1.1\0 1 2 3 m p \"o\" 1 1 1 0 \"\" \n"s
                         "\0b 1.1.1.1 1 2 3 m p \"o\" 1 1 1 0 \"\" \n"s
                         "c\n"),
              ElementsAre("LoadConfigFile: Missing console port at line 1\n",
                          "LoadConfigFile: Missing IP address at line 3\n"));
}

TEST_F(LoadTest, HighBytesPassUnchanged) {
  Load("\xFF\xC3\xA9 1.1.1.1 1 2 3 m p \"\xFE\" 0 0 1 0 \"\" \n");
  EXPECT_STREQ(First().cname, "\xFF\xC3\xA9");
}

// ---- Missing fields -----------------------------------------------------------------------------

struct MissingField {
  const char* line;  // without its newline, which would be a field or part of one
  const char* name;
};

void PrintTo(const MissingField& field, std::ostream* out) {
  *out << field.name;
}

class MissingFieldTest : public LoadTest, public ::testing::WithParamInterface<MissingField> {};

INSTANTIATE_TEST_SUITE_P(
    Fields, MissingFieldTest,
    ::testing::Values(
        MissingField{"mycons", "IP address"}, MissingField{"mycons 10.1.2.3", "console port"},
        MissingField{"mycons 10.1.2.3 2001", "management port"},
        MissingField{"mycons 10.1.2.3 2001 23", "user port"},
        MissingField{"mycons 10.1.2.3 2001 23 6501", "model number"},
        MissingField{"mycons 10.1.2.3 2001 23 6501 M100", "platform name"},
        MissingField{"mycons 10.1.2.3 2001 23 6501 M100 sys1", "OS type"},
        MissingField{"mycons 10.1.2.3 2001 23 6501 M100 sys1 \"OS", "logging flag"},
        MissingField{"mycons 10.1.2.3 2001 23 6501 M100 sys1 \"OS\" 1", "events flag"},
        MissingField{"mycons 10.1.2.3 2001 23 6501 M100 sys1 \"OS\" 1 1", "enable flag"},
        MissingField{"mycons 10.1.2.3 2001 23 6501 M100 sys1 \"OS\" 1 1 1", "authentication flag"},
        MissingField{"mycons 10.1.2.3 2001 23 6501 M100 sys1 \"OS\" 1 1 1 0", "event file name"}));

TEST_P(MissingFieldTest, IsReportedWithItsLineAndTheConsoleLeftOut) {
  const std::string message =
      std::string("LoadConfigFile: Missing ") + GetParam().name + " at line ";
  const std::string line = std::string(GetParam().line) + "\n";
  EXPECT_THAT(Complaints("# comment\n\n" + line + ConfigLine("good", 1) + line),
              ElementsAre(message + "3\n", message + "5\n"));
  EXPECT_THAT(test::Names(list_), ElementsAre("good"));
}

TEST_P(MissingFieldTest, IsReportedAtTheEndOfTheFileToo) {
  EXPECT_THAT(Complaints(GetParam().line), ElementsAre(std::string("LoadConfigFile: Missing ") +
                                                       GetParam().name + " at line 1\n"));
}

TEST_F(LoadTest, NewlineAfterASpaceIsTheNextField) {
  EXPECT_THAT(Complaints("mycons \n"),
              ElementsAre("LoadConfigFile: Missing console port at line 1\n"));
}

TEST_F(LoadTest, LineCutAnywhereLosesThatLineAlone) {
  const std::string line = kGoodLine;
  for (size_t length = 1; length + 1 < line.size(); ++length) {
    const test::DebugCapture capture(kError);
    ASSERT_EQ(Load(line.substr(0, length) + "\n" + ConfigLine("good", 1)), 0);
    ASSERT_STREQ(list_.tail->cnode->cname, "good") << length;
    EmptyConsoleList(&list_);
  }
}

// ---- Comments, blank lines and line numbers -----------------------------------------------------

TEST_F(LoadTest, CommentsAndBlankLinesAreSkipped) {
  EXPECT_THAT(Complaints("#\n# comment\n#comment a b c\n   # indented\n\n     \n #"), IsEmpty());
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(list_.head, nullptr);
}

TEST_F(LoadTest, EmptyFileIsAnEmptyList) {
  EXPECT_THAT(Complaints(""), IsEmpty());
  EXPECT_EQ(list_.head, nullptr);
}

TEST_F(LoadTest, HashElsewhereHasNoMeaning) {
  EXPECT_THAT(Complaints("a#b 1.1.1.1 1 2 3 #m # \"#\" 0 0 1 0 \"\" #\n"), IsEmpty());
  EXPECT_STREQ(First().cname, "a#b");
  EXPECT_STREQ(First().pname, "#");
}

TEST_F(LoadTest, TabBeforeACommentMakesItAConsole) {
  EXPECT_THAT(Complaints("\t# comment\n"),
              ElementsAre("LoadConfigFile: Missing console port at line 1\n"));
}

TEST_F(LoadTest, LongLineIsReadInPieces) {
  // 9000 characters: the rest of the line is counted and parsed as a line of its own.
  const std::string long_line = std::string(kGoodLine, strlen(kGoodLine) - 1) +
                                std::string(9000 - strlen(kGoodLine), 'x') + "\n";
  EXPECT_THAT(Complaints(long_line + "next\n"),
              ElementsAre("LoadConfigFile: Event file myevents not found for console mycons\n",
                          "LoadConfigFile: Missing IP address at line 2\n",
                          "LoadConfigFile: Missing IP address at line 3\n"));
  EXPECT_THAT(test::Names(list_), ElementsAre("mycons"));
}

TEST_F(LoadTest, LongCommentIsReadInPieces) {
  EXPECT_THAT(Complaints("#" + std::string(8999, 'x') + "\n"),
              ElementsAre("LoadConfigFile: Missing IP address at line 2\n"));
}

TEST_F(LoadTest, LineOf8190CharactersFitsWithItsNewline) {
  EXPECT_THAT(Complaints("#" + std::string(8189, 'x') + "\nnext\n"),
              ElementsAre("LoadConfigFile: Missing IP address at line 2\n"));
}

TEST_F(LoadTest, NewlineOfALineOf8191CharactersIsABlankLine) {
  EXPECT_THAT(Complaints("#" + std::string(8190, 'x') + "\nnext\n"),
              ElementsAre("LoadConfigFile: Missing IP address at line 3\n"));
}

// ---- The list -----------------------------------------------------------------------------------

TEST_F(LoadTest, ConsolesKeepTheOrderOfTheLines) {
  Load(ConfigLine("c", 1) + ConfigLine("a", 2) + ConfigLine("b", 3));
  EXPECT_THAT(test::Names(list_), ElementsAre("c", "a", "b"));
  EXPECT_EQ(list_.count, 3);
}

TEST_F(LoadTest, SameNameTwiceMakesTwoConsoles) {
  Load(ConfigLine("a", 1) + ConfigLine("a", 2) + ConfigLine("a", 1));
  EXPECT_THAT(test::Names(list_), ElementsAre("a", "a", "a"));
  EXPECT_EQ(LocateConsoleInList("a", &list_), list_.head->cnode);
  EXPECT_EQ(LocateConsoleInList("a", &list_)->cons_port, 1);
}

TEST_F(LoadTest, HeadAndTailAreResetAndTheCountIsLeft) {
  const test::ConsolePtr stranger = test::MakeConsole("stranger");
  ConsoleListElem elem = {stranger.get(), nullptr, nullptr, 0};
  list_.head = &elem;
  list_.tail = &elem;
  list_.count = 5;
  EXPECT_EQ(Load(ConfigLine("a", 1)), 0);
  EXPECT_THAT(test::Names(list_), ElementsAre("a"));
  EXPECT_EQ(list_.count, 6);
}

TEST_F(LoadTest, MissingFileEndsTheProcess) {
  EXPECT_EXIT(
      (test::SendDebugToStderr(kInfo), LoadConfigFile(&list_)), ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("LoadConfigFile: open() failed : No such file or directory\n",
                                      test::IsExitTrace(1, "load.cpp"))));
}

TEST_F(LoadTest, ConfigFileOptionNamesTheFile) {
  test::WriteFile("other.conf", ConfigLine("a", 1));
  config_file = "other.conf";
  EXPECT_EQ(LoadConfigFile(&list_), 0);
  EXPECT_THAT(test::Names(list_), ElementsAre("a"));
}

// Each allocation of a load fails once: the load is given up, and the consoles before it stay.
TEST_F(LoadTest, RunningOutOfMemoryGivesUpTheLoad) {
  cons_buf_size = 16;
  test::WriteFile(kConfig, ConfigLine("a", 1) + ConfigLine("b", 2) + ConfigLine("c", 3));
  bool reached = true;
  for (int nth = 1; reached; ++nth) {
    const test::DebugCapture capture(0);
    int result = 0;
    {
      const test::FailAllocation failure(nth);
      result = LoadConfigFile(&list_);
      reached = failure.reached();
    }
    EXPECT_EQ(result, reached ? -1 : 0);
    const int consoles_before = reached ? (nth - 1) / 4 : 3;  // 3 parts and a list element each
    EXPECT_EQ(list_.count, consoles_before);
    const std::vector<std::string> reports = test::Reports(capture.Messages());
    const bool adding = nth % 4 == 0;
    if (!reached) {
      EXPECT_THAT(reports, IsEmpty());
    } else if (adding) {
      EXPECT_THAT(reports,
                  ElementsAre("NewConsoleListElem: malloc() failed : Cannot allocate memory\n",
                              "AddConsoleToList: NewConsoleListElem() failed.\n",
                              "LoadConfigFile: AddConsoleToList() failed.\n"));
    } else {
      EXPECT_THAT(reports, ElementsAre("NewConsoleNode: malloc() failed : Cannot allocate memory\n",
                                       "LoadConfigFile: NewConsoleNode() failed.\n"));
    }
    EmptyConsoleList(&list_);
    ASSERT_LE(nth, 13);
  }
}

// ---- Printing -----------------------------------------------------------------------------------

class PrintTest : public LoadTest {
 protected:
  static ConsoleNode* AddConfigured(ConsoleList* list, const char* name, uint16_t first_port) {
    ConsoleNode* cnode = test::AddConsole(list, name);
    cnode->cons_port = first_port;
    cnode->mgmt_port = static_cast<uint16_t>(first_port + 1);
    cnode->mapped_port = static_cast<uint16_t>(first_port + 2);
    cnode->logging = 4;
    cnode->events = 5;
    cnode->enable = 6;
    cnode->auth = 7;
    cnode->deleted = 8;
    return cnode;
  }
};

TEST_F(PrintTest, ListsArePrintedAtLevelOne) {
  AddConfigured(i_cons_list, "one", 10);
  AddConfigured(i_cons_list, "two", 20);
  AddConfigured(a_cons_list, "three", 65533);
  const test::DebugCapture capture(kInfo);
  PrintConsoles();
  EXPECT_THAT(capture.Messages(),
              ElementsAre("INACCESSIBLE CONSOLES:\n",  //
                          "name = one\n", "addr = 127.0.0.1\n", "cons_port = 10\n",
                          "mgmt_port = 11\n", "mapped_port = 12\n", "logging = 4\n", "events = 5\n",
                          "enable = 6\n", "auth = 7\n", "deleted = 8\n", "\n",  //
                          "name = two\n", "addr = 127.0.0.1\n", "cons_port = 20\n",
                          "mgmt_port = 21\n", "mapped_port = 22\n", "logging = 4\n", "events = 5\n",
                          "enable = 6\n", "auth = 7\n", "deleted = 8\n", "\n",  //
                          "ACCESSIBLE CONSOLES:\n",                             //
                          "name = three\n", "addr = 127.0.0.1\n", "cons_port = 65533\n",
                          "mgmt_port = 65534\n", "mapped_port = 65535\n", "logging = 4\n",
                          "events = 5\n", "enable = 6\n", "auth = 7\n", "deleted = 8\n", "\n"));
}

TEST_F(PrintTest, NothingIsPrintedAtLevelZero) {
  AddConfigured(i_cons_list, "one", 10);
  const test::DebugCapture capture(0);
  PrintConsoles();
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(PrintTest, LoadPrintsTheLiveListsAtItsEnd) {
  AddConfigured(i_cons_list, "live", 10);
  const test::DebugCapture capture(kInfo);
  Load("broken\n" + ConfigLine("loaded", 1));
  const std::vector<std::string> messages = capture.Messages();
  const auto print = std::find(messages.begin(), messages.end(), "INACCESSIBLE CONSOLES:\n");
  ASSERT_NE(print, messages.end());
  EXPECT_THAT(std::vector<std::string>(print, messages.end()),
              AllOf(SizeIs(13), ::testing::Contains("name = live\n")));
  EXPECT_EQ(messages.back(), "ACCESSIBLE CONSOLES:\n");
  EXPECT_FALSE(capture.Has("name = loaded\n"));
}

TEST_F(PrintTest, FailedLoadPrintsNothing) {
  test::WriteFile(kConfig, ConfigLine("a", 1));
  const test::DebugCapture capture(kInfo);
  const test::FailAllocation failure(1);
  EXPECT_EQ(LoadConfigFile(&list_), -1);
  EXPECT_FALSE(capture.Has("INACCESSIBLE CONSOLES:\n"));
}

}  // namespace
