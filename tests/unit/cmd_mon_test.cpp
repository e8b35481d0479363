// The command port's thread: waiting, reading, the command language, and the thread as a whole.
#include "cmd_mon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "attach.h"
#include "cmd_mon_steps.h"
#include "command_support.h"
#include "failure_support.h"
#include "lists.h"
#include "threads.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using test::AnnouncesDaemonError;
using test::Attached;
using test::Call;
using test::DebugCapture;
using test::FailAllocation;
using test::FailCall;
using test::IsExitTrace;
using test::IsFree;
using test::kNoMemoryLine;
using test::kOperatorAddress;
using test::LockSteps;
using test::ReceiveAvailable;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

using CommandMonitorTest = test::CommandTest;
using CommandMonitorDeathTest = CommandMonitorTest;

// ---- Waiting ------------------------------------------------------------------------------------

TEST_F(CommandMonitorTest, WaitTellsWhoHasSentACommandAndWhoHasRoom) {
  const Attached<CommandNode> silent = Connect();
  const Attached<CommandNode> asking = Connect();
  const Attached<CommandNode> waiting = Connect();
  test::SendText(asking.peer.get(), "console\n");
  DescriptorSet lines;
  DescriptorSet room;
  ASSERT_TRUE(lines.CopyFrom(cmd_list->fdset));
  lines.Remove(waiting.node->sock);
  ASSERT_TRUE(room.Add(waiting.node->sock));
  EXPECT_EQ(CheckForCommand(cmd_list->high_sock, &lines, &room), 1);
  EXPECT_FALSE(lines.Contains(silent.node->sock));
  EXPECT_TRUE(lines.Contains(asking.node->sock));
  EXPECT_TRUE(room.Contains(waiting.node->sock));
  EXPECT_FALSE(room.Contains(asking.node->sock));
}

TEST_F(CommandMonitorTest, WaitLastsTwoSeconds) {
  const Attached<CommandNode> silent = Connect();
  cmd_mon_waker.Drain();
  DescriptorSet lines;
  DescriptorSet room;
  ASSERT_TRUE(lines.CopyFrom(cmd_list->fdset));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CheckForCommand(cmd_list->high_sock, &lines, &room), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1990));
  EXPECT_FALSE(lines.Contains(silent.node->sock));
}

TEST_F(CommandMonitorTest, WakerEndsTheWaitAndIsNotCounted) {
  cmd_mon_waker.Wake();
  DescriptorSet lines;
  DescriptorSet room;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CheckForCommand(-1, &lines, &room), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_FALSE(lines.Contains(cmd_mon_waker.descriptor()));
}

TEST_F(CommandMonitorTest, WithoutMemoryNobodyIsReady) {
  const Attached<CommandNode> asking = Connect();
  test::SendText(asking.peer.get(), "console\n");
  DescriptorSet lines;
  DescriptorSet room;
  const FailAllocation failure(1, FailAllocation::kForEver);
  EXPECT_EQ(CheckForCommand(cmd_list->high_sock, &lines, &room), 0);
  EXPECT_FALSE(lines.Contains(asking.node->sock));
}

TEST_F(CommandMonitorDeathTest, FailingWaitEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(Call::kSelect, EINTR);
        Pass();
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre(
          "CheckForCommand: select() failed : Interrupted system call\n",
          AnnouncesDaemonError("Terminated............."), IsExitTrace(1, "cmd_mon.cpp"))));
}

// ---- Reading and answering ----------------------------------------------------------------------

