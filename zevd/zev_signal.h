// Signals: SIGHUP and SIGPIPE are blocked everywhere, SIGTERM everywhere except in the main thread.
#pragma once

#include <csignal>

namespace zevd {

/// Adds a signal to the calling thread's blocked set, or removes it. 0, or -1 with the reason in
/// the debug output.
int BlockSignal(int signum);
int UnblockSignal(int signum);

/// A descriptor that is readable while the signal, which is blocked, is pending for the reader; it
/// is there to be waited for, and the signal is collected with sigtimedwait(2). -1 with the reason
/// in the debug output.
int OpenSignalDescriptor(int signum);

/// The SIGTERM handler: reports the signal and ends the process with status 1. Main thread only.
void TermHandler(int sig);

/// Whether the handler has run. Any thread.
bool TermReceived();

/// The asynchronous way to collect SIGHUP, for a program that does not poll for it. The daemon
/// polls, and neither installs the handler nor reads the flag.
void InitHupSignalHandler();
void HupHandler(int sig);
void SetHupEventFlag();
void ClearHupEventFlag();
extern volatile sig_atomic_t hup_event_flag;  ///< 1 once the handler has run

}  // namespace zevd
