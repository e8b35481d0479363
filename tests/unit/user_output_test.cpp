// The way of output to one user: at once, through the queue, and after the user has left.
#include "user_output.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "counters.h"
#include "failure_support.h"
#include "long_text_support.h"
#include "relay_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using test::AreSame;
using test::Call;
using test::FailCall;
using test::FakePassageOfTime;
using test::IsOpen;
using test::LongText;
using test::ReceiveAvailable;
using test::SocketPair;

constexpr size_t kMebibyte = size_t{1} << 20;

bool Send(UserOutput* output, std::string_view bytes) {
  return output->Send(bytes.data(), bytes.size());
}

bool RoomIsKnown() {
  pollfd rooms = {UserOutputsDescriptor(), POLLIN, 0};
  return poll(&rooms, 1, 0) == 1;
}

/// A user's output and the other end of the connection.
struct Reader {
  Reader() : output(std::make_unique<UserOutput>(pair.ours.get())) { EXPECT_TRUE(output->Watch()); }

  std::string Received() const { return ReceiveAvailable(pair.theirs.get()); }

  // Makes the socket take nothing more.
  void Stall() const { test::FillUp(pair.ours.get()); }

  SocketPair pair;
  std::unique_ptr<UserOutput> output;
};

class UserOutputTest : public test::RelayTest {
 protected:
  bool Send(std::string_view bytes) { return ::Send(reader_.output.get(), bytes); }

  /// Receives and has the queue emptied until there is nothing more.
  std::string ReceiveAll() {
    std::string received = reader_.Received();
    while (!reader_.output->IsEmpty()) {
      EXPECT_FALSE(SendWaitingOutput());
      received += reader_.Received();
    }
    return received;
  }

  Reader reader_;
};

// ---- At once ------------------------------------------------------------------------------------

TEST_F(UserOutputTest, BytesAreSentAtOnceWithOneCall) {
  const FailCall sends(Call::kSend, EIO, 1, 0);
  EXPECT_TRUE(Send("login: "));
  EXPECT_EQ(sends.calls(), 1);
  EXPECT_TRUE(reader_.output->IsEmpty());
  EXPECT_EQ(reader_.Received(), "login: ");
}

TEST_F(UserOutputTest, FailedSendIsToldAndNotRemembered) {
  {
    const FailCall failure(Call::kSend, EHOSTUNREACH, 1, 1);
    EXPECT_FALSE(Send("lost"));
    EXPECT_EQ(errno, EHOSTUNREACH);
  }
  EXPECT_FALSE(reader_.output->HasFailed());
  EXPECT_TRUE(reader_.output->IsEmpty());
  EXPECT_TRUE(Send("login: "));
  EXPECT_EQ(reader_.Received(), "login: ");
}

TEST_F(UserOutputTest, InterruptedSendIsRepeated) {
  const FailCall failure(Call::kSend, EINTR, 1, 2);
  EXPECT_TRUE(Send("login: "));
  EXPECT_EQ(failure.calls(), 3);
  EXPECT_EQ(reader_.Received(), "login: ");
}

