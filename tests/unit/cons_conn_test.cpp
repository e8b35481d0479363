// One console's connection: the attempt, what its socket shows, and a management port's refusal.
#include "cons_conn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "connection_support.h"
#include "cons_conn_steps.h"
#include "debug_support.h"

using namespace zevd;

namespace {

using test::ConnectionTest;
using test::kNow;
using test::kRefusal;
using test::SilentPort;
using test::WaitFor;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;

// ---- The refusal of a management port -----------------------------------------------------------

// GotErrorMessage() and GetPortHolderIPAddr() split their argument.
bool IsRefusal(std::string text) {
  return GotErrorMessage(text.data());
}

std::string HolderIn(std::string text) {
  return GetPortHolderIPAddr(text.data());
}

TEST(RefusalTest, IsALineWithTheRightStartAndText) {
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

TEST(PortHolderTest, EarlierCommasBelongToTheirWords) {
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

// ---- One attempt --------------------------------------------------------------------------------

bool HasFlag(int sock, int level, int option) {
  int value = 0;
  socklen_t size = sizeof value;
  getsockopt(sock, level, option, &value, &size);
  return value != 0;
}

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
    const int next = test::NextDescriptor();
    ConnectToConsole(cnode_, 1);
    EXPECT_EQ(cnode_->sock, -1);
    EXPECT_EQ(test::NextDescriptor(), next);
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

TEST_F(StatusTest, SilentConnectionIsConnected) {
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

TEST_F(StatusTest, ConnectionThatIsNotAnsweredIsInProgress) {
  const SilentPort silent;
  cnode_->cons_port = silent.port();
  ConnectToConsole(cnode_, 1);
  EXPECT_EQ(CheckConnectionStatus(cnode_), kInProgress);
}

TEST_F(StatusTest, ReadableButNotWritableIsFailed) {
  test::SocketPair pair;
  cnode_->sock = pair.ours.Release();
  test::FillUp(cnode_->sock);
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

TEST_F(StatusTest, WorksWithDescriptorsBeyondThePlainSets) {
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

TEST_F(StatusTest, RefusalThatEndsAfterThemIsNot) {
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

}  // namespace
