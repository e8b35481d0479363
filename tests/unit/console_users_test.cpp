// What the users of a console are sent: the replay, output and messages; and how they are closed.
#include "console_users.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>

#include "debug_support.h"
#include "failure_support.h"
#include "lists.h"
#include "options.h"
#include "relay_support.h"
#include "user_output.h"

using namespace zevd;

namespace {

using namespace std::string_view_literals;
using test::Attached;
using test::AttachUser;
using test::Call;
using test::DebugCapture;
using test::FailCall;
using test::ReceiveAvailable;
using ::testing::ElementsAre;
using ::testing::StartsWith;

// ---- The replay ring ----------------------------------------------------------------------------

class ReplayTest : public test::RelayTest {
 protected:
  /// A console with a ring of `size` bytes.
  static ConsoleNode* MakeRing(int size) {
    cons_buf_size = size;
    return test::AddConsole(a_cons_list, ("ring" + std::to_string(size)).c_str(), -1, kConnected);
  }

  static void Store(ConsoleNode* console, std::string_view text) {
    BufferConsoleOutput(console, text.data(), static_cast<int>(text.size()));
  }

  static std::string Replay(ConsoleNode* console) {
    const Attached<UserNode> user = AttachUser(console, "anna");
    SendBufferedConsoleOutputToUser(console, user.node);
    EXPECT_EQ(user.node->connected, 1);
    return ReceiveAvailable(user.peer.get());
  }
};

TEST_F(ReplayTest, WithoutARingNothingIsKept) {
  ConsoleNode* console = MakeRing(0);
  ASSERT_EQ(console->cons_buf.buf, nullptr);
  Store(console, "login: ");
  EXPECT_EQ(Replay(console), "");
  EXPECT_EQ(console->cons_buf.head, 0);
  EXPECT_EQ(console->cons_buf.tail, 0);
}

TEST_F(ReplayTest, RingOfOneByteHoldsNothing) {
  ConsoleNode* console = MakeRing(1);
  Store(console, "login: ");
  EXPECT_EQ(Replay(console), "");
}

TEST_F(ReplayTest, NewRingIsEmpty) {
  EXPECT_EQ(Replay(MakeRing(16)), "");
}

TEST_F(ReplayTest, ExactlyTheLastBytesAreKeptOldestFirst) {
  const std::string text = "abcdefghijklmnopqrstuvwxyz";
  for (int size = 1; size <= 12; ++size) {
    SCOPED_TRACE(size);
    ConsoleNode* console = MakeRing(size);
    for (size_t length = 1; length <= text.size(); ++length) {
      Store(console, text.substr(length - 1, 1));
      const size_t kept = std::min(length, static_cast<size_t>(size - 1));
      EXPECT_EQ(Replay(console), text.substr(length - kept, kept));
      EXPECT_TRUE(console->cons_buf.head >= 0 && console->cons_buf.head < size);
      EXPECT_TRUE(console->cons_buf.tail >= 0 && console->cons_buf.tail < size);
    }
  }
}

TEST_F(ReplayTest, ChunkMayBeLongerThanTheRing) {
  ConsoleNode* console = MakeRing(8);
  Store(console, "abc");
  Store(console, std::string(1000, 'x') + "0123456789");
  EXPECT_EQ(Replay(console), "3456789");
}

TEST_F(ReplayTest, AnyByteIsKept) {
  ConsoleNode* console = MakeRing(8);
  Store(console, "\0\xFF\r\n\0"sv);
  EXPECT_EQ(Replay(console), "\0\xFF\r\n\0"sv);
}

TEST_F(ReplayTest, ReplayDoesNotChangeTheRing) {
  ConsoleNode* console = MakeRing(8);
  Store(console, "0123456789");
  EXPECT_EQ(Replay(console), "3456789");
  EXPECT_EQ(Replay(console), "3456789");
  Store(console, "x");
  EXPECT_EQ(Replay(console), "456789x");
}

TEST_F(ReplayTest, FailingSendMarksTheUserAndEndsTheReplay) {
  ConsoleNode* console = MakeRing(8);
  Store(console, "abcdef");
  Store(console, "ghi");  // the ring now wraps, so that it is sent in two parts
  const Attached<UserNode> user = AttachUser(console, "anna");
  const DebugCapture debug;
  const FailCall failure(Call::kSend, EPIPE, 2, 1);
  SendBufferedConsoleOutputToUser(console, user.node);
  EXPECT_EQ(failure.calls(), 2);
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "cdefgh");
  EXPECT_EQ(user.node->connected, 0);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("SendBufferedConsoleOutputToUser: send() from console \"ring8\" failed : "
                          "Broken pipe\n"));
}

