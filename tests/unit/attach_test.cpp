// Handing connections over: which users a console admits beside others, what they are sent, what a
// refusal leaves behind; and tools.
#include "attach.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "debug_support.h"
#include "failure_support.h"
#include "lists.h"
#include "options.h"
#include "relay_support.h"
#include "serv_conn.h"
#include "serv_conn_steps.h"

using namespace zevd;

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using test::AnnouncesDaemonError;
using test::Attached;
using test::AttachUser;
using test::DebugCapture;
using test::Descriptor;
using test::FailAllocation;
using test::FailCall;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

constexpr char kOutOfMemoryText[] = "013 - Out of memory.\r\n";
constexpr char kOffers[] = "\xFF\xFB\x01\xFF\xFB\x03";

std::string RevocationBanner(const std::string& user_at_address) {
  return test::Banner("Your session has been terminated by " + user_at_address);
}

class AttachTest : public test::RelayTest {
 protected:
  /// The last call's connection.
  struct Caller {
    SocketPair pair;
    int result = 0;

    std::string Received() const { return test::ReceiveAvailable(pair.theirs.get()); }
  };

  static Caller Attach(const char* console, int mode, const char* user = "caller",
                       const char* address = "192.0.2.9") {
    Caller caller;
    u_err_msg = nullptr;
    caller.result = ConnectUserToConsole(caller.pair.ours.get(), user, address, console,
                                         static_cast<uint16_t>(mode));
    if (caller.result == 0) caller.pair.ours.Release();
    return caller;
  }

  /// Refused with this text and message, sent nothing, and on no list.
  static void ExpectRefused(const char* console, int mode, const char* error,
                            const std::string& message) {
    SCOPED_TRACE(mode);
    const int users = user_list->count;
    const DebugCapture debug;
    const Caller caller = Attach(console, mode);
    EXPECT_EQ(caller.result, -1);
    EXPECT_STREQ(u_err_msg, error);
    EXPECT_THAT(debug.Messages(), ElementsAre("ConnectUserToConsole: " + message + "\n"));
    EXPECT_EQ(caller.Received(), "");
    EXPECT_EQ(user_list->count, users);
  }

  void ExpectLocked(int mode) {
    ExpectRefused("sys1", mode, "006 - Console is locked exclusively.\r\n",
                  "Console \"sys1\" is locked exclusively.");
  }

  void ExpectInUse(int mode) {
    ExpectRefused("sys1", mode, "007 - Cannot grant exclusive access. Console in use.\r\n",
                  "Cannot grant exclusive access for \"sys1\".");
  }

  void ExpectAttached(int mode) {
    SCOPED_TRACE(mode);
    const int users = console_->user_list->count;
    const Caller caller = Attach("sys1", mode);
    EXPECT_EQ(caller.result, 0);
    EXPECT_EQ(u_err_msg, nullptr);
    EXPECT_EQ(console_->user_list->count, users + 1);
    EXPECT_EQ(console_->user_list->tail->unode->mode, mode);
  }

  static ConsoleNode* AddConnected(const std::string& name) {
    return test::ConnectConsole(name.c_str()).node;
  }

  Attached<UserNode> AddUser(int mode) { return AttachUser(console_, "holder", mode); }

  ConsoleNode* console_ = AddConnected("sys1");
};

// ---- Unavailable consoles -----------------------------------------------------------------------

TEST_F(AttachTest, UnknownConsole) {
  ExpectRefused("Sys1", kShared, "004 - Console not found.\r\n", "Console \"Sys1\" not found.");
  ExpectRefused("", kReadOnly, "004 - Console not found.\r\n", "Console \"\" not found.");
}

TEST_F(AttachTest, InaccessibleConsole) {
  test::AddConsole(i_cons_list, "away");
  for (const int mode : {1, 2, 3, 4}) {
    ExpectRefused("away", mode, "005 - Console is not accessible.\r\n",
                  "Console \"away\" is inaccessible.");
  }
}

