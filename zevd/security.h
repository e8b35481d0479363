// Who may connect: the cookie of local tools, the station's authentication library, and the login
// dialogue of mapped ports. Runs on serv_conn threads. No lock is held in any wait. No password is
// ever written to the debug output.
#pragma once

#include <netinet/in.h>

#include "cookie.h"
#include "identity.h"

/// 0 when the client is authenticated, with its argument line in `buf` (at most `size` - 1 bytes)
/// and the name that it proved, if any, in `identity`; -1 otherwise, with u_err_msg set where a
/// reason is known.
int DoAuthentication(int sock, const sockaddr_in& client_addr, char* buf, int size,
                     Identity& identity);

/// Looks at the client's first line without consuming it. 1: a token line, its cookie copied; 0:
/// anything else; -1: a read error or a malformed token line; -2: nothing for 15 seconds.
int IsTokenAuthentication(int sock, char (&user_cookie)[kCookieSize]);

/// Asks the station's authentication library. 0 with the argument line in `buf` and the name in
/// `identity`, or -1; the name that failed, where the library tells it, is then the given one.
int DoTqAuthValidation(int sock, char* buf, int size, Identity& identity);

/// The login dialogue. 0 when the user is admitted, with the name in `identity`, else -1. Takes as
/// long as the user does. Ends the thread when it is cancelled.
int PromptForUserNameAndPasswd(int sock, const char* cons_name, Identity& identity);

/// 0 when the helper program accepts the pair of somebody at the address `rhost`, 1 when it does
/// not, and -1, with u_err_msg set, when too many others were being checked or `sock` was hung up.
/// Ends the thread, and the helper, when it is cancelled.
int AuthenticateOnLinux(const char* username, const char* password, const char* rhost,
                        int sock = -1);

/// 1 when the name is listed in a group "qoruser", else 0.
int IsInQORUserGroup(const char* username);