TEST_F(UserOutputTest, UserWhoHasGoneIsNoticed) {
  reader_.pair.theirs.Reset();
  EXPECT_FALSE(Send("lost"));
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(UserOutputTest, WatchFailsWithoutMemory) {
  const SocketPair other;
  UserOutput output(other.ours.get());
  const FailCall failure(Call::kEpollCtl, ENOMEM, 1, 1);
  EXPECT_FALSE(output.Watch());
  EXPECT_EQ(errno, ENOMEM);
}

// ---- Through the queue --------------------------------------------------------------------------

TEST_F(UserOutputTest, WhatTheSocketDoesNotTakeWaits) {
  const std::string text = LongText(kMebibyte);
  EXPECT_TRUE(Send(text));  // the socket takes a part of it
  EXPECT_FALSE(reader_.output->IsEmpty());
  EXPECT_TRUE(AreSame(ReceiveAll(), text));
  EXPECT_TRUE(reader_.output->IsEmpty());
}

TEST_F(UserOutputTest, WhatComesLaterWaitsBehindItWithoutATry) {
  reader_.Stall();
  EXPECT_TRUE(Send("one "));
  reader_.Received();
  const FailCall sends(Call::kSend, EIO, 1, 0);
  EXPECT_TRUE(Send("two "));
  EXPECT_TRUE(Send("three"));
  EXPECT_EQ(sends.calls(), 0);
  EXPECT_EQ(reader_.Received(), "");
  EXPECT_TRUE(AreSame(ReceiveAll(), "one two three"));
  EXPECT_TRUE(Send(" four"));
  EXPECT_EQ(sends.calls(), 1);
  EXPECT_EQ(reader_.Received(), " four");
}

TEST_F(UserOutputTest, RoomEndsTheWaitOfTheOneWhoSends) {
  EXPECT_FALSE(RoomIsKnown());
  reader_.Stall();
  EXPECT_TRUE(Send("waiting"));
  EXPECT_FALSE(RoomIsKnown());
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_FALSE(reader_.output->IsEmpty());
  reader_.Received();
  EXPECT_TRUE(RoomIsKnown());
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_TRUE(reader_.output->IsEmpty());
  EXPECT_FALSE(RoomIsKnown());
  EXPECT_EQ(reader_.Received(), "waiting");
}

TEST_F(UserOutputTest, WhatIsLeftOutIsMarkedAndCounted) {
  reader_.Stall();
  const uint64_t before = counters.bytes_not_shown.Get();
  const std::string text = LongText(kMebibyte + 1234);
  EXPECT_TRUE(Send(text.substr(0, kMebibyte)));
  EXPECT_EQ(counters.bytes_not_shown.Get(), before);
  EXPECT_TRUE(Send(text.substr(kMebibyte)));
  EXPECT_EQ(counters.bytes_not_shown.Get(), before + 1234);
  reader_.Received();
  EXPECT_TRUE(
      AreSame(ReceiveAll(), "\r\n[zevd: 1234 bytes were not shown]\r\n" + text.substr(1234)));
}

// How many bytes of much a new socket takes with one call.
size_t FirstRoom() {
  const SocketPair pair;
  const std::string much = LongText(kMebibyte);
  return static_cast<size_t>(send(pair.ours.get(), much.data(), much.size(), MSG_DONTWAIT));
}

TEST_F(UserOutputTest, CommandOfWhichTheSocketTookAPartIsNotTorn) {
  const size_t room = FirstRoom();
  std::string text(room - 1, 'x');
  text += "\xFF\xFB\x01" + LongText(kMebibyte - 2);
  EXPECT_TRUE(Send(text));  // the first byte of the command is sent at once
  EXPECT_TRUE(Send("more"));
  EXPECT_EQ(reader_.Received().size(), room);
  const std::string left = "\r\n[zevd: 4 bytes were not shown]\r\n" + text.substr(room + 6);
  EXPECT_TRUE(AreSame(ReceiveAll(), "\xFB\x01" + left + "more"));
}

TEST_F(UserOutputTest, FailureWhileTheQueueIsEmptiedIsToldAndFailsNoLaterSend) {
  reader_.Stall();
  EXPECT_TRUE(Send("waiting"));
  reader_.Received();
  reader_.pair.theirs.Reset();
  EXPECT_TRUE(RoomIsKnown());
  EXPECT_TRUE(SendWaitingOutput());
  EXPECT_TRUE(reader_.output->HasFailed());
  EXPECT_TRUE(reader_.output->IsEmpty());
  const FailCall sends(Call::kSend, EIO, 1, 0);
  EXPECT_TRUE(Send("more"));  // or it would cost the users of the same fan-out something
  EXPECT_EQ(sends.calls(), 0);
  EXPECT_TRUE(reader_.output->IsEmpty());
  EXPECT_FALSE(SendWaitingOutput());  // it has been told
}

TEST_F(UserOutputTest, ConnectionThatFailsWithNothingWaitingIsLeftToItsReader) {
  reader_.pair.theirs.Reset();
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_FALSE(reader_.output->HasFailed());
  EXPECT_FALSE(RoomIsKnown());  // once, and not for ever
}

TEST_F(UserOutputTest, OutputThatIsGoneIsNotSentTo) {
  reader_.Stall();
  EXPECT_TRUE(Send("waiting"));
  reader_.output.reset();
  reader_.Received();
  EXPECT_FALSE(RoomIsKnown());
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_EQ(reader_.Received(), "");
}

// ---- Many users ---------------------------------------------------------------------------------

TEST_F(UserOutputTest, EveryQueueIsEmptied) {
  std::vector<Reader> readers(150);
  for (const Reader& reader : readers) {
    reader.Stall();
    EXPECT_TRUE(::Send(reader.output.get(), "waiting"));
    reader.Received();
  }
  const FakePassageOfTime time(1);
  EXPECT_FALSE(SendWaitingOutput());
  for (const Reader& reader : readers) {
    EXPECT_TRUE(reader.output->IsEmpty());
    EXPECT_EQ(reader.Received(), "waiting");
  }
}

TEST_F(UserOutputTest, EmptyingGoesOnLaterWhenItTakesTooLong) {
  std::vector<Reader> readers(100);
  for (const Reader& reader : readers) {
    reader.Stall();
    EXPECT_TRUE(::Send(reader.output.get(), "waiting"));
    reader.Received();
  }
  const auto emptied = [&] {
    size_t count = 0;
    for (const Reader& reader : readers) count += reader.output->IsEmpty() ? 1 : 0;
    return count;
  };
  const FakePassageOfTime time(1000);
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_EQ(emptied(), 8U);
  EXPECT_TRUE(RoomIsKnown());
  for (size_t calls = 2; calls <= 12; ++calls) {
    EXPECT_FALSE(SendWaitingOutput());
    EXPECT_EQ(emptied(), 8 * calls);
  }
  EXPECT_FALSE(SendWaitingOutput());
  EXPECT_EQ(emptied(), 100U);
}

TEST_F(UserOutputTest, QueueIsEmptiedAsFarAsTheSocketHasRoom) {
  const std::string text = LongText(kMebibyte);
  reader_.Stall();
  EXPECT_TRUE(Send(text));
  reader_.Received();
  EXPECT_FALSE(SendWaitingOutput());
  const std::string received = reader_.Received();
  EXPECT_GE(received.size(), 65536U);
  EXPECT_FALSE(reader_.output->IsEmpty());
  EXPECT_TRUE(RoomIsKnown());
  EXPECT_TRUE(AreSame(received + ReceiveAll(), text));
}

TEST_F(UserOutputTest, FailureOfOneIsNoFailureOfAnother) {
  Reader gone;
  for (const Reader* reader : {&gone, &reader_}) {
    reader->Stall();
    EXPECT_TRUE(::Send(reader->output.get(), "waiting"));
    reader->Received();
  }
  gone.pair.theirs.Reset();
  EXPECT_TRUE(SendWaitingOutput());
  EXPECT_TRUE(gone.output->HasFailed());
  EXPECT_FALSE(reader_.output->HasFailed());
  EXPECT_EQ(reader_.Received(), "waiting");
}

// ---- Users who have left ------------------------------------------------------------------------

constexpr int64_t kSecond = 1'000'000;

class ClosingOutputsTest : public UserOutputTest {
 protected:
  ~ClosingOutputsTest() override {
    FakePassageOfTime time(1);
    time.Pass(2 * kSecond);
    closing_.CloseDone();
  }

  // The socket is no longer the test's.
  void Leave() {
    sock_ = reader_.pair.ours.Release();
    closing_.Add(std::move(reader_.output));
  }

  void LeaveWithOutput(std::string_view bytes) {
    reader_.Stall();
    EXPECT_TRUE(Send(bytes));
    Leave();
  }

  int64_t ShortenedWait() const {
    timeval wait = {2, 0};
    closing_.Shorten(&wait);
    return wait.tv_sec * kSecond + wait.tv_usec;
  }

  FakePassageOfTime time_{1};
  ClosingOutputs closing_;
  int sock_ = -1;
};

TEST_F(ClosingOutputsTest, SocketWithNothingToSendIsClosedAtOnce) {
  EXPECT_TRUE(Send("bye"));
  Leave();
  EXPECT_FALSE(IsOpen(sock_));
  EXPECT_EQ(reader_.Received(), "bye");
  EXPECT_EQ(ShortenedWait(), 2 * kSecond);
}

TEST_F(ClosingOutputsTest, SocketIsClosedWhenItsQueueIsEmpty) {
  LeaveWithOutput("the last words");
  closing_.CloseDone();
  EXPECT_TRUE(IsOpen(sock_));
  reader_.Received();
  closing_.CloseDone();
  EXPECT_TRUE(IsOpen(sock_));
  EXPECT_FALSE(SendWaitingOutput());
  closing_.CloseDone();
  EXPECT_FALSE(IsOpen(sock_));
  EXPECT_EQ(reader_.Received(), "the last words");
}

TEST_F(ClosingOutputsTest, SocketIsClosedAfterASecondAtMost) {
  LeaveWithOutput("never read");
  time_.Pass(kSecond - 1000);
  closing_.CloseDone();
  EXPECT_TRUE(IsOpen(sock_));
  time_.Pass(1000);
  closing_.CloseDone();
  EXPECT_FALSE(IsOpen(sock_));
}

TEST_F(ClosingOutputsTest, SocketOfAUserWhoHasGoneIsClosed) {
  LeaveWithOutput("never read");
  reader_.pair.theirs.Reset();
  EXPECT_TRUE(SendWaitingOutput());
  closing_.CloseDone();
  EXPECT_FALSE(IsOpen(sock_));
}

TEST_F(ClosingOutputsTest, WaitEndsWhenTheNextSocketIsToBeClosed) {
  LeaveWithOutput("never read");
  time_.Pass(kSecond / 4);
  EXPECT_NEAR(static_cast<double>(ShortenedWait()), 0.75 * kSecond, 1000);
  Reader later;
  later.Stall();
  EXPECT_TRUE(::Send(later.output.get(), "never read"));
  const int sock = later.pair.ours.Release();
  closing_.Add(std::move(later.output));
  EXPECT_NEAR(static_cast<double>(ShortenedWait()), 0.75 * kSecond, 1000);
  time_.Pass(3 * kSecond / 4);
  EXPECT_EQ(ShortenedWait(), 0);
  closing_.CloseDone();
  EXPECT_FALSE(IsOpen(sock_));
  EXPECT_TRUE(IsOpen(sock));
  EXPECT_NEAR(static_cast<double>(ShortenedWait()), 0.25 * kSecond, 1000);
  timeval shorter = {0, 1000};
  closing_.Shorten(&shorter);
  EXPECT_EQ(shorter.tv_sec, 0);
  EXPECT_EQ(shorter.tv_usec, 1000);
}

TEST_F(ClosingOutputsTest, EachSocketIsClosedInItsOwnTime) {
  std::vector<Reader> readers(3);
  std::vector<int> socks;
  for (Reader& reader : readers) {
    reader.Stall();
    EXPECT_TRUE(::Send(reader.output.get(), "waiting"));
    socks.push_back(reader.pair.ours.Release());
    closing_.Add(std::move(reader.output));
  }
  readers[1].Received();
  EXPECT_FALSE(SendWaitingOutput());
  closing_.CloseDone();
  EXPECT_TRUE(IsOpen(socks[0]));
  EXPECT_FALSE(IsOpen(socks[1]));
  EXPECT_TRUE(IsOpen(socks[2]));
  for (const size_t last : {2U, 0U}) {
    readers[last].Received();
    EXPECT_FALSE(SendWaitingOutput());
    closing_.CloseDone();
    EXPECT_FALSE(IsOpen(socks[last]));
    EXPECT_EQ(readers[last].Received(), "waiting");
  }
}

// Closing a TCP connection with unread input resets it, and what was sent last is lost.
TEST_F(ClosingOutputsTest, InputThatNobodyReadTakesNothingBack) {
  const test::Listener listener;
  const test::Descriptor theirs = test::ConnectTo(listener.port());
  test::Descriptor ours = listener.Accept();
  test::SendText(theirs.get(), "typed too late");
  ASSERT_TRUE(test::WaitReadable(ours.get()));
  auto output = std::make_unique<UserOutput>(ours.get());
  EXPECT_TRUE(output->Watch());
  const std::string text(50'000, 'x');
  EXPECT_TRUE(::Send(output.get(), text));
  EXPECT_TRUE(output->IsEmpty());
  ours.Release();
  closing_.Add(std::move(output));
  EXPECT_EQ(test::Receive(theirs.get(), text.size()), text);
  ASSERT_TRUE(test::WaitReadable(theirs.get()));
  char byte = 0;
  EXPECT_EQ(recv(theirs.get(), &byte, 1, 0), 0);
}

}  // namespace