TEST_F(AttachTest, DisabledConsole) {
  test::AddConsole(i_cons_list, "off")->enable = 0;
  for (const int mode : {1, 2, 3, 4}) {
    ExpectRefused("off", mode, "012 - Console is disabled.\r\n", "Console \"off\" is disabled.");
  }
}

TEST_F(AttachTest, AccessibleConsoleIsFoundFirst) {
  test::AddConsole(i_cons_list, "sys1")->enable = 0;
  ExpectAttached(kShared);
}

TEST_F(AttachTest, ConsoleThatIsBeingClosed) {
  const Descriptor sock(console_->sock.exchange(-1));
  ExpectRefused("sys1", kReadOnly, "005 - Console is not accessible.\r\n",
                "Console \"sys1\" is inaccessible.");
  console_->enable = 0;
  ExpectRefused("sys1", kReadOnly, "012 - Console is disabled.\r\n",
                "Console \"sys1\" is disabled.");
}

TEST_F(AttachTest, DeletedConsole) {
  console_->deleted = 1;
  for (const int mode : {1, 2, 3, 4}) {
    ExpectRefused("sys1", mode, "011 - Console has been deleted.\r\n",
                  "Console \"sys1\" has been deleted.");
  }
}

TEST_F(AttachTest, DeletedConsoleRevokesNobody) {
  const Attached<UserNode> holder = AddUser(kExclusiveRevocable);
  console_->deleted = 1;
  ExpectRefused("sys1", kShared, "011 - Console has been deleted.\r\n",
                "Console \"sys1\" has been deleted.");
  EXPECT_EQ(holder.node->connected, 1);
  EXPECT_EQ(test::ReceiveAvailable(holder.peer.get()), "");
}

// ---- Modes side by side -------------------------------------------------------------------------

TEST_F(AttachTest, ReadOnlyIsAlwaysAdmitted) {
  for (const int holder_mode : {1, 2, 3, 4}) {
    SCOPED_TRACE(holder_mode);
    const Attached<UserNode> holder = AddUser(holder_mode);
    ExpectAttached(kReadOnly);
    EXPECT_EQ(holder.node->connected, 1);
    EXPECT_EQ(test::ReceiveAvailable(holder.peer.get()), "");
  }
}

TEST_F(AttachTest, ExclusiveHolderAtTheHeadBlocksEveryWriter) {
  const Attached<UserNode> holder = AddUser(kExclusive);
  for (const int mode : {2, 3, 4}) ExpectLocked(mode);
  EXPECT_EQ(holder.node->connected, 1);
  EXPECT_EQ(test::ReceiveAvailable(holder.peer.get()), "");
}

TEST_F(AttachTest, ExclusiveHolderBehindAReadOnlyUserDoesNotBlockSharedUsers) {
  const Attached<UserNode> viewer = AddUser(kReadOnly);
  const Attached<UserNode> holder = AddUser(kExclusive);
  for (const int mode : {3, 4}) ExpectInUse(mode);
  ExpectAttached(kShared);
}

TEST_F(AttachTest, SharedUsersBlockExclusiveOnes) {
  const Attached<UserNode> shared = AddUser(kShared);
  for (const int mode : {3, 4}) ExpectInUse(mode);
  ExpectAttached(kShared);
}

TEST_F(AttachTest, ReadOnlyUsersBlockNobody) {
  const Attached<UserNode> first = AddUser(kReadOnly);
  const Attached<UserNode> second = AddUser(kReadOnly);
  ExpectAttached(kExclusive);
}

TEST_F(AttachTest, ReadOnlyUsersDoNotBlockARevocableOne) {
  const Attached<UserNode> viewer = AddUser(kReadOnly);
  ExpectAttached(kExclusiveRevocable);
}

TEST_F(AttachTest, EveryModeGetsAnEmptyConsole) {
  for (const int mode : {1, 2, 3, 4}) {
    ConsoleNode* console = AddConnected("free" + std::to_string(mode));
    EXPECT_EQ(Attach(console->cname, mode).result, 0);
    ASSERT_EQ(console->user_list->count, 1);
    EXPECT_EQ(console->user_list->head->unode->mode, mode);
  }
}

