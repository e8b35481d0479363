// CRC-32C (the polynomial of Castagnoli, as RFC 3720 uses it in iSCSI): the checksum of the
// journal's records. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace journal {

/// The checksum of `size` bytes behind those whose checksum is `before`; 0 when there are none.
/// Uses the processor's instruction where it has one.
uint32_t Crc32c(const void* bytes, size_t size, uint32_t before = 0);

/// The same without that instruction.
uint32_t Crc32cByTables(const void* bytes, size_t size, uint32_t before = 0);

}  // namespace journal
