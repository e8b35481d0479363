#include "cons_conn.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "attach.h"
#include "cons_mon.h"
#include "console.h"
#include "console_lists.h"
#include "console_users.h"
#include "fixed_text.h"
#include "log.h"
#include "serv_conn.h"
#include "support.h"
#include "user.h"
#include "user_conn.h"
#include "waker.h"

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

// ---- Text fields --------------------------------------------------------------------------------

TEST(CopyTextTest, CopiesWhatFits) {
  char field[5];
  CopyText(field, "abcd");
  EXPECT_STREQ(field, "abcd");
  CopyText(field, "");
  EXPECT_STREQ(field, "");
}

TEST(CopyTextTest, CutsAndTerminates) {
  char field[6] = "#####";
  CopyText(field, 5, "abcdefgh");
  EXPECT_STREQ(field, "abcd");
  EXPECT_EQ(field[5], '\0');
  CopyText(field, 1, "x");
  EXPECT_STREQ(field, "");
}

TEST(CopyTextTest, FieldsHoldWhatTheirSizesSay) {
  EXPECT_EQ(kNameSize, 65U);
  EXPECT_EQ(kUserNameSize, 33U);
}

// ---- The record ---------------------------------------------------------------------------------

class ConsoleTest : public test::RelayTest {};

TEST_F(ConsoleTest, NewOneIsNotConnected) {
  const test::ConsolePtr cnode = test::MakeConsole("mycons");
  EXPECT_EQ(cnode->sock, -1);
  EXPECT_EQ(cnode->log_fd, -1);
  EXPECT_EQ(cnode->status, kNotConnected);
  EXPECT_EQ(cnode->deleted, 0);
  EXPECT_EQ(cnode->ref_count, 0);
  EXPECT_EQ(cnode->force, 0);
  EXPECT_EQ(cnode->check_for_NET_E_msg, 0);
  EXPECT_EQ(cnode->lfca_time, 0);
  EXPECT_EQ(cnode->lsca_time, 0);
  EXPECT_STREQ(cnode->telnet_cmd, "");
  EXPECT_STREQ(cnode->pellox_port_holder_ipaddr, "");
  EXPECT_EQ(cnode->log_buf.buf[0], '\0');
  EXPECT_EQ(cnode->log_buf.count, 0);
  EXPECT_EQ(cnode->enode, nullptr);
}

TEST_F(ConsoleTest, StatusValuesAreThoseOnTheWire) {
  EXPECT_EQ(kConnected, 0);
  EXPECT_EQ(kInProgress, 1);
  EXPECT_EQ(kRefused, 2);
  EXPECT_EQ(kNotConnected, 3);
}

TEST_F(ConsoleTest, NewOneTakesItsSettings) {
  EventSetNode enode{};
  ConsoleSettings settings = test::Settings("mycons");
  CopyText(settings.pname, "sys1");
  CopyText(settings.ipaddr, "10.1.2.3");
  CopyText(settings.model, "M100");
  settings.cons_port = 2001;
  settings.mgmt_port = 23;
  settings.mapped_port = 65535;
  settings.logging = 2;
  settings.events = 3;
  settings.enable = 4;
  settings.auth = 5;
  settings.enode = &enode;
  const test::ConsolePtr cnode(NewConsoleNode(settings));
  EXPECT_STREQ(cnode->cname, "mycons");
  EXPECT_STREQ(cnode->pname, "sys1");
  EXPECT_STREQ(cnode->ipaddr, "10.1.2.3");
  EXPECT_STREQ(cnode->model, "M100");
  EXPECT_EQ(cnode->cons_port, 2001);
  EXPECT_EQ(cnode->mgmt_port, 23);
  EXPECT_EQ(cnode->mapped_port, 65535);
  EXPECT_EQ(cnode->logging, 2);
  EXPECT_EQ(cnode->events, 3);
  EXPECT_EQ(cnode->enable, 4);
  EXPECT_EQ(cnode->auth, 5);
  EXPECT_EQ(cnode->enode, &enode);
}

TEST_F(ConsoleTest, TextsAreCutTo64Characters) {
  const std::string text(65, 'x');
  ConsoleSettings settings = test::Settings(text.c_str());
  CopyText(settings.pname, text.c_str());
  CopyText(settings.ipaddr, text.c_str());
  CopyText(settings.model, text.c_str());
  const test::ConsolePtr cnode(NewConsoleNode(settings));
  for (const char* field : {cnode->cname, cnode->pname, cnode->ipaddr, cnode->model}) {
    EXPECT_EQ(field, std::string(64, 'x'));
  }
}

TEST_F(ConsoleTest, NewOneHasAnEmptyUserList) {
  const test::ConsolePtr cnode = test::MakeConsole("mycons");
  EXPECT_STREQ(cnode->user_list->list_name, "console's user list");
  EXPECT_EQ(cnode->user_list->head, nullptr);
  EXPECT_EQ(cnode->user_list->tail, nullptr);
  EXPECT_EQ(cnode->user_list->count, 0);
}

TEST_F(ConsoleTest, RingIsMadeWhenItHasASize) {
  EXPECT_EQ(test::MakeConsole("without")->cons_buf.buf, nullptr);
  cons_buf_size = 16;
  const test::ConsolePtr cnode = test::MakeConsole("with");
  ASSERT_NE(cnode->cons_buf.buf, nullptr);
  EXPECT_EQ(cnode->cons_buf.buf[0], '\0');
  EXPECT_EQ(cnode->cons_buf.head, 0);
  EXPECT_EQ(cnode->cons_buf.tail, 0);
}

TEST_F(ConsoleTest, NewOneIsAnnouncedAtLevelOneAndDescribedAtLevelThree) {
  ConsoleSettings settings = test::Settings("mycons");
  settings.cons_port = 2001;
  settings.mgmt_port = 23;
  settings.logging = 1;
  settings.events = 2;
  {
    const test::DebugCapture capture(kInfo);
    const test::ConsolePtr cnode(NewConsoleNode(settings));
    EXPECT_THAT(capture.Messages(), ElementsAre("Entering NewConsoleNode\n"));
  }
  const test::DebugCapture capture(kTrace);
  const test::ConsolePtr cnode(NewConsoleNode(settings));
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Entering NewConsoleNode\n", "\tcons_name = \"mycons\".\n",
                          "\tplat_name = \"platform\".\n", "\tipaddr    = \"127.0.0.1\".\n",
                          "\tcons_port = \"2001\".\n", "\tmgmt_port = \"23\".\n",
                          "\tlogging   = \"1\".\n", "\tevents    = \"2\".\n"));
}

TEST_F(ConsoleTest, RunningOutOfMemoryGivesNoNode) {
  cons_buf_size = 16;
  for (const int failing : {1, 2, 3}) {
    const test::DebugCapture capture(kDetail);
    const test::FailAllocation failure(failing);
    EXPECT_EQ(NewConsoleNode(test::Settings("mycons")), nullptr);
    EXPECT_TRUE(failure.reached());
    EXPECT_THAT(test::Reports(capture.Messages()),
                ElementsAre("NewConsoleNode: malloc() failed : Cannot allocate memory\n"));
    EXPECT_TRUE(
        capture.Has("PostJixEvent: template=qor.zevd.daemon.error message=Out of memory -=- "
                    "priority=700\n"));
  }
}

TEST_F(ConsoleTest, FreeingFreesItsPartsAndLeavesItsUsers) {
  cons_buf_size = 16;
  ConsoleNode* cnode = test::MakeConsole("mycons").release();
  UserNode user{};
  ASSERT_EQ(AddUserToList(&user, cnode->user_list), 0);
  FreeConsoleNode(cnode);  // the address sanitizer sees what is left or freed twice
  EXPECT_EQ(user.sock, 0);
}