TEST_F(AttachTest, GrantAndRevocationLookAtEveryUser) {
  EXPECT_EQ(CanGrantExclAccess(console_), 1);
  EXPECT_EQ(HasExclRevokeConn(console_), 0);
  const Attached<UserNode> viewer = AddUser(kReadOnly);
  EXPECT_EQ(CanGrantExclAccess(console_), 1);
  EXPECT_EQ(HasExclRevokeConn(console_), 0);
  const Attached<UserNode> revocable = AddUser(kExclusiveRevocable);
  EXPECT_EQ(CanGrantExclAccess(console_), 1);
  EXPECT_EQ(HasExclRevokeConn(console_), 1);
  const Attached<UserNode> shared = AddUser(kShared);
  EXPECT_EQ(CanGrantExclAccess(console_), 0);
  EXPECT_EQ(HasExclRevokeConn(console_), 1);
  shared.node->mode = kExclusive;
  EXPECT_EQ(CanGrantExclAccess(console_), 0);
  EXPECT_FALSE(IsLockedExclusively(console_));
  viewer.node->mode = kExclusive;
  EXPECT_TRUE(IsLockedExclusively(console_));
}

// ---- Revocation ---------------------------------------------------------------------------------

TEST_F(AttachTest, EveryWriterRevokesTheRevocableHolder) {
  for (const int mode : {2, 3, 4}) {
    SCOPED_TRACE(mode);
    ConsoleNode* console = AddConnected("held" + std::to_string(mode));
    const Attached<UserNode> holder = AttachUser(console, "holder", kExclusiveRevocable);
    EXPECT_EQ(Attach(console->cname, mode, "anna", "192.0.2.77").result, 0);
    EXPECT_EQ(test::ReceiveAvailable(holder.peer.get()), RevocationBanner("anna@192.0.2.77"));
    EXPECT_EQ(holder.node->connected, 0);
    // The user input monitor closes and removes them.
    EXPECT_TRUE(test::IsOpen(holder.node->sock));
    EXPECT_TRUE(IsUserInUserList(holder.node, console->user_list));
    EXPECT_TRUE(IsUserInUserList(holder.node, user_list));
  }
}

TEST_F(AttachTest, BannerHoldsTheLongestNames) {
  const Attached<UserNode> holder = AddUser(kExclusiveRevocable);
  const std::string name(32, 'u');
  const std::string address(64, 'a');
  EXPECT_EQ(Attach("sys1", kShared, name.c_str(), address.c_str()).result, 0);
  EXPECT_EQ(test::ReceiveAvailable(holder.peer.get()), RevocationBanner(name + "@" + address));
}

TEST_F(AttachTest, OnlyTheFirstRevocableHolderIsRevoked) {
  const Attached<UserNode> viewer = AddUser(kReadOnly);
  const Attached<UserNode> first = AddUser(kExclusiveRevocable);
  const Attached<UserNode> second = AddUser(kExclusiveRevocable);
  ExpectAttached(kShared);
  EXPECT_EQ(first.node->connected, 0);
  EXPECT_EQ(second.node->connected, 1);
  EXPECT_EQ(viewer.node->connected, 1);
  EXPECT_EQ(test::ReceiveAvailable(second.peer.get()), "");
  EXPECT_EQ(test::ReceiveAvailable(viewer.peer.get()), "");
}

TEST_F(AttachTest, HolderIsRevokedEvenWhenTheNewUserIsThenRefused) {
  const Attached<UserNode> exclusive = AddUser(kExclusive);
  const Attached<UserNode> holder = AddUser(kExclusiveRevocable);
  ExpectLocked(kShared);
  EXPECT_EQ(holder.node->connected, 0);
  EXPECT_EQ(test::ReceiveAvailable(holder.peer.get()), RevocationBanner("caller@192.0.2.9"));
  EXPECT_EQ(exclusive.node->connected, 1);
}

