// Users: what they are told, their records and lists, the listening ports and the service threads.
#include "user_conn.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "answer.h"
#include "attach.h"
#include "cmd_mon.h"
#include "command.h"
#include "control.h"
#include "error.h"
#include "lists.h"
#include "mapped_port.h"
#include "options.h"
#include "query.h"
#include "serv_conn.h"
#include "sockets.h"
#include "support.h"
#include "threads.h"
#include "user.h"
#include "zev.h"

namespace {

using test::AnnouncesDaemonError;
using test::Attached;
using test::DebugCapture;
using test::DebugTextsAre;
using test::Descriptor;
using test::FailAllocation;
using test::FailCall;
using test::IsExitTrace;
using test::SocketPair;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::EndsWith;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;

constexpr char kOutOfMemoryText[] = "013 - Out of memory.\r\n";
constexpr char kOffers[] = "\xFF\xFB\x01\xFF\xFB\x03";  // IAC WILL ECHO, IAC WILL SUPPRESS-GO-AHEAD

template <typename T>
T Option(int sock, int level, int name) {
  T value{};
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(sock, level, name, &value, &length), 0);
  return value;
}

// ---- What users are told --------------------------------------------------------------------

class UserTextTest : public test::RelayTest {};

TEST_F(UserTextTest, EveryErrorHasItsText) {
  constexpr std::array<const char*, 16> kTexts = {
      "001 - Authentication failed.\r\n",
      "002 - Invalid argument.\r\n",
      "003 - Timed out.\r\n",
      "004 - Console not found.\r\n",
      "005 - Console is not accessible.\r\n",
      "006 - Console is locked exclusively.\r\n",
      "007 - Cannot grant exclusive access. Console in use.\r\n",
      "008 - Read error.\r\n",
      "009 - Insufficient data.\r\n",
      "010 - Connection failed.\r\n",
      "011 - Console has been deleted.\r\n",
      "012 - Console is disabled.\r\n",
      "013 - Out of memory.\r\n",
      "014 - Not an authorized user.\r\n",
      "015 - Port number not mapped to a console.\r\n",
      "016 - Too many pending client connections.\r\n",
  };
  static_assert(kUserErrorCount == kTexts.size());
  for (size_t i = 0; i < kTexts.size(); ++i) {
    const auto error = static_cast<UserError>(i + 1);
    EXPECT_STREQ(UserErrorText(error), kTexts[i]);
    SetUserError(error);
    EXPECT_STREQ(u_err_msg, kTexts[i]);
  }
}

TEST_F(UserTextTest, ErrorNamesStandForTheirNumbers) {
  EXPECT_THAT(
      (std::array<int, 16>{kAuthenticationFailed, kInvalidArgument, kTimedOut, kConsoleNotFound,
                           kConsoleNotAccessible, kConsoleLocked, kCannotGrantExclusive, kReadError,
                           kInsufficientData, kConnectionFailed, kConsoleDeleted, kConsoleDisabled,
                           kOutOfMemory, kNotAuthorized, kPortNotMapped, kTooManyPending}),
      ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16));
}

TEST_F(UserTextTest, EveryThreadHasItsOwnError) {
  SetUserError(kTimedOut);
  const char* seen = "unset";
  std::thread([&] {
    seen = u_err_msg;
    SetUserError(kReadError);
  }).join();
  EXPECT_EQ(seen, nullptr);
  EXPECT_STREQ(u_err_msg, "003 - Timed out.\r\n");
}

TEST_F(UserTextTest, ModeNames) {
  EXPECT_STREQ(ModeNumToName(1), "read-only");
  EXPECT_STREQ(ModeNumToName(2), "shared");
  EXPECT_STREQ(ModeNumToName(3), "exclusive");
  for (const int mode : {-1, 0, 4, 5, 65535}) {
    SCOPED_TRACE(mode);
    EXPECT_STREQ(ModeNumToName(mode), "??");
  }
}

TEST_F(UserTextTest, ErrorIsSentWholeAndReported) {
  const DebugCapture debug;
  const SocketPair pair;
  SendErrorToUser(pair.ours.get(), UserErrorText(kTimedOut));
  EXPECT_EQ(test::ReceiveAvailable(pair.theirs.get()), "003 - Timed out.\r\n");
  EXPECT_THAT(debug.Messages(), ElementsAre("SendErrorToUser: 003 - Timed out.\r\n"));
}

TEST_F(UserTextTest, NoErrorSendsNothing) {
  const DebugCapture debug(kTrace);
  const SocketPair pair;
  SendErrorToUser(pair.ours.get(), nullptr);
  EXPECT_EQ(test::ReceiveAvailable(pair.theirs.get()), "");
  EXPECT_THAT(debug.Messages(), ElementsAre("Entering SendErrorToUser\n"));
}

TEST_F(UserTextTest, ErrorToUserWhoIsGoneIsOfNoConsequence) {
  SocketPair pair;
  pair.theirs.Reset();
  SendErrorToUser(pair.ours.get(), UserErrorText(kTimedOut));
  EXPECT_TRUE(test::IsOpen(pair.ours.get()));
}

TEST_F(UserTextTest, TelnetOptionsAreTwoOffersInSendsOfTheirOwn) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  const Descriptor ours(ends[0]);
  const Descriptor theirs(ends[1]);
  SetTelnetOptions(ours.get());
  EXPECT_EQ(test::Receive(theirs.get(), 3), "\xFF\xFB\x01");
  EXPECT_EQ(test::Receive(theirs.get(), 3), "\xFF\xFB\x03");
  EXPECT_EQ(test::ReceiveAvailable(theirs.get()), "");
}