// ---- The list -----------------------------------------------------------------------------------

class ConsoleListTest : public ConsoleTest {
 protected:
  ConsoleListTest() { InitConsoleList(&list_, "my list"); }
  ~ConsoleListTest() override {
    EmptyConsoleList(&list_);
    free(const_cast<char*>(list_.list_name));
  }

  ConsoleNode* Add(const char* name, int sock = -1, int status = kNotConnected) {
    return test::AddConsole(&list_, name, sock, status);
  }

  ConsoleList list_;
};

TEST_F(ConsoleListTest, NewOneIsEmptyAndNamed) {
  ConsoleList* list = NewConsoleList("another");
  EXPECT_STREQ(list->list_name, "another");
  EXPECT_EQ(list->head, nullptr);
  EXPECT_EQ(list->count, 0);
  EXPECT_EQ(list->high_sock, -1);
  FreeConsoleList(list);
}

TEST_F(ConsoleListTest, NewOneIsNullWhenOutOfMemory) {
  const test::DebugCapture capture(0);
  const test::FailAllocation failure(1);
  EXPECT_EQ(NewConsoleList("another"), nullptr);
  EXPECT_THAT(test::Reports(capture.Messages()),
              ElementsAre("NewConsoleList: malloc() failed : Cannot allocate memory\n"));
}

TEST_F(ConsoleListTest, AddingAppendsAndSaysSo) {
  ConsoleNode* first = test::MakeConsole("a").release();
  ConsoleNode* second = test::MakeConsole("b").release();
  const test::DebugCapture capture(kTrace);
  EXPECT_EQ(AddConsoleToList(first, &list_), 0);
  EXPECT_EQ(AddConsoleToList(second, &list_), 0);
  EXPECT_THAT(test::Names(list_), ElementsAre("a", "b"));
  EXPECT_EQ(list_.count, 2);
  EXPECT_THAT(test::WithoutEntries(capture.Messages()),
              ElementsAre("AddConsoleToList: Added console a to my list.\n",
                          "AddConsoleToList: Added console b to my list.\n"));
}

TEST_F(ConsoleListTest, AddingKeepsTheSet) {
  Add("none");
  EXPECT_EQ(list_.high_sock, -1);
  Add("low", 5);
  Add("high", 2000);
  EXPECT_EQ(list_.high_sock, 2000);
  EXPECT_TRUE(list_.fdset.Contains(5));
  EXPECT_TRUE(list_.fdset.Contains(2000));
  for (ConsoleNode* cnode : Nodes(list_)) cnode->sock = -1;
}

TEST_F(ConsoleListTest, AddingWithoutMemoryForTheElement) {
  const test::ConsolePtr cnode = test::MakeConsole("a");
  const test::DebugCapture capture(kDetail);
  const test::FailAllocation failure(1);
  EXPECT_EQ(AddConsoleToList(cnode.get(), &list_), -1);
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.count, 0);
  EXPECT_THAT(test::Reports(capture.Messages()),
              ElementsAre("NewConsoleListElem: malloc() failed : Cannot allocate memory\n",
                          "AddConsoleToList: NewConsoleListElem() failed.\n"));
  EXPECT_TRUE(capture.Has(
      "PostJixEvent: template=qor.zevd.daemon.error message=Out of memory -=- priority=700\n"));
}

TEST_F(ConsoleListTest, AddingWithoutMemoryForTheSet) {
  const test::ConsolePtr cnode = test::MakeConsole("a");
  cnode->sock = 5000;
  const test::DebugCapture capture(0);
  {
    const test::FailAllocation failure(1);
    EXPECT_EQ(AddConsoleToList(cnode.get(), &list_), -1);
  }
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.high_sock, -1);
  EXPECT_EQ(test::Reports(capture.Messages()).back(),
            "AddConsoleToList: NewConsoleListElem() failed.\n");
}

TEST_F(ConsoleListTest, RemovingUnlinksAndSaysSo) {
  const test::ConsolePtr gone(Add("a", 9));
  ConsoleNode* stays = Add("b", 4);
  const test::DebugCapture capture(kTrace);
  EXPECT_EQ(RemoveConsoleFromList(gone.get(), &list_), 0);
  EXPECT_THAT(test::Names(list_), ElementsAre("b"));
  EXPECT_EQ(list_.count, 1);
  EXPECT_EQ(list_.high_sock, 4);
  EXPECT_FALSE(list_.fdset.Contains(9));
  EXPECT_THAT(
      test::WithoutEntries(capture.Messages()),
      ElementsAre("RemoveConsoleFromList: Removed console a from my list.\n",
                  "RemoveConsoleFromList: Doing FD_CLR( 9, ...) for console a on my list\n"));
  stays->sock = -1;
}

TEST_F(ConsoleListTest, RemovingGoesByIdentity) {
  ConsoleNode* first = Add("same");
  const test::ConsolePtr second(Add("same"));
  RemoveConsoleFromList(second.get(), &list_);
  EXPECT_EQ(list_.head->cnode, first);
}

TEST_F(ConsoleListTest, RemovingAStrangerEndsTheProcess) {
  Add("a");
  const test::ConsolePtr stranger = test::MakeConsole("a");
  EXPECT_EXIT(
      (test::SendDebugToStderr(kInfo), RemoveConsoleFromList(stranger.get(), &list_)),
      ExitedWithCode(1),
      test::DebugReportsAre(ElementsAre("RemoveConsoleFromList: cnode not found in cons_list\n",
                                        test::IsExitTrace(1, "console.cpp"))));
}

TEST_F(ConsoleListTest, RemovingAStrangerPostsTheTerminationEvent) {
  const test::ConsolePtr stranger = test::MakeConsole("a");
  EXPECT_EXIT(
      (test::SendDebugToStderr(kDetail), RemoveConsoleFromList(stranger.get(), &list_)),
      ExitedWithCode(1),
      test::DebugTextsAre(Contains("PostJixEvent: template=qor.zevd.daemon.error "
                                   "message=Terminated: Internal error -=- priority=700\n")));
}

TEST_F(ConsoleListTest, NegativeCountEndsTheProcess) {
  ConsoleNode* cnode = Add("a");
  EXPECT_EXIT(
      {
        list_.count = 0;
        test::SendDebugToStderr(kInfo);
        RemoveConsoleFromList(cnode, &list_);
      },
      ExitedWithCode(1),
      test::DebugReportsAre(ElementsAre("RemoveConsoleFromList: cons_list->count = -1\n",
                                        test::IsExitTrace(1, "console.cpp"))));
}

TEST_F(ConsoleListTest, LookUpByNameIsExact) {
  Add("console");
  ConsoleNode* first = Add("Console");
  Add("Console");
  EXPECT_EQ(LocateConsoleInList("Console", &list_), first);
  EXPECT_EQ(LocateConsoleInList("CONSOLE", &list_), nullptr);
  EXPECT_EQ(LocateConsoleInList("Consol", &list_), nullptr);
  EXPECT_EQ(LocateConsoleInList("", &list_), nullptr);
}

TEST_F(ConsoleListTest, EmptyingFreesEveryNode) {
  Add("a", 7);
  Add("b");
  EmptyConsoleList(&list_);
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.tail, nullptr);
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(list_.high_sock, -1);
}