TEST_F(AttachTest, RevocableHolderAloneDoesNotBlockAnExclusiveUser) {
  const Attached<UserNode> holder = AddUser(kExclusiveRevocable);
  ExpectAttached(kExclusive);
  EXPECT_EQ(holder.node->connected, 0);
}

TEST_F(AttachTest, HolderIsRevokedInVainWhileASharedUserIsThere) {
  const Attached<UserNode> holder = AddUser(kExclusiveRevocable);
  const Attached<UserNode> shared = AddUser(kShared);
  ExpectInUse(kExclusive);
  EXPECT_EQ(holder.node->connected, 0);
}

TEST_F(AttachTest, HolderWhoHasLeftIsRevokedToo) {
  Attached<UserNode> holder = AddUser(kExclusiveRevocable);
  holder.peer.Reset();
  const DebugCapture debug;
  EXPECT_EQ(Attach("sys1", kShared).result, 0);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ConnectUserToConsole: send() failed : Broken pipe\n",
                          "ConnectUserToConsole: Connected user \"caller\" to console \"sys1\" "
                          "with mode = shared.\n"));
  EXPECT_EQ(holder.node->connected, 0);
}

// ---- What is sent -------------------------------------------------------------------------------

TEST_F(AttachTest, PlainConsoleSendsTheOffersAlone) {
  EXPECT_EQ(Attach("sys1", kShared).Received(), kOffers);
}

/// A console with a negotiation of its own and recent output.
class AttachToBusyConsoleTest : public AttachTest {
 protected:
  AttachToBusyConsoleTest() {
    cons_buf_size = 8;
    busy_ = AddConnected("busy");
    strcpy(busy_->telnet_cmd, "\xFF\xFD\x18\xFF\xFB\x03");
    memcpy(busy_->cons_buf.buf, "oldest!?", 8);
    busy_->cons_buf.head = 6;  // "!?ol"
    busy_->cons_buf.tail = 2;
  }

  ConsoleNode* busy_;
};

TEST_F(AttachToBusyConsoleTest, NegotiationThenOffersThenReplay) {
  EXPECT_EQ(Attach("busy", kShared).Received(),
            std::string("\xFF\xFD\x18\xFF\xFB\x03") + kOffers + "!?ol");
}

// The replay is sent as it lies in its ring.
TEST_F(AttachToBusyConsoleTest, OffersAndReplayAreSeparateSends) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()), 0);
  const Descriptor theirs(ends[1]);
  ASSERT_EQ(ConnectUserToConsole(ends[0], "anna", "192.0.2.9", "busy", kShared), 0);
  for (const std::string_view sent :
       {"\xFF\xFD\x18\xFF\xFB\x03", "\xFF\xFB\x01", "\xFF\xFB\x03", "!?", "ol"}) {
    std::array<char, 64> message{};
    const ssize_t count = recv(theirs.get(), message.data(), message.size(), MSG_DONTWAIT);
    ASSERT_GT(count, 0);
    EXPECT_EQ(std::string_view(message.data(), static_cast<size_t>(count)), sent);
  }
  EXPECT_EQ(test::ReceiveAvailable(theirs.get()), "");
}

TEST_F(AttachToBusyConsoleTest, NegotiationEndsAtItsNul) {
  memcpy(busy_->telnet_cmd, "\xFF\xFB\0\xFF\xFB\x03", 7);
  EXPECT_EQ(Attach("busy", kShared).Received(), std::string("\xFF\xFB") + kOffers + "!?ol");
}

TEST_F(AttachToBusyConsoleTest, RefusedUserIsSentNothing) {
  const Attached<UserNode> holder = AttachUser(busy_, "holder", kExclusive);
  ExpectRefused("busy", kShared, "006 - Console is locked exclusively.\r\n",
                "Console \"busy\" is locked exclusively.");
}

