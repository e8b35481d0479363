#include "cancellation.h"

#include "zev_signal.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace zevd {

void EndIfCancelled() {
  int state = PTHREAD_CANCEL_DISABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
#if defined(__SANITIZE_ADDRESS__)
  // A cancelled thread's frames never reach their ends. AddressSanitizer knows that of exceptions,
  // but has to be told of cancellation.
  __asan_handle_no_return();
#endif
  pthread_testcancel();
  pthread_setcancelstate(state, nullptr);
}

sigset_t BlockedWhileWaiting() {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  sigdelset(&blocked, kCancelSignal);
  return blocked;
}

void CancelServiceThread(pthread_t tid) {
  pthread_cancel(tid);
  pthread_kill(tid, kCancelSignal);
}

int ArrangeCancelSignal() {
  struct sigaction action {};
  action.sa_handler = [](int) {};  // the interrupted wait is all that is wanted
  sigemptyset(&action.sa_mask);
  sigaction(kCancelSignal, &action, nullptr);
  return BlockSignal(kCancelSignal);
}

}  // namespace zevd
