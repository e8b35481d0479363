// The steps of the user input monitor, for the file itself and for its tests.
#pragma once

#include "descriptor_set.h"
#include "locks.h"
#include "user.h"

namespace zevd {

/// The loop of the thread.
[[noreturn]] void MonitorUserInput();

/// Waits for input. 1 when some socket of the set is readable (the set then holds those), 0 on a
/// time-out or when woken. Ends the process when select() fails.
int CheckForUserInput(int high_sock, DescriptorSet* fdset);

/// Reads and forwards the input of every readable user.
void ProcessUserInput(const DescriptorSet& fdset) REQUIRES(ul_lock);

namespace user_mon {

/// Marks the users who have vanished (liveness.h).
void LookForVanishedUsers() REQUIRES_SHARED(ul_lock);

/// True when a user of user_list is marked for removal.
bool CheckForClosedConnections() REQUIRES_SHARED(ul_lock);

/// Removes such users from both lists, closes their sockets and frees them.
void CleanUpClosedConnections() REQUIRES(ul_lock, acl_lock);

/// The first user of user_list that is marked for removal, or null.
UserNode* GetClosedConnection() REQUIRES_SHARED(ul_lock);

}  // namespace user_mon

}  // namespace zevd