TEST_F(AttachToBusyConsoleTest, UserWhoLeavesDuringTheReplayIsMarked) {
  SocketPair pair;
  pair.theirs.Reset();
  const DebugCapture debug;
  ASSERT_EQ(ConnectUserToConsole(pair.ours.Release(), "anna", "192.0.2.9", "busy", kShared), 0);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("SendBufferedConsoleOutputToUser: send() from console \"busy\" failed : "
                          "Broken pipe\n",
                          "ConnectUserToConsole: Connected user \"anna\" to console \"busy\" with "
                          "mode = shared.\n"));
  ASSERT_EQ(user_list->count, 1);
  EXPECT_EQ(user_list->head->unode->connected, 0);
  EXPECT_TRUE(IsUserInUserList(user_list->head->unode, busy_->user_list));
}

// ---- What is recorded ---------------------------------------------------------------------------

TEST_F(AttachTest, UserStandsAtTheTailOfBothLists) {
  const Attached<UserNode> first = AddUser(kReadOnly);
  const Caller caller = Attach("sys1", kShared, "anna", "192.0.2.77");
  EXPECT_EQ(console_->user_list->count, 2);
  EXPECT_EQ(user_list->count, 2);
  const UserNode* user = user_list->tail->unode;
  EXPECT_EQ(console_->user_list->tail->unode, user);
  EXPECT_STREQ(user->user_name, "anna");
  EXPECT_STREQ(user->ipaddr, "192.0.2.77");
  EXPECT_EQ(user->mode, 2);
  EXPECT_EQ(user->connected, 1);
  EXPECT_EQ(user->cnode, console_);
  EXPECT_EQ(console_->ref_count, 2);
  EXPECT_TRUE(user_list->fdset.Contains(user->sock));
  EXPECT_TRUE(console_->user_list->fdset.Contains(user->sock));
}

TEST_F(AttachTest, AttachmentIsReportedWithTheNameOfTheMode) {
  constexpr std::array<const char*, 4> kNames = {"read-only", "shared", "exclusive", "??"};
  for (int mode = 1; mode <= 4; ++mode) {
    const std::string console = "free" + std::to_string(mode);
    AddConnected(console);
    const DebugCapture debug;
    EXPECT_EQ(Attach(console.c_str(), mode, "anna").result, 0);
    EXPECT_THAT(
        debug.Messages(),
        ElementsAre("ConnectUserToConsole: Connected user \"anna\" to console \"" + console +
                    "\" with mode = " + kNames[static_cast<size_t>(mode - 1)] + ".\n"));
  }
}

TEST_F(AttachTest, AttachmentEndsTheWaitForInput) {
  user_mon_waker.Drain();
  EXPECT_EQ(Attach("sys1", kShared).result, 0);
  timeval wait = {10, 0};
  DescriptorSet nobody;
  EXPECT_EQ(WaitForMembers(-1, nobody, user_mon_waker, &wait), 0);
  EXPECT_GT(wait.tv_sec, 0);
}

// ---- Locks --------------------------------------------------------------------------------------

/// What a trace line says happened to which lock, known by its address.
std::string LockEvent(const std::string& line) {
  const auto name = [&]() -> std::string {
    char address[32];
    for (const auto& [lock, known] :
         {std::pair{&acl_lock, "acl_lock"}, {&icl_lock, "icl_lock"}, {&ul_lock, "ul_lock"}}) {
      snprintf(address, sizeof address, " %lx", reinterpret_cast<unsigned long>(lock));
      if (line.find(address) != std::string::npos) return known;
    }
    return "unknown lock";
  };
  if (line.find(": Requesting write lock ") != std::string::npos) return "request " + name();
  if (line.find(": Aquired write lock ") != std::string::npos) return "hold " + name();
  if (line.find(": Releasing lock ") != std::string::npos) return "release " + name();
  return line;
}

std::vector<std::string> LockEvents(const DebugCapture& debug) {
  std::vector<std::string> events;
  for (const std::string& line : test::Containing(debug.Messages(), " lock ")) {
    EXPECT_EQ(line.rfind("ConnectUserToConsole: ", 0), 0U) << line;
    events.push_back(LockEvent(line));
  }
  return events;
}

