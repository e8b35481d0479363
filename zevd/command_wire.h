// The answers of the command port as they lie on the wire, for the daemon and for its clients.
// docs/protocol.md describes the same; they change together.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zevd {

enum ResponseType : uint32_t {
  kRecordsFollow = 1,  ///< `count` records follow
  kErrorFollows = 2,   ///< `count` bytes of text follow, the terminator included
  kDone = 3,           ///< nothing follows; `count` means nothing
};

// Sizes in bytes. Numbers are little-endian; nothing is padded.
inline constexpr size_t kHeaderSize = 8;
inline constexpr size_t kConsolePacketSize = 264;
inline constexpr size_t kUserPacketSize = 98;
inline constexpr size_t kMappedPortPacketSize = 134;
inline constexpr size_t kPortHolderAddressPacketSize = 64;
inline constexpr size_t kErrorTextSize = 80;  ///< the longest error text, its terminator included

// Widths of the texts. They are padded with NULs; a text that fills its field has none.
inline constexpr size_t kWireNameWidth = 64;  ///< names, addresses, models and platforms
inline constexpr size_t kWireUserNameWidth = 32;
inline constexpr size_t kWireCodeWidth = 2;  ///< states and modes, in ASCII

}  // namespace zevd
