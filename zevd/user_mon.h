// The user input monitor "user_mon": forwards what users type, and is the only thread that removes
// users.
#pragma once

namespace zevd {

/// The thread's function; never returns.
void* UserMonitorThreadStart(void* unused);

}  // namespace zevd
