// Output whose reader stops: pipes, terminals, and descriptors that give errors.
#include "bounded_output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <system_error>

#include "failure_support.h"
#include "file_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using test::Descriptor;

constexpr char kStamp[] = "17/03/08_08:05:42";

std::string Lost(unsigned long count) {
  return "ZEV " + std::string(kStamp) + ": " + std::to_string(count) + " messages were lost\n";
}

// Without a single newline, and no piece of it like another.
std::string Text(size_t size) {
  std::string text;
  for (size_t i = 0; text.size() < size; ++i) text += std::to_string(i) + ' ';
  return text.substr(0, size);
}

double Seconds(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// A pipe of two pages.
struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0 ||
        fcntl(ends[1], F_SETPIPE_SZ, 2 * PIPE_BUF) != 2 * PIPE_BUF) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
    reader.Reset(ends[0]);
    writer.Reset(ends[1]);
  }

  std::string ReadAll() const {
    fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    std::string all;
    std::array<char, PIPE_BUF> piece{};
    for (;;) {
      const ssize_t count = read(reader.get(), piece.data(), piece.size());
      if (count <= 0) return all;
      all.append(piece.data(), static_cast<size_t>(count));
    }
  }

  Descriptor reader;
  Descriptor writer;
};

class BoundedOutputTest : public ::testing::Test {
 protected:
  BoundedOutputTest() {
    sigset_t broken_pipe;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
  }

  bool Write(std::string_view text, unsigned long messages = 1) {
    return output_.Write(kStamp, text, messages);
  }

  /// Puts two pages into the pipe, all it has room for.
  void Fill() {
    ASSERT_TRUE(Write(std::string(PIPE_BUF, 'a')));
    ASSERT_TRUE(Write(std::string(PIPE_BUF, 'b')));
  }

  const std::string filling_ = std::string(PIPE_BUF, 'a') + std::string(PIPE_BUF, 'b');
  Pipe pipe_;
  BoundedOutput output_{pipe_.writer.get()};
};

TEST_F(BoundedOutputTest, WritesWhatIsTaken) {
  EXPECT_TRUE(Write("one\n"));
  EXPECT_TRUE(Write("two\n"));
  EXPECT_EQ(pipe_.ReadAll(), "one\ntwo\n");
}

TEST_F(BoundedOutputTest, LongTextIsWholeAndALongerOneIsCut) {
  const std::string text = Text(BoundedOutput::kLongestText + 1);
  EXPECT_TRUE(Write(text));  // more than the pipe takes: the rest waits
  std::string read = pipe_.ReadAll();
  EXPECT_TRUE(Write("|end\n"));
  read += pipe_.ReadAll();
  EXPECT_EQ(read, text.substr(0, BoundedOutput::kLongestText) + "|end\n");
}

TEST_F(BoundedOutputTest, WaitsATenthOfASecondAndNoLonger) {
  Fill();
  bool written = true;
  const double seconds = Seconds([&] { written = Write("late\n"); });
  EXPECT_FALSE(written);
  EXPECT_GE(seconds, 0.09);
  EXPECT_LT(seconds, 1.0);
}

TEST_F(BoundedOutputTest, LaterTextsAreDroppedWithoutAWait) {
  Fill();
  EXPECT_FALSE(Write("late\n"));
  const double seconds = Seconds([&] {
    for (int i = 0; i < 1000; ++i) EXPECT_FALSE(Write("later\n"));
  });
  EXPECT_LT(seconds, 10.0);  // a wait for each would take a hundred
  EXPECT_EQ(pipe_.ReadAll(), filling_);
}

TEST_F(BoundedOutputTest, LossIsReportedBeforeTheNextText) {
  Fill();
  EXPECT_FALSE(Write("lost\n"));
  EXPECT_FALSE(Write("lost with two before it\n", 3));
  EXPECT_EQ(pipe_.ReadAll(), filling_);
  EXPECT_TRUE(Write("seen\n"));
  EXPECT_TRUE(Write("seen too\n"));
  EXPECT_EQ(pipe_.ReadAll(), Lost(4) + "seen\nseen too\n");
}

TEST_F(BoundedOutputTest, EachLossIsCountedSeparately) {
  for (const unsigned long count : {1UL, 5UL}) {
    Fill();
    EXPECT_FALSE(Write("lost\n", count));
    pipe_.ReadAll();
    EXPECT_TRUE(Write("seen\n"));
    EXPECT_EQ(pipe_.ReadAll(), Lost(count) + "seen\n");
  }
}

