// Hands a connection over to the monitors: a user's to a console, a tool's to the command port.
// Runs on serv_conn threads.
#pragma once

#include <cstdint>

#include "identity.h"
#include "locks.h"

namespace zevd {

/// Attaches the connection to the console, offers telnet options, replays recent output and then
/// sends the greeting. 0: the socket belongs to the monitors; -1, with u_err_msg set: it is still
/// the caller's. `user_name` and `ipaddr` are what others are shown; `identity` is who it really
/// is.
int ConnectUserToConsole(int user_sock, const char* user_name, const char* ipaddr,
                         const char* console_name, uint16_t mode, const Identity& identity = {},
                         const char* greeting = "") EXCLUDES(acl_lock, icl_lock, ul_lock);

/// Makes the socket a command connection. 0: it belongs to the thread cmd_mon; -1, with u_err_msg
/// set: it is still the caller's. The other arguments are those of ConnectUserToConsole().
int MonitorSocketForCommands(int sock, const char* user_name, const char* ipaddr,
                             const Identity& identity = {}) EXCLUDES(cmd_lock);

}  // namespace zevd
