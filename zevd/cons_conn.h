// The console connection thread "cons_conn".
#pragma once

namespace zevd {

void* ConsoleConnectionsThreadStart(void* unused);

}  // namespace zevd
