// The queries that answer with JSON.
#include "status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <string>
#include <utility>

#include "cmd_mon.h"
#include "cmd_mon_steps.h"
#include "cons_mon.h"
#include "cons_mon_steps.h"
#include "counters.h"
#include "failure_support.h"
#include "lists.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using test::Attached;
using test::AttachUser;
using test::ConnectConsole;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr time_t kNow = 1'000'000'000;

// ---- "status" -----------------------------------------------------------------------------------

class JsonAnswerTest : public test::RelayTest {
 protected:
  JsonAnswerTest() { rheader = {}; }
  ~JsonAnswerTest() override { ReleaseRecords(); }

  /// The text with which a command is answered; its header must be right.
  static std::string Answer(const std::string& line) {
    CommandNode* tool = NewCommandNode("op", "192.0.2.7");
    const test::SocketPair pair;
    tool->sock = pair.ours.get();
    std::string copy = line;
    EXPECT_EQ(SendCommandResponse(tool, ParseAndExecuteCommand(tool, copy.data())), 0);
    ReleaseRecords();
    FreeCommandNode(tool);
    const std::string bytes = test::ReceiveAvailable(pair.theirs.get());
    const std::string text = bytes.substr(kHeaderSize);
    const std::string header("\1\0\0\0", 4);
    EXPECT_EQ(bytes.substr(0, 4), header);
    EXPECT_EQ(rheader.count, text.size());
    return text;
  }

  test::FakeClock clock_{kNow};
};

TEST_F(JsonAnswerTest, WithoutConsolesTheListIsEmpty) {
  EXPECT_EQ(Answer("status"), "");
  EXPECT_EQ(Answer("status nobody"), "");
}

TEST_F(JsonAnswerTest, ShowsAConsoleThatIsNotConnected) {
  ConsoleNode* cnode = test::AddConsole(i_cons_list, "lab1");
  clock_.Advance(60);
  cnode->status = kRefused;
  EXPECT_EQ(Answer("status"),
            "{\"console\": \"lab1\", \"state\": \"refused\", \"since\": 1000000060, "
            "\"last_output\": null, \"users\": []}\n");
}

TEST_F(JsonAnswerTest, ShowsUsersByTheirRealAndTheirGivenNames) {
  const Attached<ConsoleNode> lab = ConnectConsole("lab1");
  lab.node->last_output = kNow + 7;
  clock_.Advance(10);
  const Attached<UserNode> plain = AttachUser(lab.node, "<unknown>", kReadOnly);
  CopyText(plain.node->identity.from, "192.0.2.1");
  clock_.Advance(1);
  const Attached<UserNode> known = AttachUser(lab.node, "anna", kExclusiveRevocable);
  known.node->identity = {"anna", "VRQ", "192.0.2.2", "desk \"4\""};
  EXPECT_THAT(
      Answer("status LAB1"),
      ::testing::EndsWith(
          ", \"last_output\": 1000000007, \"users\": ["
          "{\"user\": null, \"given_user\": null, \"from\": \"192.0.2.1\", \"given_from\": null, "
          "\"mode\": \"read-only\", \"since\": 1000000010}, "
          "{\"user\": \"anna\", \"given_user\": \"VRQ\", \"from\": \"192.0.2.2\", "
          "\"given_from\": \"desk \\\"4\\\"\", \"mode\": \"exclusive-revoke\", "
          "\"since\": 1000000011}]}\n"));
  EXPECT_THAT(Answer("status lab1"), StartsWith("{\"console\": \"lab1\", \"state\": \"in-use\", "));
}

TEST_F(JsonAnswerTest, StatesHaveTheirWords) {
  const Attached<ConsoleNode> up = ConnectConsole("up");
  EXPECT_THAT(Answer("status up"), HasSubstr("\"state\": \"connected\""));
  ConsoleNode* down = test::AddConsole(i_cons_list, "down");
  EXPECT_THAT(Answer("status down"), HasSubstr("\"state\": \"not-connected\""));
  down->status = kInProgress;
  EXPECT_THAT(Answer("status down"), HasSubstr("\"state\": \"connecting\""));
  down->status = 7;
  EXPECT_THAT(Answer("status down"), HasSubstr("\"state\": \"unknown\""));
  clock_.Advance(3);
  down->enable = 0;
  EXPECT_THAT(Answer("status down"), HasSubstr("\"state\": \"disabled\", \"since\": 1000000003"));
}

