// The steps of the console output monitor: notices, reading, waiting and clean-up.
#include "cons_mon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "cons_mon_steps.h"
#include "console_output.h"
#include "debug_support.h"
#include "failure_support.h"
#include "file_support.h"
#include "lists.h"
#include "locks.h"
#include "long_text_support.h"
#include "options.h"
#include "relay_support.h"
#include "user_mon.h"
#include "user_mon_steps.h"
#include "user_output.h"

using namespace zevd;

namespace {

using namespace std::string_view_literals;
using test::AnnouncesDaemonError;
using test::AreSame;
using test::Attached;
using test::AttachUser;
using test::Call;
using test::ConnectConsole;
using test::DebugCapture;
using test::DebugMessages;
using test::FailCall;
using test::IsExitTrace;
using test::LongLines;
using test::ReceiveAvailable;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::ExitedWithCode;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

class ConsoleMonitorTest : public test::RelayTest {
 protected:
  /// Reads what the consoles have printed, as a pass of the monitor does.
  static void Pass() {
    DescriptorSet fdset;
    ASSERT_TRUE(fdset.CopyFrom(a_cons_list->fdset));
    if (CheckForConsoleOutput(a_cons_list->high_sock, &fdset) != 0) ProcessConsoleOutput(fdset);
  }

  void Print(std::string_view text) { test::SendText(console_.peer.get(), text); }

  Attached<UserNode> AddUser(const char* name, int mode = kShared) {
    return AttachUser(console_.node, name, mode);
  }

  Attached<ConsoleNode> console_ = ConnectConsole("sys1");
};

// ---- What is handed on --------------------------------------------------------------------------

class DispatchTest : public ConsoleMonitorTest {
 protected:
  DispatchTest() {
    cons_buf_size = 2048;
    console_ = ConnectConsole("ringed");
  }

  void Dispatch(std::string_view chunk) {
    std::string turn(chunk);
    DispatchConsoleOutput(console_.node, turn.data(), static_cast<int>(turn.size()));
  }

  std::string Ring() const {
    const ConsoleBuffer& ring = console_.node->cons_buf;
    return {ring.buf + ring.head, ring.buf + ring.tail};
  }

  void ExpectDropped(std::string_view chunk) {
    SCOPED_TRACE(::testing::PrintToString(chunk.substr(0, 80)));
    const std::string before = Ring();
    Dispatch(chunk);
    EXPECT_EQ(Ring(), before);
  }

  void ExpectKept(std::string_view chunk) {
    SCOPED_TRACE(::testing::PrintToString(chunk.substr(0, 80)));
    const std::string before = Ring();
    Dispatch(chunk);
    EXPECT_EQ(Ring(), before + std::string(chunk));
  }
};

constexpr char kOpenSession[] = "Session is already open to the partition/CLI";
constexpr char kEnterYes[] = "Enter \"YES\" within 5 seconds to disconnect the existing user";
constexpr char kTimedOutNotice[] = "Timed out, disconnecting...";

TEST_F(DispatchTest, RingThenLogThenUsers) {
  console_.node->logging = 1;
  const Attached<UserNode> user = AddUser("anna");
  const DebugCapture debug(kTrace);
  Dispatch("login: ");
  const std::vector<std::string> entries = test::Containing(debug.Messages(), "Entering ");
  const auto position = [&](const char* entry) {
    return std::find(entries.begin(), entries.end(), entry) - entries.begin();
  };
  EXPECT_LT(position("Entering BufferConsoleOutput\n"), position("Entering WriteLogFile\n"));
  EXPECT_LT(position("Entering WriteLogFile\n"), position("Entering SendConsoleOutputToUsers\n"));
  EXPECT_THAT(entries, Contains("Entering SendConsoleOutputToUsers\n"));
  EXPECT_EQ(Ring(), "login: ");
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "login: ");
}

TEST_F(DispatchTest, OnlyWhatIsToBeLoggedIsLogged) {
  const DebugCapture debug(kTrace);
  Dispatch("login: ");
  EXPECT_THAT(debug.Messages(), Not(Contains("Entering WriteLogFile\n")));
}

TEST_F(DispatchTest, RawBytesAreHandedOn) {
  const Attached<UserNode> user = AddUser("anna");
  Dispatch("a\r\n\0\xFF\xFB\x01z"sv);
  EXPECT_EQ(Ring(), "a\r\n\0\xFF\xFB\x01z"sv);
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "a\r\n\0\xFF\xFB\x01z"sv);
}

