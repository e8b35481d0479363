// What the steps of a pass of the console connection thread leave to be waited for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>

#include "connection_support.h"
#include "cons_conn.h"
#include "cons_conn_steps.h"
#include "debug_support.h"
#include "file_support.h"
#include "fixed_text.h"
#include "lists.h"
#include "log.h"
#include "options.h"
#include "threads.h"

using namespace zevd;

namespace {

using test::kNow;
using test::SilentPort;
using test::WaitFor;

constexpr int64_t kLongest = AttemptWait::kLongest;
constexpr int64_t kTick = 10;  // for which time() may not show a second that has begun

class ConnectionWaitTest : public test::ConnectionTest {
 protected:
  ConnectionWaitTest() {
    log_dir = logs_.c_str();
    attempt_wait.BeginPass();
  }

  // Milliseconds that a pass leaves to be waited for.
  static int64_t AfterPass() {
    attempt_wait.BeginPass();
    ConnectToConsoles();
    UpdateConnectionStatus();
    return attempt_wait.Milliseconds();
  }

  test::StationRoot root_;
  std::string logs_ = std::filesystem::absolute("root/logs");
};

TEST_F(ConnectionWaitTest, DisabledConsoleIsNotWaitedFor) {
  cnode_->enable = 0;
  EXPECT_EQ(AfterPass(), kLongest);
  EXPECT_EQ(cnode_->sock, -1);
}

TEST_F(ConnectionWaitTest, FailedConsoleIsDueWhenTheSixtiethSecondBegins) {
  cnode_->lfca_time = kNow - 57;
  EXPECT_EQ(AfterPass(), kLongest);
  clock_.Advance(2);
  EXPECT_EQ(AfterPass(), 1000 + kTick);
  clock_.SetMicroseconds(400'000);
  EXPECT_EQ(AfterPass(), 600 + kTick);
  EXPECT_EQ(cnode_->sock, -1);
  clock_.Advance(1);
  AfterPass();
  EXPECT_NE(cnode_->sock, -1);
}

TEST_F(ConnectionWaitTest, ConsolesThatAreDueInOneSecondAreTriedInOnePass) {
  ConsoleNode* other = AddAt("other", listener_.port());
  cnode_->lfca_time = kNow - 59;
  other->lfca_time = kNow - 59;
  AfterPass();
  EXPECT_EQ(cnode_->sock, -1);
  EXPECT_EQ(other->sock, -1);
  clock_.Advance(1);
  AfterPass();
  EXPECT_NE(cnode_->sock, -1);
  EXPECT_NE(other->sock, -1);
}

TEST_F(ConnectionWaitTest, ConsoleThatIsDueFirstIsWaitedFor) {
  AddAt("other", listener_.port())->lfca_time = kNow;
  cnode_->lfca_time = kNow - 59;
  AddAt("third", listener_.port())->lfca_time = kNow - 30;
  EXPECT_EQ(AfterPass(), 1000 + kTick);
}

TEST_F(ConnectionWaitTest, AttemptInProgressIsNewsWhenItIsOver) {
  const SilentPort silent;
  cnode_->cons_port = silent.port();
  EXPECT_EQ(AfterPass(), kLongest);
  EXPECT_EQ(cnode_->status, kInProgress);
}

TEST_F(ConnectionWaitTest, ConnectThatFailsAtOnceIsNotWaitedAfter) {
  const test::FailCall failure(test::Call::kConnect, ENETUNREACH);
  EXPECT_EQ(AfterPass(), 0);
  EXPECT_EQ(AfterPass(), 0);
  EXPECT_EQ(failure.calls(), 2);
}

// What ran out of descriptors waits in the rest of the process, too.
void ExpectToLookAgainWithinASecond() {
  const test::FailCall failure(test::Call::kSocket, EMFILE);
  ConnectToConsoles();
  const int64_t milliseconds = attempt_wait.Milliseconds();
  EXPECT_GT(milliseconds, 0);
  EXPECT_LE(milliseconds, 1000);
  attempt_wait.BeginPass();
  ConnectToConsoles();
  EXPECT_EQ(failure.calls(), 1);  // it has to wait
  EXPECT_GT(attempt_wait.Milliseconds(), 0);
  EXPECT_LE(attempt_wait.Milliseconds(), milliseconds);
}

TEST_F(ConnectionWaitTest, WithoutADescriptorItLooksAgainASecondLater) {
  EXPECT_HOLDS_IN_CHILD(ExpectToLookAgainWithinASecond());
}

TEST_F(ConnectionWaitTest, ManagementPortIsLookedAtWhenItsGraceIsOver) {
  CopyText(cnode_->model, "M100");
  const test::Descriptor peer = Connect();
  EXPECT_EQ(AfterPass(), kLongest);
  clock_.Advance(1);
  clock_.SetMicroseconds(750'000);
  EXPECT_EQ(AfterPass(), 250 + kTick);
  clock_.Advance(1);
  EXPECT_EQ(AfterPass(), kLongest);
  EXPECT_EQ(cnode_->status, kConnected);
}

// The thread runs in the only thread of a child, where the pause of every pass is a step of the
// test.
void ExpectAnotherPassAfterAMove(test::FakeClock& clock) {
  int passes = 0;
  clock.OnSleep([&](useconds_t pause) {
    // Not the wait for what the console offers first.
    if (pause != kPassPause || ++passes == 1) return;
    EXPECT_EQ(a_cons_list->count, 1);
    EXPECT_EQ(attempt_wait.Milliseconds(), passes == 2 ? 0 : kLongest);
    if (passes == 3) test::EndChild();
  });
  ConsoleConnectionsThreadStart(nullptr);
}

TEST_F(ConnectionWaitTest, PassThatMovedAConsoleIsFollowedByAnotherAtOnce) {
  EXPECT_HOLDS_IN_CHILD(ExpectAnotherPassAfterAMove(clock_));
}

// ---- News ---------------------------------------------------------------------------------------

bool HasNews() {
  pollfd asked = {attempt_wait.descriptor(), POLLIN, 0};
  return poll(&asked, 1, 0) == 1;
}

// The watch of the process is opened in a process of its own, where nobody else has opened it.
class ConnectionNewsTest : public ConnectionWaitTest {
 protected:
  void ExpectNewsUntilConnected() {
    attempt_wait.Open();
    const test::Descriptor peer = Connect();
    EXPECT_TRUE(HasNews());
    Say(peer, "login: ");
    EXPECT_EQ(UpdateConnectionStatus(), 1);
    EXPECT_FALSE(HasNews());  // what it prints is for the output monitor
    test::SendText(peer.get(), "more");
    EXPECT_TRUE(WaitFor(cnode_->sock, POLLIN));
    EXPECT_FALSE(HasNews());
    CloseLogFile(cnode_);
  }

  void ExpectNewsOfARefusal() {
    const test::RefusingPort nobody;
    attempt_wait.Open();
    cnode_->cons_port = nobody.port();
    ConnectToConsole(cnode_, 1);
    EXPECT_TRUE(WaitFor(cnode_->sock, POLLIN));
    EXPECT_TRUE(HasNews());
    UpdateConnectionStatus();
    EXPECT_EQ(cnode_->status, kRefused);
    EXPECT_FALSE(HasNews());
  }

  void ExpectNoNewsOfAnUnansweredAttempt() {
    const SilentPort silent;
    attempt_wait.Open();
    cnode_->cons_port = silent.port();
    ConnectToConsole(cnode_, 1);
    EXPECT_FALSE(HasNews());
  }
};

TEST_F(ConnectionNewsTest, EstablishedConnectionIsNewsUntilItIsConnected) {
  EXPECT_HOLDS_IN_CHILD(ExpectNewsUntilConnected());
}

TEST_F(ConnectionNewsTest, RefusalIsNewsUntilTheSocketIsClosed) {
  EXPECT_HOLDS_IN_CHILD(ExpectNewsOfARefusal());
}

TEST_F(ConnectionNewsTest, UnansweredAttemptIsNoNews) {
  EXPECT_HOLDS_IN_CHILD(ExpectNoNewsOfAnUnansweredAttempt());
}

}  // namespace
