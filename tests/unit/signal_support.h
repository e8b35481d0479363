// The signals that a thread blocks.
#pragma once

#include <gtest/gtest.h>

#include <csignal>

namespace test {

/// Whether the calling thread blocks the signal.
bool IsBlocked(int signum);

/// Begins with no signal blocked, and leaves the calling thread's blocked signals as they were.
class SignalTest : public ::testing::Test {
 protected:
  SignalTest();
  ~SignalTest() override;

 private:
  sigset_t saved_{};
};

}  // namespace test