TEST_F(DispatchTest, ChunkThatBeginsWithAHighByteIsDroppedWithoutUsers) {
  console_.node->logging = 1;
  const DebugCapture debug(kTrace);
  ExpectDropped("\xFF\xFB\x01login: ");
  ExpectDropped("\x80");
  EXPECT_THAT(debug.Messages(), Not(Contains("Entering WriteLogFile\n")));
}

TEST_F(DispatchTest, OnlyTheFirstByteCounts) {
  ExpectKept("\x7F\xFF");
  ExpectKept("a\xFF\xFB\x01");
}

TEST_F(DispatchTest, ChunkThatBeginsWithAHighByteIsKeptForAUser) {
  const Attached<UserNode> user = AddUser("anna", kReadOnly);
  ExpectKept("\xFF\xFB\x01login: ");
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "\xFF\xFB\x01login: ");
}

TEST_F(DispatchTest, NoticesAreHiddenFromEverybody) {
  console_.node->logging = 1;
  const Attached<UserNode> user = AddUser("anna");
  const DebugCapture debug(kTrace);
  ExpectDropped(std::string("~NET-E-") + kOpenSession);
  ExpectDropped(std::string("~NET-E-0001, ") + kOpenSession + " by 192.0.2.5, port 23\r\n");
  ExpectDropped(std::string("~NET-I-") + kEnterYes);
  ExpectDropped(std::string("~NET-I-0002, please\r\n") + kEnterYes + ".\r\n");
  ExpectDropped(std::string("~NET-I-") + kTimedOutNotice);
  ExpectDropped(std::string("~NET-I-0003: ") + kTimedOutNotice + "\r\nrest of the chunk");
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "");
  EXPECT_THAT(debug.Messages(), Not(Contains("Entering WriteLogFile\n")));
}

TEST_F(DispatchTest, NoticeMustBeginTheChunk) {
  ExpectKept(std::string(" ~NET-I-") + kTimedOutNotice);
  ExpectKept(std::string("\r\n~NET-E-") + kOpenSession);
}

TEST_F(DispatchTest, StartAndTextMustBelongTogether) {
  ExpectKept(std::string("~NET-I-") + kOpenSession);
  ExpectKept(std::string("~NET-E-") + kEnterYes);
  ExpectKept(std::string("~NET-E-") + kTimedOutNotice);
  ExpectKept(kOpenSession);
}

TEST_F(DispatchTest, StartAloneIsOrdinaryOutput) {
  ExpectKept("~NET-E-");
  ExpectKept("~NET-I-0004, hello\r\n");
  ExpectKept("~NET-I");
  ExpectKept(std::string("~net-i-") + kTimedOutNotice);
  ExpectKept("~NET-E-Session is already open to the partition");
  ExpectKept("~NET-I-Enter YES within 5 seconds to disconnect the existing user");
  ExpectKept("~NET-I-Timed out, disconnecting..");
}

TEST_F(DispatchTest, TextAfterANulIsNotSeen) {
  ExpectKept(std::string("~NET-I-\0", 8) + kTimedOutNotice);
  ExpectDropped(std::string("~NET-I-") + kTimedOutNotice + std::string("\0rest", 5));
}

TEST_F(DispatchTest, LastByteOfAFullChunkIsNotSeen) {
  const std::string notice = kTimedOutNotice;
  const std::string padding(1024 - 7 - notice.size(), '.');
  ExpectKept("~NET-I-" + padding + notice);
  ExpectDropped("~NET-I-" + padding.substr(1) + notice + "!");
}

// ---- Turns of several chunks --------------------------------------------------------------------

constexpr size_t kChunk = 1024;

// A chunk that begins with `start`.
std::string Chunk(const std::string& start, char padding) {
  return start + std::string(kChunk - start.size(), padding);
}

/// A console whose output is logged.
class LoggedTurnTest : public DispatchTest {
 protected:
  LoggedTurnTest() {
    cons_buf_size = 40'000;
    console_ = ConnectConsole("logged");
    console_.node->logging = 1;
    log_dir = directory_.path().c_str();
    OpenAllLogFiles();
  }

  ~LoggedTurnTest() override { CloseAllLogFiles(); }

  /// What is logged, without the time stamps.
  std::string Log(const std::string& name = "logged.log") const {
    constexpr size_t kStampLength = 17;
    const std::string records = test::ReadFile(directory_.path() / "zev.dated" / "current" / name);
    std::string lines;
    for (size_t start = 0; start < records.size();) {
      const size_t end = records.find('\n', start) + 1;
      lines += records.substr(start + kStampLength + 1, end - start - kStampLength - 1);
      start = end;
    }
    return lines;
  }

 private:
  test::TemporaryDirectory directory_;
};

