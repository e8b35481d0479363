// Literals of a pattern: pieces of text, one of which is in every line that the pattern matches.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace zevd {

/// Makes a small letter of a capital one of ASCII; leaves every other byte as it is.
constexpr unsigned char FoldCase(unsigned char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte - 'A' + 'a') : byte;
}

/// A piece of text, all of it ASCII and its letters small.
struct Literal {
  static constexpr size_t kCapacity = 31;

  std::array<char, kCapacity> bytes{};
  unsigned char length = 0;

  std::string_view Text() const { return {bytes.data(), length}; }
};

struct LiteralSet {
  static constexpr size_t kCapacity = 16;

  std::array<Literal, kCapacity> literals{};
  size_t count = 0;

  const Literal* begin() const { return literals.data(); }
  const Literal* end() const { return literals.data() + count; }
};

/// Literals such that every text matched by `pattern`, an extended regular expression that
/// regcomp() takes, holds one of them when case is ignored. They are necessary and not sufficient,
/// and none is empty. There are none when the pattern promises none or is not understood beyond
/// doubt.
LiteralSet MandatoryLiterals(const char* pattern);

}  // namespace zevd
