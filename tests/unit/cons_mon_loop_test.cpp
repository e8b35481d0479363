// The loop of the console output monitor. It never ends, so it runs in children.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cons_mon.h"
#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "lists.h"
#include "options.h"
#include "relay_support.h"
#include "threads.h"
#include "zev_signal.h"

using namespace zevd;

namespace {

using test::Attached;
using test::AttachUser;
using test::ConnectConsole;
using test::DebugCapture;
using ::testing::ElementsAre;

class MonitorLoopTest : public test::RelayTest {
 protected:
  Attached<UserNode> AddUser(const char* name) { return AttachUser(console_.node, name); }

  Attached<ConsoleNode> console_ = ConnectConsole("sys1");
};

// ---- Passes -------------------------------------------------------------------------------------

bool IsOn(RwLock& lock, const ConsoleList* list, const char* name) {
  const ReadLock hold(lock, HERE);
  return LocateConsoleInList(name, list) != nullptr;
}

void ExpectPassesToTakePlace(const Attached<ConsoleNode>& console, const Attached<UserNode>& user) {
  const test::TemporaryDirectory directory;
  log_dir = directory.path().c_str();
  ConsoleNode* deleted = ConnectConsole("deleted").node;
  deleted->deleted = 1;
  const DebugCapture debug(kTrace);
  std::thread(MonitorConsoleOutput).detach();
  test::SendText(console.peer.get(), "login: ");
  EXPECT_EQ(test::Receive(user.peer.get(), 7), "login: ");
  EXPECT_TRUE(test::Eventually([] { return !IsOn(acl_lock, a_cons_list, "deleted"); }));
  EXPECT_FALSE(IsOn(icl_lock, i_cons_list, "deleted"));
  shutdown(console.peer.get(), SHUT_WR);
  EXPECT_TRUE(test::Eventually([] { return IsOn(icl_lock, i_cons_list, "sys1"); }));
  EXPECT_FALSE(IsOn(acl_lock, a_cons_list, "sys1"));
  EXPECT_EQ(console.node->status, 3);
  EXPECT_EQ(console.node->sock, -1);
  EXPECT_EQ(user.node->connected, 0);
  thread_waitreq_mask |= kPauseConsMon;  // where it stays for the rest of this process
  cons_mon_waker.Wake();
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == kPauseConsMon; }));
  for (const test::DebugLine& line : debug.Lines()) {
    const bool by_monitor = line.text.find("CleanUpClosedConnections") != std::string::npos;
    EXPECT_TRUE(!by_monitor || line.thread == "cons_mon") << line.text;
  }
}

TEST_F(MonitorLoopTest, LoopRelaysDeletesMovesAndParks) {
  EXPECT_HOLDS_IN_CHILD(ExpectPassesToTakePlace(console_, AddUser("anna")));
}

// It runs in the only thread of a child; every pass begins with a sleep.
void ExpectHangUpsToBeListenedFor() {
  BlockSignal(SIGHUP);
  test::FakeClock clock;
  clock.OnSleep([&](useconds_t) {
    EXPECT_EQ(cons_mon_waker.beside().size(), 1U);
    if (cons_mon_waker.beside().empty()) test::EndChild();
    pollfd listener = {cons_mon_waker.beside().front(), POLLIN, 0};
    EXPECT_EQ(poll(&listener, 1, 0), 0);
    kill(getpid(), SIGHUP);
    EXPECT_EQ(poll(&listener, 1, 0), 1);
    test::EndChild();
  });
  MonitorConsoleOutput();
}

TEST_F(MonitorLoopTest, HangUpEndsTheWait) {
  EXPECT_HOLDS_IN_CHILD(ExpectHangUpsToBeListenedFor());
}

// Whichever allocation fails in the first pass, the console that finds no room is lost, and the
// others are moved in the second pass although nobody wakes the loop again. It runs in the only
// thread of a child; every pass begins with a pause.
void ExpectOthersToBeMoved(const std::vector<int>& peers, int failing) {
  for (const int peer : peers) shutdown(peer, SHUT_WR);
  test::FakeClock clock;
  std::optional<test::FailAllocation> failure;
  int passes = 0;
  clock.OnSleep([&](useconds_t) {
    if (passes++ == 0) failure.emplace(failing);
    if (passes < 3) return;
    EXPECT_TRUE(failure->reached());
    EXPECT_EQ(a_cons_list->count, 0);
    EXPECT_GE(i_cons_list->count, static_cast<int>(peers.size()) - 1);
    test::EndChild();
  });
  MonitorConsoleOutput();
}