TEST_F(AttachTest, ListLocksAreHeldOneAfterTheOther) {
  const DebugCapture debug(kTrace);
  EXPECT_EQ(Attach("sys1", kShared).result, 0);
  EXPECT_THAT(LockEvents(debug),
              ElementsAre("request acl_lock", "hold acl_lock", "release acl_lock",
                          "request ul_lock", "hold ul_lock", "release ul_lock"));
}

TEST_F(AttachTest, InaccessibleListIsSearchedWhenTheOtherLockIsReleased) {
  test::AddConsole(i_cons_list, "away");
  const DebugCapture debug(kTrace);
  EXPECT_EQ(Attach("away", kShared).result, -1);
  EXPECT_THAT(LockEvents(debug),
              ElementsAre("request acl_lock", "hold acl_lock", "release acl_lock",
                          "request icl_lock", "hold icl_lock", "release icl_lock"));
}

TEST_F(AttachTest, FailingLockIsReportedAndAttachingGoesOn) {
  const DebugCapture debug;
  const FailCall failure(test::Call::kWrlock, EDEADLK, 1, 1);
  EXPECT_EQ(Attach("sys1", kShared).result, 0);
  EXPECT_EQ(debug.Messages().front(),
            "ConnectUserToConsole: pthread_rwlock_wrlock failed : Resource deadlock avoided\n");
  EXPECT_EQ(user_list->count, 1);
}

// ---- Out of memory ------------------------------------------------------------------------------

TEST_F(AttachTest, NoMemoryForTheRecord) {
  const DebugCapture debug(kDetail);
  const FailAllocation failure(1);
  const Caller caller = Attach("sys1", kShared);
  EXPECT_EQ(caller.result, -1);
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("NewUserNode: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory"),
                          "ConnectUserToConsole: NewUserNode() failed.\n"));
  EXPECT_EQ(caller.Received(), "");
  EXPECT_EQ(console_->ref_count, 0);
}

TEST_F(AttachTest, NoMemoryToWatchTheSocket) {
  const DebugCapture debug(kDetail);
  const FailCall failure(test::Call::kEpollCtl, ENOMEM, 1, 1);
  const Caller caller = Attach("sys1", kShared);
  EXPECT_EQ(caller.result, -1);
  EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ConnectUserToConsole: epoll_ctl() failed : Cannot allocate memory\n"));
  EXPECT_EQ(caller.Received(), "");
  EXPECT_EQ(console_->ref_count, 0);
  EXPECT_EQ(console_->user_list->count, 0);
}

/// The sets of both lists have their room, so that only records and elements are allocated.
class AttachWithoutMemoryTest : public AttachTest {
 protected:
  AttachWithoutMemoryTest() {
    EXPECT_TRUE(console_->user_list->fdset.Reserve(1023));
    EXPECT_TRUE(user_list->fdset.Reserve(1023));
  }

  /// Attaches a user; allocation number `failing` is refused.
  static Caller AttachWithFailure(int failing) {
    const FailAllocation failure(failing);
    return Attach("sys1", kShared);
  }
};

// Whichever allocation fails, the caller closes the socket, so nothing may refer to it any more.
TEST_F(AttachWithoutMemoryTest, NothingIsLeftBehind) {
  const Attached<UserNode> stays = AddUser(kReadOnly);
  for (const int failing : {1, 2, 3, 4}) {  // the record, its output, an element of either list
    SCOPED_TRACE(failing);
    const Caller caller = AttachWithFailure(failing);
    EXPECT_EQ(caller.result, -1);
    EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
    EXPECT_EQ(console_->ref_count, 1);
    for (const UserList* list : {console_->user_list, user_list}) {
      EXPECT_EQ(list->count, 1);
      EXPECT_EQ(list->head->unode, stays.node);
      EXPECT_FALSE(list->fdset.Contains(caller.pair.ours.get()));
    }
  }
  EXPECT_EQ(AttachWithFailure(5).result, 0);
}