TEST_F(ConsoleListTest, FreeingFreesListAndNodes) {
  ConsoleList* list = NewConsoleList("another");
  test::AddConsole(list, "a");
  test::AddConsole(list, "b");
  const test::DebugCapture capture(kTrace);
  FreeConsoleList(list);
  EXPECT_EQ(capture.Count("RemoveConsoleFromList: Removed console a from another.\n"), 1);
  EXPECT_EQ(capture.Count("RemoveConsoleFromList: Removed console b from another.\n"), 1);
}

// ---- Moving -------------------------------------------------------------------------------------

class MoveTest : public ConsoleListTest {
 protected:
  MoveTest() {
    InitConsoleList(&to_, "to");
    test::AddConsole(&to_, "there");
    Add("c1", -1, kConnected);
    Add("n1", -1, kNotConnected);
    Add("c2", -1, kConnected);
    Add("p1", -1, kInProgress);
    Add("r1", -1, kRefused);
    Add("c3", -1, kConnected);
  }
  ~MoveTest() override {
    EmptyConsoleList(&to_);
    free(const_cast<char*>(to_.list_name));
  }

  ConsoleList to_;
};

TEST_F(MoveTest, ConnectedConsolesKeepTheirOrder) {
  MoveConsolesToList(&list_, &to_, MoveCriterion::kConnected);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "c1", "c2", "c3"));
  EXPECT_THAT(test::Names(list_), ElementsAre("n1", "p1", "r1"));
  EXPECT_EQ(to_.count, 4);
  EXPECT_EQ(list_.count, 3);
}

TEST_F(MoveTest, EveryOtherStatusIsNotConnected) {
  MoveConsolesToList(&list_, &to_, MoveCriterion::kNotConnected);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "n1", "p1", "r1"));
  EXPECT_THAT(test::Names(list_), ElementsAre("c1", "c2", "c3"));
}

TEST_F(MoveTest, AllAreMoved) {
  MoveConsolesToList(&list_, &to_, MoveCriterion::kAll);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "c1", "n1", "c2", "p1", "r1", "c3"));
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.count, 0);
}

TEST_F(MoveTest, CriteriaHaveTheirNumbers) {
  EXPECT_EQ(static_cast<int>(MoveCriterion::kConnected), 0);
  EXPECT_EQ(static_cast<int>(MoveCriterion::kNotConnected), 1);
  EXPECT_EQ(static_cast<int>(MoveCriterion::kAll), 2);
}

TEST_F(MoveTest, SocketsMoveFromSetToSet) {
  ConsoleNode* cnode = LocateConsoleInList("c2", &list_);
  cnode->sock = 3000;
  MoveConsolesToList(&list_, &to_, MoveCriterion::kConnected);
  EXPECT_TRUE(to_.fdset.Contains(3000));
  EXPECT_EQ(to_.high_sock, 3000);
  EXPECT_FALSE(list_.fdset.Contains(3000));
  cnode->sock = -1;
}

// Closed by another thread after the clean-up of the pass: socket and users are dealt with first.
TEST_F(MoveTest, ClosedConsoleThatStillHasItsSocketStays) {
  ConsoleNode* cnode = LocateConsoleInList("n1", &list_);
  cnode->sock = 3000;
  MoveConsolesToList(&list_, &to_, MoveCriterion::kNotConnected);
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "p1", "r1"));
  cnode->sock = -1;
}

TEST_F(MoveTest, RunningOutOfMemoryStopsTheMoveAndClosesWhatIsLost) {
  ConsoleNode* lost = LocateConsoleInList("c2", &list_);
  const int sock = open("/dev/null", O_RDWR | O_CLOEXEC);
  const int log_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  lost->sock = sock;
  lost->log_fd = log_fd;
  Recompute(list_);
  const test::DebugCapture capture(0);
  {
    const test::FailAllocation failure(2);
    MoveConsolesToList(&list_, &to_, MoveCriterion::kConnected);
  }
  EXPECT_EQ(test::Reports(capture.Messages()).back(),
            "MoveConsolesToList: AddConsoleToList() failed.\n");
  EXPECT_THAT(test::Names(to_), ElementsAre("there", "c1"));
  EXPECT_THAT(test::Names(list_), ElementsAre("n1", "p1", "r1", "c3"));
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_FALSE(test::IsOpen(log_fd));
}

TEST_F(MoveTest, ConsoleThatIsLostStaysForTheUsersWhoLeaveIt) {
  const test::ConsolePtr lost(LocateConsoleInList("c2", &list_));
  lost->ref_count = 1;
  {
    const test::DebugCapture capture(0);
    const test::FailAllocation failure(2);
    MoveConsolesToList(&list_, &to_, MoveCriterion::kConnected);
  }
  EXPECT_STREQ(lost->cname, "c2");
}

// ---- Deleting -----------------------------------------------------------------------------------

class DeleteTest : public ConsoleTest {
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

// The console is off its list by then, so the look finds nobody for the port.
TEST_F(DeleteTest, PortsAreLookedAtAgainAfterTheConsoleThatHadOne) {
  AddMarked("goes")->mapped_port = 7001;
  const test::DebugCapture capture(kTrace);
  DeleteMarkedConsoles(a_cons_list);
  const std::string output = capture.Output();
  const size_t removed = output.find("RemoveConsoleFromList: Removed console goes from ");
  ASSERT_NE(removed, std::string::npos);
  EXPECT_NE(output.find("Entering RefreshMappedPorts\n", removed), std::string::npos);
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

TEST_F(DeleteTest, ReferenceOnAConsoleThatIsNotMarkedIsNoMatter) {
  test::AddConsole(a_cons_list, "used")->ref_count = 1;
  AddMarked("goes");
  DeleteMarkedConsoles(a_cons_list);
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("used"));
}

// ---- Dumping ------------------------------------------------------------------------------------

TEST_F(ConsoleListTest, DumpIsAlwaysPrinted) {
  ConsoleNode* cnode = Add("mycons", 7, kRefused);
  cnode->cons_port = 2001;
  cnode->mgmt_port = 23;
  cnode->logging = 1;
  cnode->events = 2;
  cnode->enable = 3;
  cnode->deleted = 4;
  cnode->log_fd = 8;
  cnode->ref_count = 5;
  cnode->lfca_time = 1234567890123;
  cnode->lsca_time = 42;
  CopyText(cnode->telnet_cmd, "\xFF\xFB\x01");
  const test::DebugCapture capture(0);
  DumpConsoles(&list_);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Dumping \"my list\"...\n", "name           = mycons\n",
                          "addr           = 127.0.0.1\n", "cons_port      = 2001\n",
                          "mgmt_port      = 23\n", "logging        = 1\n", "events         = 2\n",
                          "enable         = 3\n", "deleted        = 4\n", "sock           = 7\n",
                          "log_fd         = 8\n", "status         = 2\n", "ref_count      = 5\n",
                          "lfca_time      = 1234567890123\n", "lsca_time      = 42\n",
                          "telnet_cmd     = \xFF\xFB\x01\n",
                          "-----------------------------------------\n\n"));
  cnode->sock = -1;
  cnode->log_fd = -1;
}

TEST_F(ConsoleListTest, DumpOfAnEmptyListIsItsName) {
  const test::DebugCapture capture(0);
  DumpConsoles(&list_);
  EXPECT_THAT(capture.Messages(), ElementsAre("Dumping \"my list\"...\n"));
}

// ---- Look-up by mapped port ---------------------------------------------------------------------

