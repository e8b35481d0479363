// The steps of a serv_conn thread, for the file itself and for its tests.
#pragma once

#include <cstdint>

#include "cookie.h"
#include "fixed_text.h"

namespace zevd {

/// What a client asks for.
struct ConsoleArgs {
  char auth_mechanism[kCookieSize];  ///< "token" or empty
  char user_cookie[kCookieSize];
  char cons_name[kNameSize];
  char user_name[kUserNameSize];          ///< the last "user=" of the line
  char earlier_user_name[kUserNameSize];  ///< the one before that, or empty
  bool names_user;                        ///< there was a "user="
  uint16_t mode;                          ///< AccessMode
  char addr[kNameSize];                   ///< address to show in place of the peer's, or empty
};

/// Splits the line `buf` in place. Control characters in what others will be shown become "?". 0,
/// or -1 with u_err_msg set.
int ParseConsoleArgs(char* buf, ConsoleArgs* args);

/// Serves one connection. `thread_params` is a ServiceReqThreadParams, which is freed. The result
/// is null.
void* ServiceConnectionRequestThreadStart(void* thread_params);

/// The clean-up of a cancelled thread: closes the socket that `args` points at, unless it is -1
/// because it has been handed over.
void ServiceConnectionRequestThreadCleanUp(void* args);

}  // namespace zevd
