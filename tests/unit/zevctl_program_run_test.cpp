// Running other programs for what they say.
#include <gtest/gtest.h>

#include "program_run.h"

namespace zevctl {
namespace {

ProgramResult Shell(const std::string& script) {
  return RunProgram({"sh", "-c", script});
}

TEST(ZevctlProgramRunTest, BothStreamsAndTheStatusAreReturned) {
  const ProgramResult result = Shell("echo out; echo err >&2; exit 3");
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.output, "out\nerr\n");
}

TEST(ZevctlProgramRunTest, WordsAreNotForAShell) {
  EXPECT_EQ(RunProgram({"echo", "$HOME;", "a  b"}).output, "$HOME; a  b\n");
}

TEST(ZevctlProgramRunTest, ThereIsNoInputAndOneLanguage) {
  const ProgramResult result = Shell("cat; echo $LC_ALL");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "C\n");
}

TEST(ZevctlProgramRunTest, WhatDoesNotStartOrEndsBySignalHasNoStatus) {
  EXPECT_EQ(RunProgram({"/no/such/program"}).status, -1);
  EXPECT_EQ(Shell("kill -KILL $$").status, -1);
}

TEST(ZevctlProgramRunTest, TooMuchOutputIsCutOff) {
  const ProgramResult result = Shell("head -c 300000 /dev/zero");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output.size(), 256 * 1024);
}

}  // namespace
}  // namespace zevctl