TEST_F(LoggedTurnTest, ChunksThatNobodyShallSeeAreLeftOutInTheMiddleOfATurn) {
  const Attached<UserNode> user = AddUser("anna");
  const std::string notice = Chunk(std::string("~NET-I-") + kTimedOutNotice, '.');
  const std::string first = Chunk("first", 'a') + Chunk("second", 'b');
  const std::string last = Chunk("third", 'c') + "~NET-E-end\n";
  const FailCall sends(Call::kSend, EIO, 1, 0);
  Dispatch(first + notice + notice + last);
  EXPECT_EQ(sends.calls(), 1);
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), first + last);
  EXPECT_EQ(Ring(), first + last);
  const std::string logged = Log();
  EXPECT_EQ(logged.find('.'), std::string::npos);
  EXPECT_THAT(logged, EndsWith("~NET-E-end\n"));
}

TEST_F(LoggedTurnTest, FirstByteOfEveryChunkCountsWithoutUsers) {
  const std::string high = Chunk("\xFF\xFD\x18", 'x');
  const std::string low = Chunk("text\xFF\xFD\x18", 'y') + "\n";
  Dispatch(high + low);
  Dispatch("\xE4" + low);
  EXPECT_EQ(Ring(), low + low.substr(kChunk - 1));
}

TEST_F(LoggedTurnTest, TurnThatNobodyShallSeeIsNotSent) {
  const Attached<UserNode> user = AddUser("anna");
  const FailCall sends(Call::kSend, EIO, 1, 0);
  Dispatch(std::string("~NET-I-") + kTimedOutNotice);
  EXPECT_EQ(sends.calls(), 0);
  EXPECT_EQ(Ring(), "");
}

TEST_F(LoggedTurnTest, RecordsOfATurnAreWrittenWithOneCallForEachLog) {
  std::string turn;
  std::string consolidated;
  for (int i = 0; turn.size() < 16'000; ++i) {
    const std::string line = "line " + std::to_string(i) + std::string(30, '.') + '\n';
    turn += line;
    consolidated += "logged " + line;
  }
  const FailCall writes(Call::kWrite, EIO, 1, 0);
  Dispatch(turn + "unfinished");
  EXPECT_EQ(writes.calls(), 2);
  EXPECT_EQ(Log(), turn);
  EXPECT_EQ(Log("consolidated.log"), consolidated);
  Dispatch(" line\n");
  EXPECT_EQ(Log(), turn + "unfinished line\n");
}

// ---- Reading consoles ---------------------------------------------------------------------------

TEST_F(ConsoleMonitorTest, OutputReachesEveryUser) {
  const Attached<UserNode> first = AddUser("anna", kReadOnly);
  const Attached<UserNode> second = AddUser("bert");
  Print("login: ");
  const DebugCapture debug(kTrace);
  Pass();
  EXPECT_EQ(ReceiveAvailable(first.peer.get()), "login: ");
  EXPECT_EQ(ReceiveAvailable(second.peer.get()), "login: ");
  EXPECT_TRUE(debug.Has("ProcessConsoleOutput: Received ->login: <- (7 bytes)\n"));
}

TEST_F(ConsoleMonitorTest, TraceEndsAtANulAndGivesTheWholeLength) {
  Print("ab\0cd"sv);
  const DebugCapture debug(kTrace);
  Pass();
  EXPECT_TRUE(debug.Has("ProcessConsoleOutput: Received ->ab<- (5 bytes)\n"));
}

TEST_F(ConsoleMonitorTest, OutputIsReadWithOneCallAndHandedOnInChunks) {
  const std::string text = LongLines(3000);
  const Attached<UserNode> user = AddUser("anna");
  Print(text);
  const DebugCapture debug(kTrace);
  const FailCall reads(Call::kRecv, EIO, 1, 0);
  Pass();
  EXPECT_EQ(reads.calls(), 2);  // the second one finds nothing
  EXPECT_TRUE(AreSame(ReceiveAvailable(user.peer.get()), text));
  const std::vector<std::string> received = test::Containing(debug.Messages(), ": Received ->");
  ASSERT_EQ(received.size(), 3U);
  for (size_t i = 0; i < 3; ++i) {
    const std::string chunk = text.substr(i * 1024, 1024);
    EXPECT_EQ(received[i], "ProcessConsoleOutput: Received ->" + chunk + "<- (" +
                               std::to_string(chunk.size()) + " bytes)\n");
  }
}

/// The longest turn.
constexpr size_t kTurn = 16384;

