// Debug output, what happens when nobody takes it, and failures that are reported.
#include "error.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "daemon_support.h"
#include "debug_support.h"
#include "error_steps.h"
#include "event.h"
#include "failure_support.h"
#include "file_support.h"
#include "options.h"
#include "socket_support.h"
#include "timestamp.h"
#include "zev_signal.h"

using namespace zevd;

namespace {

using test::Descriptor;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StrEq;

constexpr size_t kLongest = 8191;

class DebugOutputTest : public test::DaemonTest {
 protected:
  DebugOutputTest() { ClearThreadNames(); }
  ~DebugOutputTest() override { ClearThreadNames(); }
};

// ---- The shape of a line ------------------------------------------------------------------------

TEST_F(DebugOutputTest, LineHasTimeThreadAndMessage) {
  RegisterThread("main");
  const test::DebugCapture capture;
  zev_debug(kInfo, "value %d of \"%s\"\n", 7, "x");
  const std::string output = capture.Output();
  ASSERT_THAT(capture.Lines(), SizeIs(1));
  EXPECT_EQ(output, "ZEV " + capture.Lines().at(0).stamp + ":<main>: value 7 of \"x\"\n");
}

TEST_F(DebugOutputTest, StampIsTheTimeOfWriting) {
  const test::DebugCapture capture;
  char stamp[80];
  {
    const test::FakeClock clock;
    GetTimeStamp(stamp, sizeof stamp);
    zev_debug(kInfo, "now\n");
  }
  EXPECT_EQ(capture.Output(), std::string("ZEV ") + stamp + ":<unknown>: now\n");
}

TEST_F(DebugOutputTest, NoNewlineIsAdded) {
  const test::DebugCapture capture;
  zev_debug(kInfo, "one");
  zev_debug(kInfo, "two\n");
  EXPECT_THAT(capture.Messages(), ElementsAre("one", "two\n"));
}

TEST_F(DebugOutputTest, EveryMessageIsFlushed) {
  const test::DebugCapture capture;
  zev_debug(kInfo, "no newline");
  EXPECT_THAT(capture.Output(), HasSubstr("no newline"));
}

// Output to a full device fails and changes errno, which the caller may be about to look at.
void WriteToAFullDevice() {
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  fflush(stdout);
  dup2(full.get(), STDOUT_FILENO);
  errno = EXDEV;
  zev_debug(kError, "message\n");
  EXPECT_EQ(errno, EXDEV);
  test::JoinStandardOutput();
}

TEST_F(DebugOutputTest, ErrnoIsLeftAlone) {
  EXPECT_HOLDS_IN_CHILD(WriteToAFullDevice());
}

// ---- Levels -------------------------------------------------------------------------------------

struct LevelCase {
  int debug_level;
  std::vector<std::string> written;
};

void PrintTo(const LevelCase& level, std::ostream* out) {
  *out << "level " << level.debug_level;
}

class DebugLevelTest : public ::testing::TestWithParam<LevelCase> {};

TEST_P(DebugLevelTest, WritesWhatIsNotAboveIt) {
  const test::DebugCapture capture(GetParam().debug_level);
  zev_debug(kError, "-1");
  zev_debug(kInfo, "1");
  zev_debug(kDetail, "2");
  zev_debug(kTrace, "3");
  EXPECT_EQ(capture.Messages(), GetParam().written);
}

INSTANTIATE_TEST_SUITE_P(Levels, DebugLevelTest,
                         ::testing::Values(LevelCase{-2, {}}, LevelCase{-1, {"-1"}},
                                           LevelCase{0, {"-1"}}, LevelCase{1, {"-1", "1"}},
                                           LevelCase{2, {"-1", "1", "2"}},
                                           LevelCase{3, {"-1", "1", "2", "3"}},
                                           LevelCase{99, {"-1", "1", "2", "3"}}),
                         [](const auto& test_case) {
                           const int level = test_case.param.debug_level;
                           return (level < 0 ? "Minus" : "Plus") + std::to_string(std::abs(level));
                         });

TEST_F(DebugOutputTest, MessageAboveTheLevelDoesNotCountAsARepetition) {
  const test::DebugCapture capture(kInfo);
  zev_debug(kInfo, "same\n");
  zev_debug(kTrace, "same\n");
  zev_debug(kInfo, "other\n");
  EXPECT_THAT(capture.Messages(), ElementsAre("same\n", "other\n"));
}

TEST_F(DebugOutputTest, EntryLineNamesTheFunctionAtLevelThree) {
  const test::DebugCapture capture(kTrace);
  ENTERING();
  EXPECT_THAT(capture.Messages(), ElementsAre("Entering TestBody\n"));
  debug_level = kDetail;
  ENTERING();
  zev_debug(kDetail, "end\n");
  EXPECT_THAT(capture.Messages(), ElementsAre("Entering TestBody\n", "end\n"));
}

// ---- Repetitions --------------------------------------------------------------------------------

TEST_F(DebugOutputTest, RunOfEqualMessagesIsCollapsed) {
  RegisterThread("main");
  const test::DebugCapture capture;
  for (int i = 0; i < 10; ++i) zev_debug(kInfo, "again\n");
  EXPECT_THAT(capture.Messages(), ElementsAre("again\n"));
  const test::FakeClock clock;
  char stamp[80];
  GetTimeStamp(stamp, sizeof stamp);
  zev_debug(kInfo, "new\n");
  const std::string time = std::string("ZEV ") + stamp;
  EXPECT_THAT(capture.Output(), HasSubstr("again\n" + time + ": Last message repeated 9 times\n" +
                                          time + ":<main>: new\n"));
  EXPECT_THAT(capture.Lines(), SizeIs(3));
}

TEST_F(DebugOutputTest, OneRepetitionIsReportedToo) {
  const test::DebugCapture capture;
  for (const char* text : {"a\n", "a\n", "b\n"}) zev_debug(kInfo, "%s", text);
  EXPECT_THAT(capture.Messages(), ElementsAre("a\n", "Last message repeated 1 times\n", "b\n"));
}

TEST_F(DebugOutputTest, CountStartsAgainWithEveryRun) {
  const test::DebugCapture capture;
  for (const char* text : {"a\n", "a\n", "a\n", "b\n", "b\n", "a\n", "c\n"}) {
    zev_debug(kInfo, "%s", text);
  }
  EXPECT_THAT(capture.Messages(), ElementsAre("a\n", "Last message repeated 2 times\n", "b\n",
                                              "Last message repeated 1 times\n", "a\n", "c\n"));
}

TEST_F(DebugOutputTest, AlternatingMessagesAreAllWritten) {
  const test::DebugCapture capture;
  for (const char* text : {"a\n", "b\n", "a\n", "b\n"}) zev_debug(kInfo, "%s", text);
  EXPECT_THAT(capture.Messages(), ElementsAre("a\n", "b\n", "a\n", "b\n"));
}

TEST_F(DebugOutputTest, LevelIsNotCompared) {
  const test::DebugCapture capture(kTrace);
  zev_debug(kTrace, "same\n");
  zev_debug(kError, "same\n");
  zev_debug(kInfo, "end\n");
  EXPECT_THAT(capture.Messages(),
              ElementsAre("same\n", "Last message repeated 1 times\n", "end\n"));
}

TEST_F(DebugOutputTest, ThreadIsNotCompared) {
  const test::DebugCapture capture;
  RegisterThread("main");
  zev_debug(kInfo, "same\n");
  std::thread([] {
    RegisterThread("cons_conn");
    zev_debug(kInfo, "same\n");
    UnregisterThread();
  }).join();
  zev_debug(kInfo, "end\n");
  EXPECT_THAT(capture.Messages(),
              ElementsAre("same\n", "Last message repeated 1 times\n", "end\n"));
}

TEST_F(DebugOutputTest, LastRunOfRepetitionsIsNeverReported) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kError);
        zev_debug(kError, "last\n");
        zev_debug(kError, "last\n");
        EXIT_PROCESS(0);
      },
      ExitedWithCode(0), test::DebugTextsAre(ElementsAre("last\n")));
}