TEST_F(ReplayTest, UserWhoTakesNothingKeepsTheReplayForLater) {
  ConsoleNode* console = MakeRing(8);
  Store(console, "abcdef");
  const Attached<UserNode> user = AttachUser(console, "anna");
  const size_t filling = test::FillUp(user.node->sock);
  SendBufferedConsoleOutputToUser(console, user.node);
  EXPECT_EQ(user.node->connected, 1);
  EXPECT_FALSE(user.node->output->IsEmpty());
  EXPECT_EQ(ReceiveAvailable(user.peer.get()).size(), filling);
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "abcdef");
  EXPECT_TRUE(user.node->output->IsEmpty());
}

// ---- Sending output -----------------------------------------------------------------------------

class ConsoleUsersTest : public test::RelayTest {
 protected:
  Attached<UserNode> AddUser(const char* name, int mode = kShared) {
    return AttachUser(console_.node, name, mode);
  }

  Attached<ConsoleNode> console_ = test::ConnectConsole("sys1");
};

TEST_F(ConsoleUsersTest, UsersAreSentToInListOrder) {
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert");
  // With one socket for both the order shows.
  first.node->output = std::make_unique<UserOutput>(second.node->sock);
  SendConsoleOutputToUsers(console_.node, "ab", 2);
  EXPECT_EQ(ReceiveAvailable(second.peer.get()), "abab");
}

TEST_F(ConsoleUsersTest, NothingIsSentWithoutUsers) {
  const FailCall sends(Call::kSend, EPIPE, 1, 0);
  SendConsoleOutputToUsers(console_.node, "ab", 2);
  EXPECT_EQ(sends.calls(), 0);
}

TEST_F(ConsoleUsersTest, UserWhoTakesNothingKeepsNothingFromTheOthers) {
  const Attached<UserNode> slow = AddUser("slow");
  const Attached<UserNode> quick = AddUser("quick");
  const size_t filling = test::FillUp(slow.node->sock);
  SendConsoleOutputToUsers(console_.node, "abcdef", 6);
  SendConsoleOutputToUsers(console_.node, "ghi", 3);
  EXPECT_EQ(ReceiveAvailable(quick.peer.get()), "abcdefghi");
  EXPECT_EQ(ReceiveAvailable(slow.peer.get()).size(), filling);
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_EQ(ReceiveAvailable(slow.peer.get()), "abcdefghi");
  for (const UserNode* user : {slow.node, quick.node}) EXPECT_EQ(user->connected, 1);
}

TEST_F(ConsoleUsersTest, FailedSendMakesEveryFollowingOneFail) {
  const Attached<UserNode> first = AddUser("first");
  Attached<UserNode> gone = AddUser("gone");
  const Attached<UserNode> next = AddUser("next");
  const Attached<UserNode> last = AddUser("last");
  gone.peer.Reset();
  const DebugCapture debug(kTrace);
  SendConsoleOutputToUsers(console_.node, "abc", 3);
  EXPECT_EQ(ReceiveAvailable(first.peer.get()), "abc");
  EXPECT_EQ(ReceiveAvailable(next.peer.get()), "");
  EXPECT_EQ(ReceiveAvailable(last.peer.get()), "");
  EXPECT_EQ(first.node->connected, 1);
  for (const UserNode* user : {gone.node, next.node, last.node}) EXPECT_EQ(user->connected, 0);
  constexpr char kStart[] = "SendConsoleOutputToUsers: send() from console \"sys1\" failed : ";
  EXPECT_THAT(
      test::Containing(debug.Messages(), " failed : "),
      ElementsAre(std::string(kStart) + "Broken pipe\n", std::string(kStart) + "Bad address\n",
                  std::string(kStart) + "Bad address\n"));
}

