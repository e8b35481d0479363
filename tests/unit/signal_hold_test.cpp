// Keeping SIGTERM away from a thread.
#include "signal_hold.h"

#include <gtest/gtest.h>

#include <csignal>

#include "signal_support.h"
#include "zev_signal.h"

using namespace zevd;

namespace {

using test::IsBlocked;

using SignalHoldTest = test::SignalTest;

TEST_F(SignalHoldTest, HoldKeepsTheTermSignalAway) {
  {
    const TermSignalHold hold;
    EXPECT_TRUE(IsBlocked(SIGTERM));
    EXPECT_FALSE(IsBlocked(SIGINT));
  }
  EXPECT_FALSE(IsBlocked(SIGTERM));
}

TEST_F(SignalHoldTest, HoldRestoresWhatItFound) {
  BlockSignal(SIGTERM);
  { const TermSignalHold hold; }
  EXPECT_TRUE(IsBlocked(SIGTERM));
}

TEST_F(SignalHoldTest, HoldsNest) {
  {
    const TermSignalHold outer;
    { const TermSignalHold inner; }
    EXPECT_TRUE(IsBlocked(SIGTERM));
  }
  EXPECT_FALSE(IsBlocked(SIGTERM));
}

}  // namespace
