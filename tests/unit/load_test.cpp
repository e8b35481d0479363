#include "load.h"

#include <algorithm>
#include <filesystem>

#include "event_set.h"
#include "log_rename.h"
#include "support.h"

namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::ExitedWithCode;
using ::testing::Field;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StrEq;

constexpr char kConfig[] = "root/config/zev.conf";

// The example of a well-formed line, which has a space at its end.
constexpr char kGoodLine[] =
    "mycons 10.1.2.3 2001 23 6501 M100 sys1 \"Some OS 5.1\" 1 1 1 0 myevents \n";

// A line of a console at 127.0.0.1 without events.
std::string Line(const std::string& name, int port, const std::string& flags = "0 0 1 0") {
  return name + " 127.0.0.1 " + std::to_string(port) + " 0 0 A200 system \"OS\" " + flags +
         " \"\" \n";
}

EventSetNode* AddEventSet(const char* name) {
  EventSetNode* enode = NewEventSetNode(name, NewRegExList("re_list"));
  if (enode == nullptr || AddEventSetToList(enode, ev_list) != 0) throw std::bad_alloc();
  return enode;
}

/// Loads files into a list of the test's own.
class LoadTest : public test::DaemonTest {
 protected:
  LoadTest() {
    InitConsoleList(&list_, "list");
    config_file = kConfig;
  }
  ~LoadTest() override {
    EmptyConsoleList(&list_);
    free(const_cast<char*>(list_.list_name));
  }

  int Load(std::string_view content) {
    test::WriteFile(kConfig, content);
    return LoadConfigFile(&list_);
  }

  // What is said about a file, the prints of the lists aside.
  std::vector<std::string> Complaints(std::string_view content) {
    const test::DebugCapture capture(0);
    EXPECT_EQ(Load(content), 0);
    return capture.Messages();
  }

  const ConsoleNode& First() const { return *list_.head->cnode; }

