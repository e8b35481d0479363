// Raw mode, signals and output that never blocks, on pipes and pseudo-terminals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "descriptor.h"
#include "socket.h"
#include "terminal.h"

namespace zevctl {
namespace {

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    reading = Descriptor(ends[0]);
    writing = Descriptor(ends[1]);
  }

  Descriptor reading;
  Descriptor writing;
};

struct Pty {
  Pty() {
    int outer_end = -1;
    int inner_end = -1;
    EXPECT_EQ(openpty(&outer_end, &inner_end, nullptr, nullptr, nullptr), 0);
    outer = Descriptor(outer_end);
    inner = Descriptor(inner_end);
  }

  Descriptor outer;  ///< where the person is
  Descriptor inner;  ///< where the program is
};

bool Ready(int fd, short events) {
  pollfd asked = {fd, events, 0};
  return poll(&asked, 1, 0) > 0;
}

std::string ReadSome(int fd) {
  std::string bytes(65536, '\0');
  const ssize_t count = read(fd, bytes.data(), bytes.size());
  bytes.resize(static_cast<size_t>(std::max<ssize_t>(count, 0)));
  return bytes;
}

std::string Lines(size_t size) {
  std::string lines;
  for (size_t number = 0; lines.size() < size; ++number) lines += std::to_string(number) + "\r\n";
  return lines;
}

// Writes as long as poll() allows it; a write that blocks would stop the test here.
void WriteWhileReady(OutputQueue& queue) {
  while (!queue.empty() && Ready(queue.fd(), POLLOUT)) ASSERT_EQ(queue.Write(), 0);
}

void ExpectAllArrives(OutputQueue& queue, int reader, const std::string& text) {
  queue.Add(text);
  WriteWhileReady(queue);
  EXPECT_FALSE(queue.empty());
  std::string arrived;
  while (arrived.size() < text.size() && !::testing::Test::HasFailure()) {
    ASSERT_TRUE(WaitFor(reader, POLLIN, Milliseconds(10000)));
    arrived += ReadSome(reader);
    WriteWhileReady(queue);
  }
  EXPECT_TRUE(arrived == text);
  EXPECT_TRUE(queue.empty());
}

TEST(OutputQueue, KeepsWhatAPipeDoesNotTake) {
  Pipe pipe;
  OutputQueue queue(pipe.writing.get());
  ExpectAllArrives(queue, pipe.reading.get(), Lines(300000));
}

TEST(OutputQueue, KeepsWhatATerminalDoesNotTake) {
  Pty pty;
  RawMode raw(pty.inner.get());
  raw.Enter();
  OutputQueue queue(pty.inner.get());
  ExpectAllArrives(queue, pty.outer.get(), Lines(300000));
}

TEST(OutputQueue, KeepsWhatASocketDoesNotTake) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
  const Descriptor reading(ends[0]);
  const Descriptor writing(ends[1]);
  OutputQueue queue(writing.get());
  ExpectAllArrives(queue, reading.get(), Lines(3000000));
}

// The descriptor is shared with other programs, such as the shell.
TEST(OutputQueue, LeavesTheModeOfTheDescriptorAlone) {
  Pty pty;
  const OutputQueue queue(pty.inner.get());
  EXPECT_EQ(fcntl(pty.inner.get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(queue.fd(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(OutputQueue, IsFullAtItsLimitAndNotBelow) {
  Pipe pipe;
  OutputQueue queue(pipe.writing.get());
  queue.Add(std::string((1 << 20) - 1, 'x'));
  EXPECT_FALSE(queue.Full());
  queue.Add("x");
  EXPECT_TRUE(queue.Full());
  EXPECT_EQ(queue.Write(), 0);
  EXPECT_FALSE(queue.Full());
}

TEST(OutputQueue, KeepsTheOrderOfWhatIsAddedLater) {
  Pipe pipe;
  OutputQueue queue(pipe.writing.get());
  queue.Add(std::string(4096, 'a') + "b");
  EXPECT_EQ(queue.Write(), 0);
  queue.Add("c");
  EXPECT_EQ(queue.Write(), 0);
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(ReadSome(pipe.reading.get()), std::string(4096, 'a') + "bc");
}

TEST(OutputQueue, ForgetsWhatIsCleared) {
  Pipe pipe;
  OutputQueue queue(pipe.writing.get());
  queue.Add("unseen");
  queue.Clear();
  EXPECT_TRUE(queue.empty());
  queue.Add("seen");
  EXPECT_EQ(queue.Write(), 0);
  EXPECT_EQ(ReadSome(pipe.reading.get()), "seen");
}

TEST(OutputQueue, ReportsThatNobodyReads) {
  signal(SIGPIPE, SIG_IGN);
  Pipe pipe;
  OutputQueue queue(pipe.writing.get());
  pipe.reading.Close();
  queue.Add("unread");
  EXPECT_EQ(queue.Write(), EPIPE);
}

termios ModesOf(int terminal) {
  termios modes{};
  EXPECT_EQ(tcgetattr(terminal, &modes), 0);
  return modes;
}

bool Same(const termios& one, const termios& other) {
  return one.c_iflag == other.c_iflag && one.c_oflag == other.c_oflag &&
         one.c_cflag == other.c_cflag && one.c_lflag == other.c_lflag &&
         memcmp(one.c_cc, other.c_cc, sizeof one.c_cc) == 0;
}

TEST(RawMode, PassesEveryKeyOnUntilItIsLeft) {
  Pty pty;
  const termios before = ModesOf(pty.inner.get());
  {
    const RawMode raw(pty.inner.get());
    EXPECT_TRUE(raw.is_terminal());
    EXPECT_TRUE(Same(ModesOf(pty.inner.get()), before));
    raw.Enter();
    EXPECT_EQ(ModesOf(pty.inner.get()).c_lflag & (ICANON | ISIG | ECHO), 0U);
    ASSERT_EQ(write(pty.outer.get(), "\x03\r\x1A", 3), 3);
    ASSERT_TRUE(WaitFor(pty.inner.get(), POLLIN, Milliseconds(10000)));
    EXPECT_EQ(ReadSome(pty.inner.get()), "\x03\r\x1A");
    raw.Leave();
    EXPECT_TRUE(Same(ModesOf(pty.inner.get()), before));
    raw.Enter();
  }
  EXPECT_TRUE(Same(ModesOf(pty.inner.get()), before));
}

TEST(RawMode, DoesNothingWithoutATerminal) {
  Pipe pipe;
  const RawMode raw(pipe.reading.get());
  EXPECT_FALSE(raw.is_terminal());
  raw.Enter();
  raw.Leave();
}

// Signals that were ignored before stay ignored, and the others are seen once each.
TEST(SignalWatch, ReturnsSignalsAsNumbers) {
  sigset_t before;
  sigprocmask(SIG_SETMASK, nullptr, &before);
  const auto hangup = signal(SIGHUP, SIG_IGN);
  {
    const SignalWatch watch;
    EXPECT_EQ(watch.Take(), 0);
    raise(SIGHUP);
    EXPECT_EQ(watch.Take(), 0);
    raise(SIGTERM);
    EXPECT_TRUE(WaitFor(watch.fd(), POLLIN, Milliseconds(0)));
    EXPECT_EQ(watch.Take(), SIGTERM);
    EXPECT_EQ(watch.Take(), 0);
  }
  sigset_t after;
  sigprocmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&after, SIGTERM), sigismember(&before, SIGTERM));
  signal(SIGHUP, hangup);
}

}  // namespace
}  // namespace zevctl
