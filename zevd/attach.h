// Hands a connection over to the monitors: a user's to a console, a tool's to the command port.
// Runs on serv_conn threads.
#pragma once

#include <cstdint>

#include "identity.h"
#include "locks.h"

namespace zevd {

/// Attaches the connection to the console, greets its telnet client and replays recent output. 0,
/// or -1 with u_err_msg set; the caller then closes the socket. After 0 the socket is the
/// monitors'. `user_name` and `ipaddr` are what others are shown; `identity` is who it really is.
int ConnectUserToConsole(int user_sock, const char* user_name, const char* ipaddr,
                         const char* console_name, uint16_t mode, const Identity& identity = {})
    EXCLUDES(acl_lock, icl_lock, ul_lock);

/// Makes the socket a command connection. 0: it belongs to the command side and the caller must not
/// touch it again; -1: it is still the caller's, and u_err_msg may say why.
/// `user_name` and `ipaddr` are what others are shown; `identity` is who it really is.
int MonitorSocketForCommands(int sock, const char* user_name, const char* ipaddr,
                             const Identity& identity = {}) EXCLUDES(cmd_lock);

}  // namespace zevd
