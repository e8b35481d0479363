// The commands that look: their answers, byte by byte, and the locks that they take.
#include "query.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "cmd_mon.h"
#include "cmd_mon_steps.h"
#include "command_support.h"
#include "console_users.h"
#include "failure_support.h"
#include "lists.h"
#include "query_steps.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using test::AnnouncesDaemonError;
using test::Answer;
using test::Attached;
using test::AttachUser;
using test::Bytes16;
using test::ConnectConsole;
using test::DebugCapture;
using test::FailAllocation;
using test::FieldText;
using test::IsFree;
using test::IsReadHeld;
using test::LockSteps;
using test::Padded;
using test::TwinTest;
using ::testing::Contains;
using ::testing::ElementsAre;

using QueryTest = test::CommandTest;
using QueryDeathTest = QueryTest;

// ---- States and modes ---------------------------------------------------------------------------

std::string Status(const ConsoleNode* cnode) {
  char code[2];
  GetStatusCode(cnode, code);
  return {code, 2};
}

std::string Mode(const ConsoleNode* cnode) {
  char code[2];
  GetHighPrecedModeCode(cnode, code);
  return {code, 2};
}

TEST_F(QueryTest, StatusCodes) {
  const test::ConsolePtr cnode = test::MakeConsole("box");
  const std::map<int, std::string> codes = {
      {kNotConnected, "2\0"s}, {kRefused, "3\0"s}, {kInProgress, "4\0"s}, {7, "99"}, {-1, "99"}};
  for (const auto& [status, code] : codes) {
    cnode->status = status;
    cnode->enable = 1;
    EXPECT_EQ(Status(cnode.get()), code);
    cnode->enable = 0;
    EXPECT_EQ(Status(cnode.get()), "5\0"s);
  }
}

TEST_F(QueryTest, ConnectedConsoleIsNeverShownAsDisabled) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  for (const int enable : {1, 0}) {
    box.node->enable = enable;
    EXPECT_EQ(Status(box.node), "0\0"s);
  }
  const Attached<UserNode> user = AttachUser(box.node, "anna");
  EXPECT_EQ(Status(box.node), "1\0"s);
}

struct ModeCase {
  std::vector<std::pair<const char*, int>> users;
  std::string code;
};

TEST_F(QueryTest, ModeCodes) {
  const std::vector<ModeCase> cases = {
      {{}, "0"},
      {{{"a", kReadOnly}}, "1"},
      {{{"a", kShared}}, "2"},
      {{{"a", kExclusive}}, "3"},
      {{{"a", kExclusiveRevocable}}, "4"},
      {{{"a", kReadOnly}, {"b", kShared}}, "2"},
      {{{"a", kShared}, {"b", kExclusive}}, "2"},
      {{{"a", kExclusive}, {"b", kShared}}, "3"},
      {{{"VRQ", kExclusiveRevocable}}, "0"},
      {{{"vrq", kExclusiveRevocable}, {"a", kReadOnly}}, "1"},
      {{{"a", kReadOnly}, {"Vrq", kExclusiveRevocable}}, "1"},
      {{{"VRQ", kExclusiveRevocable}, {"a", kExclusiveRevocable}}, "4"},
      {{{"VRQ", kReadOnly}}, "1"},
      {{{"VRQ", kShared}}, "2"},
      {{{"VRQ", kExclusive}}, "3"},
      {{{"VRQX", kExclusiveRevocable}}, "4"},
  };
  for (const ModeCase& expected : cases) {
    const Attached<ConsoleNode> box = ConnectConsole("box");
    std::vector<Attached<UserNode>> users;
    for (const auto& [name, mode] : expected.users) {
      users.push_back(AttachUser(box.node, name, mode));
    }
    EXPECT_EQ(Mode(box.node), expected.code + '\0');
  }
}

TEST_F(QueryTest, HiddenUserHasThatNameAndModeFour) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  EXPECT_EQ(IsVrqUserConnectedERMode(box.node), 0);
  const Attached<UserNode> other = AttachUser(box.node, "anna", kExclusiveRevocable);
  const Attached<UserNode> user = AttachUser(box.node, "vRq", kShared);
  EXPECT_EQ(IsVrqUserConnectedERMode(box.node), 0);
  user.node->mode = kExclusiveRevocable;
  EXPECT_EQ(IsVrqUserConnectedERMode(box.node), 1);
}

// ---- Records on the wire ------------------------------------------------------------------------

const std::string kFull(64, 'x');

TEST_F(QueryTest, ConsolePacket) {
  ConsoleNode* cnode = test::AddConsole(i_cons_list, "box", -1, 9);
  cnode->cons_port = 0x1234;
  cnode->mgmt_port = 0xFF80;
  CopyText(cnode->model, kFull.c_str());
  CopyText(cnode->pname, "rack 1");
  const Attached<CommandNode> tool = Connect();
  const Answer answer = Ask(tool, "console BOX");
  EXPECT_EQ(answer.count, 1U);
  EXPECT_EQ(answer.body, Padded("box", 64) + Padded("127.0.0.1", 64) + "\x34\x12\x80\xFF"s + kFull +
                             Padded("rack 1", 64) + "99" + "0\0"s);
}

