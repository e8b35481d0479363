// The service threads: the argument line of a client, and what becomes of its connection.
#include "serv_conn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "failure_support.h"
#include "lists.h"
#include "options.h"
#include "serv_conn_steps.h"
#include "service_support.h"
#include "user_conn.h"
#include "user_conn_steps.h"

using namespace zevd;

namespace {

using test::Attached;
using test::AwaitThreads;
using test::ConnectTo;
using test::Descriptor;
using test::FailCall;
using test::kOffers;
using test::NextDescriptor;
using test::Option;
using test::ReceiveAll;
using test::ServiceCapture;
using test::ServiceTest;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// ---- The argument line --------------------------------------------------------------------------

constexpr char kInvalidText[] = "002 - Invalid argument.\r\n";
constexpr char kInsufficientText[] = "009 - Insufficient data.\r\n";

class ParseConsoleArgsTest : public test::DaemonTest {
 protected:
  /// Parses a copy of `line` that ends where the line does; the record holds rubbish before.
  int Parse(const std::string& line) {
    memset(&args_, 'x', sizeof args_);
    u_err_msg = nullptr;
    std::vector<char> buf(line.c_str(), line.c_str() + line.size() + 1);
    return ParseConsoleArgs(buf.data(), &args_);
  }

  void ExpectRefused(const std::string& line, const char* error, const std::string& message) {
    SCOPED_TRACE(line);
    const test::DebugCapture debug;
    EXPECT_EQ(Parse(line), -1);
    EXPECT_STREQ(u_err_msg, error);
    EXPECT_THAT(debug.Messages(), ElementsAre("ParseConsoleArgs: " + message + "\n"));
  }

  void ExpectMode(const std::string& line, int mode) {
    SCOPED_TRACE(line);
    EXPECT_EQ(Parse(line), 0);
    EXPECT_EQ(args_.mode, mode);
  }

