// The passes of the console connection thread over all connections, and the thread as a whole.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "connection_support.h"
#include "cons_conn.h"
#include "cons_conn_steps.h"
#include "debug_support.h"
#include "file_support.h"
#include "lists.h"
#include "log.h"
#include "options.h"
#include "sliced_walk.h"
#include "threads.h"
#include "zev.h"

using namespace zevd;

namespace {

using test::ConnectionTest;
using test::kNow;
using test::kRefusal;
using test::SilentPort;
using test::WaitFor;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

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
  // The link to the current log directory needs an absolute path.
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

TEST_F(UpdateTest, ManagementPortHasTwoSecondsToRefuse) {
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
  // It is known that nothing has happened on it, so nobody waits for it; it is traced nevertheless.
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

  void Expect(WriteLock* lock = nullptr) {
    ASSERT_TRUE(WaitFor(connected_->sock, POLLIN));
    ASSERT_TRUE(WaitFor(refused_->sock, POLLIN));
    EXPECT_EQ(UpdateConnectionStatus(lock), 1);
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

TEST_F(MixedUpdateTest, EachConsoleIsPolledWhenPollingAllFails) {
  const test::FailCall failure(test::Call::kPoll, ENOMEM, 3, 1);
  Expect();
}

TEST_F(MixedUpdateTest, OthersMayHaveTheLockBetweenAnyTwo) {
  WriteLock lock(icl_lock, HERE);
  const test::FakePassageOfTime passage(SlicedWalk<ConsoleList>::kSlice);
  const test::FailCall polls(test::Call::kPoll, 0, 1, 0);
  Expect(&lock);
  // What is known of a socket is asked anew, as others may have closed it: twice to wait for the
  // sockets of the test, and once for each of three connections in progress.
  EXPECT_EQ(polls.calls(), 2 + 3);
}

TEST_F(UpdateTest, EachOfManyConnectionsInProgressIsLookedAt) {
  constexpr int kHanging = 100;  // more than are asked about in one call
  const SilentPort silent;
  cnode_->enable = 0;
  for (int i = 0; i < kHanging; ++i) AddAt("hangs", silent.port());
  ConsoleNode* last = AddAt("last", listener_.port());
  ConnectToConsoles();
  const test::Descriptor peer = listener_.Accept();
  test::SendText(peer.get(), "login: ");
  ASSERT_TRUE(WaitFor(last->sock, POLLIN));
  const test::FailCall polls(test::Call::kPoll, 0, 1, 0);
  EXPECT_EQ(UpdateConnectionStatus(), 1);
  EXPECT_EQ(polls.calls(), 2);
  EXPECT_EQ(last->status, kConnected);
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (strcmp(cnode->cname, "hangs") == 0) {
      EXPECT_EQ(cnode->status, kInProgress);
    }
  }
}

// ---- The thread ---------------------------------------------------------------------------------

/// The children have threads.
class ConnectionThreadTest : public ::testing::Test {
 protected:
  ConnectionThreadTest() { test::StartChildrenAfresh(); }
};

bool IsOn(ConsoleList* list, RwLock& list_lock, const char* name) {
  const ReadLock lock(list_lock, HERE);
  return LocateConsoleInList(name, list) != nullptr;
}

// The consoles are all on i_cons_list at first.
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

// How the trace names a lock.
std::string Address(RwLock& lock) {
  std::array<char, 32> text{};
  snprintf(text.data(), text.size(), "%lx", reinterpret_cast<unsigned long>(&lock));
  return text.data();
}

// What the thread does with the list locks, and its steps in between.
std::vector<std::string> Steps(const std::vector<std::string>& messages) {
  static const std::array<std::string, 4> kSteps = {
      "Entering DeleteMarkedConsoles\n", "Entering ConnectToConsoles\n",
      "Entering UpdateConnectionStatus\n", "Entering MoveConsolesToList\n"};
  const std::string thread = "ConsoleConnectionsThreadStart: ";
  const std::string icl = " lock " + Address(icl_lock);
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

/// The trace of the thread. It lives as long as the child, because the thread goes on writing.
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