// ---- Records and lists -----------------------------------------------------------------------

class UserRecordTest : public test::RelayTest {
 protected:
  UserNode* NewUser(const char* name, int sock) {
    users_.emplace_back(NewUserNode(sock, console_.get(), name, "192.0.2.1", kShared));
    return users_.back().get();
  }

  test::ConsolePtr console_ = test::MakeConsole("sys1");
  std::vector<std::unique_ptr<UserNode>> users_;
};

TEST_F(UserRecordTest, NewUserIsConnectedAndCounted) {
  const std::unique_ptr<UserNode> user(
      NewUserNode(7, console_.get(), "anna", "192.0.2.1", kExclusive));
  EXPECT_EQ(user->sock, 7);
  EXPECT_EQ(user->connected, 1);
  EXPECT_EQ(user->mode, 3);
  EXPECT_STREQ(user->user_name, "anna");
  EXPECT_STREQ(user->ipaddr, "192.0.2.1");
  EXPECT_EQ(user->cnode, console_.get());
  EXPECT_EQ(console_->ref_count, 1);
  const std::unique_ptr<UserNode> second(
      NewUserNode(8, console_.get(), "bert", "192.0.2.2", kReadOnly));
  EXPECT_EQ(console_->ref_count, 2);
}

TEST_F(UserRecordTest, LongTextsAreCut) {
  const std::unique_ptr<UserNode> user(NewUserNode(7, console_.get(), std::string(40, 'u').c_str(),
                                                   std::string(70, 'a').c_str(), kShared));
  EXPECT_EQ(user->user_name, std::string(32, 'u'));
  EXPECT_EQ(user->ipaddr, std::string(64, 'a'));
}

TEST_F(UserRecordTest, NewUserWithoutMemory) {
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  EXPECT_EQ(NewUserNode(7, console_.get(), "anna", "192.0.2.1", kShared), nullptr);
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_EQ(console_->ref_count, 0);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("NewUserNode: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory")));
}

TEST_F(UserRecordTest, NewElementHasNoLinks) {
  UserNode* user = NewUser("anna", 7);
  const std::unique_ptr<UserListElem> elem(NewUserListElem(user));
  EXPECT_EQ(elem->unode, user);
  EXPECT_EQ(elem->prev, nullptr);
  EXPECT_EQ(elem->next, nullptr);
}

TEST_F(UserRecordTest, NewElementWithoutMemory) {
  UserNode* user = NewUser("anna", 7);
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  EXPECT_EQ(NewUserListElem(user), nullptr);
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("NewUserListElem: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory")));
}

TEST_F(UserRecordTest, NewListIsEmptyAndOwnsItsName) {
  char name[] = "list";
  UserList* list = NewUserList(name);
  name[0] = 'x';
  EXPECT_STREQ(list->list_name, "list");
  EXPECT_EQ(list->head, nullptr);
  EXPECT_EQ(list->tail, nullptr);
  EXPECT_EQ(list->count, 0);
  EXPECT_EQ(list->high_sock, -1);
  FreeUserList(list);
}

TEST_F(UserRecordTest, NewListWithoutMemory) {
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  EXPECT_EQ(NewUserList("list"), nullptr);
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("NewUserList: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory")));
}

TEST_F(UserRecordTest, NewListWithoutMemoryForItsName) {
  const DebugCapture debug(kDetail);
  const FailAllocation failure(2);
  EXPECT_EQ(NewUserList("list"), nullptr);
  EXPECT_THAT(debug.Messages(),
              ElementsAre(EndsWith(": malloc() failed : Cannot allocate memory\n"),
                          AnnouncesDaemonError("Out of memory")));
}

TEST_F(UserRecordTest, FreeingAListLeavesItsElementsAndUsers) {
  UserNode* user = NewUser("anna", 7);
  UserList* list = NewUserList("list");
  ASSERT_EQ(AddUserToList(user, list), 0);
  const std::unique_ptr<UserListElem> elem(list->head);
  FreeUserList(list);
  EXPECT_EQ(elem->unode, user);
  EXPECT_STREQ(user->user_name, "anna");
}

TEST_F(UserRecordTest, EveryFunctionWritesItsEntryLine) {
  UserNode* user = NewUser("anna", 7);
  const DebugCapture debug(kTrace);
  UserList* list = NewUserList("list");
  AddUserToList(user, list);
  IsUserInUserList(user, list);
  RemoveUserFromList(user, list);
  FreeUserList(list);
  for (const std::string function :
       {"NewUserList", "InitUserList", "AddUserToList", "NewUserListElem", "SetFdSet",
        "GetHighestSocketNumber", "IsUserInUserList", "RemoveUserFromList", "FreeUserList"}) {
    EXPECT_TRUE(debug.Has("Entering " + function + "\n")) << function;
  }
}

class UserListTest : public UserRecordTest {
 protected:
  UserListTest() { InitUserList(&list_, "test list"); }
  ~UserListTest() override {
    DropElements(list_);
    free(const_cast<char*>(list_.list_name));
  }

  std::vector<UserNode*> Members() const {
    std::vector<UserNode*> members;
    for (UserNode* user : Nodes(list_)) members.push_back(user);
    return members;
  }

  /// Count, set and highest socket are those of exactly these sockets.
  void ExpectSockets(const std::vector<int>& sockets, int highest) {
    EXPECT_EQ(list_.high_sock, highest);
    for (int sock = 0; sock < 64; ++sock) {
      const bool expected = std::count(sockets.begin(), sockets.end(), sock) > 0;
      EXPECT_EQ(list_.fdset.Contains(sock), expected) << "socket " << sock;
    }
  }