/// What a process writes first: the children start the program afresh.
class FirstMessageTest : public ::testing::Test {
 protected:
  FirstMessageTest() { test::StartChildrenAfresh(); }
};

TEST_F(FirstMessageTest, EqualToTheInitialTextIsARepetition) {
  EXPECT_EXIT(
      {
        test::JoinStandardOutput();
        zev_debug(kError, "XXXX");
        zev_debug(kError, "second\n");
        _exit(0);
      },
      ExitedWithCode(0),
      test::DebugTextsAre(ElementsAre("Last message repeated 1 times\n", "second\n")));
}

TEST_F(FirstMessageTest, InitialTextIsWrittenAfterAnotherMessage) {
  EXPECT_EXIT(
      {
        test::JoinStandardOutput();
        zev_debug(kError, "XXXX\n");
        zev_debug(kError, "XXXX");
        _exit(0);
      },
      ExitedWithCode(0), test::DebugTextsAre(ElementsAre("XXXX\n", "XXXX")));
}

// ---- Output that nobody takes -------------------------------------------------------------------

/// Standard output is a pipe that nobody reads, once it is full.
class StuckOutputTest : public DebugOutputTest {
 protected:
  StuckOutputTest() {
    const test::DebugCapture last_message_is_another;
    zev_debug(kError, "before\n");
  }