class MappedPortLookUpTest : public ConsoleTest {
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

// The two lists are locked as a pair, the accessible one first, and released in that order.
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

// ---- The refusal of a management port -----------------------------------------------------------

constexpr char kRefusal[] =
    "~NET-E-IN-USE, Session is already open to the partition/CLI by client 10.9.8.7, port 1025\r\n";

// GotErrorMessage() and GetPortHolderIPAddr() split their argument.
bool IsRefusal(std::string text) {
  return GotErrorMessage(text.data());
}

std::string HolderIn(std::string text) {
  return GetPortHolderIPAddr(text.data());
}

TEST(RefusalTest, IsALineThatBeginsAndContains) {
  EXPECT_TRUE(IsRefusal(kRefusal));
  EXPECT_TRUE(IsRefusal("~NET-E-Session is already open"));
  EXPECT_TRUE(IsRefusal("~NET-E- x Session is already open y"));
}

TEST(RefusalTest, MayBeAnyLine) {
  EXPECT_TRUE(IsRefusal("\r\n\r\nWelcome\r\n~NET-E- Session is already open\r\n"));
  EXPECT_TRUE(IsRefusal("\rone\r~NET-E- Session is already open"));
  EXPECT_TRUE(IsRefusal("\n\n\n~NET-E- Session is already open\nmore"));
}

TEST(RefusalTest, MustBeOnOneLine) {
  EXPECT_FALSE(IsRefusal("~NET-E-\r\nSession is already open"));
  EXPECT_FALSE(IsRefusal("~NET-E- Session is\nalready open"));
}

TEST(RefusalTest, MustBeginTheLine) {
  EXPECT_FALSE(IsRefusal(" ~NET-E- Session is already open"));
  EXPECT_FALSE(IsRefusal("x~NET-E- Session is already open"));
}

TEST(RefusalTest, IsComparedExactly) {
  EXPECT_FALSE(IsRefusal("~net-e- Session is already open"));
  EXPECT_FALSE(IsRefusal("~NET-E- session is already open"));
  EXPECT_FALSE(IsRefusal("~NET-I- Session is already open"));
  EXPECT_FALSE(IsRefusal("~NET-E- Session is already ope"));
  EXPECT_FALSE(IsRefusal("~NET-E"));
  EXPECT_FALSE(IsRefusal("Session is already open"));
  EXPECT_FALSE(IsRefusal(""));
  EXPECT_FALSE(IsRefusal("\r\n\r\n"));
}

TEST(PortHolderTest, IsTheEleventhWordUpToTheComma) {
  EXPECT_EQ(HolderIn("1 2 3 4 5 6 7 8 9 10 10.9.8.7, port 1025"), "10.9.8.7");
}

TEST(PortHolderTest, RunOfSpacesIsOneSeparator) {
  EXPECT_EQ(HolderIn("  1 2  3 4 5   6 7 8 9    10     10.9.8.7, port"), "10.9.8.7");
}

TEST(PortHolderTest, TextUpToTheCommaMayHoldSpaces) {
  EXPECT_EQ(HolderIn("1 2 3 4 5 6 7 8 9 10 host one two,three"), "host one two");
}

TEST(PortHolderTest, WithoutACommaItIsTheRest) {
  EXPECT_EQ(HolderIn("1 2 3 4 5 6 7 8 9 10 10.9.8.7"), "10.9.8.7");
  EXPECT_EQ(HolderIn("1 2 3 4 5 6 7 8 9 10 10.9.8.7 and more"), "10.9.8.7 and more");
}

TEST(PortHolderTest, CommasBeforeBelongToTheirWords) {
  EXPECT_EQ(HolderIn("1, 2, 3 4 5 6 7 8 9 10, 10.9.8.7,x"), "10.9.8.7");
}

TEST(PortHolderTest, IsEmptyWithFewerThanElevenWords) {
  for (const char* text : {"", " ", "one", "1 2 3 4 5 6 7 8 9", "1 2 3 4 5 6 7 8 9 10",
                           "1 2 3 4 5 6 7 8 9 10 ", "1 2 3 4 5 6 7 8 9 10    "}) {
    EXPECT_EQ(HolderIn(text), "") << text;
  }
}

TEST(PortHolderTest, FirstLineAloneIsReadOnceTheTextIsSplit) {
  std::string text = "first line\r\n~NET-E- Session is already open 6 7 8 9 10.9.8.7, x\r\n";
  ASSERT_TRUE(GotErrorMessage(text.data()));
  EXPECT_STREQ(GetPortHolderIPAddr(text.data()), "");
}

// ---- One connection -----------------------------------------------------------------------------

constexpr time_t kNow = 1'000'000'000;

/// A console on i_cons_list and the place it connects to.
class ConnectionTest : public ConsoleTest {
 protected:
  ConnectionTest() {
    cnode_ = AddAt("mycons", listener_.port());
    static char model[] = "M100";
    static char series[] = "PX";
    model_list.m[0] = {model, series};
    model_list.count = 1;
  }
  ~ConnectionTest() override { model_list = {}; }

  static ConsoleNode* AddAt(const char* name, uint16_t port) {
    ConsoleNode* cnode = test::AddConsole(i_cons_list, name);
    cnode->cons_port = port;
    return cnode;
  }

  static bool HasFlag(int sock, int level, int option) {
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(sock, level, option, &value, &size);
    return value != 0;
  }

  // Connects the console and returns the other end.
  test::Descriptor Connect() {
    ConnectToConsole(cnode_, 1);
    test::Descriptor peer = listener_.Accept();
    EXPECT_TRUE(WaitFor(cnode_->sock, POLLOUT));
    return peer;
  }

  static bool WaitFor(int sock, short events) {
    pollfd socket = {sock, events, 0};
    return poll(&socket, 1, 10000) == 1;
  }

  // Sends to the console and waits until it has arrived there.
  void Say(const test::Descriptor& peer, std::string_view text) {
    test::SendText(peer.get(), text);
    const bool arrived = test::Eventually([&] {
      std::string seen(text.size() + 1, '\0');
      const ssize_t count = recv(cnode_->sock, seen.data(), seen.size(), MSG_PEEK | MSG_DONTWAIT);
      return count == static_cast<ssize_t>(text.size());
    });
    EXPECT_TRUE(arrived);
  }

  std::string Place() const {
    return "mycons (127.0.0.1/" + std::to_string(listener_.port()) + ")";
  }

