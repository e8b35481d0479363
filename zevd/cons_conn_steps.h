// The steps of the thread "cons_conn", which alone may call them, for the file itself and for its
// tests.
#pragma once

#include "attempt_wait.h"
#include "console.h"
#include "locks.h"

namespace zevd {

/// What the thread waits for after a pass. The steps note in it what they find.
extern AttemptWait attempt_wait;

// When icl_lock is given as `lock`, others have it after each millisecond of work.

/// Starts an attempt for every enabled console of i_cons_list that is due for one.
void ConnectToConsoles(WriteLock* lock = nullptr) REQUIRES(icl_lock);

/// Starts an attempt for one console if it is due for one; with `keep_alive` not 0 the kernel
/// probes the console while it is silent.
void ConnectToConsole(ConsoleNode* cnode, int keep_alive) REQUIRES(icl_lock);

/// Looks at every connection in progress. 1 when at least one console became connected, else 0.
int UpdateConnectionStatus(WriteLock* lock = nullptr) REQUIRES(icl_lock);

/// The ConsoleStatus that the console's socket shows; consumes no input. When an operator asked for
/// it, a refusal is answered with a take-over.
int CheckConnectionStatus(ConsoleNode* cnode) REQUIRES(icl_lock);

/// True when a line of `buf` is a management port's refusal. Splits `buf` into lines in place.
bool GotErrorMessage(char* buf);

/// The port holder's address in a refusal, within `buf`, which is split in place: what follows its
/// tenth word up to the next comma; the empty text when there is no eleventh word.
const char* GetPortHolderIPAddr(char* buf);

}  // namespace zevd