TEST_F(ConsoleMonitorTest, UserIsSentATurnWithOneCall) {
  const test::FakePassageOfTime time(1);  // so that a pass has time for every turn
  const std::string text = LongLines(kTurn + 100);
  const Attached<UserNode> user = AddUser("anna");
  Print(text);
  const DebugCapture debug(kTrace);
  const FailCall reads(Call::kRecv, EIO, 1, 0);
  const FailCall sends(Call::kSend, EIO, 1, 0);
  Pass();
  EXPECT_EQ(reads.calls(), 2);
  EXPECT_EQ(sends.calls(), 2);
  EXPECT_TRUE(AreSame(ReceiveAvailable(user.peer.get()), text));
  EXPECT_THAT(test::Containing(debug.Messages(), "<- (1024 bytes)\n"), SizeIs(16));
  EXPECT_THAT(test::Containing(debug.Messages(), "<- (100 bytes)\n"), SizeIs(1));
}

/// A watched list of consoles, each of which may print more than the passes of a test read.
class TurnsTest : public test::RelayTest {
 protected:
  TurnsTest() { WatchMembers(a_cons_list); }

  ~TurnsTest() override {
    auto* watch = std::exchange(a_cons_list->watch, nullptr);
    if (watch == nullptr) return;
    close(watch->descriptor());
    delete watch;
  }

  // The first prints a, the second b, and so on.
  void ConnectConsoles(size_t count, size_t printed = 9 * kTurn) {
    for (size_t i = 0; i < count; ++i) {
      consoles_.push_back(ConnectConsole(("sys" + std::to_string(i)).c_str()));
      Print(i, printed);
    }
  }

  void Print(size_t console, size_t count) {
    test::SendText(consoles_[console].peer.get(),
                   std::string(count, static_cast<char>('a' + console)));
  }

  // Which consoles have a turn in so many passes, as letters, with a blank after each pass.
  static std::string ReadBy(int passes) {
    std::string read;
    for (int i = 0; i < passes; ++i) {
      const DebugCapture debug(kTrace);
      DescriptorSet fdset;
      EXPECT_TRUE(fdset.CopyFrom(a_cons_list->fdset));
      EXPECT_EQ(CheckForConsoleOutput(a_cons_list->high_sock, &fdset), 1);
      ProcessConsoleOutput(fdset);
      read += TurnsIn(debug.Messages()) + ' ';
    }
    return read;
  }

  std::vector<Attached<ConsoleNode>> consoles_;

 private:
  static std::string TurnsIn(const std::vector<std::string>& messages) {
    std::string turns;
    bool begins = false;
    for (const std::string& text : messages) {
      if (text == "Entering DispatchConsoleOutput\n") begins = true;
      const size_t printed = text.find(": Received ->");
      if (printed == std::string::npos || !std::exchange(begins, false)) continue;
      turns += text[text.find("->") + 2];
    }
    return turns;
  }
};

TEST_F(TurnsTest, PassReadsEveryConsoleWhenThereIsTime) {
  ConnectConsoles(5);
  const test::FakePassageOfTime time(790);
  EXPECT_EQ(ReadBy(3), "abcde abcde abcde ");
}

TEST_F(TurnsTest, ConsolesLeftOutForLackOfTimeComeFirstInTheNextPass) {
  ConnectConsoles(5);
  const test::FakePassageOfTime time(1600);
  EXPECT_EQ(ReadBy(6), "ab cd ea bc da eb ");
}

