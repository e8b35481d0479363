// The steps of a login, for the file itself and for its tests.
#pragma once

#include "cookie.h"
#include "identity.h"

namespace zevd {

/// Looks at the client's first line without consuming it. 1: a token line, its cookie copied; 0:
/// anything else; -1: a read error or a malformed token line; -2: nothing for 15 seconds.
int IsTokenAuthentication(int sock, char (&user_cookie)[kCookieSize]);

/// Asks the station's authentication library. 0 with the argument line in `buf` and the name in
/// `identity`, or -1; the name that failed, where the library tells it, is then the given one.
int DoTqAuthValidation(int sock, char* buf, int size, Identity& identity);

/// 0 when the helper program accepts the pair of somebody at the address `rhost`, 1 when it does
/// not, and -1, with u_err_msg set, when too many others were being checked or `sock` was hung up.
/// Ends the thread, and the helper, when it is cancelled.
int AuthenticateOnLinux(const char* username, const char* password, const char* rhost,
                        int sock = -1);

/// 1 when the name is listed in a group "qoruser", else 0.
int IsInQORUserGroup(const char* username);

}  // namespace zevd