TEST_F(CommandMonitorTest, ToolsAreServedInTheOrderOfHandOver) {
  SocketPair low;
  SocketPair high;
  const bool swapped = low.ours.get() > high.ours.get();
  SocketPair& first = swapped ? low : high;  // with the higher descriptor
  SocketPair& second = swapped ? high : low;
  ASSERT_GT(first.ours.get(), second.ours.get());
  MonitorSocketForCommands(first.ours.Release(), "first", kOperatorAddress);
  MonitorSocketForCommands(second.ours.Release(), "second", kOperatorAddress);
  test::SendText(second.theirs.get(), "console\n");
  test::SendText(first.theirs.get(), "mapped_port\n");
  const DebugCapture debug(kDetail);
  Pass();
  const auto line = [](const char* what, const char* user) {
    return "ProcessCommand: Received command \""s + what + "\n\" from \"" + user + "\" at \"" +
           kOperatorAddress + "\".\n";
  };
  const auto response = [](const char* user) {
    return "SendCommandResponse: Sending response \"1\" to \""s + user + "\" at \"" +
           kOperatorAddress + "\".\n";
  };
  EXPECT_THAT(debug.Messages(), ElementsAre(line("mapped_port", "first"), response("first"),
                                            line("console", "second"), response("second")));
}

TEST_F(CommandMonitorTest, EachPassReadsOneLineOfAConnection) {
  const Attached<CommandNode> tool = Connect();
  test::SendText(tool.peer.get(), "console\nwho\n");
  Pass();
  EXPECT_EQ(Received(tool).type, kRecordsFollow);
  Pass();
  EXPECT_EQ(Received(tool).body, "No console specified.\0"s);
}

TEST_F(CommandMonitorTest, ToolThatLeftIsClosedSilentlyAndRemovedInTheSamePass) {
  Attached<CommandNode> leaver = Connect("leaver");
  const Attached<CommandNode> other = Connect("other");
  const int sock = leaver.node->sock;
  shutdown(leaver.peer.get(), SHUT_WR);
  const DebugCapture debug(kDetail);
  errno = 0;
  Pass();
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ReadLineWithTimeout: recv() returned 0 : Success\n",
                          "ProcessCommand: ReadLine() returned -1\n",
                          "CleanUpClosedConnections: Cleaning up closed command connection.\n"));
  EXPECT_EQ(test::Receive(leaver.peer.get(), 1), "");
  EXPECT_FALSE(test::IsOpen(sock));
  EXPECT_EQ(cmd_list->count, 1);
  EXPECT_EQ(cmd_list->head->tool, other.node);
  EXPECT_EQ(cmd_list->high_sock, other.node->sock);
}

TEST_F(CommandMonitorTest, ClosedConnectionsAreFoundFromTheHead) {
  const Attached<CommandNode> open = Connect();
  const Attached<CommandNode> first = Connect();
  const Attached<CommandNode> second = Connect();
  EXPECT_EQ(cmd_mon::GetClosedConnection(), nullptr);
  CloseCommandConnection(second.node);
  CloseCommandConnection(first.node);
  EXPECT_EQ(cmd_mon::GetClosedConnection(), first.node);
  EXPECT_EQ(cmd_list->count, 3);
  cmd_mon::CleanUpClosedConnections();
  EXPECT_EQ(cmd_list->count, 1);
  EXPECT_EQ(cmd_list->head->tool, open.node);
}

// Bytes that are allocated. The sanitizers' own allocators do not tell; AddressSanitizer's leak
// checker looks instead.
size_t HeapInUse() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return 0;
#else
  return mallinfo2().uordblks;
#endif
}

TEST_F(CommandMonitorTest, RecordsAreReleased) {
  for (int i = 0; i < 100; ++i) test::AddConsole(i_cons_list, "box");
  AddHeld("held");
  const Attached<CommandNode> tool = Connect();
  const auto ask_all = [&] {
    for (const char* line : {"console", "mapped_port", "who held", "portholder held"}) {
      EXPECT_EQ(Ask(tool, line).type, kRecordsFollow);
    }
  };
  ask_all();
  const size_t before = HeapInUse();
  for (int i = 0; i < 20; ++i) ask_all();
  EXPECT_LT(HeapInUse(), before + 100 * kConsolePacketSize);
}

// ---- The language -------------------------------------------------------------------------------

