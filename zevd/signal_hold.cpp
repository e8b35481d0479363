#include "signal_hold.h"

#include <atomic>

namespace zevd {

TermSignalHold::TermSignalHold() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, &saved_);
}

TermSignalHold::~TermSignalHold() {
  pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

namespace {

// The handler runs on the thread that it interrupts, and looks at that thread's own.
thread_local volatile sig_atomic_t delays = 0;
thread_local volatile sig_atomic_t was_put_off = 0;

}  // namespace

TermSignalDelay::TermSignalDelay() {
  delays = delays + 1;
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

TermSignalDelay::~TermSignalDelay() {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  delays = delays - 1;
  if (delays != 0 || was_put_off == 0) return;
  was_put_off = 0;
  raise(SIGTERM);
}

bool PutOffTermSignal() {
  if (delays == 0) return false;
  was_put_off = 1;
  return true;
}

}  // namespace zevd