  test::StationRoot root_;
  ConsoleList list_;
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
  // What was meant as the quoted text is read as flags.
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

TEST_F(LoadTest, NoEventFileIsSaidWithTwoQuotes) {
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

TEST_F(LoadTest, NulEndsTheLineAsItIsSeen) {
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
  EXPECT_THAT(Complaints("# comment\n\n" + line + Line("good", 1) + line),
              ElementsAre(message + "3\n", message + "5\n"));
  EXPECT_THAT(test::Names(list_), ElementsAre("good"));
}

TEST_P(MissingFieldTest, IsReportedAtTheEndOfTheFileToo) {
  EXPECT_THAT(Complaints(GetParam().line), ElementsAre(std::string("LoadConfigFile: Missing ") +
                                                       GetParam().name + " at line 1\n"));
}

TEST_F(LoadTest, NewlineBehindASpaceIsTheNextField) {
  EXPECT_THAT(Complaints("mycons \n"),
              ElementsAre("LoadConfigFile: Missing console port at line 1\n"));
}

TEST_F(LoadTest, LineCutAnywhereCostsThatLineAlone) {
  const std::string line = kGoodLine;
  for (size_t length = 1; length + 1 < line.size(); ++length) {
    const test::DebugCapture capture(kError);
    ASSERT_EQ(Load(line.substr(0, length) + "\n" + Line("good", 1)), 0);
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
  Load(Line("c", 1) + Line("a", 2) + Line("b", 3));
  EXPECT_THAT(test::Names(list_), ElementsAre("c", "a", "b"));
  EXPECT_EQ(list_.count, 3);
}

TEST_F(LoadTest, SameNameTwiceMakesTwoConsoles) {
  Load(Line("a", 1) + Line("a", 2) + Line("a", 1));
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
  EXPECT_EQ(Load(Line("a", 1)), 0);
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
  test::WriteFile("other.conf", Line("a", 1));
  config_file = "other.conf";
  EXPECT_EQ(LoadConfigFile(&list_), 0);
  EXPECT_THAT(test::Names(list_), ElementsAre("a"));
}

// Every allocation of a load fails once: the load is given up, the consoles before stay.
TEST_F(LoadTest, RunningOutOfMemoryGivesUpTheLoad) {
  cons_buf_size = 16;
  test::WriteFile(kConfig, Line("a", 1) + Line("b", 2) + Line("c", 3));
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
  Load("broken\n" + Line("loaded", 1));
  const std::vector<std::string> messages = capture.Messages();
  const auto print = std::find(messages.begin(), messages.end(), "INACCESSIBLE CONSOLES:\n");
  ASSERT_NE(print, messages.end());
  EXPECT_THAT(std::vector<std::string>(print, messages.end()),
              AllOf(SizeIs(13), ::testing::Contains("name = live\n")));
  EXPECT_EQ(messages.back(), "ACCESSIBLE CONSOLES:\n");
  EXPECT_FALSE(capture.Has("name = loaded\n"));
}

TEST_F(PrintTest, FailedLoadPrintsNothing) {
  test::WriteFile(kConfig, Line("a", 1));
  const test::DebugCapture capture(kInfo);
  const test::FailAllocation failure(1);
  EXPECT_EQ(LoadConfigFile(&list_), -1);
  EXPECT_FALSE(capture.Has("INACCESSIBLE CONSOLES:\n"));
}

// ---- Reload -------------------------------------------------------------------------------------

class ReloadTest : public LoadTest {
 protected:
  static ConsoleNode* AddAt(ConsoleList* list, const char* name, uint16_t port) {
    ConsoleNode* cnode = test::AddConsole(list, name);
    cnode->cons_port = port;
    return cnode;
  }

  static int Reload(std::string_view content) {
    test::WriteFile(kConfig, content);
    return ReloadConfigFile();
  }

  // The log of a console, as the daemon writes it.
  static std::string LogOf(const std::string& name) {
    return "root/logs/zev.dated/current/" + name + ".log";
  }

  static void WriteLog(const std::string& name, std::string_view content) {
    if (!std::filesystem::exists("root/logs/zev.dated/current")) {
      std::filesystem::create_directories("root/logs/zev.dated/day");
      std::filesystem::create_directory_symlink("day", "root/logs/zev.dated/current");
    }
    test::WriteFile(LogOf(name), content);
  }
};

TEST_F(ReloadTest, NewConsolesJoinTheInaccessibleList) {
  AddAt(i_cons_list, "old", 1);
  EXPECT_EQ(Reload(Line("new1", 2) + Line("old", 1) + Line("new2", 3)), 0);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("old", "new1", "new2"));
  EXPECT_EQ(i_cons_list->count, 3);
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    EXPECT_EQ(cnode->deleted, 0);
    EXPECT_EQ(cnode->status, kNotConnected);
  }
}

TEST_F(ReloadTest, ConsolesThatNoLineMatchesAreMarked) {
  ConsoleNode* kept = AddAt(i_cons_list, "kept", 1);
  ConsoleNode* dropped = AddAt(i_cons_list, "dropped", 2);
  ConsoleNode* connected = AddAt(a_cons_list, "connected", 3);
  EXPECT_EQ(Reload(Line("kept", 1)), 0);
  EXPECT_EQ(kept->deleted, 0);
  EXPECT_EQ(dropped->deleted, 1);
  EXPECT_EQ(connected->deleted, 1);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("kept", "dropped"));
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("connected"));
}

TEST_F(ReloadTest, ConsoleThatComesBackIsUnmarked) {
  ConsoleNode* cnode = AddAt(i_cons_list, "a", 1);
  cnode->deleted = 1;
  EXPECT_EQ(Reload(Line("a", 1)), 0);
  EXPECT_EQ(cnode->deleted, 0);
}

TEST_F(ReloadTest, SettingsAreTakenOver) {
  EventSetNode* events = AddEventSet("ev");
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 7);
  EXPECT_EQ(Reload("b 127.0.0.1 7 8 9 M200 plat \"o\" 1 2 3 4 ev \n"), 0);
  EXPECT_STREQ(cnode->cname, "b");
  EXPECT_STREQ(cnode->pname, "plat");
  EXPECT_STREQ(cnode->ipaddr, "127.0.0.1");
  EXPECT_STREQ(cnode->model, "M200");
  EXPECT_EQ(cnode->cons_port, 7);
  EXPECT_EQ(cnode->mgmt_port, 8);
  EXPECT_EQ(cnode->mapped_port, 9);
  EXPECT_EQ(cnode->logging, 1);
  EXPECT_EQ(cnode->events, 2);
  EXPECT_EQ(cnode->enable, 3);
  EXPECT_EQ(cnode->auth, 4);
  EXPECT_EQ(cnode->enode, events);
  EXPECT_EQ(i_cons_list->count, 0);
}

