// The bytes of a journal: what the daemon writes and every reader reads. docs/journal.md tells the
// same in words; the two change together, and with them kFormatVersion.
//
// All numbers are little-endian. A segment is a file "%020llu.seg" in the journal's directory: a
// header, then records without any space between them. No lock, any thread.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace journal {

inline constexpr uint16_t kFormatVersion = 1;

// ---- Numbers ------------------------------------------------------------------------------------

/// Writes the lowest `sizeof value` bytes of a number, the lowest first.
template <typename Number>
void PutNumber(char* place, Number value) {
  auto rest = static_cast<uint64_t>(value);
  for (size_t i = 0; i < sizeof value; ++i, rest >>= 8) place[i] = static_cast<char>(rest & 0xFF);
}

template <typename Number>
Number GetNumber(const char* place) {
  uint64_t value = 0;
  for (size_t i = sizeof(Number); i > 0; --i) {
    value = value << 8 | static_cast<unsigned char>(place[i - 1]);
  }
  return static_cast<Number>(value);
}

// ---- Segments -----------------------------------------------------------------------------------

inline constexpr char kSegmentMagic[] = "ZEVJRNL\n";  // without the NUL
inline constexpr size_t kMagicSize = 8;
inline constexpr size_t kSegmentHeaderSize = 64;

/// What a segment begins with.
struct SegmentHeader {
  uint64_t station = 0;  ///< drawn once for each journal; the file "id" has it as 16 hex digits
  uint64_t segment = 0;  ///< from 1 on, without a hole; the file's name
  int64_t wall = 0;      ///< when it was begun, as a record's
  int64_t monotonic = 0;
  uint64_t run = 0;           ///< drawn at each start of the daemon: consoles are numbered by run
  uint64_t first_record = 0;  ///< the running number of its first record
};

// Offsets in the header. The checksum is CRC-32C of everything behind it up to the header's end.
inline constexpr size_t kSegmentVersionAt = 8;       // uint16_t
inline constexpr size_t kSegmentSizeAt = 10;         // uint16_t: kSegmentHeaderSize
inline constexpr size_t kSegmentChecksumAt = 12;     // uint32_t
inline constexpr size_t kSegmentStationAt = 16;      // uint64_t
inline constexpr size_t kSegmentNumberAt = 24;       // uint64_t
inline constexpr size_t kSegmentWallAt = 32;         // int64_t
inline constexpr size_t kSegmentMonotonicAt = 40;    // int64_t
inline constexpr size_t kSegmentRunAt = 48;          // uint64_t
inline constexpr size_t kSegmentFirstRecordAt = 56;  // uint64_t

// ---- Records ------------------------------------------------------------------------------------

/// What a record tells. The values are in files: they never change.
enum class Kind : uint8_t {
  kConsole = 1,      ///< a console's name, address and port: at the start of each segment, and when
                     ///< it is new or one of them has changed
  kConsoleGone = 2,  ///< the console has been deleted
  kOutput = 3,       ///< the payload is the bytes as users got them, up to one turn of a console
  kInput = 4,        ///< user; bytes (their number), and text (the bytes) if asked for
  kAttached = 5,     ///< user, given_user, from, given_from, mode
  kLeft = 6,         ///< as kAttached
  kMode = 7,         ///< as kAttached, with the new mode, and previous_mode
  kConnected = 8,    ///< the console's connection stands
  kLost = 9,         ///< it has ended: reason
  kDisabled = 10,    ///< by whom, as kAttached but for the mode
  kEnabled = 11,     ///< as kDisabled
  kMessage = 12,     ///< an operator's message to the console's users: user, text
  kBreak = 13,       ///< a break was sent: user; count if there were several
  kEvent = 14,       ///< pattern (its name), priority, text (the line)
  kPaused = 15,      ///< from here on the output is not kept: user, reason
  kNotLogged = 16,   ///< until here it was not: begin, end, bytes, user, reason
  kGap = 17,         ///< records were lost here: count, bytes, begin, end, reason
  kClockStep = 18,   ///< the wall clock was set: begin (what it would have shown), end (shown now)
  kStarted = 19,     ///< the daemon: version, pid; reason if it ran before
  kStopped = 20,     ///< the daemon ended in good order, or goes on without a journal: reason
  kAudit = 21,       ///< who did what: what, result, user, given_user, from, given_from, console,
                     ///< mode, reason
  kTorn = 22,  ///< the end of an earlier segment was no whole record and was cut off: segment,
               ///< bytes
};

inline constexpr size_t kRecordHeaderSize = 40;
inline constexpr size_t kMostPayload = 64 << 10;

/// What a record begins with.
struct RecordHeader {
  uint32_t length = 0;    ///< of the whole record: header and payload
  uint32_t checksum = 0;  ///< CRC-32C of the length's four bytes and of all behind the checksum
  uint64_t number = 0;    ///< running number, without a hole from the station's first record on
  int64_t wall = 0;       ///< nanoseconds since the epoch, UTC; negative before 1970
  int64_t monotonic = 0;  ///< CLOCK_MONOTONIC in nanoseconds; starts anew with the machine
  uint32_t console = 0;   ///< 0: the station itself
  Kind kind = Kind::kOutput;
};

inline constexpr size_t kRecordLengthAt = 0;      // uint32_t
inline constexpr size_t kRecordChecksumAt = 4;    // uint32_t
inline constexpr size_t kRecordNumberAt = 8;      // uint64_t
inline constexpr size_t kRecordWallAt = 16;       // int64_t
inline constexpr size_t kRecordMonotonicAt = 24;  // int64_t
inline constexpr size_t kRecordConsoleAt = 32;    // uint32_t
inline constexpr size_t kRecordKindAt = 36;       // uint8_t; then three bytes that are 0

// ---- Fields -------------------------------------------------------------------------------------

/// What a field of a payload means. Every payload except that of kOutput is a row of fields: a tag
/// (1 byte), the value's length (2 bytes), the value. A number is 8 bytes and signed. A reader
/// skips a tag that it does not know. The values are in files: they never change.
enum class Field : uint8_t {
  kName = 1,
  kAddress = 2,
  kPort = 3,  // number
  kUser = 4,
  kGivenUser = 5,
  kFrom = 6,
  kGivenFrom = 7,
  kMode = 8,  // "ro", "sh", "ex" or "er"
  kReason = 9,
  kPattern = 10,
  kPriority = 11,  // number
  kText = 12,
  kBegin = 13,  // number: wall time as a record's
  kEnd = 14,    // number: as kBegin
  kCount = 15,  // number
  kBytes = 16,  // number
  kWhat = 17,
  kResult = 18,
  kSegment = 19,  // number
  kVersion = 20,
  kPid = 21,      // number
  kConsole = 22,  // a console's name, as it was given
  kPreviousMode = 23,
};

// Of the index of a sealed segment (segment_index.h), what the daemon reads: how it begins, and
// where its numbers stand.
inline constexpr char kIndexMagic[] = "ZEVJIDX\n";  // without the NUL
inline constexpr uint16_t kIndexVersion = 1;
inline constexpr size_t kIndexVersionAt = 8;      // uint16_t
inline constexpr size_t kIndexStationAt = 24;     // uint64_t
inline constexpr size_t kIndexSegmentAt = 32;     // uint64_t
inline constexpr size_t kIndexNextRecordAt = 89;  // uint64_t

inline constexpr size_t kFieldHeaderSize = 3;
inline constexpr size_t kMostFieldValue = 0xFFFF;

}  // namespace journal
