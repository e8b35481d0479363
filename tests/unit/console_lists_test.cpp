// How consoles change lists, and how they end.
#include "console_lists.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

#include "console_users.h"
#include "debug_support.h"
#include "failure_support.h"
#include "lists.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using ::testing::ElementsAre;

// ---- Moving -------------------------------------------------------------------------------------

class MoveTest : public test::RelayTest {
 protected:
  MoveTest() {
    InitConsoleList(&from_, "from");
    InitConsoleList(&to_, "to");
    test::AddConsole(&to_, "there");
    Add("c1", kConnected);
    Add("n1", kNotConnected);
    Add("c2", kConnected);
    Add("p1", kInProgress);
    Add("r1", kRefused);
    Add("c3", kConnected);
  }
  ~MoveTest() override {
    for (ConsoleList* list : {&from_, &to_}) {
      EmptyConsoleList(list);
      free(const_cast<char*>(list->list_name));
    }
  }

  void Add(const char* name, int status) { test::AddConsole(&from_, name, -1, status); }

  ConsoleList from_;
  ConsoleList to_;
};

TEST_F(MoveTest, ConnectedConsolesKeepTheirOrder) {
  MoveConsolesToList(&from_, &to_, MoveCriterion::kConnected);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "c1", "c2", "c3"));
  EXPECT_THAT(test::Names(from_), ElementsAre("n1", "p1", "r1"));
  EXPECT_EQ(to_.count, 4);
  EXPECT_EQ(from_.count, 3);
}

TEST_F(MoveTest, EveryOtherStatusIsNotConnected) {
  MoveConsolesToList(&from_, &to_, MoveCriterion::kNotConnected);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "n1", "p1", "r1"));
  EXPECT_THAT(test::Names(from_), ElementsAre("c1", "c2", "c3"));
}

TEST_F(MoveTest, AllAreMoved) {
  MoveConsolesToList(&from_, &to_, MoveCriterion::kAll);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "c1", "n1", "c2", "p1", "r1", "c3"));
  EXPECT_EQ(from_.head, nullptr);
  EXPECT_EQ(from_.count, 0);
}

TEST_F(MoveTest, CriteriaHaveTheirNumbers) {
  EXPECT_EQ(static_cast<int>(MoveCriterion::kConnected), 0);
  EXPECT_EQ(static_cast<int>(MoveCriterion::kNotConnected), 1);
  EXPECT_EQ(static_cast<int>(MoveCriterion::kAll), 2);
}

TEST_F(MoveTest, SocketsMoveFromSetToSet) {
  ConsoleNode* cnode = LocateConsoleInList("c2", &from_);
  cnode->sock = 3000;
  MoveConsolesToList(&from_, &to_, MoveCriterion::kConnected);
  EXPECT_TRUE(to_.fdset.Contains(3000));
  EXPECT_EQ(to_.high_sock, 3000);
  EXPECT_FALSE(from_.fdset.Contains(3000));
  cnode->sock = -1;
}

// Another thread closed it after the clean-up of the pass: its socket and users come first.
TEST_F(MoveTest, ClosedConsoleThatStillHasItsSocketStays) {
  ConsoleNode* cnode = LocateConsoleInList("n1", &from_);
  cnode->sock = 3000;
  MoveConsolesToList(&from_, &to_, MoveCriterion::kNotConnected);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "p1", "r1"));
  cnode->sock = -1;
}

TEST_F(MoveTest, RunningOutOfMemoryStopsTheMoveAndClosesWhatIsLost) {
  ConsoleNode* lost = LocateConsoleInList("c2", &from_);
  const int sock = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int log_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  lost->sock = sock;
  lost->log_fd = log_fd;
  Recompute(from_);
  const test::DebugCapture capture(0);
  {
    const test::FailAllocation failure(2);
    MoveConsolesToList(&from_, &to_, MoveCriterion::kConnected);
  }
  EXPECT_EQ(test::Reports(capture.Messages()).back(),
            "MoveConsolesToList: AddConsoleToList() failed.\n");
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "c1"));
  EXPECT_THAT(test::Names(from_), ElementsAre("n1", "p1", "r1", "c3"));
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_FALSE(test::IsOpen(log_fd));
}

TEST_F(MoveTest, LostConsoleStaysForTheUsersWhoLeaveIt) {
  const test::ConsolePtr lost(LocateConsoleInList("c2", &from_));
  lost->ref_count = 1;
  {
    const test::DebugCapture capture(0);
    const test::FailAllocation failure(2);
    MoveConsolesToList(&from_, &to_, MoveCriterion::kConnected);
  }
  EXPECT_STREQ(lost->cname, "c2");
}

// ---- Deleting -----------------------------------------------------------------------------------

