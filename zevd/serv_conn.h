// The threads "serv_conn": each carries one connection through authentication, argument line and
// attaching.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "fixed_text.h"

namespace zevd {

/// Handed to a serv_conn thread, which frees it.
struct ServiceReqThreadParams {
  int sock;
  uint16_t port;  ///< the listening port on which the connection was accepted
  char ipaddr[kNameSize];
  sockaddr_in client_addr;
};

/// Starts a thread for the connection and waits until its port counts it, so that the next request
/// on the port meets the true number of pending logins, and the port is not dropped before the
/// thread is counted. The user_conn thread only. False when there can be no thread; the parameters
/// and the socket are still the caller's.
bool StartServiceThread(ServiceReqThreadParams* params);

/// Sends what u_err_msg says, if anything, and closes the socket.
void RefuseConnection(int sock);

}  // namespace zevd