TEST_F(ReloadTest, EverythingElseIsKept) {
  const test::SocketPair socket;
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 7);
  cnode->sock = socket.ours.get();
  cnode->log_fd = 77;
  cnode->status = kConnected;
  cnode->ref_count = 3;
  cnode->force = 1;
  cnode->check_for_NET_E_msg = 1;
  cnode->lfca_time = 11;
  cnode->lsca_time = 12;
  CopyText(cnode->telnet_cmd, "\xFF\xFB\x01");
  CopyText(cnode->pellox_port_holder_ipaddr, "10.0.0.9");
  cnode->log_buf.count = 5;
  UserList* users = cnode->user_list;
  EXPECT_EQ(Reload(Line("b", 7)), 0);
  EXPECT_STREQ(cnode->cname, "b");
  EXPECT_EQ(cnode->sock, socket.ours.get());
  EXPECT_TRUE(test::IsOpen(cnode->sock));
  EXPECT_EQ(cnode->log_fd, 77);
  EXPECT_EQ(cnode->status, kConnected);
  EXPECT_EQ(cnode->ref_count, 3);
  EXPECT_EQ(cnode->force, 1);
  EXPECT_EQ(cnode->check_for_NET_E_msg, 1);
  EXPECT_EQ(cnode->lfca_time, 11);
  EXPECT_EQ(cnode->lsca_time, 12);
  EXPECT_STREQ(cnode->telnet_cmd, "\xFF\xFB\x01");
  EXPECT_STREQ(cnode->pellox_port_holder_ipaddr, "10.0.0.9");
  EXPECT_EQ(cnode->log_buf.count, 5);
  EXPECT_EQ(cnode->user_list, users);
  cnode->log_fd = -1;
}

TEST_F(ReloadTest, DisablingSetsTheStatusAtOnce) {
  ConsoleNode* connected = AddAt(a_cons_list, "a", 1);
  ConsoleNode* connecting = AddAt(i_cons_list, "b", 2);
  connected->status = kConnected;
  connecting->status = kInProgress;
  EXPECT_EQ(Reload(Line("a", 1, "0 0 0 0") + Line("b", 2, "0 0 0 0")), 0);
  EXPECT_EQ(connected->enable, 0);
  EXPECT_EQ(connected->status, kNotConnected);
  EXPECT_EQ(connecting->status, kNotConnected);
}

TEST_F(ReloadTest, ConsoleIsKnownByAddressAndPort) {
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(Line("a", 2)), 0);  // the same name at another port is another console
  EXPECT_EQ(cnode->deleted, 1);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("a"));
  EXPECT_EQ(Reload("a 127.0.0.01 1 0 0 m p \"o\" 0 0 1 0 \"\" \n"), 0);  // texts are compared
  EXPECT_EQ(cnode->deleted, 1);
  EXPECT_EQ(i_cons_list->count, 2);
}

TEST_F(ReloadTest, InaccessibleListIsSearchedFirst) {
  ConsoleNode* inaccessible = AddAt(i_cons_list, "i", 1);
  ConsoleNode* accessible = AddAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(Line("new", 1)), 0);
  EXPECT_STREQ(inaccessible->cname, "new");
  EXPECT_STREQ(accessible->cname, "a");
  EXPECT_EQ(accessible->deleted, 1);
}

TEST_F(ReloadTest, FirstOfTwoConsolesAtOneAddressIsUpdated) {
  ConsoleNode* first = AddAt(i_cons_list, "x", 1);
  ConsoleNode* second = AddAt(i_cons_list, "y", 1);
  EXPECT_EQ(Reload(Line("new", 1)), 0);
  EXPECT_STREQ(first->cname, "new");
  EXPECT_STREQ(second->cname, "y");
  EXPECT_EQ(second->deleted, 1);
}

TEST_F(ReloadTest, LaterOfTwoLinesWithTheSamePortWins) {
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(Line("first", 1) + Line("second", 1)), 0);
  EXPECT_STREQ(cnode->cname, "second");
  EXPECT_EQ(i_cons_list->count, 0);
}

