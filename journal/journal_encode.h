// Turning headers into bytes and back, with their checksums. Any thread.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "journal_format.h"

namespace journal {

std::array<char, kSegmentHeaderSize> EncodeSegmentHeader(const SegmentHeader& header);

/// Why a segment's first bytes are no header of this version.
enum class HeaderFault { kNone, kShort, kForeign, kVersion, kChecksum };

/// `bytes`: the segment from its first byte on.
HeaderFault DecodeSegmentHeader(std::string_view bytes, SegmentHeader* header);

/// Writes the header of a record into kRecordHeaderSize bytes in front of its payload, with the
/// checksum over both. `header.length` and `header.checksum` are ignored.
void EncodeRecordHeader(char* place, const RecordHeader& header, std::string_view payload);

/// The header of the whole and sound record with which `bytes` begin; nothing when they begin with
/// none. Its payload is the `length - kRecordHeaderSize` bytes behind the header.
std::optional<RecordHeader> DecodeRecord(std::string_view bytes);

/// Whether a record may begin there whose running number is `number` or as much more as records
/// found room in `lost` bytes. Costs nothing: the checksum, which may be over 64 KiB, is for what
/// passes this.
bool MayContinue(std::string_view bytes, uint64_t number, uint64_t lost);

}  // namespace journal
