// Texts of the daemon's files, taken apart as the daemon does it.
#pragma once

#include <algorithm>
#include <string_view>

namespace zevctl {

/// Takes a text apart at characters of a kind, as strtok(3) does: several of them are one.
class Tokens {
 public:
  explicit Tokens(std::string_view text) : rest_(text) {}

  /// Empty when there is no more.
  std::string_view Next(std::string_view separators) {
    rest_.remove_prefix(std::min(rest_.find_first_not_of(separators), rest_.size()));
    const std::string_view token = rest_.substr(0, rest_.find_first_of(separators));
    rest_.remove_prefix(std::min(token.size() + 1, rest_.size()));
    return token;
  }

 private:
  std::string_view rest_;
};

}  // namespace zevctl