TEST_F(MonitorLoopTest, ConsolesThatCloseTogetherAreMovedWhateverAllocationFails) {
  constexpr int kAllocations = 4;  // of the copied set, and of an element for each
  const Attached<ConsoleNode> second = ConnectConsole("second");
  const Attached<ConsoleNode> third = ConnectConsole("third");
  const std::vector<int> peers = {console_.peer.get(), second.peer.get(), third.peer.get()};
  for (int failing = 1; failing <= kAllocations; ++failing) {
    EXPECT_HOLDS_IN_CHILD(ExpectOthersToBeMoved(peers, failing));
  }
}

// ---- A reload in the loop -----------------------------------------------------------------------

constexpr useconds_t kPausePoll = 100;  // the other pauses of a pass are longer
constexpr unsigned kOtherThreads = 0x1D;

/// The loop runs in the only thread of a child, where every sleep is a step of the test.
class ReloadInLoopTest : public MonitorLoopTest {
 protected:
  ReloadInLoopTest() {
    std::filesystem::create_directory("root/events");
    test::WriteFile("root/config/zev.conf", "");
  }

  /// Asks for a reload. Calls `pausing` each time the loop waits for another thread, and `reloaded`
  /// when it has gone on.
  static void Run(const std::function<void()>& pausing, const std::function<void()>& reloaded) {
    test::FakeClock clock;
    clock.OnSleep([&](useconds_t pause) {
      if (pause == kPausePoll) {
        pausing();
        return;
      }
      reloaded();
      test::EndChild();
    });
    BlockSignal(SIGHUP);
    kill(getpid(), SIGHUP);
    MonitorConsoleOutput();
  }

  static void ExpectToWaitForAnyOther(unsigned bit) {
    constexpr int kPolls = 5;
    const DebugCapture debug(kTrace);
    int polls = 0;
    unsigned woken = 0;
    Run(
        [&] {
          EXPECT_EQ(thread_waitreq_mask, kOtherThreads);
          // Those who wait are told.
          for (Waker* waker :
               {&cons_conn_waker, &user_conn_waker, &user_mon_waker, &cmd_mon_waker}) {
            unsigned seen = 0;
            EXPECT_TRUE(waker->WokenSince(&seen));
          }
          cons_conn_waker.WokenSince(&woken);
          EXPECT_FALSE(debug.Has("Entering ReloadEventFiles\n"));
          EXPECT_LE(++polls, kPolls);
          if (HasFailure()) test::EndChild();
          thread_waiting_mask = polls < kPolls ? kPauseConsMon : bit;  // its own bit does not count
        },
        [&] {
          EXPECT_EQ(polls, kPolls);
          EXPECT_TRUE(cons_conn_waker.WokenSince(&woken));  // the list may have grown
          EXPECT_TRUE(debug.Has("Entering ReloadEventFiles\n"));
          EXPECT_TRUE(debug.Has("Entering ReloadConfigFile\n"));
          EXPECT_EQ(thread_waitreq_mask, 0U);
        });
  }

  void ExpectToGoOnWithoutMemory() {
    console_.node->enable = 0;
    const DebugCapture debug(0);
    std::optional<test::FailAllocation> failure;
    Run(
        [&] {
          thread_waiting_mask = kPauseConsConn;
          failure.emplace(1);
        },
        [&] {
          EXPECT_TRUE(failure->reached());
          failure.reset();
          EXPECT_THAT(test::Reports(debug.Messages()),
                      ElementsAre("NewConsoleList: malloc() failed : Cannot allocate memory\n",
                                  "MonitorConsoleOutput: ReloadConfigFile() failed.\n"));
          EXPECT_EQ(console_.node->deleted, 0);
          EXPECT_EQ(console_.node->status, kNotConnected);  // as it is disabled
          EXPECT_EQ(thread_waitreq_mask, 0U);
        });
  }

 private:
  test::StationRoot root_;
};

TEST_F(ReloadInLoopTest, WaitsUntilOneOfTheOtherThreadsStandsStill) {
  for (const unsigned bit : {kPauseConsConn, kPauseUserConn, kPauseUserMon, kPauseCmdMon}) {
    SCOPED_TRACE(bit);
    EXPECT_HOLDS_IN_CHILD(ExpectToWaitForAnyOther(bit));
  }
}

TEST_F(ReloadInLoopTest, ConfigurationThatFindsNoMemoryIsReported) {
  EXPECT_HOLDS_IN_CHILD(ExpectToGoOnWithoutMemory());
}

}  // namespace