TEST_F(BoundedOutputTest, UnfinishedTextIsFinishedFirst) {
  EXPECT_TRUE(Write(std::string(PIPE_BUF, 'a')));
  const std::string text = Text(PIPE_BUF + 1000) + "\n";
  EXPECT_TRUE(Write(text));  // one page of it has room
  EXPECT_FALSE(Write("lost\n"));
  EXPECT_EQ(pipe_.ReadAll(), std::string(PIPE_BUF, 'a') + text.substr(0, PIPE_BUF));
  EXPECT_TRUE(Write("seen\n"));
  EXPECT_EQ(pipe_.ReadAll(), text.substr(PIPE_BUF) + Lost(1) + "seen\n");
}

TEST_F(BoundedOutputTest, TheDescriptorStaysBlocking) {
  const int flags = fcntl(pipe_.writer.get(), F_GETFL);
  Fill();
  EXPECT_FALSE(Write("lost\n"));
  EXPECT_EQ(fcntl(pipe_.writer.get(), F_GETFL), flags);
  EXPECT_EQ(flags & O_NONBLOCK, 0);
}

TEST_F(BoundedOutputTest, WritesToANonBlockingDescriptor) {
  fcntl(pipe_.writer.get(), F_SETFL, O_NONBLOCK);
  Fill();
  EXPECT_FALSE(Write("lost\n"));
  EXPECT_EQ(pipe_.ReadAll(), filling_);
  EXPECT_TRUE(Write("seen\n"));
  EXPECT_EQ(pipe_.ReadAll(), Lost(1) + "seen\n");
}

TEST_F(BoundedOutputTest, InterruptionsLoseNothing) {
  const test::FailCall interrupted(test::Call::kWrite, EINTR, 1, 2);
  EXPECT_TRUE(Write("seen\n"));
  EXPECT_EQ(pipe_.ReadAll(), "seen\n");
}

TEST_F(BoundedOutputTest, InterruptedWaitGoesOn) {
  Fill();
  const test::FailCall interrupted(test::Call::kPoll, EINTR, 1, 3);
  EXPECT_GE(Seconds([&] { EXPECT_FALSE(Write("lost\n")); }), 0.09);
}

// ---- Errors -------------------------------------------------------------------------------------

TEST_F(BoundedOutputTest, FullDiskLosesWhatIsWrittenMeanwhile) {
  {
    const test::FailCall full(test::Call::kWrite, ENOSPC);
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(Write("lost\n"));
    EXPECT_EQ(full.calls(), 3);
  }
  EXPECT_TRUE(Write("seen\n"));
  EXPECT_EQ(pipe_.ReadAll(), Lost(3) + "seen\n");
}

TEST_F(BoundedOutputTest, DoesNotWaitForAFullDevice) {
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  BoundedOutput output(full.get());
  const double seconds = Seconds([&] {
    for (int i = 0; i < 1000; ++i) EXPECT_FALSE(output.Write(kStamp, "lost\n", 1));
  });
  EXPECT_LT(seconds, 10.0);
}

TEST_F(BoundedOutputTest, SurvivesAClosedPipe) {
  pipe_.reader.Reset();
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(Write("lost\n"));
}

TEST_F(BoundedOutputTest, SurvivesAClosedDescriptor) {
  BoundedOutput output(-1);
  EXPECT_TRUE(output.Write(kStamp, "", 1));  // nothing to write
  BoundedOutput closed(pipe_.writer.get());
  pipe_.writer.Reset();
  EXPECT_FALSE(closed.Write(kStamp, "lost\n", 1));
}

TEST_F(BoundedOutputTest, FileTakesEverything) {
  const test::TemporaryDirectory directory;
  const std::string path = directory.path() / "output";
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  BoundedOutput output(file.get());
  const std::string text = Text(BoundedOutput::kLongestText);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(output.Write(kStamp, text, 1));
  EXPECT_EQ(test::ReadFile(path), text + text + text);
}

TEST_F(BoundedOutputTest, SocketThatNobodyReadsIsLikeAPipe) {
  const test::SocketPair pair;
  BoundedOutput output(pair.ours.get());
  std::string written;
  for (;;) {
    const std::string text = Text(1000) + "\n";
    if (!output.Write(kStamp, text, 1)) break;
    written += text;
  }
  EXPECT_EQ(test::Receive(pair.theirs.get(), written.size()), written);
  EXPECT_TRUE(output.Write(kStamp, "seen\n", 1));
  EXPECT_EQ(test::Receive(pair.theirs.get(), Lost(1).size() + 5), Lost(1) + "seen\n");
}

