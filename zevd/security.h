// Who may connect: the cookie of local tools, the station's authentication library, and the login
// dialogue of mapped ports. Runs on serv_conn threads, except GenerateCookie(). No lock is held in
// any wait. No password is ever written to the debug output.
#pragma once

#include <netinet/in.h>

#include "user_conn.h"

/// Makes the cookie and writes the cookie file; a failure ends the process. Main thread, before the
/// others exist.
void GenerateCookie();

/// 0 when the client is authenticated, with its argument line in `buf` (at most `size` - 1 bytes);
/// -1 otherwise, with u_err_msg set where a reason is known.
int DoAuthentication(int sock, const sockaddr_in& client_addr, char* buf, int size);

/// Looks at the client's first line without consuming it. 1: a token line, its cookie copied; 0:
/// anything else; -1: a read error or a malformed token line; -2: nothing for 15 seconds.
int IsTokenAuthentication(int sock, char (&user_cookie)[kCookieSize]);

/// 0 when the cookie is the daemon's, else -1.
int DoCookieValidation(int sock, const char* user_cookie);

/// Asks the station's authentication library. 0 with the argument line in `buf`, or -1.
int DoTqAuthValidation(int sock, char* buf, int size);

/// The login dialogue. 0 when the user is admitted, else -1. Takes as long as the user does.
int PromptForUserNameAndPasswd(int sock, const char* cons_name);

/// 0 when the helper program accepts the pair, else 1.
int AuthenticateOnLinux(const char* username, const char* password);

/// 1 when the name is listed in a group "qoruser", else 0.
int IsInQORUserGroup(const char* username);
