// The global lists, and the look-up of consoles by their mapped port.
#include "lists.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

#include "debug_support.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

// ---- Start-up -----------------------------------------------------------------------------------

void CheckLists() {
  InitializeLists();
  EXPECT_STREQ(a_cons_list->list_name, "a_cons_list");
  EXPECT_STREQ(i_cons_list->list_name, "i_cons_list");
  EXPECT_STREQ(user_list->list_name, "user_list");
  EXPECT_STREQ(cmd_list->list_name, "cmd_list");
  EXPECT_STREQ(ev_list->list_name, "ev_list");
  EXPECT_STREQ(mapped_port_list->list_name, "mapped_port_list");
  for (const ConsoleList* list : {a_cons_list, i_cons_list}) {
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->count, 0);
    EXPECT_EQ(list->high_sock, -1);
  }
  EXPECT_EQ(user_list->head, nullptr);
  EXPECT_EQ(cmd_list->head, nullptr);
  EXPECT_EQ(ev_list->head, nullptr);
  EXPECT_EQ(mapped_port_list->head, nullptr);
  EXPECT_EQ(user_list->high_sock, -1);
  EXPECT_EQ(cmd_list->high_sock, -1);
  EXPECT_EQ(mapped_port_list->high_sock, -1);
}

TEST(InitializeListsTest, EveryListIsEmptyAndNamed) {
  EXPECT_HOLDS_IN_CHILD(CheckLists());
}

void CheckWatches() {
  InitializeLists();
  EXPECT_NE(a_cons_list->watch, nullptr);
  EXPECT_NE(user_list->watch, nullptr);
  EXPECT_NE(mapped_port_list->watch, nullptr);
  EXPECT_EQ(i_cons_list->watch, nullptr);
  EXPECT_EQ(cmd_list->watch, nullptr);
}

TEST(InitializeListsTest, LongListsThatAreWaitedForHaveAWatch) {
  EXPECT_HOLDS_IN_CHILD(CheckWatches());
}

// ---- Look-up by mapped port ---------------------------------------------------------------------

class MappedPortLookUpTest : public test::RelayTest {
 protected:
  static ConsoleNode* AddAt(ConsoleList* list, const char* name, uint16_t port) {
    ConsoleNode* cnode = test::AddConsole(list, name);
    cnode->mapped_port = port;
    return cnode;
  }
};

TEST_F(MappedPortLookUpTest, InaccessibleConsolesComeFirst) {
  ConsoleNode* accessible = AddAt(a_cons_list, "a", 7001);
  EXPECT_EQ(GetConsoleNodeFromMappedPort(7001), accessible);
  ConsoleNode* inaccessible = AddAt(i_cons_list, "i", 7001);
  EXPECT_EQ(GetConsoleNodeFromMappedPort(7001), inaccessible);
  EXPECT_EQ(GetConsoleNodeFromMappedPort(7002), nullptr);
}

TEST_F(MappedPortLookUpTest, FirstOfTheListIsTaken) {
  ConsoleNode* first = AddAt(a_cons_list, "first", 7001);
  AddAt(a_cons_list, "second", 7001);
  EXPECT_EQ(GetConsoleNodeFromMappedPort(7001), first);
}

TEST_F(MappedPortLookUpTest, CopyHasWhatAConnectionNeeds) {
  ConsoleNode* cnode = AddAt(a_cons_list, "a", 7001);
  cnode->status = kConnected;
  cnode->auth = 1;
  MappedConsole copy{};
  ASSERT_TRUE(CopyMappedConsole(7001, &copy));
  EXPECT_STREQ(copy.cname, "a");
  EXPECT_EQ(copy.status, kConnected);
  EXPECT_EQ(copy.auth, 1);
  EXPECT_FALSE(copy.locked_exclusively);
  const test::Attached<UserNode> user = test::AttachUser(cnode, "one", kExclusive);
  ASSERT_TRUE(CopyMappedConsole(7001, &copy));
  EXPECT_TRUE(copy.locked_exclusively);
  EXPECT_FALSE(CopyMappedConsole(7002, &copy));
}

// How the trace names a lock.
std::string Hex(RwLock& lock) {
  std::array<char, 32> text{};
  snprintf(text.data(), text.size(), "%lx", reinterpret_cast<unsigned long>(&lock));
  return text.data();
}

// The two lists are locked as a pair, the accessible one first, and released in the same order.
TEST_F(MappedPortLookUpTest, BothListsAreLocked) {
  const std::string acl = Hex(acl_lock);
  const std::string icl = Hex(icl_lock);
  MappedConsole copy{};
  const std::array<std::function<void()>, 2> look_ups = {[] { GetConsoleNodeFromMappedPort(7001); },
                                                         [&] { CopyMappedConsole(7001, &copy); }};
  for (const auto& look_up : look_ups) {
    const test::DebugCapture capture(kTrace);
    look_up();
    const std::string start = "GetConsoleNodeFromMappedPort: ";
    EXPECT_THAT(test::WithoutEntries(capture.Messages()),
                ElementsAre(StartsWith(start + "Requesting write lock " + acl + " at line "),
                            start + "Aquired write lock " + acl + "\n",
                            StartsWith(start + "Requesting write lock " + icl + " at line "),
                            start + "Aquired write lock " + icl + "\n",
                            start + "Releasing lock " + acl + "\n",
                            start + "Releasing lock " + icl + "\n"));
    EXPECT_EQ(capture.Messages()[0], "Entering GetConsoleNodeFromMappedPort\n");
  }
}

}  // namespace
