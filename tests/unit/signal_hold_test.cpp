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

volatile sig_atomic_t term_signals = 0;

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

void Count(int /*signal*/) {
  if (PutOffTermSignal()) return;
  term_signals = term_signals + 1;
}

TEST_F(SignalHoldTest, DelayedSignalComesWhenTheLastDelayIsOver) {
  term_signals = 0;
  signal(SIGTERM, Count);
  {
    const TermSignalDelay outer;
    {
      const TermSignalDelay inner;
      raise(SIGTERM);
    }
    EXPECT_EQ(term_signals, 0);
  }
  EXPECT_EQ(term_signals, 1);
  raise(SIGTERM);
  EXPECT_EQ(term_signals, 2);
  signal(SIGTERM, SIG_DFL);
}

}  // namespace