  UserList list_;
};

TEST_F(UserListTest, AddAppendsAndTraces) {
  UserNode* anna = NewUser("anna", 40);
  UserNode* bert = NewUser("bert", 30);
  ASSERT_EQ(AddUserToList(anna, &list_), 0);
  DebugCapture debug(kTrace);
  EXPECT_EQ(AddUserToList(bert, &list_), 0);
  EXPECT_THAT(test::WithoutEntries(debug.Messages()),
              ElementsAre("AddUserToList: Added user to test list for console sys1.\n",
                          "AddUserToList: Doing FD_SET( 30, ...) for user on test list.\n"));
  EXPECT_THAT(Members(), ElementsAre(anna, bert));
  EXPECT_EQ(list_.head->unode, anna);
  EXPECT_EQ(list_.tail->unode, bert);
  EXPECT_EQ(list_.tail->prev, list_.head);
  EXPECT_EQ(list_.count, 2);
}

TEST_F(UserListTest, SetAndHighestSocketFollowEveryChange) {
  UserNode* low = NewUser("low", 10);
  UserNode* high = NewUser("high", 50);
  UserNode* middle = NewUser("middle", 30);
  ExpectSockets({}, -1);
  AddUserToList(low, &list_);
  ExpectSockets({10}, 10);
  AddUserToList(high, &list_);
  ExpectSockets({10, 50}, 50);
  AddUserToList(middle, &list_);
  ExpectSockets({10, 30, 50}, 50);
  RemoveUserFromList(high, &list_);
  ExpectSockets({10, 30}, 30);
  RemoveUserFromList(low, &list_);
  ExpectSockets({30}, 30);
  RemoveUserFromList(middle, &list_);
  ExpectSockets({}, -1);
  EXPECT_EQ(list_.count, 0);
}

TEST_F(UserListTest, UserWithoutSocketIsNotInTheSet) {
  AddUserToList(NewUser("none", -1), &list_);
  ExpectSockets({}, -1);
  AddUserToList(NewUser("some", 5), &list_);
  ExpectSockets({5}, 5);
  EXPECT_EQ(list_.count, 2);
}

TEST_F(UserListTest, SetIsComputedFromScratch) {
  UserNode* anna = NewUser("anna", 40);
  AddUserToList(anna, &list_);
  anna->sock = 20;
  AddUserToList(NewUser("bert", 10), &list_);
  ExpectSockets({10, 20}, 20);
}

TEST_F(UserListTest, SameUserStandsOnTwoListsThroughTwoElements) {
  UserNode* anna = NewUser("anna", 40);
  UserList* other = NewUserList("other");
  AddUserToList(anna, &list_);
  AddUserToList(anna, other);
  EXPECT_NE(list_.head, other->head);
  RemoveUserFromList(anna, &list_);
  EXPECT_TRUE(IsUserInUserList(anna, other));
  RemoveUserFromList(anna, other);
  FreeUserList(other);
}

TEST_F(UserListTest, AddWithoutMemoryChangesNothing) {
  UserNode* user = NewUser("anna", 40);
  ASSERT_EQ(AddUserToList(NewUser("first", 41), &list_), 0);  // the set has its room now
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  EXPECT_EQ(AddUserToList(user, &list_), -1);
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("NewUserListElem: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory"),
                          "AddUserToList: NewUserListElem() returned NULL\n"));
  EXPECT_EQ(list_.count, 1);
  EXPECT_FALSE(IsUserInUserList(user, &list_));
}

TEST_F(UserListTest, AddWithoutRoomInTheSetChangesNothing) {
  UserNode* user = NewUser("anna", 40);
  const DebugCapture debug;
  {
    const FailAllocation failure(1);
    EXPECT_EQ(AddUserToList(user, &list_), -1);
    EXPECT_TRUE(failure.reached());
  }
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("AddUserToList: malloc() failed : Cannot allocate memory\n",
                          "AddUserToList: NewUserListElem() returned NULL\n"));
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.count, 0);
  EXPECT_EQ(AddUserToList(user, &list_), 0);
}

TEST_F(UserListTest, RemoveUnlinksTracesAndLeavesTheUser) {
  const std::array users = {NewUser("a", 10), NewUser("b", 20), NewUser("c", 30)};
  for (UserNode* user : users) AddUserToList(user, &list_);
  DebugCapture debug(kTrace);
  EXPECT_EQ(RemoveUserFromList(users[1], &list_), 0);
  EXPECT_THAT(test::WithoutEntries(debug.Messages()),
              ElementsAre("RemoveUserFromList: Removed user from test list for console sys1.\n"));
  EXPECT_THAT(Members(), ElementsAre(users[0], users[2]));
  EXPECT_STREQ(users[1]->user_name, "b");
  RemoveUserFromList(users[0], &list_);
  EXPECT_EQ(list_.head, list_.tail);
  EXPECT_EQ(list_.head->prev, nullptr);
  RemoveUserFromList(users[2], &list_);
  EXPECT_EQ(list_.head, nullptr);
  EXPECT_EQ(list_.tail, nullptr);
  EXPECT_EQ(list_.count, 0);
}

TEST_F(UserListTest, MembershipIsByIdentity) {
  UserNode* anna = NewUser("anna", 10);
  UserNode* twin = NewUser("anna", 10);
  AddUserToList(anna, &list_);
  EXPECT_TRUE(IsUserInUserList(anna, &list_));
  EXPECT_FALSE(IsUserInUserList(twin, &list_));
  EXPECT_FALSE(IsUserInUserList(anna, nullptr));
}

using UserListDeathTest = UserListTest;