TEST_F(JsonAnswerTest, ModesHaveTheirWords) {
  const Attached<ConsoleNode> lab = ConnectConsole("lab1");
  const Attached<UserNode> user = AttachUser(lab.node, "anna");
  for (const auto& [mode, word] : {std::pair{kReadOnly, "read-only"},
                                   {kShared, "shared"},
                                   {kExclusive, "exclusive"},
                                   {kExclusiveRevocable, "exclusive-revoke"}}) {
    user.node->mode = mode;
    EXPECT_THAT(Answer("status"), HasSubstr("\"mode\": \"" + std::string(word) + "\""));
  }
}

TEST_F(JsonAnswerTest, ConnectedConsolesComeFirst) {
  test::AddConsole(i_cons_list, "down");
  const Attached<ConsoleNode> up = ConnectConsole("up");
  const std::string text = Answer("status");
  EXPECT_LT(text.find("\"up\""), text.find("\"down\""));
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
}

TEST_F(JsonAnswerTest, OutputIsDated) {
  const Attached<ConsoleNode> lab = ConnectConsole("lab1");
  const uint64_t before = counters.console_bytes.Get();
  clock_.Advance(9);
  test::SendText(lab.peer.get(), "login: ");
  DescriptorSet fdset;
  ASSERT_TRUE(fdset.CopyFrom(a_cons_list->fdset));
  ASSERT_EQ(CheckForConsoleOutput(a_cons_list->high_sock, &fdset), 1);
  ProcessConsoleOutput(fdset);
  EXPECT_EQ(lab.node->last_output, kNow + 9);
  EXPECT_EQ(counters.console_bytes.Get(), before + 7);
}

// ---- "stats" ------------------------------------------------------------------------------------

TEST_F(JsonAnswerTest, StatsAreOneObjectOfNumbers) {
  StartCounting();
  const std::string reloads = std::to_string(counters.reloads.Get() + 1);
  clock_.Advance(5);
  NoteReload(ReloadResult::kDone);
  const std::string text = Answer("stats and more");
  std::string keys;
  for (size_t at = text.find('"'); at != std::string::npos; at = text.find('"', at + 1)) {
    const size_t end = text.find('"', at + 1);
    if (text[end + 1] == ':') keys += text.substr(at + 1, end - at - 1) + " ";
    at = end;
  }
  EXPECT_EQ(
      keys,
      "started console_connections console_failures console_losses console_bytes console_lines "
      "log_records log_bytes log_records_lost connections refusals logins_accepted logins_refused "
      "users_attached users_left bytes_not_shown slow_readers tools_attached "
      "commands events_posted "
      "events_dropped "
      "reloads refusals_by_number 001 002 003 004 005 006 007 008 009 010 011 012 013 014 015 016 "
      "cpu_microseconds memory_bytes journal journal_records journal_bytes journal_records_lost "
      "journal_gaps "
      "journal_end last_reload last_reload_result ");
  EXPECT_THAT(text, StartsWith("{\"started\": 1000000000, \"console_connections\": "));
  EXPECT_THAT(text,
              HasSubstr(", \"reloads\": " + reloads + ", \"refusals_by_number\": {\"001\": "));
  EXPECT_THAT(text, ::testing::EndsWith(", \"journal\": \"off\", \"journal_records\": 0, "
                                        "\"journal_bytes\": 0, \"journal_records_lost\": 0, "
                                        "\"journal_gaps\": 0, \"journal_end\": null"
                                        ", \"last_reload\": 1000000005, "
                                        "\"last_reload_result\": \"done\"}\n"));
}

TEST_F(JsonAnswerTest, StatsShowHowTheLastReloadEnded) {
  NoteReload(ReloadResult::kEventFilesFailed);
  EXPECT_THAT(Answer("stats"), HasSubstr("\"last_reload_result\": \"event files failed\"}"));
  NoteReload(ReloadResult::kConfigurationFailed);
  EXPECT_THAT(Answer("stats"), HasSubstr("\"last_reload_result\": \"configuration failed\"}"));
}

}  // namespace