TEST_F(CommandMonitorTest, WordsAndTheirNumbers) {
  std::map<std::string, int> words;
  for (const CommandRow& row : CommandTable()) words[row.word] = row.id;
  EXPECT_THAT(words,
              UnorderedElementsAre(Pair("console", 1), Pair("who", 2), Pair("mapped_port", 3),
                                   Pair("clear", 4), Pair("disable", 5), Pair("enable", 6),
                                   Pair("msg", 7), Pair("force", 8), Pair("portholder", 9),
                                   Pair("status", 10), Pair("stats", 11), Pair("reconnect", 12)));
}

std::string MixedCase(std::string word) {
  for (size_t i = 0; i < word.size(); i += 2) word[i] = static_cast<char>(toupper(word[i]));
  return word;
}

TEST_F(CommandMonitorTest, WordsInAnyCase) {
  for (const CommandRow& row : CommandTable()) {
    for (const std::string& word : {std::string(row.word), MixedCase(row.word)}) {
      EXPECT_EQ(Execute(word + " nobody text\n"), row.id) << word;
      ReleaseRecords();
    }
  }
}

TEST_F(CommandMonitorTest, MissingName) {
  for (const CommandRow& row : CommandTable()) {
    for (const char* line_end : {"", "\n", " \r\n", "  "}) {
      SCOPED_TRACE(row.word);
      const CommandId id = Execute(std::string(row.word) + line_end);
      if (row.argument == CommandArgument::kOptionalConsole ||
          row.argument == CommandArgument::kNone) {
        EXPECT_EQ(id, row.id);
        EXPECT_EQ(rheader.type, kRecordsFollow);
      } else {
        EXPECT_EQ(id, kNoCommand);
        EXPECT_EQ(Error(), "No console specified.");
        EXPECT_EQ(rheader.count, 22U);
      }
      ReleaseRecords();
    }
  }
}

TEST_F(CommandMonitorTest, MissingText) {
  for (const CommandRow& row : CommandTable()) {
    const CommandId id = Execute(std::string(row.word) + " -");
    if (row.argument == CommandArgument::kConsoleAndText) {
      EXPECT_EQ(id, kNoCommand) << row.word;
      EXPECT_EQ(Error(), "No message specified.");
      EXPECT_EQ(Execute(std::string(row.word) + " -\n"), row.id);  // an empty text is a text
      EXPECT_EQ(rheader.type, kDone);
    } else {
      EXPECT_EQ(id, row.id) << row.word;
    }
    ReleaseRecords();
  }
}

TEST_F(CommandMonitorTest, LinesThatAreNotCommands) {
  for (const char* line : {"", "\n", " \r\n ", "\r"}) {
    EXPECT_EQ(Execute(line), kNoCommand);
    EXPECT_EQ(Error(), "No command specified.");
  }
  for (const char* line : {"consoles", "who\tbox", "\tconsole", "con sole", "console\t"}) {
    EXPECT_EQ(Execute(line), kNoCommand);
    EXPECT_EQ(Error(), "Invalid command.");
  }
}

TEST_F(CommandMonitorTest, CarriageReturnsAndLineFeedsSeparateWordsToo) {
  test::AddConsole(i_cons_list, "box");
  EXPECT_EQ(Execute("\r console\rbox\r\nmore words"), kConsoleCommand);
  EXPECT_EQ(rheader.count, 1U);
}