TEST_F(UserListDeathTest, RemovingAStrangerEndsTheProcess) {
  AddUserToList(NewUser("anna", 10), &list_);
  UserNode* stranger = NewUser("bert", 20);
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        RemoveUserFromList(stranger, &list_);
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre("RemoveUserFromList: unode not found in user_list\n",
                                AnnouncesDaemonError("Terminated: Internal error"),
                                IsExitTrace(1, "user.cpp"))));
}

TEST_F(UserListDeathTest, NegativeCountEndsTheProcess) {
  UserNode* anna = NewUser("anna", 10);
  AddUserToList(anna, &list_);
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        list_.count = 0;
        RemoveUserFromList(anna, &list_);
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre("RemoveUserFromList: user_list->count = -1\n",
                                AnnouncesDaemonError("Terminated: Internal error"),
                                IsExitTrace(1, "user.cpp"))));
}

// ---- Listening ports -------------------------------------------------------------------------

/// A port that the daemon can listen on and that the system gives to nobody else meanwhile: it is
/// bound here without listening, for shared use.
class ReservedPort {
 public:
  ReservedPort() : sock_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(sock_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(bind(sock_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    socklen_t length = sizeof address;
    getsockname(sock_.get(), reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  uint16_t port() const { return port_; }

 private:
  Descriptor sock_;
  uint16_t port_ = 0;
};

sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

Descriptor ConnectTo(uint16_t port) {
  Descriptor sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(port);
  EXPECT_EQ(connect(sock.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << strerror(errno);
  return sock;
}

/// What the client is sent until the daemon closes the connection.
std::string ReceiveAll(const Descriptor& client) {
  return test::Receive(client.get(), 1 << 20);
}

/// The number that the next new descriptor gets; the same before and after when nothing leaks.
int NextDescriptor() {
  return Descriptor(dup(STDIN_FILENO)).get();
}

class PortTest : public test::RelayTest {
 protected:
  PortTest() { user_port = main_port_.port(); }
  ~PortTest() override {
    for (const MappedPortNode* mpnode : Nodes(*mapped_port_list)) close(mpnode->sock);
  }

  static std::vector<uint16_t> ListedPorts() {
    std::vector<uint16_t> ports;
    for (const MappedPortNode* mpnode : Nodes(*mapped_port_list)) ports.push_back(mpnode->port);
    return ports;
  }

  static MappedPortNode* FindPort(uint16_t port) {
    return FindNode(*mapped_port_list, [&](const auto& mpnode) { return mpnode.port == port; });
  }

  static std::string Number(uint16_t port) { return std::to_string(port); }

  ReservedPort main_port_;
};

TEST_F(PortTest, ListensOnAllInterfaces) {
  const DebugCapture debug(0);
  const Descriptor sock(ListenOnPort(main_port_.port()));
  ASSERT_NE(sock.get(), -1);
  EXPECT_THAT(debug.Messages(), ElementsAre("ListenOnPort: bind() to port " +
                                            Number(main_port_.port()) + " succeeded\n"));
  sockaddr_in address{};
  socklen_t length = sizeof address;
  getsockname(sock.get(), reinterpret_cast<sockaddr*>(&address), &length);
  EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
  EXPECT_EQ(address.sin_port, htons(main_port_.port()));
  EXPECT_EQ(Option<int>(sock.get(), SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_EQ(Option<int>(sock.get(), SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(fcntl(sock.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  // Of a listening socket this field tells the backlog.
  EXPECT_EQ(Option<tcp_info>(sock.get(), IPPROTO_TCP, TCP_INFO).tcpi_sacked, 128U);
}

TEST_F(PortTest, PortInUseIsReportedAndItsSocketClosed) {
  const test::RefusingPort taken;
  const DebugCapture debug(0);
  const int next = NextDescriptor();
  EXPECT_EQ(ListenOnPort(taken.port()), -1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ListenOnPort: bind() failed : Address already in use\n",
                          "ListenOnPort: Could not bind to port " + Number(taken.port()) + "\n"));
  EXPECT_EQ(NextDescriptor(), next);
}

TEST_F(PortTest, NoSocketIsReported) {
  const DebugCapture debug(0);
  const FailCall failure(test::Call::kSocket, EMFILE);
  EXPECT_EQ(ListenOnPort(main_port_.port()), -1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ListenOnPort: socket() failed : Too many open files\n"));
}

TEST_F(PortTest, ConfiguredPortIsListed) {
  EXPECT_EQ(ConfigurePort(main_port_.port()), 0);
  ASSERT_THAT(ListedPorts(), ElementsAre(main_port_.port()));
  const MappedPortNode* mpnode = FindPort(main_port_.port());
  EXPECT_EQ(mpnode->pending_logins, 0);
  EXPECT_TRUE(mapped_port_list->fdset.Contains(mpnode->sock));
  EXPECT_EQ(mapped_port_list->high_sock, mpnode->sock);
}

TEST_F(PortTest, PortThatCannotBeListenedOnIsNotListed) {
  const test::RefusingPort taken;
  const DebugCapture debug(0);
  EXPECT_EQ(ConfigurePort(taken.port()), -1);
  EXPECT_EQ(debug.Messages().back(),
            "ConfigurePort: Cannot listen on port " + Number(taken.port()) + ".\n");
  EXPECT_THAT(ListedPorts(), IsEmpty());
}

TEST_F(PortTest, ConfiguringWithoutMemoryForTheNode) {
  const DebugCapture debug;
  const int next = NextDescriptor();
  const FailAllocation failure(1);
  EXPECT_EQ(ConfigurePort(main_port_.port()), -1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ListenOnPort: bind() to port " + Number(user_port) + " succeeded\n",
                          "NewMappedPortNode: malloc() failed : Cannot allocate memory\n",
                          "ConfigurePort: NewMappedPortNode() failed.\n"));
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(ListedPorts(), IsEmpty());
  EXPECT_EQ(NextDescriptor(), next);
}

TEST_F(PortTest, ConfiguringWithoutMemoryForTheListLeavesNothing) {
  const DebugCapture debug;
  const int next = NextDescriptor();
  int failures = 0;
  for (bool failed = true; failed; failures += failed ? 1 : 0) {
    int result = -1;
    {
      const FailAllocation failure(3 + failures);  // behind the record and its thread ids
      result = ConfigurePort(main_port_.port());
      failed = failure.reached();
    }
    EXPECT_EQ(result, 0);
    EXPECT_EQ(mapped_port_list->count, failed ? 0 : 1);
    if (failed) {
      EXPECT_EQ(NextDescriptor(), next);
    }
  }
  EXPECT_GE(failures, 1);
  EXPECT_EQ(debug.Count("AddMappedPortToList: NewMappedPortListElem() returned NULL\n"), failures);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port()));
}

TEST_F(PortTest, PortsOfBothConsoleListsAreOpenedBehindTheMainPort) {
  const ReservedPort first;
  const ReservedPort second;
  test::AddConsole(a_cons_list, "connected")->mapped_port = second.port();
  test::AddConsole(i_cons_list, "unmapped");
  test::AddConsole(i_cons_list, "absent")->mapped_port = first.port();
  const DebugCapture debug(0);
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port(), first.port(), second.port()));
  EXPECT_THAT(
      debug.Messages(),
      ElementsAre("ListenOnPort: bind() to port " + Number(user_port) + " succeeded\n",
                  "ListenOnPort: bind() to port " + Number(first.port()) + " succeeded\n",
                  "ListenOnPort: bind() to port " + Number(second.port()) + " succeeded\n"));
}

TEST_F(PortTest, PortsThatAreOpenAreNotOpenedAgain) {
  const ReservedPort mapped;
  test::AddConsole(i_cons_list, "one")->mapped_port = mapped.port();
  test::AddConsole(a_cons_list, "other")->mapped_port = mapped.port();
  GetPortsToListenOn();
  const int sock = FindPort(mapped.port())->sock;
  const DebugCapture debug(0);
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port(), mapped.port()));
  EXPECT_EQ(FindPort(mapped.port())->sock, sock);
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

TEST_F(PortTest, MainPortThatCannotBeOpenedIsTriedAgain) {
  auto taken = std::make_unique<test::RefusingPort>();
  const ReservedPort mapped;
  user_port = taken->port();
  test::AddConsole(i_cons_list, "sys1")->mapped_port = mapped.port();
  {
    const DebugCapture debug;
    EXPECT_EQ(GetPortsToListenOn(), 0);
    EXPECT_TRUE(
        debug.Has("GetPortsToListenOn: Cannot configure main port " + Number(user_port) + ".\n"));
    EXPECT_TRUE(debug.Has("GetPortsToListenOn: Nobody can connect through port " +
                          Number(user_port) +
                          ". Another program may be listening there; the port is tried again at "
                          "each reload.\n"));
    EXPECT_THAT(ListedPorts(), ElementsAre(mapped.port()));
  }
  taken.reset();
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_THAT(ListedPorts(), ElementsAre(mapped.port(), user_port));
}

TEST_F(PortTest, MappedPortThatCannotBeOpenedDoesNotStopTheOthers) {
  const test::RefusingPort taken;
  const ReservedPort free;
  test::AddConsole(i_cons_list, "unlucky")->mapped_port = taken.port();
  test::AddConsole(i_cons_list, "lucky")->mapped_port = free.port();
  const DebugCapture debug;
  EXPECT_EQ(GetPortsToListenOn(), 0);
  EXPECT_EQ(debug.Count("GetPortsToListenOn: Cannot configure port for unlucky.\n"), 1);
  EXPECT_THAT(ListedPorts(), ElementsAre(main_port_.port(), free.port()));
}

TEST_F(PortTest, ConsoleListsAreReadUnderBothLocks) {
  const DebugCapture debug(kTrace);
  GetPortsToListenOn();
  const auto with_address = [](const char* text, RwLock& lock) {
    char line[128];
    snprintf(line, sizeof line, "GetPortsToListenOn: %s write lock %lx", text,
             reinterpret_cast<unsigned long>(&lock));
    return std::string(line);
  };
  const auto release = [](RwLock& lock) {
    char line[128];
    snprintf(line, sizeof line, "GetPortsToListenOn: Releasing lock %lx\n",
             reinterpret_cast<unsigned long>(&lock));
    return std::string(line);
  };
  using ::testing::StartsWith;
  EXPECT_THAT(
      test::Containing(debug.Messages(), " lock "),
      ElementsAre(StartsWith(with_address("Requesting", acl_lock)),
                  with_address("Aquired", acl_lock) + "\n",
                  StartsWith(with_address("Requesting", icl_lock)),
                  with_address("Aquired", icl_lock) + "\n", release(acl_lock), release(icl_lock)));
}

TEST_F(PortTest, PortsOfNoConsoleAreDropped) {
  const ReservedPort kept;
  const ReservedPort first;
  const ReservedPort second;
  test::AddConsole(a_cons_list, "sys1")->mapped_port = kept.port();
  for (const uint16_t port : {user_port, first.port(), second.port(), kept.port()}) {
    ASSERT_EQ(ConfigurePort(port), 0);
  }
  const int socks[] = {FindPort(first.port())->sock, FindPort(second.port())->sock};
  const DebugCapture debug;
  CleanUpStalePorts();
  EXPECT_THAT(ListedPorts(), ElementsAre(user_port, kept.port()));
  for (const int sock : socks) EXPECT_FALSE(test::IsOpen(sock));
  std::vector<std::string> expected;
  for (const uint16_t port : {first.port(), second.port()}) {
    const std::string number = Number(port);
    expected.push_back("CleanUpStalePorts: Port " + number + " is no longer mapped to console\n");
    expected.push_back("CleanUpStalePorts: Closing connection for mapped port " + number + "\n");
  }
  EXPECT_THAT(debug.Messages(), ElementsAreArray(expected));
}

TEST_F(PortTest, SetUpDropsStalePortsBeforeItOpensNewOnes) {
  const ReservedPort mapped;
  ConsoleNode* cnode = test::AddConsole(i_cons_list, "sys1");
  cnode->mapped_port = mapped.port();
  SetupMappedPorts();
  EXPECT_THAT(ListedPorts(), ElementsAre(user_port, mapped.port()));
  const ReservedPort moved;
  cnode->mapped_port = moved.port();
  const DebugCapture debug;
  SetupMappedPorts();
  EXPECT_THAT(ListedPorts(), ElementsAre(user_port, moved.port()));
  EXPECT_EQ(debug.Messages().front(), "CleanUpStalePorts: Port " + Number(mapped.port()) +
                                          " is no longer mapped to console\n");
}

// ---- Waiting for connection requests
// -------------------------------------------------------------

/// Whatever the list's sockets have to report, at once.
int CheckPorts(DescriptorSet* fdset) {
  EXPECT_TRUE(fdset->CopyFrom(mapped_port_list->fdset));
  return CheckForConnectionRequests(mapped_port_list->high_sock, fdset);
}

TEST_F(PortTest, RequestIsSeenOnItsPortAlone) {
  const ReservedPort other;
  ASSERT_EQ(ConfigurePort(user_port), 0);
  ASSERT_EQ(ConfigurePort(other.port()), 0);
  const Descriptor client = ConnectTo(other.port());
  ASSERT_TRUE(test::WaitReadable(FindPort(other.port())->sock));
  DescriptorSet fdset;
  EXPECT_EQ(CheckPorts(&fdset), 1);
  EXPECT_FALSE(fdset.Contains(FindPort(user_port)->sock));
  EXPECT_TRUE(fdset.Contains(FindPort(other.port())->sock));
}

// The time-out is the process's own, so it is looked at in a process that has not used it yet.
void ExpectOneWaitOnly() {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  const std::string high_sock = std::to_string(mapped_port_list->high_sock);
  DescriptorSet fdset;
  DebugCapture debug(kTrace);
  const auto timed = [&] {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CheckPorts(&fdset), 0);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  const auto call = [&](const char* timeout) {
    return "CheckForConnectionRequests: Calling select( " + high_sock + " + 1, fdset, 0, 0, (" +
           timeout + "))\n";
  };
  EXPECT_GE(timed(), 1.9);
  EXPECT_THAT(test::WithoutEntries(debug.NewMessages()), ElementsAre(call("2,0")));
  EXPECT_LT(timed(), 1.0);
  EXPECT_THAT(test::WithoutEntries(debug.NewMessages()), ElementsAre(call("0,0")));
}

using PortDeathTest = PortTest;

TEST_F(PortDeathTest, OnceAWaitHasRunOutLaterOnesOnlyLook) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_HOLDS_IN_CHILD(ExpectOneWaitOnly());
}

TEST_F(PortDeathTest, FailingSelectEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(test::Call::kSelect, EBADF);
        DescriptorSet fdset;
        CheckForConnectionRequests(-1, &fdset);
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre(
          "CheckForConnectionRequests: select() failed : Bad file descriptor\n",
          AnnouncesDaemonError("Terminated............."), IsExitTrace(1, "user_conn.cpp"))));
}

TEST_F(PortDeathTest, FailingAcceptEndsTheProcess) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(test::Call::kAccept, EMFILE);
        AcceptConnectionRequests(&mapped_port_list->fdset);
      },
      ExitedWithCode(1),
      DebugTextsAre(ElementsAre("AcceptConnectionRequests: accept() failed : Too many open files\n",
                                AnnouncesDaemonError("Terminated............."),
                                IsExitTrace(1, "user_conn.cpp"))));
}