  test::FakeClock clock_{kNow};
  test::Listener listener_;
  ConsoleNode* cnode_;
};

TEST_F(ConnectionTest, AttemptIsMadeAndAnnounced) {
  cnode_->lsca_time = 5;
  const test::DebugCapture capture(kInfo);
  ConnectToConsole(cnode_, 1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("ConnectToConsole: Attempting to connect to " + Place() + ".\n"));
  ASSERT_NE(cnode_->sock, -1);
  EXPECT_EQ(cnode_->status, kNotConnected);
  EXPECT_EQ(cnode_->lsca_time, 0);
  EXPECT_EQ(cnode_->lfca_time, 0);
  listener_.Accept();
}

TEST_F(ConnectionTest, SocketBlocksAgainAndHasItsOptions) {
  ConnectToConsole(cnode_, 1);
  EXPECT_EQ(fcntl(cnode_->sock, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(cnode_->sock, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_TRUE(HasFlag(cnode_->sock, SOL_SOCKET, SO_KEEPALIVE));
  EXPECT_TRUE(HasFlag(cnode_->sock, IPPROTO_TCP, TCP_NODELAY));
}

TEST_F(ConnectionTest, KeepAliveIsTheCallersChoice) {
  ConnectToConsole(cnode_, 0);
  EXPECT_FALSE(HasFlag(cnode_->sock, SOL_SOCKET, SO_KEEPALIVE));
}

TEST_F(ConnectionTest, ConsoleWithASocketIsLeftAlone) {
  test::SocketPair socket;
  cnode_->sock = socket.ours.get();
  const test::FailCall sockets(test::Call::kSocket, 0, 1, 0);
  const test::DebugCapture capture(kInfo);
  ConnectToConsole(cnode_, 1);
  EXPECT_EQ(cnode_->sock, socket.ours.get());
  EXPECT_EQ(sockets.calls(), 0);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  cnode_->sock = -1;
}

TEST_F(ConnectionTest, FailureIsFollowedByAPauseOfAMinute) {
  cnode_->lfca_time = kNow - 59;
  ConnectToConsole(cnode_, 1);
  EXPECT_EQ(cnode_->sock, -1);
  clock_.Advance(1);
  ConnectToConsole(cnode_, 1);
  EXPECT_NE(cnode_->sock, -1);
}

TEST_F(ConnectionTest, ModelDecidesWhetherARefusalIsAwaited) {
  CopyText(cnode_->model, "m100");
  ConnectToConsole(cnode_, 1);
  EXPECT_EQ(cnode_->check_for_NET_E_msg, 1);
  close(cnode_->sock.exchange(-1));
  CopyText(cnode_->model, "A200");
  ConnectToConsole(cnode_, 1);
  EXPECT_EQ(cnode_->check_for_NET_E_msg, 0);
}

TEST_F(ConnectionTest, ImmediateErrorChangesNothingAndIsTriedAgainAtOnce) {
  cnode_->status = kRefused;
  cnode_->lfca_time = 77;
  const test::DebugCapture capture(kInfo);
  const test::FailCall failure(test::Call::kConnect, ENETUNREACH);
  for (int i = 0; i < 2; ++i) {
    const int next_descriptor = dup(STDIN_FILENO);
    close(next_descriptor);
    ConnectToConsole(cnode_, 1);
    EXPECT_EQ(cnode_->sock, -1);
    EXPECT_FALSE(test::IsOpen(next_descriptor));
    EXPECT_EQ(cnode_->status, kRefused);
    EXPECT_EQ(cnode_->lfca_time, 77);
  }
  const std::string attempt = "ConnectToConsole: Attempting to connect to " + Place() + ".\n";
  const std::string failed = "ConnectToConsole: connect() failed : Network is unreachable\n";
  EXPECT_THAT(capture.Messages(), ElementsAre(attempt, failed, attempt, failed));
  EXPECT_EQ(failure.calls(), 2);
}

TEST_F(ConnectionTest, NoSocketEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        const test::FailCall failure(test::Call::kSocket, ENOBUFS);
        ConnectToConsole(cnode_, 1);
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("ConnectToConsole: socket() failed: No buffer space "
                                      "available\n",
                                      test::IsExitTrace(1, "cons_conn.cpp"))));
}

TEST_F(ConnectionTest, WithoutADescriptorItIsTriedInALaterPass) {
  for (const int error : {EMFILE, ENFILE}) {
    SCOPED_TRACE(error);
    const test::FakePassageOfTime seconds(2'000'000);  // with every look at the clock
    {
      const test::FailCall failure(test::Call::kSocket, error);
      ConnectToConsoles();
      EXPECT_EQ(failure.calls(), 1);
    }
    EXPECT_EQ(cnode_->sock, -1);
    EXPECT_EQ(cnode_->status, kNotConnected);
    EXPECT_EQ(cnode_->lfca_time, 0);
    ConnectToConsoles();
    EXPECT_NE(cnode_->sock, -1);
    close(cnode_->sock.exchange(-1));
  }
}

TEST_F(ConnectionTest, EveryEnabledConsoleIsConnected) {
  ConsoleNode* disabled = AddAt("disabled", listener_.port());
  disabled->enable = 0;
  ConsoleNode* other = AddAt("other", listener_.port());
  other->enable = 2;
  ConnectToConsoles();
  EXPECT_NE(cnode_->sock, -1);
  EXPECT_TRUE(HasFlag(cnode_->sock, SOL_SOCKET, SO_KEEPALIVE));
  EXPECT_EQ(disabled->sock, -1);
  EXPECT_NE(other->sock, -1);
}

// ---- What a socket shows ------------------------------------------------------------------------

class StatusTest : public ConnectionTest {};

TEST_F(StatusTest, CheckIsTraced) {
  cnode_->sock = -1;
  const test::DebugCapture capture(kTrace);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kNotConnected);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Entering CheckConnectionStatus\n",
                          "CheckConnectionStatus: Checking status for \"mycons\" (sock=-1).\n"));
}

TEST_F(StatusTest, EstablishedWithoutAWordIsConnected) {
  const test::Descriptor peer = Connect();
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
}

TEST_F(StatusTest, GreetingIsConnectedAndNotConsumed) {
  const test::Descriptor peer = Connect();
  Say(peer, "login: ");
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
  EXPECT_EQ(test::ReceiveAvailable(cnode_->sock), "login: ");
}

TEST_F(StatusTest, EndOfStreamIsConnected) {
  test::Descriptor peer = Connect();
  peer.Reset();
  ASSERT_TRUE(WaitFor(cnode_->sock, POLLIN));
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
}

TEST_F(StatusTest, RefusedByThePeer) {
  const test::RefusingPort nobody;
  cnode_->cons_port = nobody.port();
  ConnectToConsole(cnode_, 1);
  ASSERT_TRUE(WaitFor(cnode_->sock, POLLIN));
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
}

TEST_F(StatusTest, ResetByThePeerIsFailed) {
  test::Descriptor peer = Connect();
  const linger at_once = {1, 0};
  setsockopt(peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  peer.Reset();
  ASSERT_TRUE(WaitFor(cnode_->sock, POLLIN));
  EXPECT_EQ(CheckConnectionStatus(cnode_), kNotConnected);
}

/// A port that answers no more connection requests.
class SilentPort {
 public:
  SilentPort() {
    listen(listener_.get(), 0);
    // The one connection that is waiting to be accepted fills the queue.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listener_.port());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    filler_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    connected_ =
        connect(filler_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
        test::WaitReadable(listener_.get());
  }
  bool connected() const { return connected_; }
  uint16_t port() const { return listener_.port(); }

 private:
  test::Listener listener_;
  test::Descriptor filler_;
  bool connected_ = false;
};

TEST_F(StatusTest, ConnectionThatIsNotAnsweredIsInProgress) {
  const SilentPort silent;
  ASSERT_TRUE(silent.connected());
  cnode_->cons_port = silent.port();
  ConnectToConsole(cnode_, 1);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kInProgress);
}

TEST_F(StatusTest, ReadableButNotWritableIsFailed) {
  test::SocketPair pair;
  cnode_->sock = pair.ours.Release();
  const std::string chunk(65536, 'x');
  while (send(cnode_->sock, chunk.data(), chunk.size(), MSG_DONTWAIT) > 0) {
  }
  EXPECT_EQ(CheckConnectionStatus(cnode_), kInProgress);  // neither
  test::SendText(pair.theirs.get(), "x");
  EXPECT_EQ(CheckConnectionStatus(cnode_), kNotConnected);
}

TEST_F(StatusTest, FailedSelectIsFailed) {
  const test::Descriptor peer = Connect();
  const test::DebugCapture capture(kInfo);
  const test::FailCall failure(test::Call::kSelect, EINTR);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kNotConnected);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CheckConnectionStatus: select() failed : Interrupted system call\n"));
}

struct PeekError {
  int error;
  int status;
};