  ~StuckOutputTest() override {
    Drain();
    if (saved_ != -1) dup2(saved_, STDOUT_FILENO);
    close(saved_);
    close(reader_);
  }

  /// From now on output goes to the pipe.
  void Divert() {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    reader_ = ends[0];
    const Descriptor writer(ends[1]);
    fcntl(writer.get(), F_SETPIPE_SZ, kRoom);
    fcntl(reader_, F_SETFL, O_NONBLOCK);
    fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    dup2(writer.get(), STDOUT_FILENO);
  }

  static void Fill() {
    const std::string filling(kRoom, 'x');
    ASSERT_EQ(write(STDOUT_FILENO, filling.data(), filling.size()), kRoom);
  }

  std::string Drain() const {
    std::string all;
    std::array<char, kRoom> piece{};
    for (;;) {
      const ssize_t count = read(reader_, piece.data(), piece.size());
      if (count <= 0) return all;
      all.append(piece.data(), static_cast<size_t>(count));
    }
  }

  std::vector<std::string> Messages() const { return test::DebugMessages(Drain()); }

  static constexpr int kRoom = 16 * 4096;
  test::OptionsGuard level_;
  int saved_ = -1;
  int reader_ = -1;
};

TEST_F(StuckOutputTest, LossIsReportedWithTimeAndCount) {
  Divert();
  Fill();
  for (const char* text : {"a\n", "b\n", "c\n"}) zev_debug(kError, "%s", text);
  Drain();
  const test::FakeClock clock;
  char stamp[80];
  GetTimeStamp(stamp, sizeof stamp);
  zev_debug(kError, "seen\n");
  const std::string time = std::string("ZEV ") + stamp;
  EXPECT_EQ(Drain(), time + ": 3 messages were lost\n" + time + ":<unknown>: seen\n");
}

TEST_F(StuckOutputTest, RepetitionsOfALostMessageAreLostToo) {
  Divert();
  Fill();
  for (int i = 0; i < 5; ++i) zev_debug(kError, "again\n");
  Drain();
  zev_debug(kError, "again\n");
  zev_debug(kError, "again\n");
  zev_debug(kError, "end\n");
  EXPECT_THAT(Messages(), ElementsAre("5 messages were lost\n", "again\n",
                                      "Last message repeated 1 times\n", "end\n"));
}

TEST_F(StuckOutputTest, UnreportedRepetitionsAreLostToo) {
  Divert();
  for (int i = 0; i < 4; ++i) zev_debug(kError, "again\n");
  EXPECT_THAT(Messages(), ElementsAre("again\n"));
  Fill();
  zev_debug(kError, "lost\n");
  Drain();
  zev_debug(kError, "end\n");
  EXPECT_THAT(Messages(), ElementsAre("4 messages were lost\n", "end\n"));
}

TEST_F(StuckOutputTest, RepetitionsOfASeenMessageKeepCounting) {
  Divert();
  zev_debug(kError, "again\n");
  Drain();
  Fill();
  for (int i = 0; i < 3; ++i) zev_debug(kError, "again\n");
  Drain();
  zev_debug(kError, "end\n");
  EXPECT_THAT(Messages(), ElementsAre("Last message repeated 3 times\n", "end\n"));
}

// The pipe has room for sixteen pages, which the messages do not fill evenly: the last one that
// goes out goes out in part.
TEST_F(StuckOutputTest, UnfinishedMessageIsFinished) {
  Divert();
  const std::string text(5000, 'y');
  std::vector<std::string> written = {"short\n"};
  for (int i = 0; i < 8; ++i) written.push_back(std::to_string(i) + " " + text + "\n");
  for (const std::string& message : written) zev_debug(kError, "%s", message.c_str());
  std::string output = Drain();
  EXPECT_NE(output.back(), '\n');
  zev_debug(kError, "end\n");
  output += Drain();
  written.emplace_back("end\n");
  EXPECT_EQ(test::DebugMessages(output), written);
}

