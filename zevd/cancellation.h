// How a serv_conn thread is asked to end while it waits for its client.
//
// Cancellation is disabled in such a thread everywhere except in EndIfCancelled(), which the thread
// calls with no lock held. A signal, which is unblocked only in the waits, ends the wait that the
// thread is in.
#pragma once

#include <pthread.h>

#include <csignal>

namespace zevd {

/// Ends the wait of a thread that is cancelled.
inline constexpr int kCancelSignal = SIGUSR1;

/// Makes kCancelSignal harmless and blocks it: only the waits unblock it. Main thread, before the
/// others exist. 0, or -1 as BlockSignal().
int ArrangeCancelSignal();

/// Asks a serv_conn thread to end, and ends its wait. The id must be that of a living thread.
void CancelServiceThread(pthread_t tid);

/// The signals that a serv_conn thread blocks while it waits: its own, without kCancelSignal. For
/// ppoll(2) and the like.
sigset_t BlockedWhileWaiting();

/// Ends the calling thread if it has been cancelled. The only place where that takes effect; the
/// caller holds no lock.
void EndIfCancelled();

}  // namespace zevd