TEST_F(TurnsTest, OneConsoleIsReadHoweverLittleTimeThereIs) {
  ConnectConsoles(3);
  for (const int step : {3999, 4000, 100'000}) {
    const test::FakePassageOfTime time(step);
    EXPECT_EQ(ReadBy(3), "a b c ") << step << " microseconds for each";
  }
}

TEST_F(TurnsTest, ConsolesWithMoreAreReadAgainInTheSameOrder) {
  ConnectConsoles(3, 1);
  Print(0, 2 * kTurn);
  Print(2, 3 * kTurn);
  const test::FakePassageOfTime time(1);
  EXPECT_EQ(ReadBy(1), "abcacacc ");
}

TEST_F(TurnsTest, ConsoleThatHasSaidAllInFullTurnsIsLeftAlone) {
  ConnectConsoles(2, 2 * kTurn);
  const test::FakePassageOfTime time(1);
  EXPECT_EQ(ReadBy(1), "abab ");
  for (const Attached<ConsoleNode>& console : consoles_)
    EXPECT_EQ(console.node->status, kConnected);
}

TEST_F(TurnsTest, FurtherTurnsEndWithTheTimeOfThePass) {
  ConnectConsoles(3);
  const test::FakePassageOfTime time(490);
  EXPECT_EQ(ReadBy(2), "abcabcab abcabcab ");
}

TEST_F(TurnsTest, PassIsShorterWhileAPairOfLocksIsTriedFor) {
  ConnectConsoles(5);
  const test::FakePassageOfTime time(200);
  acl_lock.Announce();
  EXPECT_EQ(ReadBy(3), "abc dea bca ");
  acl_lock.Withdraw();
}

// A turn here takes as long as the clock steps when it is read.
TEST_F(TurnsTest, TurnsThatTakeLongBecomeShorter) {
  const Attached<ConsoleNode> console = ConnectConsole("long");
  ConsoleNode* cnode = console.node;
  test::SendText(console.peer.get(), std::string(8 * kTurn, 'x'));
  const auto after = [&](int step) {
    const test::FakePassageOfTime time(step);
    ReadBy(1);
    return cnode->turn_halvings;
  };
  EXPECT_EQ(after(750), 0);
  EXPECT_EQ(after(4000), 3);
  EXPECT_EQ(after(100'000), 4);
  EXPECT_EQ(after(100'000), 4);
  EXPECT_EQ(after(749), 4);
  EXPECT_LT(after(186), 4);
  const Attached<UserNode> user = AttachUser(cnode, "anna");
  test::SendText(console.peer.get(), std::string(kTurn, 'y'));
  EXPECT_EQ(after(100'000), 0);
}

TEST_F(TurnsTest, UserIsSentEverythingInItsOrderHoweverTheTurnsGo) {
  const Attached<ConsoleNode> console = ConnectConsole("talking");
  const Attached<UserNode> user = AttachUser(console.node, "anna");
  ConnectConsoles(2);
  const std::string text = LongLines(5 * kTurn + 77);
  test::SendText(console.peer.get(), text);
  const test::FakePassageOfTime time(800);
  std::string shown;
  for (int i = 0; i < 6; ++i) {
    ReadBy(1);
    shown += ReceiveAvailable(user.peer.get());
  }
  EXPECT_TRUE(AreSame(shown, text));
}

TEST_F(ConsoleMonitorTest, ListWithoutAWatchIsReadToItsEndHoweverLongItTakes) {
  const Attached<ConsoleNode> second = ConnectConsole("sys2");
  Print("one");
  test::SendText(second.peer.get(), "two");
  const test::FakePassageOfTime time(5000);
  const DebugCapture debug(kTrace);
  Pass();
  EXPECT_THAT(test::Containing(debug.Messages(), ": Received ->"), SizeIs(2));
}

TEST_F(ConsoleMonitorTest, OnlyConsolesOfTheSetAreReadInListOrder) {
  const Attached<ConsoleNode> second = ConnectConsole("sys2");
  const Attached<ConsoleNode> third = ConnectConsole("sys3");
  Print("one");
  test::SendText(second.peer.get(), "two");
  test::SendText(third.peer.get(), "three");
  DescriptorSet fdset;
  ASSERT_TRUE(fdset.Add(third.node->sock) && fdset.Add(console_.node->sock));
  const DebugCapture debug(kTrace);
  ProcessConsoleOutput(fdset);
  EXPECT_THAT(test::Containing(debug.Messages(), ": Received ->"),
              ElementsAre("ProcessConsoleOutput: Received ->one<- (3 bytes)\n",
                          "ProcessConsoleOutput: Received ->three<- (5 bytes)\n"));
}

TEST_F(ConsoleMonitorTest, ConsoleThatHangsUpIsMarkedAndTheNextOneRead) {
  const Attached<ConsoleNode> second = ConnectConsole("sys2");
  const Attached<UserNode> user = AttachUser(second.node, "anna");
  console_.peer.Reset();
  test::SendText(second.peer.get(), "login: ");
  const DebugCapture debug(kDetail);
  Pass();
  EXPECT_THAT(debug.Messages(),
              ElementsAre(StartsWith("ProcessConsoleOutput: recv() returned 0 : "),
                          "CloseConsoleConnection: Closing connection with console sys1\n"));
  EXPECT_EQ(console_.node->status, 3);
  EXPECT_TRUE(test::IsOpen(console_.node->sock));
  EXPECT_EQ(second.node->status, 0);
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "login: ");
}

TEST_F(ConsoleMonitorTest, FailingReceiveMarksTheConsole) {
  const Attached<UserNode> user = AddUser("anna");
  Print("login: ");
  const DebugCapture debug(kDetail);
  const FailCall failure(Call::kRecv, ECONNRESET, 1, 1);
  Pass();
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ProcessConsoleOutput: recv() returned -1 : Connection reset by peer\n",
                          "CloseConsoleConnection: Closing connection with console sys1\n"));
  EXPECT_EQ(console_.node->status, 3);
  EXPECT_EQ(failure.calls(), 1);
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), "");
}

TEST_F(ConsoleMonitorTest, WhatWasReadBeforeAFailureIsShown) {
  const test::FakePassageOfTime time(1);  // so that a pass has time for every turn
  const Attached<UserNode> user = AddUser("anna");
  const std::string text = LongLines(kTurn);
  Print(text + "lost");
  const DebugCapture debug(kDetail);
  const FailCall failure(Call::kRecv, ECONNRESET, 2, 1);
  Pass();
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ProcessConsoleOutput: recv() returned -1 : Connection reset by peer\n",
                          "CloseConsoleConnection: Closing connection with console sys1\n"));
  EXPECT_EQ(console_.node->status, 3);
  EXPECT_TRUE(AreSame(ReceiveAvailable(user.peer.get()), text));
}