TEST_F(StatusTest, FailedPeekTellsTheStatus) {
  const test::Descriptor peer = Connect();
  Say(peer, "x");
  for (const PeekError& c :
       {PeekError{EINPROGRESS, kInProgress}, PeekError{ECONNREFUSED, kRefused},
        PeekError{ETIMEDOUT, kNotConnected}, PeekError{EHOSTUNREACH, kNotConnected}}) {
    const test::FailCall failure(test::Call::kRecv, c.error);
    EXPECT_EQ(CheckConnectionStatus(cnode_), c.status) << strerror(c.error);
  }
}

TEST_F(StatusTest, WorksWithDescriptorsBeyondAPlainSet) {
  rlimit saved{};
  getrlimit(RLIMIT_NOFILE, &saved);
  rlimit raised = saved;
  raised.rlim_cur = std::min<rlim_t>(raised.rlim_max, 4096);
  setrlimit(RLIMIT_NOFILE, &raised);
  const test::Descriptor peer = Connect();
  const int high = fcntl(cnode_->sock, F_DUPFD_CLOEXEC, 3 * FD_SETSIZE);
  ASSERT_GE(high, 3 * FD_SETSIZE);
  close(cnode_->sock.exchange(high));
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
  Say(peer, kRefusal);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
  setrlimit(RLIMIT_NOFILE, &saved);
}

TEST_F(StatusTest, RefusalOfAManagementPort) {
  const test::Descriptor peer = Connect();
  cnode_->check_for_NET_E_msg = 1;
  Say(peer, kRefusal);
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
  EXPECT_EQ(cnode_->check_for_NET_E_msg, 0);
  EXPECT_STREQ(cnode_->pellox_port_holder_ipaddr, "10.9.8.7");
  EXPECT_THAT(capture.Messages(), IsEmpty());
  EXPECT_EQ(test::ReceiveAvailable(cnode_->sock), kRefusal);
  EXPECT_EQ(test::ReceiveAvailable(peer.get()), "");
}

TEST_F(StatusTest, RefusalThatIsOverridden) {
  const test::Descriptor peer = Connect();
  cnode_->check_for_NET_E_msg = 1;
  cnode_->force = 1;
  Say(peer, kRefusal);
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CheckConnectionStatus: Forcing connection for mycons\n"));
  EXPECT_EQ(cnode_->force, 0);
  EXPECT_EQ(cnode_->check_for_NET_E_msg, 0);
  EXPECT_STREQ(cnode_->pellox_port_holder_ipaddr, "10.9.8.7");
  EXPECT_EQ(test::Receive(peer.get(), 4), "YES\n");
  EXPECT_EQ(test::ReceiveAvailable(peer.get()), "");
}

TEST_F(StatusTest, OverridingThatCannotBeSent) {
  const test::Descriptor peer = Connect();
  cnode_->force = 1;
  Say(peer, kRefusal);
  const test::DebugCapture capture(0);
  const test::FailCall failure(test::Call::kSend, ECONNRESET);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
  EXPECT_EQ(cnode_->force, 0);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("CheckConnectionStatus: send() failed : Connection reset by peer\n"));
}

TEST_F(StatusTest, OtherTextLeavesTheForceForLater) {
  const test::Descriptor peer = Connect();
  cnode_->force = 1;
  Say(peer, "Welcome\r\n");
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
  EXPECT_EQ(cnode_->force, 1);
}

TEST_F(StatusTest, RefusalCountsWhateverTheModel) {
  const test::Descriptor peer = Connect();
  cnode_->check_for_NET_E_msg = 0;
  Say(peer, kRefusal);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
}

TEST_F(StatusTest, HolderIsCutTo64Characters) {
  const test::Descriptor peer = Connect();
  Say(peer, "~NET-E- Session is already open 6 7 8 9 10 " + std::string(70, 'h') + ",\n");
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
  EXPECT_EQ(cnode_->pellox_port_holder_ipaddr, std::string(64, 'h'));
}

TEST_F(StatusTest, HolderIsEmptyWithFewerThanElevenWords) {
  CopyText(cnode_->pellox_port_holder_ipaddr, "former");
  const test::Descriptor peer = Connect();
  Say(peer, "~NET-E- Session is already open\r\n");
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
  EXPECT_STREQ(cnode_->pellox_port_holder_ipaddr, "");
}

TEST_F(StatusTest, HolderIsReadFromTheFirstLine) {
  const test::Descriptor peer = Connect();
  Say(peer, "1 2 3 4 5 6 7 8 9 10 first,\r\n" + std::string(kRefusal));
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
  EXPECT_STREQ(cnode_->pellox_port_holder_ipaddr, "first");
}

// 299 characters are looked at.
TEST_F(StatusTest, RefusalThatEndsWithinTheFirst299CharactersIsSeen) {
  const test::Descriptor peer = Connect();
  const std::string refusal = "~NET-E- Session is already open";
  Say(peer, std::string(298 - refusal.size(), 'x') + "\n" + refusal);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kRefused);
}

TEST_F(StatusTest, RefusalThatEndsBehindThemIsNot) {
  const test::Descriptor peer = Connect();
  const std::string refusal = "~NET-E- Session is already open";
  Say(peer, std::string(299 - refusal.size(), 'x') + "\n" + refusal);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
}

TEST_F(StatusTest, NulEndsTheTextThatIsLookedAt) {
  const test::Descriptor peer = Connect();
  using std::string_literals::operator""s;
  Say(peer, "\0\n"s + kRefusal);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kConnected);
}

// ---- The pass over all connections --------------------------------------------------------------

class UpdateTest : public ConnectionTest {
 protected:
  UpdateTest() { log_dir = logs_.c_str(); }

  // A greeting ends the wait for telnet bytes at once.
  test::Descriptor ConnectAndGreet(std::string_view greeting = "login: ") {
    test::Descriptor peer = Connect();
    Say(peer, greeting);
    return peer;
  }

  std::string Text(const std::string& before, const std::string& after) const {
    return "UpdateConnectionStatus: " + before + Place() + after + ".\n";
  }

  test::StationRoot root_;
  // The link to the current log directory needs a path that holds everywhere.
  std::string logs_ = std::filesystem::absolute("root/logs");
};

TEST_F(UpdateTest, NothingIsConnectedWithoutSockets) {
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_EQ(cnode_->status, kNotConnected);
}

TEST_F(UpdateTest, EstablishedConnectionIsConnected) {
  const test::Descriptor peer = ConnectAndGreet();
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(UpdateConnectionStatus(), 1);
  EXPECT_EQ(cnode_->status, kConnected);
  EXPECT_TRUE(capture.Has(Text("Connected to ", "")));
  EXPECT_EQ(test::ReceiveAvailable(cnode_->sock), "login: ");
}

TEST_F(UpdateTest, LogIsOpened) {
  const test::Descriptor peer = ConnectAndGreet();
  EXPECT_EQ(UpdateConnectionStatus(), 1);
  EXPECT_TRUE(test::IsOpen(cnode_->log_fd));
  EXPECT_TRUE(std::filesystem::exists("root/logs/zev.dated/current/mycons.log"));
  CloseLogFile(cnode_);
}

TEST_F(UpdateTest, TelnetNegotiationIsKept) {
  const test::Descriptor peer = ConnectAndGreet("\xFF\xFB\x01\xFF\xFB\x03login: ");
  EXPECT_EQ(UpdateConnectionStatus(), 1);
  EXPECT_STREQ(cnode_->telnet_cmd, "\xFF\xFB\x01\xFF\xFB\x03");
  EXPECT_EQ(test::ReceiveAvailable(cnode_->sock), "login: ");
}

