// Verifying a journal: checksums, indexes, seals and their chain, numbers without holes. It may
// grow meanwhile, and be kept.
#pragma once

#include <cstdint>
#include <vector>

#include "chain.h"
#include "segment_check.h"
#include "segment_store.h"

namespace journal {

struct Verification {
  uint64_t station = 0;
  std::vector<Finding> findings;
  uint64_t segments = 0;  ///< that are there
  uint64_t sealed = 0;    ///< of them
  uint64_t records = 0;   ///< sound ones
  uint64_t bytes = 0;     ///< of segments, uncompressed
  Link last_seal;         ///< the last one that is right
};

/// Throws StoreError when the journal cannot be read at all.
Verification Verify(const SegmentStore& store);

}  // namespace journal
