// Asking the system about this machine's sockets and addresses.
#pragma once

#include <optional>

#include "listener_table.h"

namespace zevctl {

/// The TCP sockets that listen on this machine, at least those on the port. They are found by
/// socket diagnostics, or else in /proc; nothing when neither is possible.
std::optional<Listeners> ListenersOn(uint16_t port);

/// The TCP sockets of this machine that do not listen, at least those from the one port to the
/// other. Nothing when the system does not tell.
std::optional<TcpSockets> ConnectedSockets(uint16_t local_port, uint16_t remote_port);

/// True when connections to the address stay on this machine, and also when that is not known.
bool IsOfThisMachine(const Endpoint& destination);

}  // namespace zevctl
