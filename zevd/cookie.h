// The cookie by which tools on the station prove their right.
#pragma once

/// Says so when others than the owner and the group may do anything in the directory of the
/// configuration, where the cookie lies. Main thread, at start-up.
void CheckConfigDir();

/// Draws the cookie and writes the cookie file; a failure ends the process. Main thread, before the
/// others exist.
void GenerateCookie();

/// 0 when the cookie is the daemon's, else -1. Any thread.
int DoCookieValidation(int sock, const char* user_cookie);
