// Keeping SIGTERM from interrupting a thread at the wrong moment.
#pragma once

#include <csignal>

namespace zevd {

/// Keeps SIGTERM away from the calling thread while it holds something that the handler needs too
/// (the debug lock, the C library's time-zone lock). Without it the handler could wait for a lock
/// that the very thread it interrupted will never release.
class TermSignalHold {
 public:
  TermSignalHold();
  ~TermSignalHold();
  TermSignalHold(const TermSignalHold&) = delete;
  TermSignalHold& operator=(const TermSignalHold&) = delete;

 private:
  sigset_t saved_;
};

}  // namespace zevd