// ---- Terminals ----------------------------------------------------------------------------------

/// A terminal as a shell leaves it: it makes two bytes of each line end.
struct Terminal {
  Terminal() : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
    std::array<char, 64> name{};
    if (grantpt(master.get()) != 0 || unlockpt(master.get()) != 0 ||
        ptsname_r(master.get(), name.data(), name.size()) != 0) {
      throw std::system_error(errno, std::generic_category(), "pseudo-terminal");
    }
    slave.Reset(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
  }

  /// Reads until this many bytes have come, or no more come.
  std::string Read(size_t count) const {
    std::string all;
    std::array<char, PIPE_BUF> piece{};
    while (all.size() < count && test::WaitReadable(master.get())) {
      const ssize_t got = read(master.get(), piece.data(), piece.size());
      if (got <= 0) break;
      all.append(piece.data(), static_cast<size_t>(got));
    }
    return all;
  }

  std::string ReadAvailable() const {
    std::array<char, PIPE_BUF> piece{};
    const ssize_t got = read(master.get(), piece.data(), piece.size());
    return {piece.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))};
  }

  Descriptor master;
  Descriptor slave;
};

std::string Shown(const std::string& text) {
  std::string shown;
  for (const char byte : text) shown += byte == '\n' ? std::string("\r\n") : std::string(1, byte);
  return shown;
}

class TerminalOutputTest : public ::testing::Test {
 protected:
  bool Write(const std::string& text) { return output_.Write(kStamp, text, 1); }

  /// Writes the text until the terminal, which nobody reads, takes no more. Returns what it took.
  std::string WriteUntilStuck(const std::string& text) {
    std::string written;
    while (Write(text)) written += text;
    return written;
  }

  Terminal terminal_;
  std::string shown_;
  BoundedOutput output_{terminal_.slave.get()};
};

struct TerminalCase {
  const char* name;
  std::string text;
};

void PrintTo(const TerminalCase& test_case, std::ostream* out) {
  *out << test_case.name;
}

// A write that blocks would stay here forever.
class UnreadTerminalTest : public TerminalOutputTest,
                           public ::testing::WithParamInterface<TerminalCase> {};

TEST_P(UnreadTerminalTest, LosesNothingButOutput) {
  const std::string written = WriteUntilStuck(GetParam().text);
  EXPECT_FALSE(Write("lost\n"));
  EXPECT_TRUE(test::Eventually([&] {
    shown_ += terminal_.ReadAvailable();
    return Write("seen\n");
  }));
  EXPECT_TRUE(test::Eventually([&] {
    shown_ += terminal_.ReadAvailable();
    return shown_.size() > 6 && shown_.substr(shown_.size() - 6) == "seen\r\n";
  }));
  EXPECT_TRUE(shown_.find(Shown(written)) == 0);
  EXPECT_THAT(shown_, ::testing::EndsWith(" messages were lost\r\nseen\r\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, UnreadTerminalTest,
    ::testing::Values(TerminalCase{"Lines", "a line of usual length, as most of them are\n"},
                      TerminalCase{"LongLines", Text(8000) + "\n"},
                      TerminalCase{"ManyLineEnds", std::string(8192, '\n')},
                      TerminalCase{"LineEnds", "\n"}, TerminalCase{"Tabs", "\ta\t\r\n"}),
    [](const auto& test_case) { return test_case.param.name; });

TEST_F(TerminalOutputTest, StoppedTerminalLosesNothingButOutput) {
  EXPECT_TRUE(Write("before\n"));
  ASSERT_EQ(tcflow(terminal_.slave.get(), TCOOFF), 0);
  EXPECT_FALSE(Write("lost\n"));
  EXPECT_FALSE(Write("lost\n"));
  ASSERT_EQ(tcflow(terminal_.slave.get(), TCOON), 0);
  EXPECT_TRUE(Write("after\n"));
  const std::string shown = Shown("before\n" + Lost(2) + "after\n");
  EXPECT_EQ(terminal_.Read(shown.size()), shown);
}

TEST_F(TerminalOutputTest, SurvivesATerminalThatHangsUp) {
  terminal_.master.Reset();
  EXPECT_FALSE(Write("lost\n"));
}

}  // namespace
