// The listening thread "user_conn": the ports on which users and tools connect.
#pragma once

namespace zevd {

void* UserConnectionsThreadStart(void* unused);

}  // namespace zevd
