// The threads "serv_conn": each carries one connection through authentication, argument line and
// attaching.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "cookie.h"
#include "fixed_text.h"

// ---- The argument line --------------------------------------------------------------------------

/// What a client asks for.
struct ConsoleArgs {
  char auth_mechanism[kCookieSize];  ///< "token" or empty
  char user_cookie[kCookieSize];
  char cons_name[kNameSize];
  char user_name[kUserNameSize];          ///< the last "user=" of the line
  char earlier_user_name[kUserNameSize];  ///< the one before that, or empty
  bool names_user;                        ///< there was a "user="
  uint16_t mode;
  char addr[kNameSize];  ///< address to show in place of the peer's, or empty
};

/// Splits the line `buf` in place. Control characters in what others will be shown become "?". 0,
/// or -1 with u_err_msg set.
int ParseConsoleArgs(char* buf, ConsoleArgs* args);

// ---- The threads --------------------------------------------------------------------------------

/// Handed to a serv_conn thread, which frees it.
struct ServiceReqThreadParams {
  int sock;
  uint16_t port;  ///< the listening port on which the connection was accepted
  char ipaddr[kNameSize];
  sockaddr_in client_addr;
};

/// Starts a thread for the connection and waits until its port counts it, so that the next request
/// on the port meets the true number of pending logins and the port is never dropped between the
/// two. The user_conn thread only. False when there can be no thread; the parameters and the socket
/// are still the caller's.
bool StartServiceThread(ServiceReqThreadParams* params);

/// Sends what u_err_msg says and closes the socket.
void RefuseConnection(int sock);

void* ServiceConnectionRequestThreadStart(void* thread_params);

/// Cancellation: closes the socket that `args` points at, unless it has been handed over (-1).
void ServiceConnectionRequestThreadCleanUp(void* args);