class DeleteTest : public test::RelayTest {
 protected:
  static ConsoleNode* AddMarked(const char* name) {
    ConsoleNode* cnode = test::AddConsole(a_cons_list, name);
    cnode->deleted = 1;
    return cnode;
  }
};

TEST_F(DeleteTest, MarkedConsolesAreFreed) {
  test::AddConsole(a_cons_list, "stays");
  AddMarked("goes1");
  test::AddConsole(a_cons_list, "stays too");
  AddMarked("goes2");
  const test::DebugCapture capture(kInfo);
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("stays", "stays too"));
  EXPECT_EQ(a_cons_list->count, 2);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("DeleteMarkedConsoles: Console goes1 is being deleted.\n",
                          "DeleteMarkedConsoles: Console goes2 is being deleted.\n"));
}

TEST_F(DeleteTest, SocketAndLogAreClosed) {
  test::SocketPair socket;
  const int log = open("/dev/null", O_WRONLY | O_CLOEXEC);
  ConsoleNode* cnode = AddMarked("goes");
  const int sock = socket.ours.Release();
  cnode->sock = sock;
  cnode->log_fd = log;
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_FALSE(test::IsOpen(log));
  EXPECT_EQ(test::Receive(socket.theirs.get(), 1), "");
}

// The console is off its list by then, so nobody has the port any more.
TEST_F(DeleteTest, PortsAreRefreshedAfterAConsoleThatHadOne) {
  AddMarked("goes")->mapped_port = 7001;
  const test::DebugCapture capture(kTrace);
  DeleteMarkedConsoles(a_cons_list);
  const std::string output = capture.Output();
  const size_t removed = output.find("RemoveConsoleFromList: Removed console goes from ");
  ASSERT_NE(removed, std::string::npos);
  EXPECT_NE(output.find("Entering RefreshMappedPorts\n", removed), std::string::npos);
}

TEST_F(DeleteTest, LockThatIsGivenIsReleasedInBetween) {
  AddMarked("goes1");
  test::AddConsole(a_cons_list, "stays");
  AddMarked("goes2");
  const test::FakePassageOfTime passage(1000);  // as long as it may work at a time
  WriteLock lock(acl_lock, HERE);
  unsigned released = 0;
  {
    const test::FailCall unlocks(test::Call::kRwlockUnlock, 0, 1, 0);
    DeleteMarkedConsoles(a_cons_list, &lock);
    released = static_cast<unsigned>(unlocks.calls());
  }
  EXPECT_GE(released, 3U);
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("stays"));
}

TEST_F(DeleteTest, PortsAreLeftAloneWhenTheConsoleHadNone) {
  AddMarked("goes");
  const test::DebugCapture capture(kTrace);
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_FALSE(capture.Has("Entering RefreshMappedPorts\n"));
}

TEST_F(DeleteTest, UsersAreToldAndClosedAndTheConsoleIsLeftForLater) {
  ConsoleNode* cnode = AddMarked("busy");
  const test::Attached<UserNode> one = test::AttachUser(cnode, "one");
  const test::Attached<UserNode> two = test::AttachUser(cnode, "two");
  const test::DebugCapture capture(kInfo);
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_EQ(capture.Messages().at(0), "DeleteMarkedConsoles: Disconnecting users from busy.\n");
  std::array<char, kMessageBufferSize> banner{};
  FormatBanner(banner.data(), banner.size(), "Console has been deleted.");
  for (const auto* user : {&one, &two}) {
    EXPECT_EQ(user->node->connected, 0);
    EXPECT_EQ(test::ReceiveAvailable(user->peer.get()), banner.data());
  }
  EXPECT_EQ(cnode->user_list->head, nullptr);
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("busy"));
  EXPECT_EQ(cnode->ref_count, 2);
}

TEST_F(DeleteTest, ConsoleThatAUserRecordRefersToStopsTheWalk) {
  ConsoleNode* referenced = AddMarked("referenced");
  AddMarked("waits");
  referenced->ref_count = 2;
  const test::DebugCapture capture(kInfo);
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("referenced", "waits"));
  EXPECT_THAT(
      capture.Messages(),
      ElementsAre(
          "DeleteMarkedConsoles: Console referenced has ref_count=2. Cannot delete yet.\n"));
  referenced->ref_count = 0;
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_EQ(a_cons_list->head, nullptr);
}

TEST_F(DeleteTest, ConsoleWithUsersDoesNotStopTheWalk) {
  ConsoleNode* busy = AddMarked("busy");
  const test::Attached<UserNode> user = test::AttachUser(busy, "one");
  AddMarked("goes");
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("busy"));
}

TEST_F(DeleteTest, ReferenceToAnUnmarkedConsoleDoesNotMatter) {
  test::AddConsole(a_cons_list, "used")->ref_count = 1;
  AddMarked("goes");
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("used"));
}

}  // namespace