TEST_F(ReloadTest, TwoLinesOfANewConsoleMakeOne) {
  EXPECT_EQ(Reload(Line("first", 1) + Line("second", 1)), 0);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("second"));
}

TEST_F(ReloadTest, RenamingAConsoleRenamesItsLog) {
  WriteLog("a", "old lines\n");
  AddAt(a_cons_list, "a", 1);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(Line("b", 1)), 0);
  EXPECT_EQ(test::ReadFile(LogOf("b")), "old lines\n");
  EXPECT_FALSE(std::filesystem::exists(LogOf("a")));
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(ReloadTest, LogOfAConsoleThatKeepsItsNameStays) {
  WriteLog("a", "old lines\n");
  AddAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(Line("a", 1)), 0);
  EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
}

TEST_F(ReloadTest, RenamingAConsoleWithoutALogIsSilent) {
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 1);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(Line("b", 1)), 0);
  EXPECT_STREQ(cnode->cname, "b");
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(ReloadTest, NameThatIsAPathMovesNothing) {
  WriteLog("a", "old lines\n");
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 1);
  for (const char* name : {"../b", "/b", "b/", "..", ".", "consolidated"}) {
    EXPECT_EQ(Reload(Line(name, 1)), 0);
    EXPECT_STREQ(cnode->cname, name);
    EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
    EXPECT_EQ(Reload(Line("a", 1)), 0);
    EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
  }
}

TEST_F(ReloadTest, LogUnderTheNewNameIsNotWrittenOver) {
  WriteLog("a", "old lines\n");
  WriteLog("b", "earlier lines\n");
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 1);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(Line("b", 1)), 0);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_STREQ(cnode->cname, "b");
  EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
  EXPECT_EQ(test::ReadFile(LogOf("b")), "earlier lines\n");
}

TEST_F(ReloadTest, ListsArePrintedBeforeAndAfterTheMerge) {
  AddAt(i_cons_list, "old", 1);
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(Reload(Line("new", 1)), 0);
  EXPECT_THAT(test::Containing(capture.Messages(), "ACCESSIBLE CONSOLES"), SizeIs(4));
  EXPECT_THAT(test::Containing(capture.Messages(), "name = "),
              ElementsAre("name = old\n", "name = new\n"));
}

TEST_F(ReloadTest, EmptyFileMarksEverything) {
  ConsoleNode* cnode = AddAt(i_cons_list, "a", 1);
  EXPECT_EQ(Reload("# nothing\n"), 0);
  EXPECT_EQ(cnode->deleted, 1);
}

TEST_F(ReloadTest, MissingFileEndsTheProcess) {
  EXPECT_EXIT((test::SendDebugToStderr(0), ReloadConfigFile()), ExitedWithCode(1),
              test::DebugTextsAre(
                  ElementsAre("LoadConfigFile: open() failed : No such file or directory\n")));
}

// Whatever allocation of the load fails, the live lists stay as they were.
TEST_F(ReloadTest, FailedLoadLeavesTheListsAlone) {
  ConsoleNode* kept = AddAt(i_cons_list, "kept", 1);
  ConsoleNode* other = AddAt(a_cons_list, "other", 2);
  test::WriteFile(kConfig, Line("renamed", 1) + Line("new", 3));
  const test::DebugCapture capture(0);
  constexpr int kListAndItsName = 2;
  constexpr int kLoad = 2 * 3;  // two consoles: the record, its user list, its element
  for (int nth = kListAndItsName + 1; nth <= kListAndItsName + kLoad; ++nth) {
    {
      const test::FailAllocation failure(nth);
      EXPECT_EQ(ReloadConfigFile(), -1);
      EXPECT_TRUE(failure.reached());
    }
    EXPECT_EQ(capture.Messages().back(), "ReloadConfigFile: LoadConfigFile() failed.\n");
    EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("kept"));
    EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("other"));
    EXPECT_EQ(kept->deleted, 0);
    EXPECT_EQ(other->deleted, 0);
  }
}

