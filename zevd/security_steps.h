// The steps of a login, for the file itself and for its tests.
#pragma once

#include "cookie.h"
#include "identity.h"

namespace zevd {

/// Looks at the client's first line without consuming it. 1: a token line, whose cookie is copied;
/// 0: anything else; -1: a read error or a malformed token line; -2: nothing for 15 seconds.
int IsTokenAuthentication(int sock, char (&user_cookie)[kCookieSize]);

/// Asks the station's authentication library. 0 with the argument line in `buf` and the name in
/// `identity`; -1 with u_err_msg set and, where the library tells it, the name that failed as the
/// given one.
int DoTqAuthValidation(int sock, char* buf, int size, Identity& identity);

/// Has the helper program check a pair that came from the address `rhost`. 0 when it accepts the
/// pair; 1 when it does not, or cannot be asked; -1, with u_err_msg set, when too many others were
/// being checked or the peer of `sock` hung up. Ends the thread, and the helper, when it is
/// cancelled.
int AuthenticateOnLinux(const char* username, const char* password, const char* rhost,
                        int sock = -1);

/// 1 when the name is listed in a group "qoruser", else 0.
int IsInQORUserGroup(const char* username);

}  // namespace zevd
