// The readers that take text from one socket.
#include "util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "debug_support.h"
#include "failure_support.h"
#include "relay_support.h"

using namespace zevd;

namespace {

using namespace std::string_view_literals;
using test::AnnouncesDaemonError;
using test::Call;
using test::DebugCapture;
using test::DebugTextsAre;
using test::FailCall;
using test::IsExitTrace;
using test::SocketPair;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::StartsWith;

constexpr char kTimedOutText[] = "003 - Timed out.\r\n";
constexpr char kReadErrorText[] = "008 - Read error.\r\n";

double Seconds(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// One connection: the daemon reads at one end, a client types at the other.
class ReaderTest : public test::RelayTest {
 protected:
  void Type(std::string_view text) { test::SendText(pair_.theirs.get(), text); }
  void HangUp() { shutdown(pair_.theirs.get(), SHUT_WR); }
  int sock() const { return pair_.ours.get(); }

  /// What the client sees.
  std::string Echoed() const { return test::ReceiveAvailable(pair_.theirs.get()); }

  /// What the reader has left for the next one.
  std::string Left() const { return test::ReceiveAvailable(sock()); }

  SocketPair pair_;
};

// ---- Lines --------------------------------------------------------------------------------------

class LineReaderTest : public ReaderTest {
 protected:
  /// Reads into a buffer of exactly `size` bytes.
  int Read(int size = 1024, time_t wait_time = 10) {
    std::vector<char> buf(static_cast<size_t>(size), 'x');
    const int result = ReadLineWithTimeout(sock(), buf.data(), size, wait_time);
    line_ = result == 0 ? buf.data() : "";
    return result;
  }

  void ExpectLine(std::string_view line, int size = 1024) {
    EXPECT_EQ(Read(size), 0);
    EXPECT_EQ(line_, line);
  }

  std::string line_;
};

TEST_F(LineReaderTest, LineKeepsItsEnd) {
  Type("abc\r\n");
  ExpectLine("abc\r\n");
  Type("abc\n");
  ExpectLine("abc\n");
  EXPECT_EQ(u_err_msg, nullptr);
}

TEST_F(LineReaderTest, OnlyWhatHasArrivedIsReturned) {
  Type("ab");
  ExpectLine("ab");
  Type("c\r\n");
  ExpectLine("c\r\n");
}

TEST_F(LineReaderTest, CarriageReturnAloneEndsNothing) {
  Type("ab\rcd\n");
  ExpectLine("ab\rcd\n");
}

TEST_F(LineReaderTest, NothingAfterTheLineIsTaken) {
  Type("one\ntwo\n\nrest");
  ExpectLine("one\n");
  ExpectLine("two\n");
  ExpectLine("\n");
  EXPECT_EQ(Left(), "rest");
}

TEST_F(LineReaderTest, BufferBoundsTheLine) {
  Type("abcdef\n");
  ExpectLine("abc", 4);
  ExpectLine("def", 4);
  ExpectLine("\n", 4);
}

TEST_F(LineReaderTest, LineThatJustFits) {
  Type("abc\nd");
  ExpectLine("abc\n", 5);
  EXPECT_EQ(Left(), "d");
}

TEST_F(LineReaderTest, LineEndThatJustDoesNotFit) {
  Type("abc\n");
  ExpectLine("abc", 4);
  EXPECT_EQ(Left(), "\n");
}

TEST_F(LineReaderTest, BufferOfOneByteTakesNothing) {
  Type("abc\n");
  ExpectLine("", 1);
  EXPECT_EQ(Left(), "abc\n");
}

TEST_F(LineReaderTest, NulBytesAreStored) {
  Type("a\0b\n"sv);
  char buf[16];
  EXPECT_EQ(ReadLine(sock(), buf, sizeof buf), 0);
  EXPECT_EQ(std::string_view(buf, 5), "a\0b\n\0"sv);
}

TEST_F(LineReaderTest, VeryLongLineComesInPieces) {
  std::string text(100'000, 'a');
  text += '\n';
  std::thread client([&] { Type(text); });
  std::string received;
  while (received.size() < text.size() && Read() == 0) {
    EXPECT_LE(line_.size(), 1023U);
    received += line_;
  }
  client.join();
  EXPECT_EQ(received, text);
}

TEST_F(LineReaderTest, EndOfStreamIsAFailureWithoutText) {
  HangUp();
  const DebugCapture debug(kDetail);
  EXPECT_EQ(Read(), -1);
  EXPECT_EQ(u_err_msg, nullptr);
  EXPECT_THAT(debug.Messages(),
              ElementsAre(StartsWith("ReadLineWithTimeout: recv() returned 0 : ")));
}

TEST_F(LineReaderTest, FailingPeekIsAFailureThatLeavesTheText) {
  Type("abc\n");
  SetUserError(kConsoleLocked);
  const DebugCapture debug(kDetail);
  const FailCall failure(Call::kRecv, ECONNRESET);
  EXPECT_EQ(Read(), -1);
  EXPECT_STREQ(u_err_msg, "006 - Console is locked exclusively.\r\n");
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ReadLineWithTimeout: recv() returned -1 : Connection reset by peer\n"));
}

TEST_F(LineReaderTest, FailingReceiveIsAReadError) {
  for (const int call : {2, 3, 5}) {
    SCOPED_TRACE(call);
    Type("abc\n");
    u_err_msg = nullptr;
    const FailCall failure(Call::kRecv, EIO, call, 1);
    EXPECT_EQ(Read(), -1);
    EXPECT_STREQ(u_err_msg, kReadErrorText);
    Left();
  }
}

TEST_F(LineReaderTest, ReadLineHasNoTimeLimit) {
  const DebugCapture debug(kTrace);
  std::thread client([&] { Type("abc\n"); });
  char buf[16];
  EXPECT_EQ(ReadLine(sock(), buf, sizeof buf), 0);
  client.join();
  EXPECT_STREQ(buf, "abc\n");
  EXPECT_THAT(debug.Messages(),
              ElementsAre("Entering ReadLine\n", "Entering ReadLineWithTimeout\n"));
}

TEST_F(LineReaderTest, NoWaitTimeMeansNoLimit) {
  for (const time_t wait_time : {0, -1}) {
    std::thread client([&] { Type("abc\n"); });
    EXPECT_EQ(Read(16, wait_time), 0);
    client.join();
    EXPECT_EQ(line_, "abc\n");
  }
}

TEST_F(LineReaderTest, InterruptedWaitGoesOn) {
  Type("abc\n");
  const FailCall interrupted(Call::kPpoll, EINTR, 1, 3);
  ExpectLine("abc\n");
  EXPECT_EQ(interrupted.calls(), 4);
}

// ---- Characters ---------------------------------------------------------------------------------

/// What is typed, what it results in, and what is left unread.
struct Dialogue {
  std::string_view typed;
  std::string_view line;
  std::string_view echoed;
  std::string_view left = "";
  int size = 64;
  int echo = 1;
};

class CharacterReaderTest : public ReaderTest {
 protected:
  void ExpectResult(const Dialogue& dialogue) {
    std::vector<char> buf(static_cast<size_t>(dialogue.size), 'x');
    EXPECT_EQ(ReadCharAtATimeWithTimeout(sock(), buf.data(), dialogue.size, dialogue.echo, 10), 0);
    ASSERT_LT(dialogue.line.size(), buf.size());
    EXPECT_EQ(std::string_view(buf.data(), dialogue.line.size()), dialogue.line);
    EXPECT_EQ(buf[dialogue.line.size()], '\0');
    EXPECT_EQ(Echoed(), dialogue.echoed);
    EXPECT_EQ(Left(), dialogue.left);
    EXPECT_EQ(u_err_msg, nullptr);
  }

  void Expect(const Dialogue& dialogue) {
    SCOPED_TRACE(::testing::PrintToString(dialogue.typed));
    Type(dialogue.typed);
    ExpectResult(dialogue);
  }

  /// The reader has taken everything that was typed.
  bool AllTaken() const {
    int count = 0;
    return ioctl(sock(), FIONREAD, &count) == 0 && count == 0;
  }

  /// The same in two pieces, cut anywhere; the second comes when the first has been taken.
  void ExpectCutAnywhere(const Dialogue& dialogue) {
    for (size_t cut = 1; cut < dialogue.typed.size(); ++cut) {
      SCOPED_TRACE(cut);
      std::thread client([&] {
        Type(dialogue.typed.substr(0, cut));
        EXPECT_TRUE(test::Eventually([&] { return AllTaken(); }));
        Type(dialogue.typed.substr(cut));
      });
      ExpectResult(dialogue);
      client.join();
    }
  }

  int Read(int wait_time = 10) {
    return ReadCharAtATimeWithTimeout(sock(), buf_, sizeof buf_, 1, wait_time);
  }

  char buf_[64];
};

TEST_F(CharacterReaderTest, LineFeedEndsTheLine) {
  Expect({.typed = "abc\n", .line = "abc\n", .echoed = "abc\n"});
  Expect({.typed = "\n", .line = "\n", .echoed = "\n"});
}

TEST_F(CharacterReaderTest, CarriageReturnEndsTheLineAndIsAnsweredWithALineFeed) {
  Expect({.typed = "abc\r", .line = "abc\r", .echoed = "abc\r\n"});
  Expect({.typed = "\r", .line = "\r", .echoed = "\r\n"});
}

TEST_F(CharacterReaderTest, LineFeedAfterACarriageReturnIsStoredAndTheFirstByteEchoed) {
  Expect({.typed = "abc\r\n", .line = "abc\r\n", .echoed = "abc\ra"});
  Expect({.typed = "\r\n", .line = "\r\n", .echoed = "\r\r"});
}

TEST_F(CharacterReaderTest, NulAfterACarriageReturnIsDropped) {
  Expect({.typed = "abc\r\0"sv, .line = "abc\r", .echoed = "abc\r\n"});
}

TEST_F(CharacterReaderTest, AnythingElseAfterALineEndStaysUnread) {
  Expect({.typed = "abc\rX", .line = "abc\r", .echoed = "abc\r\n", .left = "X"});
  Expect({.typed = "abc\r\r\n", .line = "abc\r", .echoed = "abc\r\n", .left = "\r\n"});
  Expect({.typed = "abc\r\nX", .line = "abc\r\n", .echoed = "abc\ra", .left = "X"});
  Expect({.typed = "abc\r\0X"sv, .line = "abc\r", .echoed = "abc\r\n", .left = "X"});
  Expect({.typed = "abc\nX", .line = "abc\n", .echoed = "abc\n", .left = "X"});
}

TEST_F(CharacterReaderTest, LineFeedThatComesLaterIsTheNextLine) {
  Expect({.typed = "abc\r", .line = "abc\r", .echoed = "abc\r\n"});
  Expect({.typed = "\n", .line = "\n", .echoed = "\n"});
}

TEST_F(CharacterReaderTest, BackspaceAndDeleteErase) {
  Expect({.typed = "x\by\r", .line = "y\r", .echoed = "x\b \by\r\n"});
  Expect({.typed = "x\x7Fy\r", .line = "y\r", .echoed = "x\b \by\r\n"});
  Expect({.typed = "ab\b\x7F"
                   "c\r",
          .line = "c\r",
          .echoed = "ab\b \b\b \bc\r\n"});
}

TEST_F(CharacterReaderTest, NothingIsErasedAtTheStart) {
  Expect({.typed = "\b\x7F\by\r", .line = "y\r", .echoed = "y\r\n"});
  Expect({.typed = "ab\b\b\b\bc\r", .line = "c\r", .echoed = "ab\b \b\b \bc\r\n"});
}

TEST_F(CharacterReaderTest, EraseIsThreeSends) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
  pair_.ours.Reset(ends[0]);
  pair_.theirs.Reset(ends[1]);
  for (const std::string_view key : {"x", "\b", "\n"}) Type(key);
  EXPECT_EQ(Read(), 0);
  for (const char* sent : {"x", "\b", " ", "\b", "\n"}) {
    EXPECT_EQ(test::Receive(pair_.theirs.get(), 1), sent);
  }
  EXPECT_EQ(Echoed(), "");
}

TEST_F(CharacterReaderTest, WithoutEchoOnlyEditingAndLineEndsAreShown) {
  Expect({.typed = "se\bcret\r", .line = "scret\r", .echoed = "\b \b\r\n", .echo = 0});
  Expect({.typed = "secret\n", .line = "secret\n", .echoed = "\n", .echo = 0});
  Expect({.typed = "secret\r\n", .line = "secret\r\n", .echoed = "\r", .echo = 0});
  Expect({.typed = "secret\r\0"sv, .line = "secret\r", .echoed = "\r\n", .echo = 0});
}

TEST_F(CharacterReaderTest, InterruptCharacterEmptiesTheLine) {
  Expect({.typed = "abc\x03", .line = "", .echoed = "abc\r\n"});
  Expect({.typed = "\x03", .line = "", .echoed = "\r\n"});
  Expect({.typed = "abc\x03", .line = "", .echoed = "\r\n", .echo = 0});
  Expect({.typed = "ab\x03rest\r", .line = "", .echoed = "ab\r\n", .left = "rest\r"});
}

TEST_F(CharacterReaderTest, OtherBytesAreStoredAndEchoedAsTheyAre) {
  Expect({.typed = "\t\x1B[A\0\x01\x80\r"sv,
          .line = "\t\x1B[A\0\x01\x80\r"sv,
          .echoed = "\t\x1B[A\0\x01\x80\r\n"sv});
}

TEST_F(CharacterReaderTest, FullBufferEndsTheRead) {
  Expect({.typed = "abcdef\r", .line = "abc", .echoed = "abc", .left = "def\r", .size = 4});
  Expect({.typed = "abc", .line = "abc", .echoed = "abc", .size = 4});
}

TEST_F(CharacterReaderTest, LineEndThatFillsTheBufferIsNotAnswered) {
  Expect({.typed = "ab\r", .line = "ab\r", .echoed = "ab\r", .size = 4});
  Expect({.typed = "ab\n", .line = "ab\n", .echoed = "ab\n", .size = 4});
}

TEST_F(CharacterReaderTest, LineFeedWithoutRoomIsConsumed) {
  Expect({.typed = "ab\r\nX", .line = "ab\r", .echoed = "ab\ra", .left = "X", .size = 4});
}

TEST_F(CharacterReaderTest, ErasingMakesRoom) {
  Expect({.typed = "ab\b\bcd\r", .line = "cd\r", .echoed = "ab\b \b\b \bcd\r", .size = 4});
}

TEST_F(CharacterReaderTest, TelnetCommandsComeBackInPlaceOfALine) {
  Expect({.typed = "\xFF\xFD\x01\xFF\xFB\x03"
                   "abc\r",
          .line = "\xFF\xFD\x01\xFF\xFB\x03",
          .echoed = "",
          .left = "abc\r"});
}

TEST_F(CharacterReaderTest, Byte255WithinALineIsDataLikeAnyOther) {
  Expect({.typed = "a\xFF\xFD\r", .line = "a\xFF\xFD\r", .echoed = "a\xFF\xFD\r\n"});
}

TEST_F(CharacterReaderTest, Byte255ThatBecameTheFirstIsTakenForACommandAtTheNextPeek) {
  Type("a\b\xFF");
  std::thread client([&] {
    EXPECT_TRUE(test::Eventually([&] { return AllTaken(); }));
    Type("y\r");
  });
  ExpectResult({.typed = "", .line = "", .echoed = "a\b \b\xFF", .left = "y\r"});
  client.join();
}

TEST_F(CharacterReaderTest, InputMayBeCutAnywhere) {
  ExpectCutAnywhere({.typed = "abc\r", .line = "abc\r", .echoed = "abc\r\n"});
  ExpectCutAnywhere({.typed = "abc\n", .line = "abc\n", .echoed = "abc\n"});
  ExpectCutAnywhere(
      {.typed = "a\xFF\b\b\bx\x7Fyz\r", .line = "yz\r", .echoed = "a\xFF\b \b\b \bx\b \byz\r\n"});
  ExpectCutAnywhere({.typed = "ab\x03", .line = "", .echoed = "ab\r\n"});
  ExpectCutAnywhere({.typed = "abc", .line = "abc", .echoed = "abc", .size = 4});
  ExpectCutAnywhere({.typed = "secr\bet\n", .line = "secet\n", .echoed = "\b \b\n", .echo = 0});
}

TEST_F(CharacterReaderTest, EndOfStreamIsAFailureWithoutText) {
  Type("ab");
  HangUp();
  const DebugCapture debug(kDetail);
  EXPECT_EQ(Read(), -1);
  EXPECT_EQ(u_err_msg, nullptr);
  EXPECT_EQ(Echoed(), "ab");
  EXPECT_THAT(debug.Messages(),
              ElementsAre(StartsWith("ReadLineWithTimeout: recv() returned 0 : ")));
}

TEST_F(CharacterReaderTest, FailingPeekIsAFailure) {
  Type("ab\r");
  const DebugCapture debug(kDetail);
  const FailCall failure(Call::kRecv, ECONNRESET);
  EXPECT_EQ(Read(), -1);
  EXPECT_EQ(u_err_msg, nullptr);
  EXPECT_THAT(debug.Messages(),
              ElementsAre("ReadLineWithTimeout: recv() returned -1 : Connection reset by peer\n"));
}

TEST_F(CharacterReaderTest, FailingReceiveIsAReadError) {
  Type("ab\r");
  const FailCall failure(Call::kRecv, EIO, 3, 1);
  EXPECT_EQ(Read(), -1);
  EXPECT_STREQ(u_err_msg, kReadErrorText);
  EXPECT_EQ(Echoed(), "a");
}

TEST_F(CharacterReaderTest, ClientThatDoesNotListenCanStillType) {
  Type("ab\b\r");
  pair_.theirs.Reset();
  EXPECT_EQ(Read(), 0);
  EXPECT_STREQ(buf_, "a\r");
}

TEST_F(CharacterReaderTest, DebugLinesCarryTheNameOfTheLineReader) {
  Type("a\r");
  const DebugCapture debug(kTrace);
  EXPECT_EQ(Read(), 0);
  EXPECT_THAT(debug.Messages(), ElementsAre("Entering ReadLineWithTimeout\n"));
}

// ---- Time-outs ----------------------------------------------------------------------------------

TEST_F(ReaderTest, SilentClientsTimeOut) {
  struct Outcome {
    int result;
    const char* error;
    double seconds;
  };
  const auto timed = [](const auto& read) {
    const auto start = std::chrono::steady_clock::now();
    const int result = read();
    return Outcome{result, u_err_msg, Seconds(start)};
  };
  const SocketPair silent;
  const SocketPair stops_typing;
  test::SendText(stops_typing.theirs.get(), "ab");
  Outcome of_line{};
  Outcome of_characters{};
  std::thread line_reader([&] {
    char buf[16];
    of_line = timed([&] { return ReadLineWithTimeout(silent.ours.get(), buf, sizeof buf, 1); });
  });
  std::thread character_reader([&] {
    char buf[16];
    of_characters = timed(
        [&] { return ReadCharAtATimeWithTimeout(stops_typing.ours.get(), buf, sizeof buf, 1, 1); });
  });
  line_reader.join();
  character_reader.join();
  for (const Outcome& outcome : {of_line, of_characters}) {
    EXPECT_EQ(outcome.result, -2);
    EXPECT_STREQ(outcome.error, kTimedOutText);
    EXPECT_GE(outcome.seconds, 0.95);
  }
}

using ReaderDeathTest = ReaderTest;

TEST_F(ReaderDeathTest, FailingWaitEndsTheProcess) {
  const auto expect_fatal = [](const auto& read) {
    EXPECT_EXIT(
        {
          test::SendDebugToStderr(kDetail);
          const FailCall failure(Call::kPpoll, ENOMEM);
          read();
        },
        ExitedWithCode(1),
        DebugTextsAre(ElementsAre("ReadLineWithTimeout: select() failed : Cannot allocate memory\n",
                                  AnnouncesDaemonError("Terminated............."),
                                  IsExitTrace(1, "util.cpp"))));
  };
  char buf[16];
  expect_fatal([&] { ReadLineWithTimeout(sock(), buf, sizeof buf, 10); });
  expect_fatal([&] { ReadCharAtATimeWithTimeout(sock(), buf, sizeof buf, 1, 10); });
}

// ---- Telnet commands ----------------------------------------------------------------------------

class TelnetReaderTest : public ReaderTest {
 protected:
  std::string Drain(int size = 65) {
    std::vector<char> buf(static_cast<size_t>(size), 'x');
    DrainTelnetControlSequence(sock(), buf.data(), size);
    const auto end = std::find(buf.begin(), buf.end(), 'x');
    EXPECT_NE(end, buf.begin());
    EXPECT_EQ(*(end - 1), '\0');
    return {buf.begin(), end - 1};
  }

  /// Of `input`, which does not hold an "x", the reader takes `taken` and leaves the rest.
  void Expect(std::string_view input, std::string_view taken) {
    SCOPED_TRACE(::testing::PrintToString(input));
    Type(input);
    EXPECT_EQ(Drain(), taken);
    EXPECT_EQ(Left(), input.substr(taken.size()));
  }
};

TEST_F(TelnetReaderTest, RunOfCommandsEndsAtTheFirstOtherByte) {
  Expect("\xFF\xFB\x01\xFF\xFD\x18login: ", "\xFF\xFB\x01\xFF\xFD\x18");
  Expect("login: \xFF\xFB\x01", "");
  Expect("\0"sv, "");
  Expect("\xFE", "");  // 254 alone is data
}

TEST_F(TelnetReaderTest, FourCommandsHaveAnOption) {
  for (const char command : {'\xFB', '\xFC', '\xFD', '\xFE'}) {
    Expect(std::string("\xFF") + command + "\x01" + "a", std::string("\xFF") + command + "\x01");
  }
}

TEST_F(TelnetReaderTest, OtherCommandsHaveNone) {
  for (const char command : {'\x80', '\xF0', '\xF1', '\xF9', '\xFA', '\xFF'}) {
    const std::string sequence = std::string("\xFF") + command;
    Expect(sequence + "\x01", sequence);
    Expect(sequence + "\xFF\xFB\x01" + "a", sequence + "\xFF\xFB\x01");
  }
}

TEST_F(TelnetReaderTest, OptionMayBeAnyByte) {
  Expect(
      "\xFF\xFD\x80\xFF\xFD\xFF\xFF\xFD\0\xFF\xFD\x7F"
      "a"sv,
      "\xFF\xFD\x80\xFF\xFD\xFF\xFF\xFD\0\xFF\xFD\x7F"sv);
}

TEST_F(TelnetReaderTest, CommandBelow128EndsTheRunAfterItsIac) {
  Expect("\xFF\x41", "\xFF");
  Expect("\xFF\x7F", "\xFF");
  Expect("\xFF\0"sv, "\xFF");
  Expect("\xFF\xFB\x01\xFF\x41", "\xFF\xFB\x01\xFF");
}

TEST_F(TelnetReaderTest, SubnegotiationEndsTheRunAtItsFirstLowByte) {
  Expect("\xFF\xFA\x18\x01\xFF\xF0", "\xFF\xFA");
  Expect(
      "\xFF\xFA\xFF\xF0\xFF\xFB\x01"
      "a",
      "\xFF\xFA\xFF\xF0\xFF\xFB\x01");
}

TEST_F(TelnetReaderTest, StreamMayEndAtEveryByte) {
  constexpr std::string_view kSequence = "\xFF\xFB\x01\xFF\xF1\xFF\xFD\xFF\xFF\xFE\x80\xFF\xFA";
  for (size_t cut = 0; cut <= kSequence.size(); ++cut) {
    SCOPED_TRACE(cut);
    pair_ = SocketPair();
    Type(kSequence.substr(0, cut));
    HangUp();
    EXPECT_EQ(Drain(), kSequence.substr(0, cut));
  }
}

TEST_F(TelnetReaderTest, FullBufferIsReported) {
  const DebugCapture debug;
  Type("\xFF\xFB\x01\xFF\xFB\x03\xFF\xFD\x18");
  EXPECT_EQ(Drain(8), "\xFF\xFB\x01\xFF\xFB\x03\xFF");
  EXPECT_THAT(debug.Messages(),
              ElementsAre("DrainTelnetControlSequence: Too many telnet characters. Buffer full\n"));
  EXPECT_EQ(Left(), "\xFD\x18");
}

TEST_F(TelnetReaderTest, RunThatJustFillsTheBufferIsReportedToo) {
  const DebugCapture debug;
  Type("\xFF\xFB\x01\xFF\xFB\x03");
  EXPECT_EQ(Drain(7), "\xFF\xFB\x01\xFF\xFB\x03");
  EXPECT_EQ(debug.Count("DrainTelnetControlSequence: Too many telnet characters. Buffer full\n"),
            1);
}

TEST_F(TelnetReaderTest, ShorterRunIsNotReported) {
  const DebugCapture debug(kTrace);
  Type(
      "\xFF\xFB\x01"
      "a");
  EXPECT_EQ(Drain(5), "\xFF\xFB\x01");
  EXPECT_THAT(debug.Messages(), ElementsAre("Entering DrainTelnetControlSequence\n"));
}

TEST_F(TelnetReaderTest, FailuresEndTheRun) {
  Type("\xFF\xFB\x01");
  {
    const FailCall failing_peek(Call::kRecv, EIO, 3, 1);
    EXPECT_EQ(Drain(), "\xFF");
  }
  EXPECT_EQ(Left(), "\xFB\x01");
  Type("\xFF\xFB\x01");
  const FailCall failing_receive(Call::kRecv, EIO, 4, 1);
  EXPECT_EQ(Drain(), "\xFF\xFB");
}

using TelnetReaderDeathTest = TelnetReaderTest;

// The second belongs to the process, so it is tested in a process that has not used it yet.
void ExpectOneSecondInAll() {
  const SocketPair first;
  const SocketPair second;
  char buf[16];
  test::SendText(first.theirs.get(), "\xFF\xFB");
  auto start = std::chrono::steady_clock::now();
  DrainTelnetControlSequence(first.ours.get(), buf, sizeof buf);
  EXPECT_STREQ(buf, "\xFF\xFB");
  EXPECT_GE(Seconds(start), 0.9);
  start = std::chrono::steady_clock::now();
  std::thread([&] { DrainTelnetControlSequence(second.ours.get(), buf, sizeof buf); }).join();
  EXPECT_STREQ(buf, "");
  EXPECT_LT(Seconds(start), 0.5);
  // What has already arrived is read nevertheless.
  test::SendText(second.theirs.get(), "\xFF\xFB\x01");
  DrainTelnetControlSequence(second.ours.get(), buf, sizeof buf);
  EXPECT_STREQ(buf, "\xFF\xFB\x01");
}

TEST_F(TelnetReaderDeathTest, AllWaitsShareOneSecond) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_HOLDS_IN_CHILD(ExpectOneSecondInAll());
}

}  // namespace
