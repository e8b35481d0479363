// Merging the configuration, read again, into the live lists; and loading event files again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "debug_support.h"
#include "event_set_support.h"
#include "failure_support.h"
#include "lists.h"
#include "load.h"
#include "load_steps.h"
#include "load_support.h"
#include "log_rename.h"

using namespace zevd;

namespace {

using test::AddConsoleAt;
using test::AddEventSet;
using test::ConfigLine;
using test::kConfig;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// ---- The configuration file ---------------------------------------------------------------------

class ReloadTest : public test::LoadTest {
 protected:
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
  AddConsoleAt(i_cons_list, "old", 1);
  EXPECT_EQ(Reload(ConfigLine("new1", 2) + ConfigLine("old", 1) + ConfigLine("new2", 3)), 0);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("old", "new1", "new2"));
  EXPECT_EQ(i_cons_list->count, 3);
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    EXPECT_EQ(cnode->deleted, 0);
    EXPECT_EQ(cnode->status, kNotConnected);
  }
}

TEST_F(ReloadTest, ConsolesThatNoLineMatchesAreMarked) {
  ConsoleNode* kept = AddConsoleAt(i_cons_list, "kept", 1);
  ConsoleNode* dropped = AddConsoleAt(i_cons_list, "dropped", 2);
  ConsoleNode* connected = AddConsoleAt(a_cons_list, "connected", 3);
  EXPECT_EQ(Reload(ConfigLine("kept", 1)), 0);
  EXPECT_EQ(kept->deleted, 0);
  EXPECT_EQ(dropped->deleted, 1);
  EXPECT_EQ(connected->deleted, 1);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("kept", "dropped"));
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("connected"));
}

TEST_F(ReloadTest, ConsoleThatComesBackIsUnmarked) {
  ConsoleNode* cnode = AddConsoleAt(i_cons_list, "a", 1);
  cnode->deleted = 1;
  EXPECT_EQ(Reload(ConfigLine("a", 1)), 0);
  EXPECT_EQ(cnode->deleted, 0);
}

TEST_F(ReloadTest, SettingsAreTakenOver) {
  EventSetNode* events = AddEventSet("ev");
  ConsoleNode* cnode = AddConsoleAt(a_cons_list, "a", 7);
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
  ConsoleNode* cnode = AddConsoleAt(a_cons_list, "a", 7);
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
  EXPECT_EQ(Reload(ConfigLine("b", 7)), 0);
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
  ConsoleNode* connected = AddConsoleAt(a_cons_list, "a", 1);
  ConsoleNode* connecting = AddConsoleAt(i_cons_list, "b", 2);
  connected->status = kConnected;
  connecting->status = kInProgress;
  EXPECT_EQ(Reload(ConfigLine("a", 1, "0 0 0 0") + ConfigLine("b", 2, "0 0 0 0")), 0);
  EXPECT_EQ(connected->enable, 0);
  EXPECT_EQ(connected->status, kNotConnected);
  EXPECT_EQ(connecting->status, kNotConnected);
}

TEST_F(ReloadTest, ConsoleIsIdentifiedByAddressAndPort) {
  ConsoleNode* cnode = AddConsoleAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(ConfigLine("a", 2)), 0);  // the same name at another port is another console
  EXPECT_EQ(cnode->deleted, 1);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("a"));
  EXPECT_EQ(Reload("a 127.0.0.01 1 0 0 m p \"o\" 0 0 1 0 \"\" \n"), 0);  // texts are compared
  EXPECT_EQ(cnode->deleted, 1);
  EXPECT_EQ(i_cons_list->count, 2);
}

TEST_F(ReloadTest, InaccessibleListIsSearchedFirst) {
  ConsoleNode* inaccessible = AddConsoleAt(i_cons_list, "i", 1);
  ConsoleNode* accessible = AddConsoleAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(ConfigLine("new", 1)), 0);
  EXPECT_STREQ(inaccessible->cname, "new");
  EXPECT_STREQ(accessible->cname, "a");
  EXPECT_EQ(accessible->deleted, 1);
}