TEST_F(StuckOutputTest, ThreadsThatWriteTogetherAreCountedTogether) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  Divert();
  Fill();
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([i] {
      for (int n = 0; n < kLines; ++n) zev_debug(kError, "t%d %d\n", i, n);
    });
  }
  for (std::thread& thread : threads) thread.join();
  Drain();
  zev_debug(kError, "end\n");
  EXPECT_THAT(Messages(), ElementsAre("2000 messages were lost\n", "end\n"));
}

// The daemon ends soon although nobody takes its last message.
TEST_F(StuckOutputTest, EndOfTheProcessDoesNotWait) {
  EXPECT_EXIT(
      {
        Divert();
        Fill();
        debug_level = kInfo;
        zev_debug(kError, "lost\n");
        alarm(5);
        TermHandler(SIGTERM);
      },
      ExitedWithCode(1), "");
}

// ---- Long messages ------------------------------------------------------------------------------

TEST_F(DebugOutputTest, LongestMessageIsWhole) {
  const test::DebugCapture capture;
  const std::string text(kLongest, 'x');
  zev_debug(kInfo, "%s", text.c_str());
  EXPECT_THAT(capture.Messages(), ElementsAre(text));
}

TEST_F(DebugOutputTest, LongerMessageIsCut) {
  const test::DebugCapture capture;
  const std::string text(kLongest, 'x');
  zev_debug(kInfo, "%sy\n", text.c_str());
  EXPECT_THAT(capture.Messages(), ElementsAre(text));
}

TEST_F(DebugOutputTest, MessagesThatDifferAfterTheCutAreEqual) {
  const test::DebugCapture capture;
  const std::string text(kLongest, 'x');
  zev_debug(kInfo, "%sa", text.c_str());
  zev_debug(kInfo, "%sb", text.c_str());
  zev_debug(kInfo, "end\n");
  EXPECT_THAT(capture.Messages(), ElementsAre(text, "Last message repeated 1 times\n", "end\n"));
}

TEST_F(DebugOutputTest, MessagesThatDifferInTheLastByteAreDifferent) {
  const test::DebugCapture capture;
  const std::string text(kLongest - 1, 'x');
  zev_debug(kInfo, "%sa", text.c_str());
  zev_debug(kInfo, "%sb", text.c_str());
  EXPECT_THAT(capture.Messages(), ElementsAre(text + "a", text + "b"));
}

// ---- Many threads -------------------------------------------------------------------------------

TEST_F(DebugOutputTest, LinesOfManyThreadsNeverInterleave) {
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  const std::string filler(300, '.');
  const test::DebugCapture capture;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&filler, i] {
      RegisterThread(("t" + std::to_string(i)).c_str());
      for (int n = 0; n < kLines; ++n) zev_debug(kInfo, "t%d %d %s\n", i, n, filler.c_str());
      UnregisterThread();
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::array<int, kThreads> next{};
  for (const test::DebugLine& line : capture.Lines()) {
    const auto i = static_cast<size_t>(line.thread.at(1) - '0');
    ASSERT_EQ(line.text, line.thread + " " + std::to_string(next.at(i)++) + " " + filler + "\n");
  }
  EXPECT_THAT(next, ::testing::Each(kLines));
}

// ---- Failures of the debug lock -----------------------------------------------------------------

Descriptor ListenAtTheEventManagersAddress() {
  Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = {AF_UNIX, "root/run/jix.sock"};
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      listen(listener.get(), 1) != 0) {
    throw std::system_error(errno, std::generic_category(), address.sun_path);
  }
  return listener;
}

// All that the first client has sent before it left.
std::string ReceiveEvents(const Descriptor& listener) {
  if (!test::WaitReadable(listener.get())) return "";
  const Descriptor client(accept(listener.get(), nullptr, nullptr));
  return test::Receive(client.get(), 65536);
}

class DebugLockFailureTest : public FirstMessageTest {};

TEST_F(DebugLockFailureTest, InitialisationEndsTheProcessWithoutTrace) {
  EXPECT_EXIT(
      {
        debug_level = kInfo;
        const test::FailCall failure(test::Call::kRwlockInit, EAGAIN, 1, 1);
        InitializeDebugThreadLock();
      },
      ExitedWithCode(1),
      StrEq("InitializeDebugThreadLock: pthread_rw_lockinit() failed : "
            "Resource temporarily unavailable\n"));
}