TEST_F(ReloadTest, ListThatCannotBeMadeIsReported) {
  ConsoleNode* cnode = AddAt(i_cons_list, "a", 1);
  test::WriteFile(kConfig, "");
  const test::DebugCapture capture(0);
  {
    const test::FailAllocation failure(1);
    EXPECT_EQ(ReloadConfigFile(), -1);
  }
  EXPECT_EQ(test::Reports(capture.Messages()).at(0),
            "NewConsoleList: malloc() failed : Cannot allocate memory\n");
  EXPECT_EQ(cnode->deleted, 0);
}

TEST_F(ReloadTest, NewConsoleThatCannotBeAddedIsLost) {
  AddAt(i_cons_list, "a", 1);
  test::WriteFile(kConfig, Line("a", 1) + Line("lost", 2) + Line("new", 3));
  constexpr int kTables = 2 + 3 * 3 + 2;  // the list, three consoles, the tables of live consoles
  const test::FailAllocation failure(kTables + 1);
  EXPECT_EQ(ReloadConfigFile(), 0);
  EXPECT_TRUE(failure.reached());
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("a", "new"));
}

// Each configured console meets the first live one with its address and port: those of i_cons_list
// come first, and a new one is found by the lines after it.
class MergeOrderTest : public ReloadTest {
 protected:
  // Allocation number `failing` of the reload fails. Those after the list and five consoles are
  // that of the table for i_cons_list and that of the one for a_cons_list.
  static constexpr int kFirstTable = 2 + 5 * 3 + 1;
  static constexpr int kNone = test::FailAllocation::kForEver;

  static void ReloadAndCheck(int failing) {
    AddAt(i_cons_list, "inaccessible", 1);
    ConsoleNode* hidden = AddAt(i_cons_list, "hidden", 1);
    ConsoleNode* behind = AddAt(a_cons_list, "behind", 1);
    AddAt(a_cons_list, "accessible", 2);
    test::WriteFile(kConfig, Line("one", 1) + Line("two", 2) + Line("new", 3) + Line("newer", 3) +
                                 Line("second", 2));
    const test::FailAllocation failure(failing);
    EXPECT_EQ(ReloadConfigFile(), 0);
    EXPECT_EQ(failure.reached(), failing != kNone);
    EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("one", "hidden", "newer"));
    EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("behind", "second"));
    EXPECT_EQ(hidden->deleted, 1);
    EXPECT_EQ(behind->deleted, 1);
    for (const ConsoleNode* found :
         {i_cons_list->head->cnode, i_cons_list->tail->cnode, a_cons_list->tail->cnode}) {
      EXPECT_EQ(found->deleted, 0);
    }
  }
};

TEST_F(MergeOrderTest, TheTableFindsTheFirst) {
  ReloadAndCheck(kNone);
}

TEST_F(MergeOrderTest, ComparingInaccessibleConsolesOneByOneFindsTheSame) {
  ReloadAndCheck(kFirstTable);
}

TEST_F(MergeOrderTest, ComparingAccessibleConsolesOneByOneFindsTheSame) {
  ReloadAndCheck(kFirstTable + 1);
}

TEST_F(ReloadTest, MergeTellsManyConsolesOfOneAddressApart) {
  constexpr int kMany = 300;
  std::string config;
  for (int port = 1; port <= kMany; ++port) {
    AddAt(port % 2 == 0 ? i_cons_list : a_cons_list, "old", static_cast<uint16_t>(port));
    config += Line("c" + std::to_string(port), static_cast<uint16_t>(port));
  }
  EXPECT_EQ(Reload(config), 0);
  EXPECT_EQ(i_cons_list->count, kMany / 2);
  for (const ConsoleList* list : {i_cons_list, a_cons_list}) {
    for (const ConsoleNode* cnode : Nodes(*list)) {
      EXPECT_EQ(cnode->cname, "c" + std::to_string(cnode->cons_port));
      EXPECT_EQ(cnode->deleted, 0);
    }
  }
}

