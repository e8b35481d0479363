// The cookie by which tools on the station prove that they may connect.
#pragma once

#include <cstddef>

namespace zevd {

/// Bytes of a cookie, terminator included.
inline constexpr size_t kCookieSize = 17;

/// Warns when anybody but the owner and the group has access to the configuration directory, where
/// the cookie is. Main thread, at start-up.
void CheckConfigDir();

/// Draws the cookie and writes the cookie file; a failure ends the process. Main thread, before the
/// others exist.
void GenerateCookie();

/// 0 when the cookie is the daemon's; -1, with u_err_msg set, otherwise. Any thread.
int DoCookieValidation(int sock, const char* user_cookie);

}  // namespace zevd
