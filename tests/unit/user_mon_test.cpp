// The user input monitor: waiting for input, forwarding it, and the removal of users.
#include "user_mon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "cons_mon.h"
#include "cons_mon_steps.h"
#include "console_users.h"
#include "debug_support.h"
#include "failure_support.h"
#include "lists.h"
#include "relay_support.h"
#include "threads.h"
#include "user_mon_steps.h"

using namespace zevd;

namespace {

using namespace std::string_view_literals;
using test::AnnouncesDaemonError;
using test::Attached;
using test::AttachUser;
using test::Call;
using test::ConnectConsole;
using test::DebugCapture;
using test::DebugTextsAre;
using test::FailCall;
using test::IsExitTrace;
using test::ReceiveAvailable;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class UserMonitorTest : public test::RelayTest {
 protected:
  /// Reads what users have typed, as a pass of the monitor does.
  static void ReadUsers() {
    DescriptorSet fdset;
    ASSERT_TRUE(fdset.CopyFrom(user_list->fdset));
    if (CheckForUserInput(user_list->high_sock, &fdset) != 0) ProcessUserInput(fdset);
  }

  /// The same, and then removes users who are marked.
  static void Pass() {
    ReadUsers();
    if (user_mon::CheckForClosedConnections()) user_mon::CleanUpClosedConnections();
  }

  static void Type(const Attached<UserNode>& user, std::string_view text) {
    test::SendText(user.peer.get(), text);
  }

  /// Makes the console take nothing more.
  void FillConsole() { test::FillUp(console_.node->sock); }

  Attached<UserNode> AddUser(const char* name, int mode = kShared) {
    return AttachUser(console_.node, name, mode);
  }

  std::string ConsoleGot() const { return ReceiveAvailable(console_.peer.get()); }

  Attached<ConsoleNode> console_ = ConnectConsole("sys1");
};

// ---- Waiting ------------------------------------------------------------------------------------

TEST_F(UserMonitorTest, WaitTellsWhoHasTyped) {
  const Attached<UserNode> silent = AddUser("silent");
  const Attached<UserNode> typing = AddUser("typing");
  Type(typing, "x");
  const DebugCapture debug(kTrace);
  DescriptorSet fdset;
  ASSERT_TRUE(fdset.CopyFrom(user_list->fdset));
  EXPECT_EQ(CheckForUserInput(user_list->high_sock, &fdset), 1);
  EXPECT_FALSE(fdset.Contains(silent.node->sock));
  EXPECT_TRUE(fdset.Contains(typing.node->sock));
  EXPECT_THAT(debug.Messages(),
              Contains("CheckForUserInput: Calling select( " +
                       std::to_string(user_list->high_sock) + " + 1, fdset, 0, 0, (2,0))\n"));
}

TEST_F(UserMonitorTest, WakerEndsTheWaitAndIsNotCounted) {
  const Attached<UserNode> user = AddUser("anna");
  user_mon_waker.Wake();
  DescriptorSet fdset;
  ASSERT_TRUE(fdset.CopyFrom(user_list->fdset));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CheckForUserInput(user_list->high_sock, &fdset), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_FALSE(fdset.Contains(user_mon_waker.descriptor()));
}

TEST_F(UserMonitorTest, MarkingAUserEndsTheWaitAndNothingElse) {
  const Attached<UserNode> user = AddUser("anna");
  user_mon_waker.Drain();
  const DebugCapture debug;
  CloseUserConnection(user.node);
  EXPECT_EQ(user.node->connected, 0);
  EXPECT_TRUE(test::IsOpen(user.node->sock));
  EXPECT_TRUE(IsUserInUserList(user.node, user_list));
  EXPECT_THAT(debug.Messages(), IsEmpty());
  timeval wait = {10, 0};
  DescriptorSet nobody;
  EXPECT_EQ(WaitForMembers(-1, nobody, user_mon_waker, &wait), 0);
  EXPECT_GT(wait.tv_sec, 0);
}

using UserMonitorDeathTest = UserMonitorTest;

auto IsFailedWait() {
  return DebugTextsAre(ElementsAre("CheckForUserInput: select() failed : Interrupted system call\n",
                                   AnnouncesDaemonError("Terminated............."),
                                   IsExitTrace(1, "user_mon.cpp")));
}

TEST_F(UserMonitorDeathTest, FailingWaitEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(Call::kSelect, EINTR);
        ReadUsers();
      },
      ExitedWithCode(1), IsFailedWait());
}

