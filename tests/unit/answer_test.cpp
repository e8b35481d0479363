// The answers of the command port: how they are laid out and how they go out.
#include "answer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <string>

#include "cmd_mon.h"
#include "cmd_mon_steps.h"
#include "command_support.h"
#include "failure_support.h"
#include "lists.h"

using namespace zevd;

namespace {

using namespace std::string_literals;
using test::Answer;
using test::Attached;
using test::Call;
using test::DebugCapture;
using test::FailCall;
using test::FieldText;
using test::kOperator;
using test::LittleEndian;
using test::ReceiveAvailable;
using ::testing::ElementsAre;

using AnswerTest = test::CommandTest;

// ---- Layout -------------------------------------------------------------------------------------

TEST(PacketWriterTest, NumbersAreLittleEndian) {
  std::array<uint8_t, 6> bytes{};
  PacketWriter(bytes.data()).Number16(0x1234).Number32(0x89ABCDEF);
  EXPECT_THAT(bytes, ElementsAre(0x34, 0x12, 0xEF, 0xCD, 0xAB, 0x89));
}

TEST(PacketWriterTest, LargeNumbersAreCutTo16Bits) {
  std::array<uint8_t, 3> bytes{0, 0, 0x77};
  PacketWriter(bytes.data()).Number16(0xABCDEF);
  EXPECT_THAT(bytes, ElementsAre(0xEF, 0xCD, 0x77));
}

TEST(PacketWriterTest, TextsArePaddedWithNulsOrCut) {
  std::array<uint8_t, 9> bytes{};
  bytes.fill('#');
  PacketWriter(bytes.data()).Text("ab", 4).Text("cdefg", 4);
  EXPECT_THAT(bytes, ElementsAre('a', 'b', 0, 0, 'c', 'd', 'e', 'f', '#'));
}

TEST(PacketWriterTest, CodesAreTwoBytes) {
  std::array<uint8_t, 3> bytes{'#', '#', '#'};
  PacketWriter(bytes.data()).Code({'9', '\0'});
  EXPECT_THAT(bytes, ElementsAre('9', 0, '#'));
}

// ---- Texts --------------------------------------------------------------------------------------

TEST_F(AnswerTest, TextIsSentWholeAndCountedInBytes) {
  const Attached<CommandNode> tool = Connect();
  ASSERT_TRUE(AnswerText("one\ntwo\n"));
  EXPECT_EQ(SendCommandResponse(tool.node, kStatusCommand), 0);
  const Answer answer = Received(tool);
  EXPECT_EQ(answer.type, kRecordsFollow);
  EXPECT_EQ(answer.count, 8U);
  EXPECT_EQ(answer.body, "one\ntwo\n");
}

TEST_F(AnswerTest, NoMemoryForTheText) {
  rheader = {kDone, 7};
  const test::FailAllocation failure(1);
  EXPECT_FALSE(AnswerText("text"));
  EXPECT_EQ(rheader.type, kDone);
}

TEST_F(AnswerTest, ErrorTextIsCut) {
  EXPECT_EQ(Execute("enable " + std::string(200, 'n')), kEnableCommand);
  EXPECT_EQ(Error(), "Unrecognized console \""s + std::string(57, 'n'));
  EXPECT_EQ(rheader.count, kErrorTextSize);
}

// ---- Sending ------------------------------------------------------------------------------------

/// Three consoles, so that a "console" answer takes four sends.
class SendTest : public AnswerTest {
 protected:
  SendTest() {
    for (const char* name : {"c1", "c2", "c3"}) test::AddConsole(i_cons_list, name);
  }