TEST_F(ConsoleMonitorTest, UserWhoTakesNothingHoldsNobodyBack) {
  const Attached<ConsoleNode> second = ConnectConsole("sys2");
  const Attached<UserNode> stalled = AddUser("stalled");
  const Attached<UserNode> beside = AddUser("beside");
  const Attached<UserNode> elsewhere = AttachUser(second.node, "elsewhere");
  const size_t filling = test::FillUp(stalled.node->sock);
  Print("one");
  test::SendText(second.peer.get(), "two");
  const auto start = std::chrono::steady_clock::now();
  Pass();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_EQ(ReceiveAvailable(elsewhere.peer.get()), "two");
  EXPECT_EQ(ReceiveAvailable(beside.peer.get()), "one");
  EXPECT_FALSE(stalled.node->output->IsEmpty());
  EXPECT_TRUE(beside.node->output->IsEmpty());
  EXPECT_EQ(ReceiveAvailable(stalled.peer.get()).size(), filling);
  Print("more");
  Pass();  // what waits stays before what comes, though there is room
  EXPECT_EQ(ReceiveAvailable(beside.peer.get()), "more");
  EXPECT_EQ(ReceiveAvailable(stalled.peer.get()), "");
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_EQ(ReceiveAvailable(stalled.peer.get()), "onemore");
  EXPECT_TRUE(stalled.node->output->IsEmpty());
  EXPECT_EQ(stalled.node->connected, 1);
}

TEST_F(ConsoleMonitorTest, UserWhoTakesNothingForLongIsToldHowMuchWasNotShown) {
  const test::FakePassageOfTime time(1);  // so that a pass has time for every turn
  const Attached<UserNode> stalled = AddUser("stalled");
  const Attached<UserNode> beside = AddUser("beside");
  const size_t filling = test::FillUp(stalled.node->sock);
  const std::string text = LongLines(size_t{3} << 20);
  const DebugCapture debug;
  for (size_t printed = 0; printed < text.size(); printed += 65536) {
    const std::string part = text.substr(printed, 65536);
    Print(part);
    std::string seen;
    while (seen.size() < part.size()) {  // on a busy machine it takes more than one pass
      Pass();
      seen += ReceiveAvailable(beside.peer.get());
    }
    EXPECT_TRUE(AreSame(seen, part));
  }
  EXPECT_EQ(stalled.node->connected, 1);
  EXPECT_THAT(debug.Messages(), IsEmpty());
  EXPECT_EQ(ReceiveAvailable(stalled.peer.get()).size(), filling);
  std::string shown;
  while (!stalled.node->output->IsEmpty()) {
    EXPECT_FALSE(SendWaitingOutput());
    shown += ReceiveAvailable(stalled.peer.get());
  }
  const size_t end_of_mark = shown.find("]\r\n") + 3;
  const std::string rest = shown.substr(end_of_mark);
  EXPECT_EQ(
      shown.substr(0, end_of_mark),
      "\r\n[zevd: " + std::to_string(text.size() - rest.size()) + " bytes were not shown]\r\n");
  EXPECT_GT(rest.size(), size_t{1000} << 10);
  EXPECT_TRUE(text.ends_with('\n' + rest));
  EXPECT_EQ(stalled.node->connected, 1);
}

// ---- Waiting ------------------------------------------------------------------------------------

