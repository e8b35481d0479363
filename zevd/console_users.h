// What the users of a console are sent, and how they are marked for closing: output, replay,
// banners. All of it takes the way of the user's own (user_output.h), so nobody is waited for and
// everything comes in its order. The caller holds the lock of the console's list, except for
// CloseUserConnection().
#pragma once

#include <cstddef>

#include "console.h"
#include "locks.h"
#include "user.h"

namespace zevd {

/// Size of the buffers in which messages to users are formatted; longer ones are cut.
inline constexpr size_t kMessageBufferSize = 1024;

/// Five bells and `message` between two rules of asterisks.
void FormatBanner(char* banner, size_t size, const char* message);

/// Sends a message to every user of the console, as FormatBanner() frames it.
void SendMsgToUsers(ConsoleNode* cnode, const char* message);

/// Marks every user of the console for closing, as CloseUserConnection(), and empties the console's
/// user list.
void CloseUserConnections(ConsoleNode* cnode, const char* reason);

/// Marks one user for removal and wakes the user input monitor, which does the rest. `reason`, a
/// string of static lifetime, is what the system log says; the first one counts. Any thread; takes
/// no lock.
void CloseUserConnection(UserNode* unode, const char* reason = "The daemon closed the connection.");

/// Sends the replay ring to one user who has just attached. When that fails, the user is marked for
/// closing.
void SendBufferedConsoleOutputToUser(const ConsoleNode* cnode, UserNode* unode) REQUIRES(acl_lock);

/// Sends output, any number of bytes, to every user of the console. A user to whom that fails is
/// marked for closing.
void SendConsoleOutputToUsers(ConsoleNode* cnode, const char* buf, int nbytes) REQUIRES(acl_lock);

/// Puts output, any number of bytes, into the replay ring.
void BufferConsoleOutput(ConsoleNode* cnode, const char* chars, int count) REQUIRES(acl_lock);

}  // namespace zevd
