// The steps of the console output monitor, for the file itself and for its tests.
#pragma once

#include "console.h"
#include "descriptor_set.h"
#include "locks.h"

namespace zevd {

/// Marks a console closed; the monitor closes its socket. The caller holds the lock of its list.
void CloseConsoleConnection(ConsoleNode* cnode);

/// Waits for console output. 1 when some socket of the set is readable (the set then holds those),
/// 0 on a time-out or when something else ended the wait. Ends the process when select() fails.
int CheckForConsoleOutput(int high_sock, DescriptorSet* fdset);

/// Reads the readable consoles in turns, for as long as a pass may, and hands on the output.
void ProcessConsoleOutput(const DescriptorSet& fdset) REQUIRES(acl_lock);

/// Marks the disabled consoles of a_cons_list closed and tells their users.
void CloseDisabledConsoleConnections() REQUIRES(acl_lock);

/// The logs of every connected console, and the consolidated one.
void OpenAllLogFiles() REQUIRES(acl_lock);
void CloseAllLogFiles() REQUIRES(acl_lock);

namespace cons_mon {

/// True when a console of a_cons_list is closed or disabled.
bool CheckForClosedConnections() REQUIRES_SHARED(acl_lock);

/// Marks the users of such consoles for closing and closes the consoles' sockets and logs. The
/// consoles stay on the list.
void CleanUpClosedConnections() REQUIRES(ul_lock, acl_lock);

/// The first closed console of a_cons_list, or null.
ConsoleNode* GetClosedConnection() REQUIRES_SHARED(acl_lock);

}  // namespace cons_mon

}  // namespace zevd