TEST_F(UpdateTest, ManagementPortIsGivenTwoSecondsToRefuse) {
  CopyText(cnode_->model, "M100");
  const test::Descriptor peer = ConnectAndGreet("hello\r\n");
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_EQ(cnode_->lsca_time, kNow);
  EXPECT_EQ(cnode_->status, kNotConnected);
  clock_.Advance(1);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_EQ(cnode_->lsca_time, kNow);
  EXPECT_THAT(capture.Messages(), IsEmpty());
  clock_.Advance(1);
  EXPECT_EQ(UpdateConnectionStatus(), 1);
  EXPECT_EQ(cnode_->status, kConnected);
  EXPECT_TRUE(capture.Has(Text("Connected to ", "")));
}

TEST_F(UpdateTest, ManagementPortThatSaysNothingIsConnectedAfterTheGrace) {
  CopyText(cnode_->model, "M100");
  const test::Descriptor peer = Connect();
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  clock_.Advance(2);
  EXPECT_EQ(UpdateConnectionStatus(), 1);
}

TEST_F(UpdateTest, RefusalWithinTheGraceIsRefused) {
  CopyText(cnode_->model, "M100");
  const test::Descriptor peer = Connect();
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  Say(peer, kRefusal);
  clock_.Advance(1);
  const int sock = cnode_->sock;
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_THAT(capture.Messages(), ElementsAre(Text("Connection to ", " refused")));
  EXPECT_EQ(cnode_->status, kRefused);
  EXPECT_EQ(cnode_->sock, -1);
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_EQ(cnode_->lfca_time, kNow + 1);
  EXPECT_EQ(cnode_->lsca_time, 0);
  EXPECT_STREQ(cnode_->pellox_port_holder_ipaddr, "10.9.8.7");
}

TEST_F(UpdateTest, OverriddenRefusalIsConnectedAtOnce) {
  CopyText(cnode_->model, "M100");
  cnode_->force = 1;
  const test::Descriptor peer = ConnectAndGreet(kRefusal);
  EXPECT_EQ(UpdateConnectionStatus(), 1);
  EXPECT_EQ(cnode_->status, kConnected);
  EXPECT_EQ(test::Receive(peer.get(), 4), "YES\n");
}

TEST_F(UpdateTest, RefusedConnectionIsTriedAgainAMinuteLater) {
  const test::RefusingPort nobody;
  cnode_->cons_port = nobody.port();
  ConnectToConsole(cnode_, 1);
  ASSERT_TRUE(WaitFor(cnode_->sock, POLLIN));
  const int sock = cnode_->sock;
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("UpdateConnectionStatus: Connection to mycons (127.0.0.1/" +
                          std::to_string(nobody.port()) + ") refused.\n"));
  EXPECT_EQ(cnode_->status, kRefused);
  EXPECT_EQ(cnode_->sock, -1);
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_EQ(cnode_->lfca_time, kNow);
  clock_.Advance(59);
  ConnectToConsoles();
  EXPECT_EQ(cnode_->sock, -1);
  clock_.Advance(1);
  ConnectToConsoles();
  EXPECT_NE(cnode_->sock, -1);
}

TEST_F(UpdateTest, FailedConnectionIsTriedAgainAMinuteLater) {
  const test::Descriptor peer = Connect();
  cnode_->lsca_time = 5;
  const int sock = cnode_->sock;
  const test::DebugCapture capture(kInfo);
  {
    const test::FailCall failure(test::Call::kSelect, EBADF);
    EXPECT_EQ(UpdateConnectionStatus(), 0);
  }
  EXPECT_EQ(capture.Messages().back(), Text("Connection to ", " failed"));
  EXPECT_EQ(cnode_->status, kNotConnected);
  EXPECT_EQ(cnode_->sock, -1);
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_EQ(cnode_->lfca_time, kNow);
  EXPECT_EQ(cnode_->lsca_time, 0);
}

TEST_F(UpdateTest, UnansweredConnectionIsInProgress) {
  const SilentPort silent;
  cnode_->cons_port = silent.port();
  ConnectToConsole(cnode_, 1);
  const test::FailCall waits(test::Call::kSelect, 0, 1, 0);
  const test::DebugCapture capture(kTrace);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_EQ(cnode_->status, kInProgress);
  EXPECT_NE(cnode_->sock, -1);
  // It is known not to have any news, so nobody waits for it; it is traced all the same.
  EXPECT_EQ(waits.calls(), 0);
  EXPECT_TRUE(capture.Has("CheckConnectionStatus: Checking status for \"mycons\" (sock=" +
                          std::to_string(cnode_->sock) + ").\n"));
}

TEST_F(UpdateTest, DisabledConsoleIsClosed) {
  const test::Descriptor peer = Connect();
  cnode_->enable = 0;
  cnode_->status = kInProgress;
  cnode_->lfca_time = 4;
  cnode_->lsca_time = 5;
  const int sock = cnode_->sock;
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("UpdateConnectionStatus: Console mycons was disabled.\n"));
  EXPECT_EQ(cnode_->sock, -1);
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_EQ(cnode_->status, kNotConnected);
  EXPECT_EQ(cnode_->lfca_time, 0);
  EXPECT_EQ(cnode_->lsca_time, 0);
}

TEST_F(UpdateTest, DisabledConsoleIsLookedAtFirst) {
  const test::Descriptor peer = Connect();
  cnode_->enable = 0;
  Say(peer, kRefusal);
  EXPECT_EQ(UpdateConnectionStatus(), 0);
  EXPECT_STREQ(cnode_->pellox_port_holder_ipaddr, "10.9.8.7");
  EXPECT_EQ(cnode_->status, kNotConnected);
}

/// Four consoles in one pass: unanswered, without a socket, connected, refused.
class MixedUpdateTest : public UpdateTest {
 protected:
  MixedUpdateTest() {
    unanswered_ = AddAt("unanswered", silent_.port());
    idle_ = AddAt("idle", 0);
    idle_->enable = 0;
    connected_ = AddAt("connected", listener_.port());
    refused_ = AddAt("refused", nobody_.port());
    cnode_->enable = 0;
    ConnectToConsoles();
    peer_ = listener_.Accept();
    test::SendText(peer_.get(), "login: ");
  }

  void Expect() {
    ASSERT_TRUE(WaitFor(connected_->sock, POLLIN));
    ASSERT_TRUE(WaitFor(refused_->sock, POLLIN));
    EXPECT_EQ(UpdateConnectionStatus(), 1);
    EXPECT_EQ(unanswered_->status, kInProgress);
    EXPECT_EQ(idle_->status, kNotConnected);
    EXPECT_EQ(connected_->status, kConnected);
    EXPECT_EQ(refused_->status, kRefused);
  }

  SilentPort silent_;
  test::RefusingPort nobody_;
  test::Descriptor peer_;
  ConsoleNode* unanswered_;
  ConsoleNode* idle_;
  ConsoleNode* connected_;
  ConsoleNode* refused_;
};

TEST_F(MixedUpdateTest, EachConsoleGetsItsOwnStatus) {
  Expect();
}

TEST_F(MixedUpdateTest, SystemThatCannotBeAskedForAllIsAskedForEach) {
  const test::FailCall failure(test::Call::kPoll, ENOMEM, 3, 1);
  Expect();
}

TEST_F(MixedUpdateTest, EachIsAskedWithoutMemoryForTheQuestion) {
  ASSERT_TRUE(WaitFor(connected_->sock, POLLIN));
  const test::FailAllocation failure(1);
  Expect();
  EXPECT_TRUE(failure.reached());
}

