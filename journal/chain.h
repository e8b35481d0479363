// The file "chain" of a journal: which seals its chain begins and ends with. So verification knows
// what was removed in good order, and that nothing is missing at the end. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "seal.h"

namespace journal {

inline constexpr char kChainName[] = "chain";
/// What was found in its place when it could not be read, kept for whoever looks into it.
inline constexpr char kBadChainName[] = "chain.damaged";

/// A link of the chain. Segment 0: none yet.
struct Link {
  uint64_t segment = 0;
  Hash hash{};
  bool operator==(const Link&) const = default;
};

struct Chain {
  Link removed;  ///< the last segment that was removed
  Link sealed;   ///< the last one that was sealed; one more may have been since
  bool operator==(const Chain&) const = default;
};

/// "removed SEGMENT HASH" and "sealed SEGMENT HASH", a line each. Always of the same length, so it
/// can be written in place where the disk has no room for another file.
std::string ChainText(const Chain& chain);

/// Nothing for anything that ChainText() does not give.
std::optional<Chain> ParseChain(std::string_view text);

}  // namespace journal
