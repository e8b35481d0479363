#include "zev_signal.h"

#include <sys/signalfd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "error.h"
#include "signal_hold.h"

namespace zevd {

namespace {

int ChangeSignal(int how, int signum, const char* function) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signum);
  if (sigprocmask(how, &set, nullptr) != 0) {
    DEBUG_AS(function, kInfo, "sigprocmask() failed : %s\n", strerror(errno));
    return -1;
  }
  return 0;
}

}  // namespace

int BlockSignal(int signum) {
  ENTERING();
  return ChangeSignal(SIG_BLOCK, signum, __func__);
}

int UnblockSignal(int signum) {
  ENTERING();
  return ChangeSignal(SIG_UNBLOCK, signum, __func__);
}

int OpenSignalDescriptor(int signum) {
  ENTERING();
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, signum);
  const int descriptor = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (descriptor == -1) {
    zev_debug(kError, "%s: signalfd() failed : %s\n", __func__, strerror(errno));
  }
  return descriptor;
}

namespace {

std::atomic<bool> term_received{false};

}  // namespace

bool TermReceived() {
  return term_received;
}

void TermHandler(int /*sig*/) {
  if (PutOffTermSignal()) return;
  ENTERING();
  term_received = true;
  zev_debug(kError, "Received SIGTERM.\n");
  EXIT_PROCESS(1);
}

volatile sig_atomic_t hup_event_flag = 0;

void InitHupSignalHandler() {
  ENTERING();
  struct sigaction action {};
  action.sa_handler = HupHandler;
  sigemptyset(&action.sa_mask);
  if (sigaction(SIGHUP, &action, nullptr) != 0) {
    zev_debug(kInfo, "%s: sigaction() failed : %s\n", __func__, strerror(errno));
    TERMINATE(kTerminated);
  }
}

void HupHandler(int /*sig*/) {
  ENTERING();
  SetHupEventFlag();
}

void SetHupEventFlag() {
  ENTERING();
  hup_event_flag = 1;
}

void ClearHupEventFlag() {
  ENTERING();
  hup_event_flag = 0;
}

}  // namespace zevd
