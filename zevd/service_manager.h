// What the daemon and the system's service manager tell each other. The manager passes sockets and
// settings in environment variables (sd_listen_fds(3), sd_watchdog_enabled(3)); the daemon answers
// with datagrams (sd_notify(3)): it is ready, how it is, and that it is alive. Without a manager
// all of this does nothing.
#pragma once

#include <cstdint>

namespace zevd {

// ---- Main thread, before there is another -------------------------------------------------------

/// Takes the variables out of the environment, so that no child has them, and marks the sockets
/// that were passed to be closed in children. Before anything else opens a descriptor.
void MeetServiceManager();

/// Keeps the socket that listens on this port of IPv4, if one was passed. The others are closed,
/// which is reported.
void ChoosePassedSocket(uint16_t port);

// ---- Thread user_conn ---------------------------------------------------------------------------

/// A descriptor of the socket that ChoosePassedSocket() kept, if it listens on this port; else -1.
/// The socket itself stays: whoever closes the descriptor may ask for another.
int DuplicatePassedSocket(uint16_t port);

/// Has the manager told that the daemon is ready, and this text, which it shows to operators. A
/// later text takes the place of the former.
void ReportToServiceManager(const char* status);

/// Sends what is to be sent: the report, and the sign of life when that is due and every long-lived
/// thread has made a pass lately. Part of each pass. What the manager has no room for is sent
/// in a later pass.
void ServeServiceManager();

}  // namespace zevd