TEST_F(ConsoleMonitorTest, WaitTellsWhichConsolesAreReadable) {
  const Attached<ConsoleNode> second = ConnectConsole("sys2");
  test::SendText(second.peer.get(), "login: ");
  const DebugCapture debug(kTrace);
  DescriptorSet fdset;
  ASSERT_TRUE(fdset.CopyFrom(a_cons_list->fdset));
  EXPECT_EQ(CheckForConsoleOutput(a_cons_list->high_sock, &fdset), 1);
  EXPECT_FALSE(fdset.Contains(console_.node->sock));
  EXPECT_TRUE(fdset.Contains(second.node->sock));
  EXPECT_THAT(debug.Messages(),
              Contains("CheckForConsoleOutput: Calling select( " +
                       std::to_string(a_cons_list->high_sock) + " + 1, fdset, 0, 0, (2,0))\n"));
}

TEST_F(ConsoleMonitorTest, WakerEndsTheWaitAndIsNotCounted) {
  cons_mon_waker.Wake();
  DescriptorSet fdset;
  ASSERT_TRUE(fdset.CopyFrom(a_cons_list->fdset));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CheckForConsoleOutput(a_cons_list->high_sock, &fdset), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_FALSE(fdset.Contains(cons_mon_waker.descriptor()));
  cons_mon_waker.Wake();
  Print("login: ");
  ASSERT_TRUE(fdset.CopyFrom(a_cons_list->fdset));
  EXPECT_EQ(CheckForConsoleOutput(a_cons_list->high_sock, &fdset), 1);
  EXPECT_FALSE(fdset.Contains(cons_mon_waker.descriptor()));
}

TEST_F(ConsoleMonitorTest, MarkingAConsoleEndsTheWait) {
  cons_mon_waker.Drain();
  CloseConsoleConnection(console_.node);
  timeval wait = {10, 0};
  DescriptorSet nothing;
  EXPECT_EQ(WaitForMembers(-1, nothing, cons_mon_waker, &wait), 0);
  EXPECT_GT(wait.tv_sec, 0);
}

TEST_F(ConsoleMonitorTest, BothMonitorsWaitForTwoSeconds) {
  cons_mon_waker.Drain();
  user_mon_waker.Drain();
  const auto timed = [](const auto& check) {
    DescriptorSet nobody;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(check(-1, &nobody), 0);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  double user_wait = 0;
  std::thread user_monitor([&] { user_wait = timed(CheckForUserInput); });
  const double console_wait = timed(CheckForConsoleOutput);
  user_monitor.join();
  for (const double wait : {console_wait, user_wait}) {
    EXPECT_GE(wait, 1.95);
    EXPECT_LT(wait, 4.0);
  }
}

using ConsoleMonitorDeathTest = ConsoleMonitorTest;

MATCHER(EndsLikeAFailedWait, "") {
  const std::vector<std::string> texts = DebugMessages(arg);
  const auto from = std::find(texts.begin(), texts.end(),
                              "CheckForConsoleOutput: select() failed : Interrupted system "
                              "call\n");
  const std::vector<std::string> end(from, texts.end());
  return ::testing::ExplainMatchResult(
             ::testing::AllOf(
                 ::testing::Contains("Dumping \"a_cons_list\"...\n"),
                 ::testing::Contains("name           = sys1\n"),
                 ::testing::Contains("status         = 0\n"),
                 ::testing::Contains("Dumping \"i_cons_list\"...\n"),
                 ::testing::Contains("name           = away\n"),
                 ::testing::Contains("status         = 3\n"),
                 ::testing::Contains("-----------------------------------------\n\n").Times(2)),
             end, result_listener) &&
         end.size() > 2 &&
         ::testing::ExplainMatchResult(AnnouncesDaemonError("Terminated............."),
                                       end[end.size() - 2], result_listener) &&
         ::testing::ExplainMatchResult(IsExitTrace(1, "cons_mon.cpp"), end.back(), result_listener);
}

TEST_F(ConsoleMonitorDeathTest, FailingWaitDumpsTheConsolesAndEndsTheProcess) {
  test::AddConsole(i_cons_list, "away");
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const FailCall failure(Call::kSelect, EINTR);
        Pass();
      },
      ExitedWithCode(1), EndsLikeAFailedWait());
}

/// Interrupts system calls again and again.
void StartInterrupting() {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // without SA_RESTART
  sigaction(SIGALRM, &action, nullptr);
  const itimerval often = {{0, 20000}, {0, 20000}};
  setitimer(ITIMER_REAL, &often, nullptr);
}

TEST_F(ConsoleMonitorDeathTest, InterruptedWaitEndsTheProcess) {
  test::AddConsole(i_cons_list, "away");
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        StartInterrupting();
        for (;;) Pass();
      },
      ExitedWithCode(1), EndsLikeAFailedWait());
}

// ---- Closing ------------------------------------------------------------------------------------