  ConsoleArgs args_;
};

TEST_F(ParseConsoleArgsTest, ConsoleNameAloneLeavesTheDefaults) {
  const test::DebugCapture debug(kDetail);
  EXPECT_EQ(Parse("sys1\n"), 0);
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_STREQ(args_.user_name, "<unknown>");
  EXPECT_EQ(args_.mode, 2);
  EXPECT_STREQ(args_.addr, "");
  EXPECT_STREQ(args_.auth_mechanism, "");
  EXPECT_STREQ(args_.user_cookie, "");
  EXPECT_EQ(u_err_msg, nullptr);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(ParseConsoleArgsTest, WritesItsEntryLine) {
  const test::DebugCapture debug(kTrace);
  EXPECT_EQ(Parse("sys1"), 0);
  EXPECT_THAT(debug.Messages(), ElementsAre("Entering ParseConsoleArgs\n"));
}

TEST_F(ParseConsoleArgsTest, TakesEveryOption) {
  EXPECT_EQ(Parse("sys1 mode=ex user=anna addr=192.0.2.7\r\n"), 0);
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_EQ(args_.mode, 3);
  EXPECT_STREQ(args_.user_name, "anna");
  EXPECT_STREQ(args_.addr, "192.0.2.7");
}

TEST_F(ParseConsoleArgsTest, TakesOptionsInAnyOrder) {
  EXPECT_EQ(Parse("sys1 addr=192.0.2.7 user=anna mode=ro"), 0);
  EXPECT_EQ(args_.mode, 1);
  EXPECT_STREQ(args_.user_name, "anna");
  EXPECT_STREQ(args_.addr, "192.0.2.7");
}

TEST_F(ParseConsoleArgsTest, EveryModeKeyword) {
  ExpectMode("sys1 mode=ro", 1);
  ExpectMode("sys1 mode=sh", 2);
  ExpectMode("sys1 mode=ex", 3);
  ExpectMode("sys1 mode=er", 4);
}

TEST_F(ParseConsoleArgsTest, LaterOptionOverridesEarlier) {
  EXPECT_EQ(Parse("sys1 mode=ex user=anna addr=a mode=ro user=bert addr=b"), 0);
  EXPECT_EQ(args_.mode, 1);
  EXPECT_STREQ(args_.user_name, "bert");
  EXPECT_STREQ(args_.addr, "b");
}

TEST_F(ParseConsoleArgsTest, TellsWhetherAndHowOftenAUserIsNamed) {
  EXPECT_EQ(Parse("sys1"), 0);
  EXPECT_FALSE(args_.names_user);
  EXPECT_EQ(Parse("sys1 user=anna"), 0);
  EXPECT_TRUE(args_.names_user);
  EXPECT_STREQ(args_.earlier_user_name, "");
  EXPECT_EQ(Parse("sys1 user=anna user=bert user=carl"), 0);
  EXPECT_STREQ(args_.earlier_user_name, "bert");
  EXPECT_STREQ(args_.user_name, "carl");
}

TEST_F(ParseConsoleArgsTest, ControlCharactersInNameAndAddressBecomeQuestionMarks) {
  EXPECT_EQ(Parse("sys1 user=\x1b[2Jro\xC2\x9Bot\x07 addr=10.0\x9b.0.1\x7f"), 0);
  EXPECT_STREQ(args_.user_name, "?[2Jro?ot?");
  EXPECT_STREQ(args_.addr, "10.0?.0.1?");
}

TEST_F(ParseConsoleArgsTest, SeparatorsAreRunsOfBlanksTabsAndLineEnds) {
  EXPECT_EQ(Parse("\r\n\t  sys1 \t\tmode=ro\ruser=anna\n\naddr=a\t\r\n "), 0);
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_EQ(args_.mode, 1);
  EXPECT_STREQ(args_.user_name, "anna");
  EXPECT_STREQ(args_.addr, "a");
}

TEST_F(ParseConsoleArgsTest, OtherWhiteSpaceBelongsToTheToken) {
  EXPECT_EQ(Parse("sys\v1\f"), 0);
  EXPECT_STREQ(args_.cons_name, "sys\v1\f");
}

TEST_F(ParseConsoleArgsTest, NoTokenIsInsufficientData) {
  for (const char* line : {"", " ", "   \t ", "\n", "\r\n", " \t\r\n\r\n "}) {
    ExpectRefused(line, kInsufficientText, "No console arguments found.");
  }
}

TEST_F(ParseConsoleArgsTest, TokenAloneLacksTheCookie) {
  ExpectRefused("token", kInsufficientText, "Cookie not specified.");
  ExpectRefused(" token \r\n", kInsufficientText, "Cookie not specified.");
}

TEST_F(ParseConsoleArgsTest, TokenAndCookieLackTheConsoleName) {
  ExpectRefused("token 0123456789abcdef", kInsufficientText, "Console name not specified.");
  ExpectRefused("token mode=ro\n", kInsufficientText, "Console name not specified.");
}

TEST_F(ParseConsoleArgsTest, PrefixIsSkipped) {
  EXPECT_EQ(Parse("token 0123456789abcde sys1 mode=ex user=anna\n"), 0);
  EXPECT_STREQ(args_.auth_mechanism, "token");
  EXPECT_STREQ(args_.user_cookie, "0123456789abcde");
  EXPECT_STREQ(args_.cons_name, "sys1");
  EXPECT_EQ(args_.mode, 3);
  EXPECT_STREQ(args_.user_name, "anna");
}

TEST_F(ParseConsoleArgsTest, CookieIsCutTo16Characters) {
  EXPECT_EQ(Parse("token 0123456789abcdefgh sys1"), 0);
  EXPECT_STREQ(args_.user_cookie, "0123456789abcdef");
  EXPECT_STREQ(args_.cons_name, "sys1");
}

TEST_F(ParseConsoleArgsTest, OnlyTheExactWordIsThePrefix) {
  for (const char* name : {"Token", "TOKEN", "tokens", "toke", "token="}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(Parse(name), 0);
    EXPECT_STREQ(args_.cons_name, name);
    EXPECT_STREQ(args_.auth_mechanism, "");
  }
}

TEST_F(ParseConsoleArgsTest, ConsoleMayBeCalledTokenAfterThePrefix) {
  EXPECT_EQ(Parse("token cookie token mode=ro"), 0);
  EXPECT_STREQ(args_.cons_name, "token");
  EXPECT_EQ(args_.mode, 1);
}

TEST_F(ParseConsoleArgsTest, FirstTokenIsTheNameWhateverItLooksLike) {
  EXPECT_EQ(Parse("mode=EX mode=ro"), 0);
  EXPECT_STREQ(args_.cons_name, "mode=EX");
  EXPECT_EQ(args_.mode, 1);
  EXPECT_EQ(Parse("@@@@"), 0);
  EXPECT_STREQ(args_.cons_name, "@@@@");
}

TEST_F(ParseConsoleArgsTest, TextsAreCutToTheirFields) {
  EXPECT_EQ(Parse(std::string(65, 'c') + " user=" + std::string(40, 'u') +
                  " addr=" + std::string(1000, 'a')),
            0);
  EXPECT_EQ(args_.cons_name, std::string(64, 'c'));
  EXPECT_EQ(args_.user_name, std::string(32, 'u'));
  EXPECT_EQ(args_.addr, std::string(64, 'a'));
}

TEST_F(ParseConsoleArgsTest, TextsThatFitAreWhole) {
  EXPECT_EQ(Parse(std::string(64, 'c') + " user=" + std::string(32, 'u') +
                  " addr=" + std::string(64, 'a')),
            0);
  EXPECT_EQ(args_.cons_name, std::string(64, 'c'));
  EXPECT_EQ(args_.user_name, std::string(32, 'u'));
  EXPECT_EQ(args_.addr, std::string(64, 'a'));
}

TEST_F(ParseConsoleArgsTest, UserAndAddressMayBeEmpty) {
  EXPECT_EQ(Parse("sys1 user=anna user= addr=a addr="), 0);
  EXPECT_STREQ(args_.user_name, "");
  EXPECT_STREQ(args_.addr, "");
}

TEST_F(ParseConsoleArgsTest, ValueMayHoldAnEqualsSign) {
  EXPECT_EQ(Parse("sys1 user=mode=EX addr=user=x"), 0);
  EXPECT_STREQ(args_.user_name, "mode=EX");
  EXPECT_STREQ(args_.addr, "user=x");
  EXPECT_EQ(args_.mode, 2);
}

TEST_F(ParseConsoleArgsTest, UnknownModeIsRefused) {
  for (const std::string value : {"EX", "Ro", "", "e", "exx", "shared", "3", "=ro"}) {
    ExpectRefused("sys1 mode=" + value, kInvalidText, "Unrecognized mode \"" + value + "\".");
  }
}

TEST_F(ParseConsoleArgsTest, ModeMustFollowItsKeyAtOnce) {
  ExpectRefused("sys1 mode= ro", kInvalidText, "Unrecognized mode \"\".");
}

TEST_F(ParseConsoleArgsTest, UnknownOptionIsRefused) {
  for (const std::string option :
       {"verbose", "mode", "Mode=ro", "USER=anna", "=", "xmode=ro", "address=a", "token", "@@@@"}) {
    ExpectRefused("sys1 " + option, kInvalidText, "Invalid argument \"" + option + "\".");
  }
}

TEST_F(ParseConsoleArgsTest, FirstWrongOptionIsTheOneReported) {
  ExpectRefused("sys1 mode=ro first mode=EX", kInvalidText, "Invalid argument \"first\".");
  ExpectRefused("sys1 mode=EX first", kInvalidText, "Unrecognized mode \"EX\".");
}

TEST_F(ParseConsoleArgsTest, HighBytesPassUnchanged) {
  EXPECT_EQ(Parse("\xC3\xBC\xFF user=\xE9"), 0);
  EXPECT_STREQ(args_.cons_name, "\xC3\xBC\xFF");
  EXPECT_STREQ(args_.user_name, "\xE9");
}

TEST_F(ParseConsoleArgsTest, MessagesAreOfLevelOne) {
  const test::DebugCapture debug(0);
  EXPECT_EQ(Parse(""), -1);
  EXPECT_EQ(Parse("token"), -1);
  EXPECT_EQ(Parse("token cookie"), -1);
  EXPECT_EQ(Parse("sys1 mode=EX"), -1);
  EXPECT_EQ(Parse("sys1 other"), -1);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

// ---- Clients of the main port -------------------------------------------------------------------

TEST_F(ServiceTest, ArgumentLineAttachesTheUser) {
  const ServiceCapture debug(kDetail);
  const Descriptor client = CallAndSay(user_port, "sys1 mode=ro user=anna addr=192.0.2.9\r\n");
  AwaitThreads();
  EXPECT_EQ(test::ReceiveAvailable(client.get()), kOffers);
  ASSERT_EQ(user_list->count, 1);
  const UserNode* user = user_list->head->unode;
  EXPECT_STREQ(user->user_name, "anna");
  EXPECT_STREQ(user->ipaddr, "192.0.2.9");
  EXPECT_EQ(user->mode, 1);
  EXPECT_EQ(user->cnode, console_.node);
  EXPECT_TRUE(IsUserInUserList(user, console_.node->user_list));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
  constexpr char kServe[] = "ServiceConnectionRequestThreadStart: ";
  EXPECT_THAT(
      debug.Messages(),
      ElementsAre(
          "AcceptConnectionRequests: Connection request from IP address \"127.0.0.1\".\n",
          kServe +
              ("Servicing request coming from \"127.0.0.1\" on port " + Number(user_port) + "\n"),
          std::string(kServe) + "Received arguments: sys1 mode=ro user=anna addr=192.0.2.9\r\n\n",
          "ConnectUserToConsole: Connected user \"anna\" to console \"sys1\" with mode = "
          "read-only.\n",
          std::string(kServe) + "Exiting thread.\n"));
  for (const test::DebugLine& line : debug.Lines()) {
    const bool by_listener = line.text.rfind("AcceptConnectionRequests", 0) == 0;
    EXPECT_EQ(line.thread == "serv_conn", !by_listener) << line.text;
  }
}

TEST_F(ServiceTest, UserIsShownUnderThePeersAddressByDefault) {
  const Descriptor client = CallAndSay(user_port, "sys1\n");
  AwaitThreads();
  ASSERT_EQ(user_list->count, 1);
  EXPECT_STREQ(user_list->head->unode->ipaddr, "127.0.0.1");
  EXPECT_STREQ(user_list->head->unode->user_name, "<unknown>");
  EXPECT_EQ(user_list->head->unode->mode, 2);
}

TEST_F(ServiceTest, UsersSocketNeitherDelaysKeysNorBlocksForever) {
  const Descriptor client = CallAndSay(user_port, "sys1\n");
  AwaitThreads();
  ASSERT_EQ(user_list->count, 1);
  const int sock = user_list->head->unode->sock;
  EXPECT_EQ(Option<int>(sock, IPPROTO_TCP, TCP_NODELAY), 1);
  const auto limit = Option<timeval>(sock, SOL_SOCKET, SO_SNDTIMEO);
  EXPECT_TRUE(limit.tv_sec > 0 || limit.tv_usec > 0);
  EXPECT_EQ(fcntl(sock, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(ServiceTest, LineThatCannotBeParsedIsRefused) {
  const ServiceCapture debug;
  ExpectRefused(" \r\n", "009 - Insufficient data.\r\n");
  ExpectRefused("sys1 mode=EX\n", "002 - Invalid argument.\r\n");
  EXPECT_EQ(debug.Count("ServiceConnectionRequestThreadStart: Closing connection with "
                        "127.0.0.1.\n"),
            2);
}

TEST_F(ServiceTest, UnavailableConsoleIsRefused) {
  test::AddConsole(i_cons_list, "away");
  const ServiceCapture debug;
  ExpectRefused("unknown\n", "004 - Console not found.\r\n");
  ExpectRefused("away\n", "005 - Console is not accessible.\r\n");
  EXPECT_EQ(debug.Count("ServiceConnectionRequestThreadStart: Closing connection.\n"), 2);
}

TEST_F(ServiceTest, ReservedNameAsksForTheCommandPort) {
  const Descriptor client = CallAndSay(user_port, "@@@@ user=anna addr=192.0.2.9\n");
  AwaitThreads();
  EXPECT_EQ(test::ReceiveAvailable(client.get()), "");
  EXPECT_EQ(user_list->head, nullptr);
  ASSERT_EQ(cmd_list->count, 1);
  const CommandNode* command = cmd_list->head->tool;
  const Descriptor sock(command->sock);
  EXPECT_TRUE(test::IsOpen(sock.get()));
  EXPECT_STREQ(command->user_name, "anna");
  EXPECT_STREQ(command->ipaddr, "192.0.2.9");
}

TEST_F(ServiceTest, ClientThatLeavesIsToldNothing) {
  const ServiceCapture debug;
  Descriptor client = Call(user_port);
  shutdown(client.get(), SHUT_WR);
  EXPECT_EQ(ReceiveAll(client), "");
  AwaitThreads();
  EXPECT_TRUE(
      debug.Has("ServiceConnectionRequestThreadStart: Closing connection with "
                "127.0.0.1.\n"));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
}

// ---- Clients of a mapped port -------------------------------------------------------------------

TEST_F(ServiceTest, MappedPortAttachesInSharedModeAndSaysSoAfterTheReplay) {
  cons_buf_size = 16;
  Attached<ConsoleNode> ringed = test::ConnectConsole("sys3");
  mapped_.node->mapped_port = 0;
  ringed.node->mapped_port = mapped_port();
  strcpy(ringed.node->cons_buf.buf, "login: ");
  ringed.node->cons_buf.tail = 7;
  const Descriptor client = CallAndSay(mapped_port(), "sys1 mode=ex user=anna\n");
  AwaitThreads();
  EXPECT_EQ(test::ReceiveAvailable(client.get()),
            std::string(kOffers) + "login: Connected to console \"sys3\" in shared mode.\r\n\n");
  ASSERT_EQ(user_list->count, 1);
  EXPECT_EQ(user_list->head->unode->cnode, ringed.node);
  EXPECT_EQ(user_list->head->unode->mode, 2);
  EXPECT_STREQ(user_list->head->unode->user_name, "<unknown>");
}

TEST_F(ServiceTest, MappedPortReadsNothingWhenSecurityIsOn) {
  security_enabled = 1;
  const ServiceCapture debug;
  const Descriptor client = Call(mapped_port());
  AwaitThreads();
  EXPECT_EQ(test::ReceiveAvailable(client.get()),
            std::string(kOffers) + "Connected to console \"sys2\" in shared mode.\r\n\n");
  ASSERT_EQ(user_list->count, 1);
  EXPECT_STREQ(user_list->head->unode->user_name, "<unknown>");
  EXPECT_EQ(debug.Count("ServiceConnectionRequestThreadStart: Performing security check.\n"), 1);
}

TEST_F(ServiceTest, NobodyGetsInWithoutTheRequiredLogin) {
  security_enabled = 1;
  mapped_.node->auth = 1;
  for (const uint16_t port : {user_port, mapped_port()}) {
    SCOPED_TRACE(port);
    const Descriptor client = CallAndSay(port, "sys1\r\n");
    shutdown(client.get(), SHUT_WR);
    ReceiveAll(client);
    AwaitThreads();
    EXPECT_EQ(user_list->head, nullptr);
    EXPECT_EQ(GetPendingLogins(mapped_port_list, port), 0);
  }
}

class MappedPortRefusalTest : public ServiceTest {
 protected:
  MappedPortRefusalTest() { security_enabled = 1; }

  void ExpectRefusedAtOnce(const std::string& text, const std::string& message) {
    const ServiceCapture debug;
    const Descriptor client = Call(mapped_port());
    EXPECT_EQ(ReceiveAll(client), text);
    AwaitThreads();
    EXPECT_EQ(debug.Count("ServiceConnectionRequestThreadStart: " + message + "\n"), 1);
    EXPECT_EQ(GetPendingLogins(mapped_port_list, mapped_port()), 0);
  }
};

TEST_F(MappedPortRefusalTest, PortOfNoConsole) {
  mapped_.node->mapped_port = 0;
  ExpectRefusedAtOnce("015 - Port number not mapped to a console.\r\n",
                      "Port " + Number(mapped_port()) + " doesn't map to console.");
}

TEST_F(MappedPortRefusalTest, ConsoleThatIsNotConnected) {
  mapped_.node->status = kNotConnected;
  ExpectRefusedAtOnce("005 - Console is not accessible.\r\n", "Console \"sys2\" is inaccessible.");
}

TEST_F(MappedPortRefusalTest, ConsoleThatIsLocked) {
  mapped_.node->auth = 1;  // refused before any login
  const Attached<UserNode> holder = test::AttachUser(mapped_.node, "holder", kExclusive);
  ExpectRefusedAtOnce("006 - Console is locked exclusively.\r\n",
                      "Console \"sys2\" is locked exclusively.");
}

TEST_F(MappedPortRefusalTest, OnlyTheFirstUserIsLookedAt) {
  const Attached<UserNode> first = test::AttachUser(mapped_.node, "first", kReadOnly);
  const Attached<UserNode> holder = test::AttachUser(mapped_.node, "holder", kExclusive);
  const Descriptor client = Call(mapped_port());
  AwaitThreads();
  EXPECT_EQ(user_list->count, 3);
}

// ---- The life of a thread -----------------------------------------------------------------------

TEST_F(ServiceTest, NoServiceThread) {
  const Descriptor client = ConnectTo(user_port);
  const ServiceCapture debug;
  const FailCall failure(test::Call::kPthreadCreate, EAGAIN);
  Accept(user_port);
  EXPECT_EQ(ReceiveAll(client), "013 - Out of memory.\r\n");
  EXPECT_TRUE(
      debug.Has("AcceptConnectionRequests: pthread_create() failed : Resource temporarily "
                "unavailable\n"));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
}

TEST_F(ServiceTest, DroppingAPortCancelsItsPendingLogins) {
  const Descriptor attached = CallAndSay(mapped_port(), "\n");
  AwaitThreads();
  ASSERT_EQ(user_list->count, 1);
  const ServiceCapture debug(kTrace);
  const auto call_and_wait = [&](int waiting) {
    Descriptor client = Call(mapped_port());
    EXPECT_TRUE(
        test::Eventually([&] { return debug.Count("Entering ReadLineWithTimeout\n") == waiting; }));
    return client;
  };
  const Descriptor first = call_and_wait(1);
  const Descriptor second = call_and_wait(2);
  {
    const WriteLock lock(acl_lock, HERE);
    mapped_.node->mapped_port = 0;
  }
  CleanUpStalePorts();
  EXPECT_EQ(FindPort(mapped_port()), nullptr);
  EXPECT_EQ(test::Receive(second.get(), 1000), "");
  EXPECT_EQ(test::Receive(first.get(), 1000), "");
  EXPECT_TRUE(test::IsOpen(user_list->head->unode->sock));
  EXPECT_TRUE(IsUserInUserList(user_list->head->unode, mapped_.node->user_list));
  EXPECT_EQ(user_list->head->unode->connected, 1);
  ClearThreadNames();  // threads that are cancelled keep their slots
}

TEST_F(ServiceTest, CleanUpClosesTheSocketUnlessItIsHandedOver) {
  SocketPair pair;
  int sock = pair.ours.Release();
  ServiceConnectionRequestThreadCleanUp(&sock);
  EXPECT_EQ(test::Receive(pair.theirs.get(), 1), "");
  int handed_over = -1;
  const int next = NextDescriptor();
  ServiceConnectionRequestThreadCleanUp(&handed_over);
  EXPECT_EQ(NextDescriptor(), next);
}

}  // namespace