  /// The n-th send of the answer to `line` fails.
  void ExpectToFailAt(int nth, const std::string& line, size_t bytes_before) {
    SCOPED_TRACE(line);
    Attached<CommandNode> tool = Connect();
    const int id = Execute(line);
    const DebugCapture debug;
    {
      const FailCall failure(Call::kSend, EPIPE, nth, 1);
      EXPECT_EQ(SendCommandResponse(tool.node, id), -1);
      EXPECT_EQ(failure.calls(), nth);
    }
    EXPECT_THAT(debug.Messages(),
                ElementsAre("SendCommandResponse: send() failed : Broken pipe\n"));
    EXPECT_EQ(tool.node->connected, 0);
    EXPECT_FALSE(test::IsOpen(tool.node->sock));
    EXPECT_EQ(ReceiveAvailable(tool.peer.get()).size(), bytes_before);
    cmd_mon::CleanUpClosedConnections();
    EXPECT_EQ(cmd_list->count, 0);
  }
};

TEST_F(SendTest, FailureAtTheHeader) {
  ExpectToFailAt(1, "console", 0);
}

TEST_F(SendTest, FailureInTheMiddleOfTheRecords) {
  ExpectToFailAt(3, "console", kHeaderSize + kConsolePacketSize);
}

TEST_F(SendTest, FailureAtTheText) {
  ExpectToFailAt(2, "nonsense", kHeaderSize);
}

TEST_F(SendTest, EachRecordIsOneSend) {
  const Attached<CommandNode> tool = Connect();
  const int id = Execute("console");
  const FailCall sends(Call::kSend, 0, 1, 0);
  EXPECT_EQ(SendCommandResponse(tool.node, id), 0);
  EXPECT_EQ(sends.calls(), 4);
}

TEST_F(SendTest, RecordsOfAnotherCommandAreNotSent) {
  const Attached<CommandNode> tool = Connect();
  Execute("console");
  EXPECT_EQ(SendCommandResponse(tool.node, kEnableCommand), 0);
  const Answer answer = Received(tool);
  EXPECT_EQ(answer.type, kRecordsFollow);
  EXPECT_EQ(answer.count, 3U);
  EXPECT_EQ(answer.body, "");
}

TEST_F(SendTest, DoneKeepsTheCountOfTheAnswerBefore) {
  const Attached<CommandNode> tool = Connect();
  const Attached<CommandNode> other = Connect();
  EXPECT_EQ(Ask(tool, "enable c1").count, 0U);  // the very first answer
  EXPECT_EQ(Ask(tool, "console").count, 3U);
  const Answer done = Ask(other, "enable c1");
  EXPECT_EQ(done.type, kDone);
  EXPECT_EQ(done.count, 3U);
  EXPECT_EQ(done.body, "");
}

/// A tool with little room, and an answer that is longer than that.
class LongAnswerTest : public AnswerTest {
 protected:
  static constexpr uint32_t kConsoles = 500;

  LongAnswerTest() {
    for (uint32_t i = 0; i < kConsoles; ++i) test::AddConsole(i_cons_list, "box");
    EXPECT_EQ(SendCommandResponse(tool_.node, Execute("console")), 0);
    EXPECT_TRUE(tool_.node->answer.IsUnsent());
  }

  /// Reads a little and lets the monitor go on until there is no more. Returns all that was read.
  std::string ReadSlowly() {
    std::string received;
    for (bool unsent = true; unsent; cmd_mon::SendUnsentAnswers()) {
      unsent = tool_.node->answer.IsUnsent();
      std::array<char, 1000> chunk{};
      const ssize_t count = recv(tool_.peer.get(), chunk.data(), chunk.size(), MSG_DONTWAIT);
      if (count > 0) received.append(chunk.data(), static_cast<size_t>(count));
    }
    return received + ReceiveAvailable(tool_.peer.get());
  }

  Attached<CommandNode> tool_ = Connect(kOperator, 4096);
};

TEST_F(LongAnswerTest, RestFollowsAsTheToolMakesRoom) {
  ReleaseRecords();  // as the monitor does after each command
  const std::string received = ReadSlowly();
  ASSERT_EQ(received.size(), kHeaderSize + kConsoles * kConsolePacketSize);
  EXPECT_EQ(LittleEndian(received, 4, 4), kConsoles);
  for (uint32_t i = 0; i < kConsoles; ++i) {
    ASSERT_EQ(FieldText(received, kHeaderSize + i * kConsolePacketSize, kWireNameWidth), "box")
        << i;
  }
  EXPECT_EQ(tool_.node->answer.records, nullptr);
}

TEST_F(LongAnswerTest, LaterCommandsDoNotChangeIt) {
  EXPECT_EQ(Execute("nonsense"), kNoCommand);  // another tool's turn
  const std::string received = ReadSlowly();
  EXPECT_EQ(received.size(), kHeaderSize + kConsoles * kConsolePacketSize);
}

TEST_F(LongAnswerTest, NothingIsSentWithoutRoom) {
  const size_t sent = tool_.node->answer.sent;
  const FailCall sends(Call::kSend, 0, 1, 0);
  cmd_mon::SendUnsentAnswers();
  EXPECT_EQ(sends.calls(), 1);
  EXPECT_EQ(tool_.node->answer.sent, sent);
  EXPECT_EQ(tool_.node->connected, 1);
}

TEST_F(LongAnswerTest, ToolThatLeavesIsClosedAndRemoved) {
  tool_.peer.Reset();
  const DebugCapture debug;
  cmd_mon::SendUnsentAnswers();
  EXPECT_THAT(debug.Messages(), ElementsAre("SendCommandResponse: send() failed : Broken pipe\n"));
  EXPECT_EQ(tool_.node->connected, 0);
  cmd_mon::CleanUpClosedConnections();
  EXPECT_EQ(cmd_list->count, 0);
}

}  // namespace
