// The steps of the thread "user_conn", which alone may call them, for the file itself and for its
// tests.
#pragma once

#include <cstdint>

#include "descriptor_set.h"
#include "locks.h"
#include "mapped_port.h"

namespace zevd {

/// Matches the listening ports with the configuration.
void SetupMappedPorts();

/// Begins to listen on the main port and on every mapped port of a console, as far as it does not
/// listen yet. A port that it cannot listen on is reported. Always 0.
int GetPortsToListenOn() EXCLUDES(acl_lock, icl_lock, pending_logins_mutex);

/// Listens on the port and puts it on mapped_port_list. 0, even when the list had no room for it;
/// -1 when it cannot be listened on or memory is short.
int ConfigurePort(uint16_t port) EXCLUDES(pending_logins_mutex);

/// Drops the ports that no console has any more, and cancels the logins that are pending on them.
void CleanUpStalePorts() EXCLUDES(acl_lock, icl_lock, pending_logins_mutex);

/// A listening socket on all interfaces, or -1.
int ListenOnPort(uint16_t port);

/// The loop of the thread.
[[noreturn]] void WaitForConnectionRequests();

/// 1 when some port has a connection request, else 0. `fdset` is the caller's copy; it then holds
/// the ready sockets. Ends the process when select() fails.
int CheckForConnectionRequests(int high_sock, DescriptorSet* fdset);

/// Accepts one connection on each of these sockets, and serves or refuses it.
void AcceptConnectionRequests(const DescriptorSet* fdset);

}  // namespace zevd