TEST_F(AttachWithoutMemoryTest, FailureOfTheSecondListIsReported) {
  const DebugCapture debug(kDetail);
  EXPECT_EQ(AttachWithFailure(4).result, -1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("NewUserListElem: malloc() failed : Cannot allocate memory\n",
                          AnnouncesDaemonError("Out of memory"),
                          "AddUserToList: NewUserListElem() returned NULL\n",
                          "ConnectUserToConsole: AddUserToList() failed.\n"));
}

// ---- Several at once ----------------------------------------------------------------------------

TEST_F(AttachTest, OnlyOneOfManyGetsTheConsoleExclusively) {
  constexpr int kCallers = 8;
  std::array<int, kCallers> results{};
  std::array<SocketPair, kCallers> pairs;
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kCallers; ++i) {
    threads.emplace_back([&, i] {
      results[i] =
          ConnectUserToConsole(pairs[i].ours.get(), "anna", "192.0.2.9", "sys1", kExclusive);
    });
  }
  for (std::thread& thread : threads) thread.join();
  int attached = 0;
  for (size_t i = 0; i < kCallers; ++i) {
    if (results[i] != 0) continue;
    ++attached;
    pairs[i].ours.Release();
  }
  EXPECT_EQ(attached, 1);
  EXPECT_EQ(user_list->count, 1);
  EXPECT_EQ(console_->ref_count, 1);
}

// ---- Tools that are handed over -----------------------------------------------------------------

/// Hides from the leak checker what is lost on purpose.
class LossOnPurpose {
 public:
#if defined(__SANITIZE_ADDRESS__)
  LossOnPurpose() {
    __lsan_disable();
  }
  ~LossOnPurpose() {
    __lsan_enable();
  }
#else
  LossOnPurpose() {}
  ~LossOnPurpose() {}
#endif
  LossOnPurpose(const LossOnPurpose&) = delete;
  LossOnPurpose& operator=(const LossOnPurpose&) = delete;
};

/// A tool is handed over to the command port.
class HandOverTest : public test::RelayTest {
 protected:
  HandOverTest() { EXPECT_TRUE(cmd_mon_waker.descriptor() != -1 || cmd_mon_waker.Open()); }
  ~HandOverTest() override {
    for (const CommandNode* tool : Nodes(*cmd_list)) close(tool->sock);
  }
};

TEST_F(HandOverTest, HandedOverSocketIsListedAndEndsTheWait) {
  cmd_mon_waker.Drain();
  SocketPair pair;
  const int sock = pair.ours.Release();
  EXPECT_EQ(MonitorSocketForCommands(sock, "anna", "192.0.2.1"), 0);
  ASSERT_EQ(cmd_list->count, 1);
  const CommandNode* cnode = cmd_list->head->tool;
  EXPECT_EQ(cnode->sock, sock);
  EXPECT_EQ(cnode->connected, 1);
  EXPECT_STREQ(cnode->user_name, "anna");
  EXPECT_STREQ(cnode->ipaddr, "192.0.2.1");
  EXPECT_TRUE(cmd_list->fdset.Contains(sock));
  timeval wait = {10, 0};
  DescriptorSet nobody;
  EXPECT_EQ(WaitForMembers(-1, nobody, cmd_mon_waker, &wait), 0);
  EXPECT_GT(wait.tv_sec, 0);
}

/// The set of watched sockets has to be allocated anew.
void ForgetRoomOfSet() {
  std::destroy_at(&cmd_list->fdset);
  std::construct_at(&cmd_list->fdset);
}

/// The n-th allocation of a hand-over fails, and this is reported.
struct FailedHandOver {
  int allocation;
  std::vector<std::string> messages;
};