TEST_F(CommandMonitorTest, LocksOfEveryCommand) {
  const std::map<std::string, std::vector<std::string>> expected = {
      {"console", {"+icl", "+acl", "-acl", "-icl"}},
      {"mapped_port", {"+icl", "+acl", "-acl", "-icl"}},
      {"who", {"+acl", "+icl", "-acl", "-icl"}},
      {"clear", {"+acl", "+icl", "-icl", "-acl", "error"}},
      {"disable", {"+acl", "+icl", "-icl", "-acl", "error"}},
      {"enable", {"+acl", "+icl", "-icl", "-acl"}},
      {"msg", {"+acl", "-acl"}},
      {"force", {"+icl", "+acl", "-icl", "-acl", "error"}},
      {"portholder", {"+icl", "+acl", "-icl", "-acl", "error"}},
      {"status", {"+icl", "+acl", "-acl", "-icl"}},
      {"stats", {}},
      {"reconnect", {"+icl", "+acl", "-icl", "-acl", "error"}},
  };
  for (const CommandRow& row : CommandTable()) {
    SCOPED_TRACE(row.word);
    const DebugCapture debug(kTrace);
    ASSERT_EQ(Execute(std::string(row.word) + " nobody text"), row.id);
    EXPECT_THAT(LockSteps(debug), ::testing::ElementsAreArray(expected.at(row.word)));
    ReleaseRecords();
  }
}

// ---- The thread as a whole ----------------------------------------------------------------------

void ParkMonitor() {
  thread_waitreq_mask |= kPauseCmdMon;
  cmd_mon_waker.Wake();
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == kPauseCmdMon; }));
}

// The thread never ends, so it runs in a process of its own.
void ExpectCommandsToBeServed(const Attached<CommandNode>& tool) {
  const DebugCapture debug(kTrace);
  std::thread([] { CommandMonitorThreadStart(nullptr); }).detach();
  const std::string nothing = "\x01\0\0\0\0\0\0\0"s;
  test::SendText(tool.peer.get(), "console\n");
  EXPECT_EQ(test::Receive(tool.peer.get(), kHeaderSize), nothing);
  ParkMonitor();
  EXPECT_EQ(kPauseCmdMon, 0x10);
  EXPECT_TRUE(IsFree(cmd_lock));
  test::SendText(tool.peer.get(), "console\n");
  EXPECT_EQ(ReceiveAvailable(tool.peer.get()), "");  // it stands still
  thread_waitreq_mask &= ~kPauseCmdMon;
  EXPECT_EQ(test::Receive(tool.peer.get(), kHeaderSize), nothing);
  EXPECT_TRUE(test::Eventually([] { return thread_waiting_mask == 0; }));
  shutdown(tool.peer.get(), SHUT_WR);
  EXPECT_EQ(test::Receive(tool.peer.get(), 1), "");
  ParkMonitor();  // for the rest of this process
  EXPECT_EQ(cmd_list->count, 0);
  for (const test::DebugLine& line : debug.Lines()) {
    const bool by_monitor = line.text.find("ProcessCommand") != std::string::npos;
    EXPECT_TRUE(!by_monitor || line.thread == "cmd_mon") << line.text;
  }
}

TEST_F(CommandMonitorDeathTest, ThreadServesParksAndRemoves) {
  EXPECT_HOLDS_IN_CHILD(ExpectCommandsToBeServed(Connect()));
}

// The thread's first pass finds no memory for its set; its second one begins.
void ExpectAPauseWithoutMemory() {
  const DebugCapture debug;
  std::array<useconds_t, 3> sleeps{};
  std::atomic<size_t> count = 0;
  std::thread([&] {
    std::optional<FailAllocation> failure;
    test::FakeClock clock;
    clock.OnSleep([&](useconds_t time) {
      sleeps.at(count) = time;
      if (count == 0) failure.emplace(1);
      if (++count < sleeps.size()) return;
      for (;;) pause();
    });
    MonitorCommands();
  }).detach();
  EXPECT_TRUE(test::Eventually([&] { return count == sleeps.size(); }));
  EXPECT_THAT(sleeps, ElementsAre(500, 2000000, 500));
  EXPECT_THAT(debug.Messages(), ElementsAre("MonitorCommands: "s + kNoMemoryLine));
}

TEST_F(CommandMonitorDeathTest, PassWithoutMemoryLastsAsLongAsAWait) {
  const Attached<CommandNode> tool = Connect();
  EXPECT_HOLDS_IN_CHILD(ExpectAPauseWithoutMemory());
}

}  // namespace