TEST_F(ReloadTest, FirstOfTwoConsolesAtOneAddressIsUpdated) {
  ConsoleNode* first = AddConsoleAt(i_cons_list, "x", 1);
  ConsoleNode* second = AddConsoleAt(i_cons_list, "y", 1);
  EXPECT_EQ(Reload(ConfigLine("new", 1)), 0);
  EXPECT_STREQ(first->cname, "new");
  EXPECT_STREQ(second->cname, "y");
  EXPECT_EQ(second->deleted, 1);
}

TEST_F(ReloadTest, LaterOfTwoLinesWithTheSamePortWins) {
  ConsoleNode* cnode = AddConsoleAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(ConfigLine("first", 1) + ConfigLine("second", 1)), 0);
  EXPECT_STREQ(cnode->cname, "second");
  EXPECT_EQ(i_cons_list->count, 0);
}

TEST_F(ReloadTest, TwoLinesOfANewConsoleMakeOne) {
  EXPECT_EQ(Reload(ConfigLine("first", 1) + ConfigLine("second", 1)), 0);
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("second"));
}

TEST_F(ReloadTest, RenamingAConsoleRenamesItsLog) {
  WriteLog("a", "old lines\n");
  AddConsoleAt(a_cons_list, "a", 1);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(ConfigLine("b", 1)), 0);
  EXPECT_EQ(test::ReadFile(LogOf("b")), "old lines\n");
  EXPECT_FALSE(std::filesystem::exists(LogOf("a")));
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(ReloadTest, LogOfAConsoleThatKeepsItsNameStays) {
  WriteLog("a", "old lines\n");
  AddConsoleAt(a_cons_list, "a", 1);
  EXPECT_EQ(Reload(ConfigLine("a", 1)), 0);
  EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
}

TEST_F(ReloadTest, RenamingAConsoleWithoutALogIsSilent) {
  ConsoleNode* cnode = AddConsoleAt(a_cons_list, "a", 1);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(ConfigLine("b", 1)), 0);
  EXPECT_STREQ(cnode->cname, "b");
  EXPECT_THAT(capture.Messages(), IsEmpty());
}

TEST_F(ReloadTest, NameThatIsAPathMovesNothing) {
  WriteLog("a", "old lines\n");
  ConsoleNode* cnode = AddConsoleAt(a_cons_list, "a", 1);
  for (const char* name : {"../b", "/b", "b/", "..", ".", "consolidated"}) {
    EXPECT_EQ(Reload(ConfigLine(name, 1)), 0);
    EXPECT_STREQ(cnode->cname, name);
    EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
    EXPECT_EQ(Reload(ConfigLine("a", 1)), 0);
    EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
  }
}

TEST_F(ReloadTest, LogUnderTheNewNameIsNotOverwritten) {
  WriteLog("a", "old lines\n");
  WriteLog("b", "earlier lines\n");
  ConsoleNode* cnode = AddConsoleAt(a_cons_list, "a", 1);
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(ConfigLine("b", 1)), 0);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_STREQ(cnode->cname, "b");
  EXPECT_EQ(test::ReadFile(LogOf("a")), "old lines\n");
  EXPECT_EQ(test::ReadFile(LogOf("b")), "earlier lines\n");
}

TEST_F(ReloadTest, ListsArePrintedBeforeAndAfterTheMerge) {
  AddConsoleAt(i_cons_list, "old", 1);
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(Reload(ConfigLine("new", 1)), 0);
  EXPECT_THAT(test::Containing(capture.Messages(), "ACCESSIBLE CONSOLES"), SizeIs(4));
  EXPECT_THAT(test::Containing(capture.Messages(), "name = "),
              ElementsAre("name = old\n", "name = new\n"));
}

TEST_F(ReloadTest, EmptyFileMarksEverything) {
  ConsoleNode* cnode = AddConsoleAt(i_cons_list, "a", 1);
  EXPECT_EQ(Reload("# nothing\n"), 0);
  EXPECT_EQ(cnode->deleted, 1);
}

TEST_F(ReloadTest, MissingFileEndsTheProcess) {
  EXPECT_EXIT((test::SendDebugToStderr(0), ReloadConfigFile()), ExitedWithCode(1),
              test::DebugTextsAre(
                  ElementsAre("LoadConfigFile: open() failed : No such file or directory\n")));
}

