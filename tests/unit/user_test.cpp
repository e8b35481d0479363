// What users are told, access modes, and the records and lists of users.
#include "user.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
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
using test::FailAllocation;
using test::SocketPair;
using ::testing::ElementsAre;

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

TEST_F(UserTextTest, ErrorToAUserWhoHasLeftIsHarmless) {
  SocketPair pair;
  pair.theirs.Reset();
  SendErrorToUser(pair.ours.get(), UserErrorText(kTimedOut));
  EXPECT_TRUE(test::IsOpen(pair.ours.get()));
}

// ---- Access modes -------------------------------------------------------------------------------

TEST(AccessModeTest, Names) {
  EXPECT_STREQ(ModeNumToName(1), "read-only");
  EXPECT_STREQ(ModeNumToName(2), "shared");
  EXPECT_STREQ(ModeNumToName(3), "exclusive");
  for (const int mode : {-1, 0, 4, 5, 65535}) {
    SCOPED_TRACE(mode);
    EXPECT_STREQ(ModeNumToName(mode), "??");
  }
}

TEST(AccessModeTest, Keywords) {
  EXPECT_STREQ(ModeKeyword(1), "ro");
  EXPECT_STREQ(ModeKeyword(2), "sh");
  EXPECT_STREQ(ModeKeyword(3), "ex");
  EXPECT_STREQ(ModeKeyword(4), "er");
  for (const int mode : {-1, 0, 5, 65535}) EXPECT_STREQ(ModeKeyword(mode), "") << mode;
}

TEST(AccessModeTest, WordsForPrograms) {
  EXPECT_STREQ(ModeWord(1), "read-only");
  EXPECT_STREQ(ModeWord(2), "shared");
  EXPECT_STREQ(ModeWord(3), "exclusive");
  EXPECT_STREQ(ModeWord(4), "exclusive-revoke");
  for (const int mode : {-1, 0, 5, 65535}) EXPECT_STREQ(ModeWord(mode), "unknown") << mode;
}

TEST(AccessModeTest, EveryKeywordStandsForItsMode) {
  for (const AccessMode mode : {kReadOnly, kShared, kExclusive, kExclusiveRevocable}) {
    const auto found = FindMode(ModeKeyword(mode));
    ASSERT_TRUE(found) << mode;
    EXPECT_EQ(*found, mode);
  }
}

TEST(AccessModeTest, NothingElseIsAKeyword) {
  for (const char* text : {"", "r", "RO", "Ex", "roo", " sh", "shared", "1", "??"}) {
    EXPECT_EQ(FindMode(text), std::nullopt) << text;
  }
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

class UserListTest : public UserRecordTest {
 protected:
  ~UserListTest() override {
    DropElements(*list_);
    FreeUserList(list_);
  }

  UserList* list_ = NewUserList("list");
};

TEST_F(UserListTest, SameUserCanBeOnTwoLists) {
  UserNode* anna = NewUser("anna", 40);
  UserList* other = NewUserList("other");
  AddUserToList(anna, list_);
  AddUserToList(anna, other);
  EXPECT_NE(list_->head, other->head);
  RemoveUserFromList(anna, list_);
  EXPECT_TRUE(IsUserInUserList(anna, other));
  RemoveUserFromList(anna, other);
  FreeUserList(other);
}

TEST_F(UserListTest, MembershipIsByIdentity) {
  UserNode* anna = NewUser("anna", 10);
  UserNode* twin = NewUser("anna", 10);
  AddUserToList(anna, list_);
  EXPECT_TRUE(IsUserInUserList(anna, list_));
  EXPECT_FALSE(IsUserInUserList(twin, list_));
  EXPECT_FALSE(IsUserInUserList(anna, nullptr));
  const DebugCapture debug(kTrace);
  IsUserInUserList(anna, list_);
  EXPECT_THAT(debug.Messages(), ElementsAre("Entering IsUserInUserList\n"));
}

}  // namespace
