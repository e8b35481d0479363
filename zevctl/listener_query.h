// What the system tells of this machine's sockets and addresses.
#pragma once

#include <optional>

#include "listener_table.h"

namespace zevctl {

/// The TCP sockets that listen on this machine, at least those on the port: by socket diagnostics,
/// else from /proc. Nothing when neither can be had.
std::optional<Listeners> ListenersOn(uint16_t port);

/// The TCP sockets of this machine that do not listen, at least those from the one port to the
/// other. Nothing when it does not tell.
std::optional<TcpSockets> ConnectedSockets(uint16_t local_port, uint16_t remote_port);

/// True when connections to the address stay on this machine, and when that is not known.
bool IsOfThisMachine(const Endpoint& destination);

}  // namespace zevctl
