// The bytes of one console as they came.
#pragma once

#include <cstdint>

#include "history_parts.h"

namespace zevctl {

/// Writes what the first of the consoles printed to standard output. Returns in how many places the
/// output was interrupted or not kept. Throws ReaderGone and journal::JournalError.
uint64_t ShowRaw(const HistorySources& sources);

}  // namespace zevctl
