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
  // The frames of a cancelled thread end without running their ends. AddressSanitizer is told so
  // for exceptions, but not for cancellation.
  __asan_handle_no_return();
#endif
  pthread_testcancel();
  pthread_setcancelstate(state, nullptr);
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