/// Interrupts system calls again and again.
void StartInterrupting() {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often = {{0, 20000}, {0, 20000}};
  setitimer(ITIMER_REAL, &often, nullptr);
}

TEST_F(UserMonitorDeathTest, InterruptedWaitEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        StartInterrupting();
        for (;;) ReadUsers();
      },
      ExitedWithCode(1), IsFailedWait());
}

// ---- Forwarding ---------------------------------------------------------------------------------

TEST_F(UserMonitorTest, WritersTypeIntoTheConsole) {
  for (const int mode : {2, 3, 4}) {
    SCOPED_TRACE(mode);
    const Attached<UserNode> user = AddUser("anna", mode);
    Type(user, "ls\r\n\0\xFF\xFB\x01"sv);
    const DebugCapture debug(kTrace);
    ReadUsers();
    EXPECT_EQ(ConsoleGot(), "ls\r\n\0\xFF\xFB\x01"sv);
    EXPECT_TRUE(debug.Has("ProcessUserInput: Received ->ls\r\n<- (8 bytes)\n"));
    EXPECT_EQ(user.node->connected, 1);
  }
}

TEST_F(UserMonitorTest, ReadOnlyInputIsDiscardedSilently) {
  const Attached<UserNode> user = AddUser("anna", kReadOnly);
  Type(user, "reboot\r");
  const DebugCapture debug;
  ReadUsers();
  EXPECT_EQ(ConsoleGot(), "");
  EXPECT_EQ(ReceiveAvailable(user.node->sock), "");
  EXPECT_EQ(user.node->connected, 1);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(UserMonitorTest, UsersAreServedInListOrder) {
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert", kExclusive);
  Type(second, "two");
  Type(first, "one");
  ReadUsers();
  EXPECT_EQ(ConsoleGot(), "onetwo");
}

TEST_F(UserMonitorTest, OnlyUsersOfTheSetAreRead) {
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert");
  Type(first, "one");
  Type(second, "two");
  DescriptorSet fdset;
  ASSERT_TRUE(fdset.Add(second.node->sock));
  ProcessUserInput(fdset);
  EXPECT_EQ(ConsoleGot(), "two");
}

TEST_F(UserMonitorTest, EveryUserTypesIntoTheirOwnConsole) {
  const Attached<ConsoleNode> other = ConnectConsole("sys2");
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AttachUser(other.node, "bert");
  Type(first, "one");
  Type(second, "two");
  ReadUsers();
  EXPECT_EQ(ConsoleGot(), "one");
  EXPECT_EQ(ReceiveAvailable(other.peer.get()), "two");
}

TEST_F(UserMonitorTest, LongInputIsReadInChunks) {
  std::string text;
  for (int i = 0; i < 4000; ++i) text += std::to_string(10000 + i);
  const Attached<UserNode> user = AddUser("anna");
  Type(user, text);
  std::string got;
  for (const size_t chunk : {8192U, 8192U, 3616U}) {
    ReadUsers();
    const std::string part = ConsoleGot();
    EXPECT_EQ(part.size(), chunk);
    got += part;
  }
  EXPECT_EQ(got, text);
}

TEST_F(UserMonitorTest, MarkedUserIsStillRead) {
  const Attached<UserNode> user = AddUser("anna");
  CloseUserConnection(user.node);
  Type(user, "last words");
  Pass();
  EXPECT_EQ(ConsoleGot(), "last words");
  EXPECT_EQ(user_list->head, nullptr);
}

TEST_F(UserMonitorTest, UserWhoLeavesIsMarkedAndTheNextOneRead) {
  Attached<UserNode> gone = AddUser("gone");
  const Attached<UserNode> user = AddUser("anna");
  gone.peer.Reset();
  Type(user, "x");
  const DebugCapture debug(kDetail);
  ReadUsers();
  EXPECT_EQ(gone.node->connected, 0);
  EXPECT_EQ(user.node->connected, 1);
  EXPECT_EQ(ConsoleGot(), "x");
  EXPECT_THAT(debug.Messages(), ElementsAre(StartsWith("ProcessUserInput: recv() returned 0 : ")));
}

TEST_F(UserMonitorTest, FailingReceiveMarksTheUser) {
  for (const int call : {1, 2}) {
    SCOPED_TRACE(call);
    const Attached<UserNode> user = AddUser("anna", kReadOnly);
    Type(user, "x");
    const DebugCapture debug(kDetail);
    const FailCall failure(Call::kRecv, ECONNRESET, call, 1);
    ReadUsers();
    EXPECT_EQ(user.node->connected, 0);
    EXPECT_THAT(debug.Messages(),
                ElementsAre("ProcessUserInput: recv() returned -1 : Connection reset by peer\n"));
    user_mon::CleanUpClosedConnections();
  }
}

// ---- Consoles that take no input ----------------------------------------------------------------

class FailingConsoleTest : public UserMonitorTest {
 protected:
  /// What `user` types costs them the connection, for this reason, and affects nobody else.
  void ExpectTypingUserDropped(const Attached<UserNode>& user, const std::string& reason) {
    const Attached<UserNode> other = AddUser("other");
    const int status = console_.node->status;
    Type(user, "x");
    const DebugCapture debug;
    Pass();
    EXPECT_THAT(
        debug.Messages(),
        ElementsAre("ProcessUserInput: send() to console \"sys1\" failed : " + reason + "\n",
                    "CleanUpClosedConnections: Closing connection with user "
                    "\"typing\"on console \"sys1\"\n"));
    EXPECT_EQ(test::Receive(user.peer.get(), 1), "");
    EXPECT_EQ(user_list->count, 1);
    EXPECT_EQ(other.node->connected, 1);
    EXPECT_EQ(console_.node->status, status);
  }
};

TEST_F(FailingConsoleTest, ConsoleThatIsGone) {
  const Attached<UserNode> user = AddUser("typing");
  console_.peer.Reset();
  ExpectTypingUserDropped(user, "Broken pipe");
}

TEST_F(FailingConsoleTest, ConsoleThatIsClosed) {
  const Attached<UserNode> user = AddUser("typing");
  const test::Descriptor sock(console_.node->sock.exchange(-1));
  console_.node->status = kNotConnected;
  ExpectTypingUserDropped(user, "Bad file descriptor");
}

TEST_F(FailingConsoleTest, SocketOfAConnectionInProgressIsNotForUsers) {
  const Attached<UserNode> user = AddUser("typing");
  console_.node->status = kInProgress;
  ExpectTypingUserDropped(user, "Bad file descriptor");
  EXPECT_EQ(ConsoleGot(), "");
}

TEST_F(UserMonitorTest, ReadOnlyUserOfAClosedConsoleStays) {
  const Attached<UserNode> user = AddUser("anna", kReadOnly);
  const test::Descriptor sock(console_.node->sock.exchange(-1));
  Type(user, "x");
  Pass();
  EXPECT_EQ(user.node->connected, 1);
}

TEST_F(UserMonitorTest, ConsoleThatTakesNothingDelaysOnlyTheUserWhoTypes) {
  const Attached<ConsoleNode> other = ConnectConsole("sys2");
  const Attached<UserNode> waiting = AddUser("anna");
  const Attached<UserNode> elsewhere = AttachUser(other.node, "bert");
  FillConsole();
  Type(waiting, "ls\r");
  Type(elsewhere, "pwd\r");
  const auto start = std::chrono::steady_clock::now();
  Pass();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_EQ(ReceiveAvailable(other.peer.get()), "pwd\r");
  EXPECT_EQ(waiting.node->connected, 1);
  ConsoleGot();  // reads what filled it
  Pass();
  EXPECT_EQ(ConsoleGot(), "ls\r");
  Type(elsewhere, "x");
  Pass();
  EXPECT_EQ(ConsoleGot(), "");
  EXPECT_EQ(waiting.node->connected, 1);
}

TEST_F(UserMonitorTest, PartlySentInputIsCompletedLater) {
  std::string text;
  for (int i = 0; i < 200'000; ++i) text += std::to_string(100000 + i);
  const Attached<UserNode> user = AddUser("anna");
  std::thread client([&] { Type(user, text); });
  std::string got;
  EXPECT_TRUE(test::Eventually([&] {
    user_mon_waker.Wake();  // nothing to read is nothing to wait for
    ReadUsers();
    got += ConsoleGot();
    return got.size() >= text.size();
  }));
  client.join();
  EXPECT_TRUE(got == text);
  EXPECT_EQ(user.node->connected, 1);
}

// ---- Removal ------------------------------------------------------------------------------------

TEST_F(UserMonitorTest, LastUserOfADeletedConsoleEndsTheWaitsOfThoseWhoMayFreeIt) {
  unsigned monitor_seen = 0;
  unsigned connector_seen = 0;
  const auto leaves = [&](const Attached<UserNode>& user) {
    CloseUserConnection(user.node);
    cons_mon_waker.WokenSince(&monitor_seen);
    cons_conn_waker.WokenSince(&connector_seen);
    user_mon::CleanUpClosedConnections();
    const bool monitor_woken = cons_mon_waker.WokenSince(&monitor_seen);
    EXPECT_EQ(cons_conn_waker.WokenSince(&connector_seen), monitor_woken);
    return monitor_woken;
  };
  EXPECT_FALSE(leaves(AddUser("anna")));
  const Attached<UserNode> first = AddUser("first");
  const Attached<UserNode> last = AddUser("last");
  console_.node->deleted = 1;
  EXPECT_FALSE(leaves(first));
  EXPECT_TRUE(leaves(last));
  console_.node->deleted = 0;
}

TEST_F(UserMonitorTest, MarkedUsersAreFound) {
  EXPECT_FALSE(user_mon::CheckForClosedConnections());
  EXPECT_EQ(user_mon::GetClosedConnection(), nullptr);
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert");
  const Attached<UserNode> third = AddUser("carl");
  EXPECT_FALSE(user_mon::CheckForClosedConnections());
  third.node->connected = 0;
  second.node->connected = 0;
  EXPECT_TRUE(user_mon::CheckForClosedConnections());
  EXPECT_EQ(user_mon::GetClosedConnection(), second.node);
}

TEST_F(UserMonitorTest, MarkedUserIsRemovedClosedAndUncounted) {
  const Attached<UserNode> gone = AddUser("gone");
  const Attached<UserNode> stays = AddUser("stays");
  const int sock = gone.node->sock;
  gone.node->connected = 0;
  const DebugCapture debug;
  user_mon::CleanUpClosedConnections();
  EXPECT_THAT(debug.Messages(),
              ElementsAre("CleanUpClosedConnections: Closing connection with user "
                          "\"gone\"on console \"sys1\"\n"));
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_EQ(test::Receive(gone.peer.get(), 1), "");
  EXPECT_EQ(console_.node->ref_count, 1);
  for (const UserList* list : {user_list, console_.node->user_list}) {
    EXPECT_EQ(list->count, 1);
    EXPECT_EQ(list->head->unode, stays.node);
    EXPECT_FALSE(list->fdset.Contains(sock));
    EXPECT_EQ(list->high_sock, stays.node->sock);
  }
  EXPECT_TRUE(test::IsOpen(stays.node->sock));
}

TEST_F(UserMonitorTest, AllMarkedUsersAreRemovedAtOnce) {
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert");
  const Attached<UserNode> third = AddUser("carl");
  first.node->connected = 0;
  third.node->connected = 0;
  user_mon::CleanUpClosedConnections();
  EXPECT_EQ(user_list->count, 1);
  EXPECT_EQ(user_list->head->unode, second.node);
  EXPECT_EQ(console_.node->ref_count, 1);
}

TEST_F(UserMonitorTest, UserWithoutSocketIsRemovedToo) {
  const Attached<UserNode> user = AddUser("anna");
  const test::Descriptor sock(std::exchange(user.node->sock, -1));
  user.node->connected = 0;
  user_mon::CleanUpClosedConnections();
  EXPECT_EQ(user_list->head, nullptr);
  EXPECT_TRUE(test::IsOpen(sock.get()));
}

TEST_F(UserMonitorTest, UsersOfAClosedConsoleAreRemovedAfterItsListWasEmptied) {
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert");
  CloseUserConnections(console_.node, "test");
  ASSERT_EQ(console_.node->user_list->head, nullptr);
  Pass();
  EXPECT_EQ(user_list->head, nullptr);
  EXPECT_EQ(user_list->count, 0);
  EXPECT_EQ(user_list->high_sock, -1);
  EXPECT_EQ(console_.node->ref_count, 0);
}

TEST_F(UserMonitorTest, UserWhoHangsUpIsRemovedWithinOnePass) {
  Attached<UserNode> user = AddUser("anna");
  ASSERT_EQ(console_.node->ref_count, 1);
  user.peer.Reset();
  Pass();
  EXPECT_EQ(user_list->head, nullptr);
  EXPECT_EQ(console_.node->user_list->head, nullptr);
  EXPECT_EQ(console_.node->ref_count, 0);
  EXPECT_EQ(console_.node->status, 0);
}

TEST_F(UserMonitorTest, UsersOfADisabledConsoleAreToldAndRemoved) {
  const Attached<UserNode> user = AddUser("anna");
  console_.node->enable = 0;
  CloseDisabledConsoleConnections();
  cons_mon::CleanUpClosedConnections();
  Pass();
  const std::string told = test::Receive(user.peer.get(), 10000);
  EXPECT_NE(told.find("\r\n\r\nConsole has been disabled.\r\n\r\n"), std::string::npos);
  EXPECT_EQ(user_list->head, nullptr);
  EXPECT_EQ(console_.node->ref_count, 0);
}

TEST_F(UserMonitorDeathTest, NegativeReferenceCountEndsTheProcess) {
  const Attached<UserNode> user = AddUser("anna");
  user.node->connected = 0;
  EXPECT_EXIT(
      {
        console_.node->ref_count = 0;
        test::SendDebugToStderr(kDetail);
        user_mon::CleanUpClosedConnections();
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre(
          "CleanUpClosedConnections: Closing connection with user \"anna\"on console "
          "\"sys1\"\n",
          "CleanUpClosedConnections: Negative reference count (-1)\n",
          AnnouncesDaemonError("Terminated: Internal error"), IsExitTrace(1, "user_mon.cpp"))));
}

// ---- The thread as a whole ----------------------------------------------------------------------

void ParkMonitor() {
  thread_waitreq_mask |= kPauseUserMon;
  user_mon_waker.Wake();
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == kPauseUserMon; }));
}

