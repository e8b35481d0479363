// The console connection thread "cons_conn".
#pragma once

namespace zevd {

/// The thread's function; never returns.
void* ConsoleConnectionsThreadStart(void* unused);

}  // namespace zevd
