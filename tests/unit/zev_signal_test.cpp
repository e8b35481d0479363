// Signals: blocking them, and the handlers of SIGTERM and SIGHUP.
#include "zev_signal.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "debug_support.h"
#include "failure_support.h"
#include "options.h"
#include "signal_support.h"
#include "socket_support.h"

using namespace zevd;

namespace {

using test::IsBlocked;
using test::SignalTest;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;

// ---- Blocking -----------------------------------------------------------------------------------

TEST_F(SignalTest, BlockingAddsTheOneSignal) {
  EXPECT_EQ(BlockSignal(SIGUSR1), 0);
  EXPECT_EQ(BlockSignal(SIGHUP), 0);
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_TRUE(IsBlocked(SIGHUP));
  for (const int other : {SIGTERM, SIGPIPE, SIGUSR2, SIGINT}) EXPECT_FALSE(IsBlocked(other));
}

TEST_F(SignalTest, UnblockingRemovesTheOneSignal) {
  BlockSignal(SIGUSR1);
  BlockSignal(SIGHUP);
  EXPECT_EQ(UnblockSignal(SIGUSR1), 0);
  EXPECT_FALSE(IsBlocked(SIGUSR1));
  EXPECT_TRUE(IsBlocked(SIGHUP));
}

TEST_F(SignalTest, BlockedSignalIsInheritedByNewThreads) {
  BlockSignal(SIGHUP);
  bool inherited = false;
  std::thread([&] { inherited = IsBlocked(SIGHUP); }).join();
  EXPECT_TRUE(inherited);
}

TEST_F(SignalTest, DescriptorIsReadableUntilTheSignalIsCollected) {
  BlockSignal(SIGHUP);
  const test::Descriptor descriptor(OpenSignalDescriptor(SIGHUP));
  ASSERT_NE(descriptor.get(), -1);
  EXPECT_NE(fcntl(descriptor.get(), F_GETFD) & FD_CLOEXEC, 0);
  pollfd asked = {descriptor.get(), POLLIN, 0};
  EXPECT_EQ(poll(&asked, 1, 0), 0);
  kill(getpid(), SIGHUP);
  EXPECT_EQ(poll(&asked, 1, 0), 1);
  EXPECT_EQ(poll(&asked, 1, 0), 1);
  sigset_t hup;
  sigemptyset(&hup);
  sigaddset(&hup, SIGHUP);
  constexpr timespec kNoWait = {0, 0};
  EXPECT_EQ(sigtimedwait(&hup, nullptr, &kNoWait), SIGHUP);
  EXPECT_EQ(poll(&asked, 1, 0), 0);
}

TEST_F(SignalTest, BlockingInAThreadLeavesTheOthersAlone) {
  std::thread([] { BlockSignal(SIGTERM); }).join();
  EXPECT_FALSE(IsBlocked(SIGTERM));
}

TEST_F(SignalTest, BlockedSignalsAreMergedIntoOne) {
  BlockSignal(SIGHUP);
  for (int i = 0; i < 3; ++i) raise(SIGHUP);
  sigset_t hup;
  sigemptyset(&hup);
  sigaddset(&hup, SIGHUP);
  constexpr timespec kNoWait = {0, 0};
  EXPECT_EQ(sigtimedwait(&hup, nullptr, &kNoWait), SIGHUP);
  EXPECT_EQ(sigtimedwait(&hup, nullptr, &kNoWait), -1);
}

TEST_F(SignalTest, FailureToBlockIsReportedAtLevelOne) {
  const test::FailCall failure(test::Call::kSigprocmask, EINVAL);
  const test::DebugCapture capture(kInfo);
  EXPECT_EQ(BlockSignal(SIGHUP), -1);
  EXPECT_EQ(UnblockSignal(SIGHUP), -1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("BlockSignal: sigprocmask() failed : Invalid argument\n",
                          "UnblockSignal: sigprocmask() failed : Invalid argument\n"));
  debug_level = 0;
  EXPECT_EQ(BlockSignal(SIGHUP), -1);
  EXPECT_THAT(capture.Messages(), ::testing::SizeIs(2));
}

TEST_F(SignalTest, BlockingWritesItsEntryLine) {
  const test::DebugCapture capture(kTrace);
  BlockSignal(SIGUSR1);
  UnblockSignal(SIGUSR1);
  EXPECT_THAT(capture.Messages(),
              ElementsAre("Entering BlockSignal\n", "Entering UnblockSignal\n"));
}

// ---- SIGTERM ------------------------------------------------------------------------------------

TEST_F(SignalTest, TermHandlerSaysSoAndExits) {
  EXPECT_EXIT((test::SendDebugToStderr(0), TermHandler(SIGTERM)), ExitedWithCode(1),
              test::DebugTextsAre(ElementsAre("Received SIGTERM.\n")));
}

TEST_F(SignalTest, TermHandlerLeavesTheExitTrace) {
  EXPECT_EXIT((test::SendDebugToStderr(kInfo), TermHandler(SIGTERM)), ExitedWithCode(1),
              test::DebugTextsAre(
                  ElementsAre("Received SIGTERM.\n", test::IsExitTrace(1, "zev_signal.cpp"))));
}

// Unlike the daemon, the test program has globals with destructors, which must not run in a signal
// handler: the child ends as soon as exit() begins.
void SkipDestructors() {
  on_exit([](int status, void*) { _exit(status); }, nullptr);
}

TEST_F(SignalTest, TermSignalEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(0);
        SkipDestructors();
        signal(SIGTERM, TermHandler);
        raise(SIGTERM);
      },
      ExitedWithCode(1), test::DebugTextsAre(ElementsAre("Received SIGTERM.\n")));
}