// With an error that is our own, or with EMFILE although there is a descriptor, it cannot go on.
TEST_F(PortDeathTest, AcceptThatCannotSucceedEndsTheProcess) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  for (const int error : {EBADF, EINVAL, ENOTSOCK}) {
    SCOPED_TRACE(error);
    EXPECT_EXIT(
        {
          test::SendDebugToStderr(kError);
          const FailCall failure(test::Call::kAccept, error);
          AcceptConnectionRequests(&mapped_port_list->fdset);
        },
        ExitedWithCode(1), testing::HasSubstr("AcceptConnectionRequests: accept() failed : "));
  }
}

TEST_F(PortTest, CallerWhoHasGoneKeepsNobodyWaiting) {
  ASSERT_EQ(ConfigurePort(user_port), 0);
  const DebugCapture debug;
  AcceptConnectionRequests(&mapped_port_list->fdset);  // nobody has called
  EXPECT_THAT(debug.Messages(), IsEmpty());
}

// ---- Accepting and serving
// ------------------------------------------------------------------------

int ThreadsInUse() {
  int count = 0;
  for (const ThreadName& slot : thread_name_list.slot) count += slot.in_use != 0 ? 1 : 0;
  return count;
}

/// All service threads have ended.
void AwaitThreads() {
  EXPECT_TRUE(test::Eventually([] { return ThreadsInUse() == 0; }));
}

