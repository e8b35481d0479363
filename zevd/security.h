// Who may connect: the cookie of local tools, the station's authentication library, and the login
// dialogue of mapped ports. Runs on serv_conn threads. No lock is held in any wait. No password is
// ever written to the debug output.
#pragma once

#include <netinet/in.h>

#include "identity.h"

namespace zevd {

/// 0 when the client is authenticated, with its argument line in `buf` (at most `size` - 1 bytes)
/// and the name that it proved, if any, in `identity`; -1 otherwise, with u_err_msg set where a
/// reason is known.
int DoAuthentication(int sock, const sockaddr_in& client_addr, char* buf, int size,
                     Identity& identity);

/// The login dialogue. 0 when the user is admitted, with the name in `identity`; -1 otherwise, with
/// u_err_msg set where a reason is known. Takes as long as the user does. Ends the thread when it
/// is cancelled.
int PromptForUserNameAndPasswd(int sock, const char* cons_name, Identity& identity);

}  // namespace zevd
