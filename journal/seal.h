// Seals: what a file ".idx" ends with. Each has a hash over the one before, so that a segment that
// was changed, exchanged or taken away is found. Any thread.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "segment_source.h"

namespace journal {

/// A hash by SHA-256. All zeros: before the station's first segment.
using Hash = std::array<unsigned char, 32>;

/// 64 hexadecimal digits.
std::string HashText(const Hash& hash);
/// Nothing for anything but 64 hexadecimal digits in lower case.
std::optional<Hash> ParseHash(std::string_view text);

struct Seal {
  Hash previous{};  ///< the hash of the seal before
  Hash raw{};       ///< of the segment's uncompressed bytes
  Hash hash{};      ///< of previous, station, segment, raw and the index: what the next seal has
};

/// The bytes of a seal behind the index: the three hashes.
inline constexpr size_t kSealSize = 96;

/// SHA-256, piece by piece.
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;
  void Add(std::string_view bytes);
  /// Of all that was added; it begins anew then.
  Hash Take();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

/// `index`: the encoded index. Numbers are hashed as 8 bytes, little-endian.
Seal MakeSeal(const Hash& previous, uint64_t station, uint64_t segment, const Hash& raw,
              std::string_view index);

std::string EncodeSeal(const Seal& seal);
/// Nothing unless there are kSealSize bytes.
std::optional<Seal> DecodeSeal(std::string_view bytes);

/// Whether the seal's own hash is that of its other parts.
bool IsSealOf(const Seal& seal, uint64_t station, uint64_t segment, std::string_view index);

}  // namespace journal