/// Captures what service threads write too, so it waits for their end.
class ServiceCapture : public DebugCapture {
 public:
  using DebugCapture::DebugCapture;
  ~ServiceCapture() { AwaitThreads(); }
};

/// A main port and a mapped port that listen, and a console of each.
class ServiceTest : public PortTest {
 protected:
  ServiceTest() {
    security_enabled = 0;
    ClearThreadNames();
    mapped_.node->mapped_port = mapped_port_.port();
    EXPECT_EQ(ConfigurePort(user_port), 0);
    EXPECT_EQ(ConfigurePort(mapped_port_.port()), 0);
  }

  ~ServiceTest() override { AwaitThreads(); }

  uint16_t mapped_port() const { return mapped_port_.port(); }

  /// One pass of the listening thread, with a request pending on `port`.
  static void Accept(uint16_t port) {
    ASSERT_TRUE(test::WaitReadable(FindPort(port)->sock));
    DescriptorSet fdset;
    ASSERT_EQ(CheckPorts(&fdset), 1);
    AcceptConnectionRequests(&fdset);
  }

  static Descriptor Call(uint16_t port) {
    Descriptor client = ConnectTo(port);
    Accept(port);
    return client;
  }

  static Descriptor CallAndSay(uint16_t port, std::string_view line) {
    Descriptor client = ConnectTo(port);
    test::SendText(client.get(), line);
    Accept(port);
    return client;
  }

