#include "signal_support.h"

#include <csignal>

namespace test {

bool IsBlocked(int signum) {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  return sigismember(&blocked, signum) == 1;
}

SignalTest::SignalTest() {
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, &saved_);
}

SignalTest::~SignalTest() {
  pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

}  // namespace test