TEST_F(QueryTest, ConsolePacketWithFullFields) {
  ConsoleNode* cnode = test::AddConsole(i_cons_list, kFull.c_str());
  CopyText(cnode->ipaddr, kFull.c_str());
  CopyText(cnode->pname, kFull.c_str());
  const Attached<CommandNode> tool = Connect();
  const Answer answer = Ask(tool, "console");
  ASSERT_EQ(answer.body.size(), kConsolePacketSize);
  EXPECT_EQ(answer.body.substr(0, 128), kFull + kFull);
  EXPECT_EQ(answer.body.substr(196), kFull + "2\0"s + "0\0"s);
}

TEST_F(QueryTest, MappedPortPacket) {
  const std::vector<std::pair<int, std::string>> auths = {
      {0, "\x00\x00"s}, {1, "\x01\x00"s}, {65537, "\x01\x00"s}, {-1, "\xFF\xFF"s}};
  ConsoleNode* cnode = test::AddConsole(i_cons_list, kFull.c_str());
  cnode->cons_port = 23;
  cnode->mapped_port = 0x1234;
  const Attached<CommandNode> tool = Connect();
  for (const auto& [auth, bytes] : auths) {
    cnode->auth = auth;
    EXPECT_EQ(Ask(tool, "mapped_port").body,
              kFull + Padded("127.0.0.1", 64) + Bytes16(23) + "\x34\x12"s + bytes);
  }
}

TEST_F(QueryTest, UserPacket) {
  const Attached<ConsoleNode> box = ConnectConsole("box");
  const Attached<UserNode> full = AttachUser(box.node, std::string(32, 'u').c_str(), kReadOnly);
  CopyText(full.node->ipaddr, kFull.c_str());
  const Attached<UserNode> plain = AttachUser(box.node, "anna", kExclusiveRevocable);
  const Attached<CommandNode> tool = Connect();
  const Answer answer = Ask(tool, "who box");
  EXPECT_EQ(answer.count, 2U);
  EXPECT_EQ(answer.body, std::string(32, 'u') + kFull + "1\0"s + Padded("anna", 32) +
                             Padded("192.0.2.1", 64) + "4\0"s);
}

TEST_F(QueryTest, PacketOfAClientElsewhere) {
  AddHeld("box");
  const Attached<CommandNode> tool = Connect();
  EXPECT_EQ(Ask(tool, "who BOX").body, Padded("Unknown", 32) + Padded("10.1.1.1", 64) + "5\0"s);
}

TEST_F(QueryTest, PortHolderPacket) {
  ConsoleNode* cnode = AddHeld("box");
  const Attached<CommandNode> tool = Connect();
  EXPECT_EQ(Ask(tool, "portholder box").body, Padded("10.1.1.1", 64));
  CopyText(cnode->pellox_port_holder_ipaddr, kFull.c_str());
  EXPECT_EQ(Ask(tool, "portholder box").body, kFull);
}

TEST_F(QueryTest, HolderIsAskedForByModelBeforeState) {
  ConsoleNode* cnode = AddHeld("box");
  cnode->status = kNotConnected;
  const DebugCapture debug(kTrace);
  Execute("who box");
  EXPECT_EQ(rheader.count, 0U);
  EXPECT_TRUE(debug.Has("Entering IsPellox\n"));
  CopyText(cnode->model, "A200");
  cnode->status = kRefused;
  Execute("who box");
  EXPECT_EQ(rheader.count, 0U);
}

TEST_F(QueryTest, HoldersThatAreNotKnown) {
  test::AddConsole(i_cons_list, "plain");
  AddHeld("unknown")->pellox_port_holder_ipaddr[0] = '\0';
  EXPECT_THAT(SaidBy("portholder PLAIN"), ElementsAre("PelloxPortHolder: Not a Pellox console.\n"));
  EXPECT_EQ(Error(), "Not a Pellox console.");
  EXPECT_THAT(SaidBy("portholder unknown"),
              ElementsAre("PelloxPortHolder: Unable to connect to remote host, possibly bad port "
                          "number.\n"));
  EXPECT_EQ(Error(), "Unable to connect to remote host, possibly bad port number.");
}

// ---- Locks --------------------------------------------------------------------------------------

std::vector<std::string> LockStepsOf(std::string line) {
  const DebugCapture debug(kTrace);
  CommandNode tool{};
  ParseAndExecuteCommand(&tool, line.data());
  ReleaseRecords();
  return LockSteps(debug);
}

TEST_F(QueryTest, LocksAreReleasedBeforeAHoldersErrorIsReported) {
  test::AddConsole(i_cons_list, "plain");
  AddHeld("unknown")->pellox_port_holder_ipaddr[0] = '\0';
  for (const char* name : {"plain", "unknown", "nobody"}) {
    EXPECT_THAT(LockStepsOf("portholder "s + name),
                ElementsAre("+icl", "+acl", "-icl", "-acl", "error"))
        << name;
  }
}

