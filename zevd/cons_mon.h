// The console output monitor: the main thread once start-up is done.
#pragma once

#include <cstddef>

#include "cons_conn.h"
#include "descriptor_set.h"
#include "locks.h"
#include "user_conn.h"

/// The loop; never returns.
[[noreturn]] void MonitorConsoleOutput();

// ---- Services for other threads; the caller holds the lock of the console's list ----------------

/// Size of the buffers in which messages to users are formatted; longer ones are cut.
inline constexpr size_t kMessageBufferSize = 1024;

/// Five bells and `message` between two rules of asterisks.
void FormatBanner(char* banner, size_t size, const char* message);

/// Sends a framed message to every user of the console.
void SendMsgToUsers(ConsoleNode* cnode, const char* message);

/// Marks every user of the console for closing, as CloseUserConnection(), and empties the console's
/// user list.
void CloseUserConnections(ConsoleNode* cnode, const char* reason);

/// Marks a console closed; the monitor closes its socket.
void CloseConsoleConnection(ConsoleNode* cnode);

/// Sends the replay ring to one user who has just attached.
void SendBufferedConsoleOutputToUser(const ConsoleNode* cnode, UserNode* unode);

// ---- The monitor's own steps --------------------------------------------------------------------

/// Waits for console output. 1 when some socket of the set is readable (the set then holds those),
/// 0 on time-out. Ends the process when select() fails.
int CheckForConsoleOutput(int high_sock, DescriptorSet* fdset);

/// Reads and hands on the output of every readable console.
void ProcessConsoleOutput(const DescriptorSet& fdset) REQUIRES(acl_lock);

/// Hands one chunk to ring, log and users, unless it is a notice that nobody shall see.
void DispatchConsoleOutput(ConsoleNode* cnode, const char* buf, int count);

void SendConsoleOutputToUsers(ConsoleNode* cnode, const char* buf, int nbytes);
void BufferConsoleOutput(ConsoleNode* cnode, const char* chars, int count);
void CloseDisabledConsoleConnections() REQUIRES(acl_lock);

/// The logs of every connected console, and the consolidated one.
void OpenAllLogFiles() REQUIRES(acl_lock);
void CloseAllLogFiles() REQUIRES(acl_lock);

/// Before the event sets are freed.
void SetEventNodeToNULLForAllConsoles() REQUIRES(acl_lock, icl_lock);

namespace cons_mon {

bool CheckForClosedConnections() REQUIRES_SHARED(acl_lock);
void CleanUpClosedConnections() REQUIRES(ul_lock, acl_lock);

/// The first closed console of a_cons_list, or null.
ConsoleNode* GetClosedConnection() REQUIRES_SHARED(acl_lock);

}  // namespace cons_mon