/// The children have threads.
class TermSignalStormTest : public SignalTest {
 protected:
  TermSignalStormTest() { test::StartChildrenAfresh(); }
};

// Writes debug lines until a signal from another thread ends the process. Writing takes the locks
// that the handler needs too.
[[noreturn]] void WriteUntilTerminated() {
  test::StartDebugOutput();
  SkipDestructors();
  signal(SIGTERM, TermHandler);
  const pthread_t writer = pthread_self();
  std::atomic<int> lines = 0;
  std::thread([&] {
    BlockSignal(SIGTERM);
    while (lines < 100) std::this_thread::yield();
    pthread_kill(writer, SIGTERM);
    for (;;) pause();
  }).detach();
  for (;;) zev_debug(kError, "line %d\n", ++lines);
}

TEST_F(TermSignalStormTest, SignalInTheMidstOfOutputEndsTheProcess) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EXIT((test::JoinStandardOutput(), WriteUntilTerminated()), ExitedWithCode(1),
                test::DebugTextsAre(Contains("Received SIGTERM.\n")));
  }
}

// ---- SIGHUP collected by a handler --------------------------------------------------------------

TEST_F(SignalTest, HupFlagIsSetAndCleared) {
  EXPECT_EQ(hup_event_flag, 0);
  SetHupEventFlag();
  EXPECT_EQ(hup_event_flag, 1);
  ClearHupEventFlag();
  EXPECT_EQ(hup_event_flag, 0);
  HupHandler(SIGHUP);
  EXPECT_EQ(hup_event_flag, 1);
  ClearHupEventFlag();
}

TEST_F(SignalTest, HupFunctionsWriteTheirEntryLines) {
  const test::DebugCapture capture(kTrace);
  HupHandler(SIGHUP);
  ClearHupEventFlag();
  EXPECT_THAT(capture.Messages(), ElementsAre("Entering HupHandler\n", "Entering SetHupEventFlag\n",
                                              "Entering ClearHupEventFlag\n"));
}

void RaiseHupWithHandler() {
  InitHupSignalHandler();
  raise(SIGHUP);
  EXPECT_EQ(hup_event_flag, 1);
  struct sigaction installed {};
  sigaction(SIGHUP, nullptr, &installed);
  EXPECT_EQ(installed.sa_handler, HupHandler);
  for (const int signum : {SIGTERM, SIGINT, SIGUSR1}) {
    EXPECT_EQ(sigismember(&installed.sa_mask, signum), 0);
  }
  constexpr unsigned kUnwanted = SA_RESTART | SA_RESETHAND | SA_NODEFER | SA_SIGINFO;
  EXPECT_EQ(static_cast<unsigned>(installed.sa_flags) & kUnwanted, 0U);
}

TEST_F(SignalTest, InstalledHupHandlerSetsTheFlag) {
  EXPECT_HOLDS_IN_CHILD(RaiseHupWithHandler());
}

TEST_F(SignalTest, FailureToInstallTheHupHandlerEndsTheProcess) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kInfo);
        const test::FailCall failure(test::Call::kSigaction, EINVAL);
        InitHupSignalHandler();
      },
      ExitedWithCode(1),
      test::DebugReportsAre(
          ElementsAre("InitHupSignalHandler: sigaction() failed : Invalid argument\n",
                      test::IsExitTrace(1, "zev_signal.cpp"))));
}

TEST_F(SignalTest, FailureToInstallTheHupHandlerPostsTheTerminationEvent) {
  EXPECT_EXIT(
      {
        test::SendDebugToStderr(kDetail);
        const test::FailCall failure(test::Call::kSigaction, EINVAL);
        InitHupSignalHandler();
      },
      ExitedWithCode(1),
      test::DebugTextsAre(Contains("PostJixEvent: template=qor.zevd.daemon.error "
                                   "message=Terminated............. -=- priority=700\n")));
}

}  // namespace
