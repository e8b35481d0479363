// The ways in which the process ends on purpose.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "daemon_support.h"
#include "debug_support.h"
#include "error.h"

using namespace zevd;

namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ExitedWithCode;
using ::testing::StrEq;

using ExitTest = test::DaemonTest;

TEST_F(ExitTest, ExitTraceNamesCodeFileAndLine) {
  constexpr int kLine = __LINE__ + 1;
  EXPECT_EXIT((test::SendDebugToStderr(kInfo), EXIT_PROCESS(0)), ExitedWithCode(0),
              test::DebugTextsAre(ElementsAre("Exiting with code 0 from file exit_test.cpp line " +
                                              std::to_string(kLine) + "\n")));
}

TEST_F(ExitTest, ExitTraceIsWrittenForStatusOneToo) {
  EXPECT_EXIT(
      (test::SendDebugToStderr(kInfo), ExitProcess(1, "some_file.cpp", 42)), ExitedWithCode(1),
      test::DebugTextsAre(ElementsAre("Exiting with code 1 from file some_file.cpp line 42\n")));
}

TEST_F(ExitTest, ExitTraceIsNotWrittenAtLevelZero) {
  EXPECT_EXIT((test::SendDebugToStderr(0), EXIT_PROCESS(1)), ExitedWithCode(1), StrEq(""));
}

TEST_F(ExitTest, TerminationPostsTheEventThenExits) {
  EXPECT_EXIT(
      (test::SendDebugToStderr(kDetail), TerminateProcess(kInternalError, "some_file.cpp", 42)),
      ExitedWithCode(1),
      test::DebugTextsAre(
          AllOf(Contains("PostJixEvent: template=qor.zevd.daemon.error "
                         "message=Terminated: Internal error -=- priority=700\n"),
                Contains("Exiting with code 1 from file some_file.cpp line 42\n"))));
}

TEST_F(ExitTest, TerminateMacroNamesThePlace) {
  EXPECT_EXIT((test::SendDebugToStderr(kInfo), TERMINATE(kTerminated)), ExitedWithCode(1),
              test::DebugTextsAre(Contains(test::IsExitTrace(1, "exit_test.cpp"))));
}

TEST(TerminationTextTest, AreAsTheEventManagerKnowsThem) {
  EXPECT_STREQ(kTerminated, "Terminated.............");
  EXPECT_STREQ(kInternalError, "Terminated: Internal error");
}

/// The children have threads, or must be the first to call exit().
class FreshExitTest : public ::testing::Test {
 protected:
  FreshExitTest() { test::StartChildrenAfresh(); }
};

TEST_F(FreshExitTest, TwoThreadsThatExitTogetherEndTheProcessOnce) {
  EXPECT_EXIT(
      {
        atexit([] { fputs("once\n", stderr); });
        test::StartDebugOutput();
        std::thread other([] { ExitProcess(1, "other.cpp", 1); });
        ExitProcess(1, "main.cpp", 1);
      },
      ExitedWithCode(1), StrEq("once\n"));
}

std::atomic<bool> exit_hangs{false};

// An exit that waits for something that never comes.
void HangInExit() {
  exit_hangs = true;
  sleep(30);
  fputs("hung\n", stderr);
}

TEST_F(FreshExitTest, ThreadThatExitsSecondDoesNotWaitForAnExitThatHangs) {
  EXPECT_EXIT(
      {
        atexit(HangInExit);
        test::StartDebugOutput();
        std::thread([] { ExitProcess(1, "other.cpp", 1); }).detach();
        while (!exit_hangs) std::this_thread::yield();
        ExitProcess(3, "main.cpp", 1);
      },
      ExitedWithCode(3), StrEq(""));
}

TEST_F(FreshExitTest, ExitFromWithinExitEndsTheProcess) {
  EXPECT_EXIT(
      {
        atexit([] { ExitProcess(1, "handler.cpp", 1); });
        ExitProcess(1, "main.cpp", 1);
      },
      ExitedWithCode(1), StrEq(""));
}

}  // namespace
