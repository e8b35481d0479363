// The listening thread "user_conn": the ports on which users and tools connect.
#pragma once

namespace zevd {

/// The thread's function; never returns.
void* UserConnectionsThreadStart(void* unused);

}  // namespace zevd
