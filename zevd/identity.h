// Who is at the other end of a connection: what the daemon knows, and what the other end says of
// itself.
#pragma once

#include <netinet/in.h>

#include "fixed_text.h"

namespace zevd {

/// Written by the serv_conn thread that serves the connection, before anybody else sees it, and not
/// changed afterwards.
struct Identity {
  char user[kUserNameSize];        ///< the name that a login has proved; empty when none has
  char given_user[kUserNameSize];  ///< the name in the argument line; empty when there is none
  char from[INET_ADDRSTRLEN];      ///< the connection's own address
  char given_from[kNameSize];      ///< the address in the argument line; empty when there is none
};

}  // namespace zevd