// Whichever allocation of the load fails, the live lists stay as they were.
TEST_F(ReloadTest, FailedLoadLeavesTheListsAlone) {
  ConsoleNode* kept = AddConsoleAt(i_cons_list, "kept", 1);
  ConsoleNode* other = AddConsoleAt(a_cons_list, "other", 2);
  test::WriteFile(kConfig, ConfigLine("renamed", 1) + ConfigLine("new", 3));
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
  ConsoleNode* cnode = AddConsoleAt(i_cons_list, "a", 1);
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
  AddConsoleAt(i_cons_list, "a", 1);
  test::WriteFile(kConfig, ConfigLine("a", 1) + ConfigLine("lost", 2) + ConfigLine("new", 3));
  constexpr int kTables = 2 + 3 * 3 + 2;  // the list, three consoles, the tables of live consoles
  const test::FailAllocation failure(kTables + 1);
  EXPECT_EQ(ReloadConfigFile(), 0);
  EXPECT_TRUE(failure.reached());
  EXPECT_THAT(test::Names(*i_cons_list), ElementsAre("a", "new"));
}

// Each configured console updates the first live one with its address and port. Those of
// i_cons_list come first, and later lines find the consoles that earlier ones have added.
class MergeOrderTest : public ReloadTest {
 protected:
  // Allocation number `failing` of the reload fails. After the list and five consoles come the
  // tables for i_cons_list and a_cons_list.
  static constexpr int kFirstTable = 2 + 5 * 3 + 1;
  static constexpr int kNone = test::FailAllocation::kForEver;

  static void ReloadAndCheck(int failing) {
    AddConsoleAt(i_cons_list, "inaccessible", 1);
    ConsoleNode* hidden = AddConsoleAt(i_cons_list, "hidden", 1);
    ConsoleNode* behind = AddConsoleAt(a_cons_list, "behind", 1);
    AddConsoleAt(a_cons_list, "accessible", 2);
    test::WriteFile(kConfig, ConfigLine("one", 1) + ConfigLine("two", 2) + ConfigLine("new", 3) +
                                 ConfigLine("newer", 3) + ConfigLine("second", 2));
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

TEST_F(MergeOrderTest, TableFindsTheFirst) {
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
    AddConsoleAt(port % 2 == 0 ? i_cons_list : a_cons_list, "old", static_cast<uint16_t>(port));
    config += ConfigLine("c" + std::to_string(port), static_cast<uint16_t>(port));
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
  EXPECT_EQ(Reload(ConfigLine("a", 1, "0 0 1 1") + ConfigLine("b", 2, "0 0 1 yes") +
                   ConfigLine("c", 3, "0 0 1 0") + ConfigLine("d", 4, "0 0 1 0x1")),
            0);
  EXPECT_THAT(capture.NewMessages(), ElementsAre(report(2, "b")));
  EXPECT_EQ(Reload(ConfigLine("a", 1, "0 0 1 on")), 0);
  EXPECT_THAT(capture.NewMessages(), ElementsAre(report(1, "a")));
  EXPECT_EQ(Reload(ConfigLine("a", 1, "0 0 1 0")), 0);
  EXPECT_THAT(capture.NewMessages(), IsEmpty());
}

TEST_F(ReloadTest, NumbersAndTheFlagsOfIncompleteLinesAreNotCounted) {
  const test::DebugCapture capture(0);
  EXPECT_EQ(Reload(ConfigLine("a", 1, "0 0 1 -3") + ConfigLine("b", 2, "0 0 1 07") +
                   ConfigLine("c", 3, "0 0 1 1x") +
                   "# d 127.0.0.1 1 0 0 A200 s \"OS\" 0 0 1 yes \"\" \n"),
            0);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_EQ(Reload("d 127.0.0.1 1 0 0 A200 s \"OS\" 0 0 1 yes\n"), 0);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("LoadConfigFile: Missing event file name at line 1\n"));
}

// ---- The steps ----------------------------------------------------------------------------------

TEST_F(ReloadTest, MarkingMarksEveryNode) {
  AddConsoleAt(i_cons_list, "a", 1);
  AddConsoleAt(i_cons_list, "b", 2);
  MarkConsolesAsDeleted(i_cons_list);
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) EXPECT_EQ(cnode->deleted, 1);
}

