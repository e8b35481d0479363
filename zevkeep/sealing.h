// Telling of seals.
#pragma once

#include <cstdint>
#include <string>

#include "chain.h"
#include "work.h"

namespace zevkeep {

/// A seal as the system's log has it: station, segment and hash, as key="value".
std::string SealText(uint64_t station, const journal::Link& link);

/// Tells of the chain's last seal.
void TellSeal(const Work& work);

}  // namespace zevkeep