// ---- The thread ---------------------------------------------------------------------------------

/// The child starts the program afresh, because it has threads.
class ConnectionThreadTest : public ::testing::Test {
 protected:
  ConnectionThreadTest() { ::testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
  ~ConnectionThreadTest() override { ::testing::GTEST_FLAG(death_test_style) = saved_; }

 private:
  std::string saved_ = ::testing::GTEST_FLAG(death_test_style);
};

bool IsOn(ConsoleList* list, RwLock& list_lock, const char* name) {
  const ReadLock lock(list_lock, HERE);
  return LocateConsoleInList(name, list) != nullptr;
}

// The life of some consoles; they are all on i_cons_list at first.
void RunConnectionThread() {
  const test::StationRoot root;
  log_dir = strdup(std::filesystem::absolute("root/logs").c_str());  // for the thread's whole life
  const test::Listener listener;
  const test::RefusingPort nobody;
  Initialize();
  test::AddConsole(i_cons_list, "connects")->cons_port = listener.port();
  ConsoleNode* refused = test::AddConsole(i_cons_list, "refused");
  refused->cons_port = nobody.port();
  test::AddConsole(i_cons_list, "deleted")->deleted = 1;
  LocateConsoleInList("deleted", i_cons_list)->enable = 0;
  test::AddConsole(i_cons_list, "disabled")->enable = 0;

  CreateConsoleConnectionsThread();
  const test::Descriptor peer = listener.Accept();
  test::SendText(peer.get(), "x");
  EXPECT_TRUE(test::Eventually([] { return IsOn(a_cons_list, acl_lock, "connects"); }));
  EXPECT_FALSE(IsOn(i_cons_list, icl_lock, "connects"));
  EXPECT_TRUE(test::Eventually([&] { return refused->status == kRefused; }));
  EXPECT_FALSE(IsOn(i_cons_list, icl_lock, "deleted"));
  EXPECT_TRUE(IsOn(i_cons_list, icl_lock, "disabled"));
  EXPECT_TRUE(IsOn(i_cons_list, icl_lock, "refused"));
  {
    const ReadLock lock(acl_lock, HERE);
    const ConsoleNode* connected = LocateConsoleInList("connects", a_cons_list);
    EXPECT_EQ(connected->status, kConnected);
    EXPECT_TRUE(a_cons_list->fdset.Contains(connected->sock));
  }
  EXPECT_TRUE(test::WaitReadable(cons_mon_waker.descriptor()));  // the monitor hears of it
}

TEST_F(ConnectionThreadTest, ConnectsMovesAndDeletes) {
  EXPECT_HOLDS_IN_CHILD(RunConnectionThread());
}

void ParkConnectionThread() {
  Initialize();
  thread_waitreq_mask = kPauseConsConn;
  CreateConsoleConnectionsThread();
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == kPauseConsConn; }));
  {
    // A thread that stands still takes no lock.
    const WriteLock lock(icl_lock, HERE);
    test::AddConsole(i_cons_list, "deleted")->deleted = 1;
  }
  thread_waitreq_mask = 0;
  EXPECT_TRUE(test::Eventually([] { return !IsOn(i_cons_list, icl_lock, "deleted"); }));
  EXPECT_EQ(thread_waiting_mask, 0U);
}

TEST_F(ConnectionThreadTest, StandsStillWhenAsked) {
  EXPECT_HOLDS_IN_CHILD(ParkConnectionThread());
}

// What the thread does to the list locks, and the steps in between.
std::vector<std::string> Steps(const std::vector<std::string>& messages) {
  static const std::array<std::string, 4> kSteps = {
      "Entering DeleteMarkedConsoles\n", "Entering ConnectToConsoles\n",
      "Entering UpdateConnectionStatus\n", "Entering MoveConsolesToList\n"};
  const std::string thread = "ConsoleConnectionsThreadStart: ";
  const std::string icl = " lock " + Hex(icl_lock);
  const auto with_name = [&](std::string text) {
    const size_t at = text.find(icl);
    return text.substr(0, text.find(" lock ")) + (at == std::string::npos ? " acl" : " icl");
  };
  std::vector<std::string> steps;
  for (const std::string& text : messages) {
    if (text.rfind(thread, 0) == 0) steps.push_back(with_name(text.substr(thread.size())));
    if (std::find(kSteps.begin(), kSteps.end(), text) != kSteps.end()) {
      steps.push_back(text.substr(0, text.size() - 1));
    }
  }
  return steps;
}

/// The trace of the thread; for the life of the child, because the thread goes on writing.
const test::DebugCapture& TraceOfTheThread() {
  static const auto* capture = new test::DebugCapture(kTrace);
  return *capture;
}

void ExpectSteps(const std::vector<std::string>& steps, const std::vector<std::string>& expected) {
  if (steps == expected) return;
  fprintf(stderr, "%s\n", ::testing::PrintToString(steps).c_str());
  ADD_FAILURE();
}

void TraceAPass() {
  const test::DebugCapture& trace = TraceOfTheThread();
  Initialize();
  test::AddConsole(i_cons_list, "deleted")->deleted = 1;
  WriteLock lock(icl_lock, HERE);
  CreateConsoleConnectionsThread();
  EXPECT_TRUE(test::Eventually([&] { return !Steps(trace.Messages()).empty(); }));
  EXPECT_NE(LocateConsoleInList("deleted", i_cons_list), nullptr);
  lock.Release();

  constexpr size_t kStepsOfAPass = 12;
  EXPECT_TRUE(test::Eventually([&] { return Steps(trace.Messages()).size() >= kStepsOfAPass; }));
  std::vector<std::string> steps = Steps(trace.Messages());
  steps.resize(kStepsOfAPass);
  ExpectSteps(steps, {"Requesting write icl", "Aquired write icl", "Entering DeleteMarkedConsoles",
                      "Releasing icl",  //
                      "Requesting write icl", "Aquired write icl", "Entering ConnectToConsoles",
                      "Releasing icl",  //
                      "Requesting write icl", "Aquired write icl",
                      "Entering UpdateConnectionStatus", "Releasing icl"});
}

TEST_F(ConnectionThreadTest, TakesTheLockOfItsListForEachStep) {
  EXPECT_HOLDS_IN_CHILD(TraceAPass());
}

void TraceAMove() {
  const test::StationRoot root;
  log_dir = strdup(std::filesystem::absolute("root/logs").c_str());  // for the thread's whole life
  const test::Listener listener;
  const test::DebugCapture& trace = TraceOfTheThread();
  Initialize();
  test::AddConsole(i_cons_list, "connects")->cons_port = listener.port();
  CreateConsoleConnectionsThread();
  const test::Descriptor peer = listener.Accept();
  test::SendText(peer.get(), "x");

  const std::string move = "Entering MoveConsolesToList";
  std::vector<std::string> steps;
  std::vector<std::string>::iterator at;
  EXPECT_TRUE(test::Eventually([&] {
    steps = Steps(trace.Messages());
    at = std::find(steps.begin(), steps.end(), move);
    return steps.end() - at > 2;
  }));
  if (steps.end() - at <= 2) return;
  ExpectSteps({at - 4, at + 3},
              {"Requesting write icl", "Aquired write icl", "Requesting write acl",
               "Aquired write acl", move, "Releasing acl", "Releasing icl"});
}

TEST_F(ConnectionThreadTest, MovesWithBothLocksHeld) {
  EXPECT_HOLDS_IN_CHILD(TraceAMove());
}

}  // namespace