  /// Calls the main port, says `line` and expects the answer to be `text` and the end.
  void ExpectRefused(const std::string& line, const std::string& text) {
    SCOPED_TRACE(line);
    const Descriptor client = CallAndSay(user_port, line);
    EXPECT_EQ(ReceiveAll(client), text);
    AwaitThreads();
    EXPECT_EQ(user_list->head, nullptr);
    EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
  }

  ReservedPort mapped_port_;
  Attached<ConsoleNode> console_ = test::ConnectConsole("sys1");
  Attached<ConsoleNode> mapped_ = test::ConnectConsole("sys2");
};

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

/// Errors that accept() passes on and that cost no more than this one try.
class PassingErrorTest : public ServiceTest, public ::testing::WithParamInterface<int> {};

TEST_P(PassingErrorTest, CallerIsServedInTheNextPass) {
  const Descriptor client = ConnectTo(user_port);
  test::SendText(client.get(), "sys1\n");
  {
    const FailCall failure(test::Call::kAccept, GetParam(), 1, 1);
    Accept(user_port);
    EXPECT_EQ(failure.calls(), 1);
  }
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
  Accept(user_port);
  AwaitThreads();
  EXPECT_EQ(test::ReceiveAvailable(client.get()), kOffers);
}

INSTANTIATE_TEST_SUITE_P(Errors, PassingErrorTest,
                         ::testing::Values(EAGAIN, EINTR, ECONNABORTED, ECONNRESET, EPROTO, EPERM,
                                           ENOPROTOOPT, EOPNOTSUPP, ENETDOWN, ENETUNREACH,
                                           EHOSTDOWN, EHOSTUNREACH, ENONET, ETIMEDOUT, ENOMEM,
                                           ENOBUFS),
                         [](const auto& test_case) {
                           return std::string(strerrorname_np(test_case.param));
                         });

TEST_F(ServiceTest, WithoutADescriptorTheCallerIsTakenWithTheReserveAndRefused) {
  for (const int error : {EMFILE, ENFILE}) {
    SCOPED_TRACE(error);
    const Descriptor client = ConnectTo(user_port);
    const FailCall failure(test::Call::kAccept, error, 1, 1);
    Accept(user_port);
    EXPECT_EQ(failure.calls(), 2);
    EXPECT_EQ(ReceiveAll(client), kOutOfMemoryText);
  }
  const Descriptor next = CallAndSay(user_port, "sys1\n");
  EXPECT_EQ(test::Receive(next.get(), strlen(kOffers)), kOffers);
}

TEST_F(ServiceTest, AnotherThreadThatIsQuickerTwiceMakesNoDifference) {
  const Descriptor client = ConnectTo(user_port);
  const FailCall failure(test::Call::kAccept, EMFILE, 1, 3);
  Accept(user_port);
  EXPECT_EQ(failure.calls(), 4);
  EXPECT_EQ(ReceiveAll(client), kOutOfMemoryText);
}