TEST_F(ReloadTest, UpdateTellsWhetherItFoundAConsole) {
  ConsoleNode* live = AddConsoleAt(i_cons_list, "live", 1);
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
  AddConsoleAt(i_cons_list, "old", 1);
  ConsoleNode* update = AddConsoleAt(&list_, "old", 1);
  ConsoleNode* fresh = AddConsoleAt(&list_, "fresh", 2);
  MergeConsoleLists(&list_);
  EXPECT_EQ(list_.count, 1);
  EXPECT_EQ(list_.head->cnode, update);
  EXPECT_EQ(i_cons_list->tail->cnode, fresh);
}

TEST_F(ReloadTest, SecondListIsSearchedForWhatTheFirstDoesNotHave) {
  AddConsoleAt(i_cons_list, "inaccessible", 1);
  AddConsoleAt(a_cons_list, "accessible", 2);
  for (const auto& [line, twice] :
       {std::pair(ConfigLine("one", 1), false), std::pair(ConfigLine("two", 2), true),
        std::pair(ConfigLine("new", 3), true)}) {
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
  EXPECT_EQ(Reload(ConfigLine("a", 1)), 0);
  EXPECT_THAT(
      test::Containing(capture.Messages(), "Entering "),
      ::testing::IsSupersetOf({"Entering ReloadConfigFile\n", "Entering NewConsoleList\n",
                               "Entering LoadConfigFile\n", "Entering PrintConsoles\n",
                               "Entering MergeConsoleLists\n", "Entering MarkConsolesAsDeleted\n",
                               "Entering UpdateConsole\n", "Entering FreeConsoleList\n"}));
}

// ---- Event files --------------------------------------------------------------------------------

using ReloadEventsTest = test::EventSetTest;

TEST_F(ReloadEventsTest, ReloadTakesTheSetsOffEveryConsoleAndReplacesThem) {
  WriteEvents("disk", "a 1 0 x\n");
  LoadEventFiles(ev_list);
  ConsoleNode* connected = test::AddConsole(a_cons_list, "connected");
  ConsoleNode* other = test::AddConsole(i_cons_list, "other");
  connected->enode = other->enode = FindEventNode("disk", ev_list);
  RemoveEvents();
  WriteEvents("fan", "a 1 0 x\nb 2 0 y\n");
  EXPECT_EQ(ReloadEventFiles(), 0);
  EXPECT_EQ(connected->enode, nullptr);
  EXPECT_EQ(other->enode, nullptr);
  EXPECT_THAT(SetNames(), ElementsAre("fan"));
  EXPECT_EQ(Patterns("fan"), 2);
}

TEST_F(ReloadEventsTest, FailedReloadLeavesConsolesWithoutSetsUntilOneSucceeds) {
  WriteEvents("disk", "a 1 0 x\n");
  LoadEventFiles(ev_list);
  ConsoleNode* box = test::AddConsole(a_cons_list, "box");
  box->enode = FindEventNode("disk", ev_list);
  RemoveEvents();
  MakeUnreadable("broken");
  {
    const test::DebugCapture capture(0);
    EXPECT_EQ(ReloadEventFiles(), -1);
    EXPECT_EQ(test::Reports(capture.Messages()).back(),
              "ReloadEventFiles: LoadEventFiles() failed.\n");
  }
  EXPECT_EQ(box->enode, nullptr);
  EXPECT_THAT(SetNames(), IsEmpty());
  RemoveEvents();
  WriteEvents("disk", "a 1 0 x\n");
  EXPECT_EQ(ReloadEventFiles(), 0);
  EXPECT_THAT(SetNames(), ElementsAre("disk"));
}

TEST_F(ReloadEventsTest, EveryConsoleForgetsItsEventSet) {
  EventSetNode set{};
  ConsoleNode* connected = test::AddConsole(a_cons_list, "connected");
  ConsoleNode* away = test::AddConsole(i_cons_list, "away");
  connected->enode = &set;
  away->enode = &set;
  SetEventNodeToNULLForAllConsoles();
  EXPECT_EQ(connected->enode, nullptr);
  EXPECT_EQ(away->enode, nullptr);
}

}  // namespace