std::vector<FailedHandOver> FailedHandOvers() {
  const std::string add_failed = "MonitorSocketForCommands: AddCommandToList() failed\n";
  const std::string elem_failed = "AddCommandToList: NewCommandListElem() failed\n";
  return {
      {1,
       {"NewCommandNode: malloc() failed : Cannot allocate memory\n",
        "MonitorSocketForCommands: NewCommandNode() failed\n"}},
      {2,
       {"AddCommandToList: malloc() failed : Cannot allocate memory\n", elem_failed, add_failed}},
      {3,
       {"NewCommandListElem: malloc() failed : Cannot allocate memory\n", elem_failed,
        add_failed}}};
}

TEST_F(HandOverTest, HandOverWithoutMemoryLeavesTheSocketToTheCaller) {
  const LossOnPurpose node_of_a_connection_that_cannot_be_listed;
  for (const FailedHandOver& expected : FailedHandOvers()) {
    SCOPED_TRACE(expected.allocation);
    ForgetRoomOfSet();
    const SocketPair pair;
    u_err_msg = nullptr;
    const DebugCapture debug;
    {
      const FailAllocation failure(expected.allocation);
      EXPECT_EQ(MonitorSocketForCommands(pair.ours.get(), "anna", "192.0.2.1"), -1);
      EXPECT_TRUE(failure.reached());
    }
    EXPECT_STREQ(u_err_msg, kOutOfMemoryText);
    EXPECT_THAT(debug.Messages(), ElementsAreArray(expected.messages));
    EXPECT_TRUE(test::IsOpen(pair.ours.get()));
    EXPECT_EQ(cmd_list->count, 0);
    EXPECT_EQ(pthread_rwlock_trywrlock(cmd_lock.native()), 0);  // it has been released
    pthread_rwlock_unlock(cmd_lock.native());
  }
}

/// Runs the service thread of a client that asks for the command port; its n-th allocation fails.
/// Returns what the client receives until the end.
std::string ServeWithoutMemory(int allocation) {
  SocketPair pair;
  test::SendText(pair.theirs.get(), "@@@@ user=anna\n");
  auto* params = new ServiceReqThreadParams{};
  params->sock = pair.ours.Release();
  params->port = user_port;
  CopyText(params->ipaddr, "192.0.2.1");
  std::thread([&] {
    const LossOnPurpose node_of_a_connection_that_cannot_be_listed;
    const FailAllocation failure(allocation);
    ServiceConnectionRequestThreadStart(params);
    EXPECT_TRUE(failure.reached());
  }).join();
  return test::Receive(pair.theirs.get(), 1000);
}

TEST_F(HandOverTest, ClientThatCannotBeHandedOverIsToldAndClosed) {
  security_enabled = 0;
  const SocketPair listening;
  {
    const PendingLoginsGuard guard(__func__);
    MappedPortNode* mpnode = NewMappedPortNode(listening.ours.get(), user_port);
    ASSERT_EQ(AddMappedPortToList(mpnode, mapped_port_list), 0);
  }
  const DebugCapture debug;
  for (const int allocation : {1, 2, 3}) {
    ForgetRoomOfSet();
    EXPECT_EQ(ServeWithoutMemory(allocation), kOutOfMemoryText) << allocation;
  }
  EXPECT_EQ(debug.Count("MonitorSocketForCommands: NewCommandNode() failed\n"), 1);
  EXPECT_EQ(debug.Count("MonitorSocketForCommands: AddCommandToList() failed\n"), 2);
  EXPECT_EQ(cmd_list->count, 0);
}

TEST_F(HandOverTest, HandOverGoesOnWithoutTheLock) {
  const DebugCapture debug;
  SocketPair pair;
  {
    const FailCall failure(test::Call::kWrlock, EDEADLK, 1, 1);
    EXPECT_EQ(MonitorSocketForCommands(pair.ours.Release(), "anna", "192.0.2.1"), 0);
  }
  EXPECT_THAT(debug.Messages(), ElementsAre("MonitorSocketForCommands: pthread_rwlock_wrlock "
                                            "failed : Resource deadlock avoided\n"));
  EXPECT_EQ(cmd_list->count, 1);
}

}  // namespace