/// The first allocation of the command fails.
void ExpectOutOfMemory(const std::string& line, const std::vector<std::string>& steps) {
  SCOPED_TRACE(line);
  const DebugCapture debug(kTrace);
  std::string copy = line;
  CommandNode tool{};
  {
    const FailAllocation failure(1);
    ParseAndExecuteCommand(&tool, copy.data());
    EXPECT_TRUE(failure.reached());
  }
  EXPECT_EQ(rheader.type, kErrorFollows);
  EXPECT_EQ(rheader.count, 15U);
  EXPECT_STREQ(cmd_err_msg, "Out of memory.");
  EXPECT_THAT(LockSteps(debug), ::testing::ElementsAreArray(steps));
  EXPECT_THAT(debug.Messages(), Contains(AnnouncesDaemonError("Out of memory")));
  ReleaseRecords();
}

TEST_F(QueryTest, WithoutMemoryBothLocksAreReleasedFirst) {
  AddHeld("held");
  const Attached<ConsoleNode> box = ConnectConsole("box");
  ExpectOutOfMemory("console", {"+icl", "+acl", "-acl", "-icl", "malloc"});
  ExpectOutOfMemory("mapped_port", {"+icl", "+acl", "-acl", "-icl", "malloc"});
  ExpectOutOfMemory("status", {"+icl", "+acl", "-acl", "-icl", "malloc"});
  ExpectOutOfMemory("stats", {"malloc"});
  ExpectOutOfMemory("portholder held", {"+icl", "+acl", "-icl", "-acl", "malloc"});
  ExpectOutOfMemory("portholder box", {"+icl", "+acl", "-icl", "-acl", "malloc"});
  EXPECT_TRUE(IsFree(acl_lock));
  EXPECT_TRUE(IsFree(icl_lock));
}

TEST_F(QueryDeathTest, WhoWithoutMemoryForUsersKeepsTheOtherLock) {
  EXPECT_HOLDS_IN_CHILD({
    const Attached<ConsoleNode> box = ConnectConsole("box");
    const Attached<UserNode> user = AttachUser(box.node, "anna");
    ExpectOutOfMemory("who box", {"+acl", "+icl", "-acl", "malloc"});
    EXPECT_TRUE(IsFree(acl_lock));
    EXPECT_TRUE(IsReadHeld(icl_lock));
  });
}

TEST_F(QueryDeathTest, WhoWithoutMemoryForAHolderKeepsTheOtherLock) {
  EXPECT_HOLDS_IN_CHILD({
    AddHeld("held");
    ExpectOutOfMemory("who held", {"+acl", "+icl", "-icl", "malloc"});
    EXPECT_TRUE(IsFree(icl_lock));
    EXPECT_TRUE(IsReadHeld(acl_lock));
  });
}

TEST_F(QueryDeathTest, UsersFoundBeforeMemoryRanOutAreReleased) {
  EXPECT_HOLDS_IN_CHILD({
    std::vector<Attached<ConsoleNode>> consoles;
    std::vector<Attached<UserNode>> users;
    for (const char* name : {"BOX", "box"}) {
      consoles.push_back(ConnectConsole(name));
      users.push_back(AttachUser(consoles.back().node, name));
    }
    const FailAllocation failure(2);
    EXPECT_EQ(Execute("who box"), kWhoCommand);
    EXPECT_EQ(Error(), "Out of memory.");
    ReleaseRecords();
  });
}

// ---- Names that differ in case alone ------------------------------------------------------------

TEST_F(TwinTest, QueriesReturnBoth) {
  const Answer consoles = Ask(tool_, "console bOx");
  ASSERT_EQ(consoles.count, 2U);
  EXPECT_EQ(FieldText(consoles.body, 0, 64), "BOX");
  EXPECT_EQ(FieldText(consoles.body, kConsolePacketSize, 64), "box");
  EXPECT_EQ(Ask(tool_, "mapped_port bOx").count, 2U);
}

TEST_F(TwinTest, WhoAddsUp) {
  const Answer answer = Ask(tool_, "who bOx");
  ASSERT_EQ(answer.count, 2U);
  EXPECT_EQ(FieldText(answer.body, 0, 32), "BOX");
  EXPECT_EQ(FieldText(answer.body, kUserPacketSize, 32), "box");
}

TEST_F(TwinTest, WhoStopsAtOneWithoutUsers) {
  CloseUserConnections(upper_.node, "test");
  AddHeld("Box");
  const Answer answer = Ask(tool_, "who bOx");
  ASSERT_EQ(answer.count, 1U);
  EXPECT_EQ(FieldText(answer.body, 0, 32), "Unknown");
}

TEST_F(TwinTest, OneHolderEach) {
  const Answer answer = Ask(tool_, "portholder bOx");
  EXPECT_EQ(answer.count, 2U);
  EXPECT_EQ(answer.body, Padded("10.0.0.1", 64) + Padded("10.0.0.2", 64));
}

TEST_F(TwinTest, HolderAfterClearIsTheDaemonAndTheLastAskedFor) {
  Ask(tool_, "clear bOx");
  const Answer answer = Ask(tool_, "portholder bOx");
  EXPECT_EQ(answer.count, 1U);
  EXPECT_EQ(answer.body, Padded("127.0.0.1", 64));
}

}  // namespace
