// The command port: the thread "cmd_mon", which serves the management tools, and the command table.
// docs/protocol.md describes the language.
#pragma once

namespace zevd {

/// The thread's function; never returns.
void* CommandMonitorThreadStart(void* unused);

}  // namespace zevd
