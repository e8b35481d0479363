// Bytes as they come in pieces, made into well-formed UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace zevctl {

/// A character that a piece cuts in two is joined with its rest. Every byte that is part of no
/// character becomes U+FFFD.
class Utf8Joiner {
 public:
  /// What is complete now.
  std::string Take(std::string_view bytes);

  /// At the end: U+FFFD for a character whose rest never came.
  std::string Finish();

 private:
  std::string begun_;  // the first bytes of a character
};

}  // namespace zevctl