TEST_F(ReloadTest, FlagsThatAreNoNumbersAreCountedAtEachLoad) {
  const auto report = [](int count, const std::string& first) {
    return "LoadConfigFile: Consoles without a login because their authentication flag is not a "
           "number: " +
           std::to_string(count) + ", the first is \"" + first + "\".\n";
  };
  test::DebugCapture capture(0);
  EXPECT_EQ(Reload(Line("a", 1, "0 0 1 1") + Line("b", 2, "0 0 1 yes") + Line("c", 3, "0 0 1 0") +
                   Line("d", 4, "0 0 1 0x1")),
            0);
  EXPECT_THAT(capture.NewMessages(), ElementsAre(report(2, "b")));
  EXPECT_EQ(Reload(Line("a", 1, "0 0 1 on")), 0);
  EXPECT_THAT(capture.NewMessages(), ElementsAre(report(1, "a")));
  EXPECT_EQ(Reload(Line("a", 1, "0 0 1 0")), 0);
  EXPECT_THAT(capture.NewMessages(), IsEmpty());
}

TEST_F(ReloadTest, NumbersAndTheFlagsOfIncompleteLinesAreNotCounted) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(Line("a", 1, "0 0 1 -3") + Line("b", 2, "0 0 1 07") + Line("c", 3, "0 0 1 1x") +
                   "# d 127.0.0.1 1 0 0 A200 s \"OS\" 0 0 1 yes \"\" \n"),
            0);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_EQ(Reload("d 127.0.0.1 1 0 0 A200 s \"OS\" 0 0 1 yes\n"), 0);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("LoadConfigFile: Missing event file name at line 1\n"));
}

// ---- The steps ----------------------------------------------------------------------------------

TEST_F(ReloadTest, MarkingMarksEveryNode) {
  AddAt(i_cons_list, "a", 1);
  AddAt(i_cons_list, "b", 2);
  MarkConsolesAsDeleted(i_cons_list);
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) EXPECT_EQ(cnode->deleted, 1);
}

TEST_F(ReloadTest, UpdateTellsWhetherItFoundAConsole) {
  ConsoleNode* live = AddAt(i_cons_list, "live", 1);
  const test::ConsolePtr update = test::MakeConsole("update");
  update->cons_port = 2;
  LogRenames renames;
  EXPECT_EQ(UpdateConsole(update.get(), i_cons_list, &renames), 0);
  EXPECT_STREQ(live->cname, "live");
  update->cons_port = 1;
  EXPECT_EQ(UpdateConsole(update.get(), i_cons_list, &renames), 1);
  EXPECT_STREQ(live->cname, "update");
  EXPECT_EQ(UpdateConsole(update.get(), a_cons_list, &renames), 0);
}

TEST_F(ReloadTest, MergeTakesNewNodesOffTheNewList) {
  AddAt(i_cons_list, "old", 1);
  ConsoleNode* update = AddAt(&list_, "old", 1);
  ConsoleNode* fresh = AddAt(&list_, "fresh", 2);
  MergeConsoleLists(&list_);
  EXPECT_EQ(list_.count, 1);
  EXPECT_EQ(list_.head->cnode, update);
  EXPECT_EQ(i_cons_list->tail->cnode, fresh);
}

TEST_F(ReloadTest, TheSecondListIsLookedThroughForWhatTheFirstDoesNotHave) {
  AddAt(i_cons_list, "inaccessible", 1);
  AddAt(a_cons_list, "accessible", 2);
  for (const auto& [line, twice] :
       {std::pair(Line("one", 1), false), std::pair(Line("two", 2), true),
        std::pair(Line("new", 3), true)}) {
    const test::DebugCapture capture(kTrace);
    EXPECT_EQ(Reload(line), 0);
    const std::vector<std::string> messages = capture.Messages();
    const auto entry = std::find(messages.begin(), messages.end(), "Entering UpdateConsole\n");
    ASSERT_NE(entry, messages.end());
    EXPECT_EQ(entry[1] == "Last message repeated 1 times\n", twice) << line;
  }
}

TEST_F(ReloadTest, EntryLinesAreWritten) {
  const test::DebugCapture capture(kTrace);
  EXPECT_EQ(Reload(Line("a", 1)), 0);
  EXPECT_THAT(
      test::Containing(capture.Messages(), "Entering "),
      ::testing::IsSupersetOf({"Entering ReloadConfigFile\n", "Entering NewConsoleList\n",
                               "Entering LoadConfigFile\n", "Entering PrintConsoles\n",
                               "Entering MergeConsoleLists\n", "Entering MarkConsolesAsDeleted\n",
                               "Entering UpdateConsole\n", "Entering FreeConsoleList\n"}));
}

}  // namespace