TEST_F(ConsoleUsersTest, NextChunkIsSentInFullAgain) {
  Attached<UserNode> gone = AddUser("gone");
  const Attached<UserNode> user = AddUser("anna");
  gone.peer.Reset();
  SendConsoleOutputToUsers(console_.node, "abc", 3);
  RemoveUserFromList(gone.node, console_.node->user_list);
  SendConsoleOutputToUsers(console_.node, "def", 3);
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "def");
}

// ---- Messages -----------------------------------------------------------------------------------

TEST_F(ConsoleUsersTest, MessageIsFramed) {
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert", kReadOnly);
  const DebugCapture debug;
  SendMsgToUsers(console_.node, "Power off at noon.");
  const std::string expected = test::Banner("Power off at noon.");
  EXPECT_EQ(ReceiveAvailable(first.peer.get()), expected);
  EXPECT_EQ(ReceiveAvailable(second.peer.get()), expected);
  constexpr char kStart[] = "SendMsgToUsers: The following message was sent to ";
  EXPECT_THAT(debug.Messages(), ElementsAre(kStart + ("\"anna@192.0.2.1\": " + expected + "\n"),
                                            kStart + ("\"bert@192.0.2.1\": " + expected + "\n")));
}

TEST_F(ConsoleUsersTest, UserWhoCannotBeSentAMessageIsNotClosed) {
  Attached<UserNode> gone = AddUser("gone");
  const Attached<UserNode> next = AddUser("next");
  gone.peer.Reset();
  const DebugCapture debug;
  SendMsgToUsers(console_.node, "Hello");
  EXPECT_EQ(ReceiveAvailable(next.peer.get()), test::Banner("Hello"));
  EXPECT_EQ(gone.node->connected, 1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("SendMsgToUsers: send() failed : Broken pipe\n",
                          "SendMsgToUsers: Message not sent to \"gone@192.0.2.1\".\n",
                          StartsWith("SendMsgToUsers: The following message was sent to "
                                     "\"next@192.0.2.1\": ")));
}

TEST_F(ConsoleUsersTest, LongMessageIsCut) {
  const Attached<UserNode> user = AddUser("anna");
  const std::string message(2000, 'm');
  SendMsgToUsers(console_.node, message.c_str());
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), test::Banner(message).substr(0, 1023));
}

TEST_F(ConsoleUsersTest, BannerIsCutToItsBuffer) {
  std::array<char, 20> banner{};
  FormatBanner(banner.data(), banner.size(), "Hello");
  EXPECT_EQ(banner.data(), test::Banner("Hello").substr(0, 19));
}

// ---- Closing ------------------------------------------------------------------------------------

TEST_F(ConsoleUsersTest, ClosingUsersMarksThemAndLeavesCountAndSet) {
  const Attached<UserNode> first = AddUser("anna");
  const Attached<UserNode> second = AddUser("bert");
  UserList* users = console_.node->user_list;
  const int high_sock = users->high_sock;
  CloseUserConnections(console_.node, "test");
  EXPECT_EQ(users->head, nullptr);
  EXPECT_EQ(users->tail, nullptr);
  EXPECT_EQ(users->count, 2);
  EXPECT_EQ(users->high_sock, high_sock);
  for (const UserNode* user : {first.node, second.node}) {
    EXPECT_EQ(user->connected, 0);
    EXPECT_TRUE(users->fdset.Contains(user->sock));
    EXPECT_TRUE(IsUserInUserList(user, user_list));
    EXPECT_TRUE(test::IsOpen(user->sock));
  }
}

}  // namespace