TEST_F(ServiceTest, ListeningSocketDoesNotBlockAndAUsersDoes) {
  EXPECT_NE(fcntl(FindPort(user_port)->sock, F_GETFL) & O_NONBLOCK, 0);
  const Descriptor client = CallAndSay(user_port, "sys1\n");
  AwaitThreads();
  ASSERT_EQ(user_list->count, 1);
  EXPECT_EQ(fcntl(user_list->head->unode->sock, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(ServiceTest, UserIsShownUnderThePeersAddressByDefault) {
  const Descriptor client = CallAndSay(user_port, "sys1\n");
  AwaitThreads();
  ASSERT_EQ(user_list->count, 1);
  EXPECT_STREQ(user_list->head->unode->ipaddr, "127.0.0.1");
  EXPECT_STREQ(user_list->head->unode->user_name, "<unknown>");
  EXPECT_EQ(user_list->head->unode->mode, 2);
}

TEST_F(ServiceTest, UsersSocketNeitherDelaysKeysNorWaitsForEver) {
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

TEST_F(ServiceTest, ConsoleThatCannotBeHadIsRefused) {
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

TEST_F(ServiceTest, MappedPortAttachesInSharedModeAndSaysSoBehindTheReplay) {
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

TEST_F(ServiceTest, NobodyGetsInWithoutTheLoginThatIsAskedFor) {
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

TEST_F(ServiceTest, SixthPendingConnectionOfAMappedPortIsRefused) {
  const ServiceCapture debug;
  std::vector<Descriptor> pending;
  for (int i = 0; i < 5; ++i) pending.push_back(Call(mapped_port()));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, mapped_port()), 5);
  EXPECT_EQ(debug.Count("IncrementPendingLogins: Too many pending logins (4)\n"), 1);
  const Descriptor sixth = Call(mapped_port());
  EXPECT_EQ(ReceiveAll(sixth), "016 - Too many pending client connections.\r\n");
  EXPECT_EQ(debug.Count("AcceptConnectionRequests: Reached max_pending_logins (5)\n"), 1);
  EXPECT_EQ(GetPendingLogins(mapped_port_list, mapped_port()), 5);
  pending.front().Reset();
  EXPECT_TRUE(
      test::Eventually([&] { return GetPendingLogins(mapped_port_list, mapped_port()) == 4; }));
  const Descriptor seventh = CallAndSay(mapped_port(), "\n");
  EXPECT_EQ(test::Receive(seventh.get(), strlen(kOffers)), kOffers);
  pending.clear();
}

TEST_F(ServiceTest, RefusedConnectionDoesNotKeepOthersWaiting) {
  const ReservedPort later;
  ASSERT_EQ(ConfigurePort(later.port()), 0);
  const Attached<ConsoleNode> console = test::ConnectConsole("sys4");
  console.node->mapped_port = later.port();
  std::vector<Descriptor> pending;
  for (int i = 0; i < 5; ++i) pending.push_back(Call(mapped_port()));
  const Descriptor refused = ConnectTo(mapped_port());
  ASSERT_TRUE(test::WaitReadable(FindPort(mapped_port())->sock));
  const Descriptor accepted = CallAndSay(later.port(), "\n");
  EXPECT_EQ(ReceiveAll(refused), "016 - Too many pending client connections.\r\n");
  EXPECT_EQ(test::Receive(accepted.get(), strlen(kOffers)), kOffers);
  pending.clear();
}

TEST_F(ServiceTest, MainPortRefusesNobody) {
  std::vector<Descriptor> pending;
  for (int i = 0; i < 12; ++i) pending.push_back(Call(user_port));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 12);
  for (const Descriptor& client : pending) test::SendText(client.get(), "sys1 mode=ro\n");
  AwaitThreads();
  EXPECT_EQ(user_list->count, 12);
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
}

TEST_F(ServiceTest, DroppedPortCancelsWhoIsStillLoggingIn) {
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

TEST_F(ServiceTest, NoMemoryForTheServiceThread) {
  const Descriptor client = ConnectTo(user_port);
  const ServiceCapture debug(kDetail);
  const FailAllocation failure(2);  // the first is the set's own
  Accept(user_port);
  EXPECT_TRUE(failure.reached());
  EXPECT_EQ(ReceiveAll(client), kOutOfMemoryText);
  EXPECT_THAT(
      debug.Messages(),
      ElementsAre("AcceptConnectionRequests: Connection request from IP address \"127.0.0.1\".\n",
                  "AcceptConnectionRequests: malloc() failed : Cannot allocate memory\n",
                  AnnouncesDaemonError("Out of memory"),
                  "SendErrorToUser: 013 - Out of memory.\r\n"));
}

TEST_F(ServiceTest, NoServiceThread) {
  const Descriptor client = ConnectTo(user_port);
  const ServiceCapture debug;
  const FailCall failure(test::Call::kPthreadCreate, EAGAIN);
  Accept(user_port);
  EXPECT_EQ(ReceiveAll(client), kOutOfMemoryText);
  EXPECT_TRUE(
      debug.Has("AcceptConnectionRequests: pthread_create() failed : Resource temporarily "
                "unavailable\n"));
  EXPECT_EQ(GetPendingLogins(mapped_port_list, user_port), 0);
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

// ---- The listening thread as a whole
// -----------------------------------------------------------------

bool Listens(uint16_t port) {
  const Descriptor sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(port);
  return connect(sock.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The thread never ends, so it runs in a process of its own.
void ExpectPortsToFollowTheConfiguration() {
  const ReservedPort mapped;
  ASSERT_FALSE(Listens(mapped.port()));
  std::thread([] { UserConnectionsThreadStart(nullptr); }).detach();
  EXPECT_TRUE(test::Eventually([] { return Listens(user_port); }));
  {
    const WriteLock lock(icl_lock, HERE);
    test::AddConsole(i_cons_list, "sys1")->mapped_port = mapped.port();
  }
  RefreshMappedPorts();
  EXPECT_TRUE(test::Eventually([&] { return Listens(mapped.port()); }));
  thread_waitreq_mask |= kPauseUserConn;
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == kPauseUserConn; }));
  {
    const WriteLock lock(icl_lock, HERE);
    i_cons_list->head->cnode->mapped_port = 0;
  }
  RefreshMappedPorts();
  EXPECT_TRUE(Listens(mapped.port()));  // it stands still
  thread_waitreq_mask &= ~kPauseUserConn;
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == 0; }));
  EXPECT_TRUE(test::Eventually([&] { return !Listens(mapped.port()); }));
  EXPECT_TRUE(Listens(user_port));
}

TEST_F(PortDeathTest, ThreadKeepsPortsAndConfigurationTogether) {
  EXPECT_HOLDS_IN_CHILD(ExpectPortsToFollowTheConfiguration());
}

}  // namespace