// The event manager learns of it; the debug output, which would need the lock, says nothing.
TEST_F(DebugOutputTest, FailureToInitialiseTheDebugLockPostsTheTerminationEvent) {
  const test::StationRoot root;
  const Descriptor listener = ListenAtTheEventManagersAddress();
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kTrace);
        const test::FailCall failure(test::Call::kRwlockInit, EAGAIN, 1, 1);
        InitializeDebugThreadLock();
      },
      ExitedWithCode(1),
      StrEq("InitializeDebugThreadLock: pthread_rw_lockinit() failed : "
            "Resource temporarily unavailable\n"));
  EXPECT_THAT(ReceiveEvents(listener),
              AllOf(HasSubstr("\"name\": \"qor.zevd.daemon.error."), HasSubstr("\"priority\": 700"),
                    HasSubstr("\"message\": \"Terminated: Cannot initialize debug thread lock\"")));
}

TEST_F(DebugLockFailureTest, FirstMessageInitialisesTheLockOnce) {
  EXPECT_EXIT(
      {
        const test::FailCall count(test::Call::kRwlockInit, 0, 1, 0);
        zev_debug(kError, "one\n");
        zev_debug(kError, "two\n");
        _exit(count.calls() == 1 ? 0 : 1);
      },
      ExitedWithCode(0), "");
}

TEST_F(DebugOutputTest, MessageAboveTheLevelDoesNotTakeTheLock) {
  const test::DebugCapture capture(kInfo);
  const test::FailCall locks(test::Call::kWrlock, 0, 1, 0);
  zev_debug(kDetail, "nothing\n");
  EXPECT_EQ(locks.calls(), 0);
}

TEST_F(DebugLockFailureTest, LockingEndsTheProcessWithoutTrace) {
  EXPECT_EXIT(
      {
        debug_level = kInfo;
        const test::FailCall failure(test::Call::kWrlock, EDEADLK, 1, 1);
        zev_debug(kError, "never seen\n");
      },
      ExitedWithCode(1),
      StrEq("zev_debug: pthread_rwlock_wrlock failed : Resource deadlock avoided\n"));
}

TEST_F(DebugLockFailureTest, UnlockingEndsTheProcessWithoutTrace) {
  EXPECT_EXIT(
      {
        debug_level = kInfo;
        const test::FailCall failure(test::Call::kRwlockUnlock, EPERM, 1, 1);
        zev_debug(kError, "seen on standard output\n");
      },
      ExitedWithCode(1),
      StrEq("zev_debug: pthread_rwlock_unlock failed : Operation not permitted\n"));
}

// ---- Failures that are reported -----------------------------------------------------------------

TEST_F(DebugOutputTest, OutOfMemoryIsReportedAndPosted) {
  const test::DebugCapture capture(kDetail);
  errno = ENOMEM;
  ReportOutOfMemory("NewThing");
  const std::vector<std::string> messages = capture.Messages();
  ASSERT_GE(messages.size(), 2U);
  EXPECT_EQ(messages[0], "NewThing: malloc() failed : Cannot allocate memory\n");
  EXPECT_EQ(messages[1],
            "PostJixEvent: template=qor.zevd.daemon.error message=Out of memory -=- "
            "priority=700\n");
}

// ---- Posting ------------------------------------------------------------------------------------

/// Takes the place of the usual poster, which has it back at the end.
class PosterTest : public test::DaemonTest {
 protected:
  ~PosterTest() override {
    posted_.clear();
    PostDaemonErrorsToJix();
  }

  static void Post(const char* text, int priority) {
    posted_.push_back(std::string(text) + " " + std::to_string(priority));
  }

  static inline std::vector<std::string> posted_;
};

TEST_F(PosterTest, TextAndPriorityAreHandedOver) {
  SetEventPoster(Post);
  PostDaemonError("first", 500);
  ReportOutOfMemory("NewThing");
  EXPECT_THAT(posted_, ElementsAre("first 500", "Out of memory 700"));
}

TEST_F(PosterTest, NothingIsPostedWithoutAPoster) {
  SetEventPoster(Post);
  SetEventPoster(nullptr);
  const test::DebugCapture capture(kDetail);
  PostDaemonError("nobody", 500);
  errno = ENOMEM;
  ReportOutOfMemory("NewThing");
  EXPECT_THAT(posted_, IsEmpty());
  EXPECT_THAT(capture.Messages(),
              ElementsAre("NewThing: malloc() failed : Cannot allocate memory\n"));
}

TEST_F(PosterTest, ProcessEndsWithoutAPoster) {
  EXPECT_EXIT(
      {
        SetEventPoster(nullptr);
        test::SendDebugToStderr(kDetail);
        TerminateProcess(kInternalError, "some_file.cpp", 42);
      },
      ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("Exiting with code 1 from file some_file.cpp line 42\n")));
}

}  // namespace
