// What users are told, access modes, and the records and lists of users.
#include "user.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using test::AnnouncesDaemonError;
using test::DebugCapture;
using test::DebugTextsAre;
using test::FailAllocation;
using test::IsExitTrace;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::ExitedWithCode;

constexpr char kOutOfMemoryText[] = "013 - Out of memory.\r\n";

// ---- What users are told ------------------------------------------------------------------------

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

// ---- Records and lists --------------------------------------------------------------------------

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

}  // namespace
