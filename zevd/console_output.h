// What a console has printed, on its way to the replay ring, the log and the users. Runs on the
// thread of the output monitor.
#pragma once

#include <cstddef>

#include "console.h"
#include "locks.h"

namespace zevd {

/// Bytes that are filtered, kept and logged at a time.
inline constexpr size_t kChunkSize = 1024;

/// Hands what one turn brought, chunk by chunk, to replay ring and log, except chunks that nobody
/// shall see, and then all of it to the users. `buf` is changed.
void DispatchConsoleOutput(ConsoleNode* cnode, char* buf, int count) REQUIRES(acl_lock);

}  // namespace zevd
