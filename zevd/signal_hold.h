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

/// The same without a system call, for a few instructions that are run very often: the handler
/// itself puts its work off (PutOffTermSignal()) until the calling thread is through. Not for code
/// that may wait for long.
class TermSignalDelay {
 public:
  TermSignalDelay();
  ~TermSignalDelay();
  TermSignalDelay(const TermSignalDelay&) = delete;
  TermSignalDelay& operator=(const TermSignalDelay&) = delete;
};

/// For the SIGTERM handler: true when it has interrupted such code. It then returns, and is called
/// again when that code is through.
bool PutOffTermSignal();

}  // namespace zevd