// The thread never ends, so it runs in a process of its own.
void ExpectInputToBeRelayed(const Attached<ConsoleNode>& console, const Attached<UserNode>& user) {
  const DebugCapture debug(kTrace);
  std::thread([] { UserMonitorThreadStart(nullptr); }).detach();
  test::SendText(user.peer.get(), "ls\r");
  EXPECT_EQ(test::Receive(console.peer.get(), 3), "ls\r");
  ParkMonitor();
  test::SendText(user.peer.get(), "pwd\r");
  EXPECT_EQ(ReceiveAvailable(console.peer.get()), "");  // it stands still
  thread_waitreq_mask &= ~kPauseUserMon;
  EXPECT_EQ(test::Receive(console.peer.get(), 4), "pwd\r");
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == 0; }));
  CloseUserConnection(user.node);
  EXPECT_EQ(test::Receive(user.peer.get(), 1), "");
  EXPECT_TRUE(test::Eventually([&] { return console.node->ref_count == 0; }));
  ParkMonitor();  // for the rest of this process
  for (const test::DebugLine& line : debug.Lines()) {
    const bool by_monitor = line.text.find("CleanUpClosedConnections") != std::string::npos;
    EXPECT_TRUE(!by_monitor || line.thread == "user_mon") << line.text;
  }
}

TEST_F(UserMonitorDeathTest, ThreadRelaysParksAndRemoves) {
  EXPECT_HOLDS_IN_CHILD(ExpectInputToBeRelayed(console_, AddUser("anna")));
}

}  // namespace