TEST_F(ConsoleMonitorTest, ClosingAConsoleOnlyMarksIt) {
  const DebugCapture debug;
  CloseConsoleConnection(console_.node);
  EXPECT_EQ(console_.node->status, 3);
  EXPECT_TRUE(test::IsOpen(console_.node->sock));
  EXPECT_THAT(debug.Messages(),
              ElementsAre("CloseConsoleConnection: Closing connection with console sys1\n"));
}

TEST_F(ConsoleMonitorTest, DisabledConsolesAreClosedAndTheirUsersTold) {
  const Attached<ConsoleNode> disabled = ConnectConsole("sys2");
  disabled.node->enable = 0;
  const Attached<UserNode> user = AttachUser(disabled.node, "anna");
  const Attached<UserNode> other = AddUser("bert");
  const DebugCapture debug;
  CloseDisabledConsoleConnections();
  EXPECT_EQ(disabled.node->status, 3);
  EXPECT_EQ(console_.node->status, 0);
  EXPECT_EQ(ReceiveAvailable(user.peer.get()), test::Banner("Console has been disabled."));
  EXPECT_EQ(ReceiveAvailable(other.peer.get()), "");
  EXPECT_EQ(user.node->connected, 1);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("CloseConsoleConnection: Closing connection with console sys2\n",
                          StartsWith("SendMsgToUsers: The following message was sent to ")));
}

TEST_F(ConsoleMonitorTest, ClosedAndDisabledConsolesAreFound) {
  EXPECT_FALSE(cons_mon::CheckForClosedConnections());
  console_.node->enable = 0;
  EXPECT_TRUE(cons_mon::CheckForClosedConnections());
  console_.node->enable = 1;
  console_.node->status = kNotConnected;
  EXPECT_TRUE(cons_mon::CheckForClosedConnections());
  for (const int status : {1, 2}) {
    console_.node->status = status;
    EXPECT_FALSE(cons_mon::CheckForClosedConnections());
  }
}

TEST_F(ConsoleMonitorTest, CleanUpClosesWhatIsClosedOrDisabled) {
  const Attached<ConsoleNode> closed = ConnectConsole("closed");
  const Attached<ConsoleNode> disabled = ConnectConsole("disabled");
  const Attached<UserNode> untouched = AddUser("anna");
  const Attached<UserNode> dropped = AttachUser(closed.node, "bert");
  closed.node->status = kNotConnected;
  disabled.node->enable = 0;
  const int socks[] = {closed.node->sock, disabled.node->sock};
  cons_mon::CleanUpClosedConnections();
  for (const int sock : socks) EXPECT_FALSE(test::IsOpen(sock));
  for (const ConsoleNode* console : {closed.node, disabled.node}) {
    EXPECT_EQ(console->status, 3);
    EXPECT_EQ(console->sock, -1);
    EXPECT_EQ(console->log_fd, -1);
  }
  EXPECT_EQ(dropped.node->connected, 0);
  EXPECT_EQ(closed.node->user_list->head, nullptr);
  EXPECT_EQ(console_.node->status, 0);
  EXPECT_TRUE(test::IsOpen(console_.node->sock));
  EXPECT_EQ(untouched.node->connected, 1);
  // Moving them is the next step of the pass.
  EXPECT_THAT(test::Names(*a_cons_list), ElementsAre("sys1", "closed", "disabled"));
}

TEST_F(ConsoleMonitorTest, CleanUpClosesTheLog) {
  const test::SocketPair log;
  console_.node->log_fd = dup(log.ours.get());
  const int log_fd = console_.node->log_fd;
  console_.node->status = kNotConnected;
  cons_mon::CleanUpClosedConnections();
  EXPECT_FALSE(test::IsOpen(log_fd));
  EXPECT_EQ(console_.node->log_fd, -1);
}

TEST_F(ConsoleMonitorTest, LogsOfConnectedConsolesAreOpenedAndClosed) {
  const test::TemporaryDirectory directory;
  log_dir = directory.path().c_str();
  const ConsoleNode* away = test::AddConsole(i_cons_list, "away");
  OpenAllLogFiles();
  EXPECT_NE(console_.node->log_fd, -1);
  EXPECT_EQ(away->log_fd, -1);
  const std::filesystem::path current = directory.path() / "zev.dated" / "current";
  EXPECT_TRUE(std::filesystem::exists(current / "sys1.log"));
  EXPECT_TRUE(std::filesystem::exists(current / "consolidated.log"));
  const int log_fd = console_.node->log_fd;
  CloseAllLogFiles();
  EXPECT_EQ(console_.node->log_fd, -1);
  EXPECT_FALSE(test::IsOpen(log_fd));
}

}  // namespace
