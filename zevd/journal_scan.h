// Where the records of a segment end that an earlier run of the daemon has left. The journal's
// thread, or a test.
#pragma once

#include <cstdint>
#include <optional>

#include "journal_encode.h"
#include "journal_format.h"

namespace zevd {

/// What a segment's file holds.
struct SegmentScan {
  journal::HeaderFault fault = journal::HeaderFault::kNone;  ///< of its header
  journal::SegmentHeader header;                             ///< if it has no fault
  uint64_t size = 0;                                         ///< of the file
  uint64_t end = 0;          ///< of the last sound record, or of the header
  uint64_t next_record = 0;  ///< the running number behind it
};

/// Reads an open segment. Bytes that are no record are left out, if sound records of the same
/// journal follow them. Nothing, with errno set, when it cannot be read.
std::optional<SegmentScan> ScanSegment(int fd);

/// The running number behind the last record of a sealed segment, as its open index says. Nothing
/// when it is no index of that segment.
std::optional<uint64_t> NextRecordOfIndex(int fd, uint64_t station, uint64_t segment);

}  // namespace zevd
