#include "signal_hold.h"

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

}  // namespace zevd
