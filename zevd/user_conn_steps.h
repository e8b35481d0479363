// The steps of the thread "user_conn", which alone may call them, for the file itself and for its
// tests.
#pragma once

#include <cstdint>

#include "descriptor_set.h"

namespace zevd {

void SetupMappedPorts();
int GetPortsToListenOn();
int ConfigurePort(uint16_t port);
void CleanUpStalePorts();

/// A listening socket on all interfaces, or -1.
int ListenOnPort(uint16_t port);
[[noreturn]] void WaitForConnectionRequests();

/// 1 when some port has a connection request. `fdset` is the caller's copy; it then holds the ready
/// sockets.
int CheckForConnectionRequests(int high_sock, DescriptorSet* fdset);
void AcceptConnectionRequests(const DescriptorSet* fdset);

}  // namespace zevd
