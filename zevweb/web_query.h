// The parameters of a request, read and judged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "journal/journal.h"

namespace zevweb {

/// Every member throws Problem(400), which names the parameter, for a value that is none.
class WebQuery {
 public:
  using Parameters = std::vector<std::pair<std::string, std::string>>;

  /// The parameters must live as long. Refuses those that are not in `known`, and, but for the
  /// ones in `repeated`, those that are there twice.
  WebQuery(const Parameters& parameters, std::initializer_list<std::string_view> known,
           std::initializer_list<std::string_view> repeated = {});

  /// Nothing when it is missing or empty.
  std::optional<std::string> Text(std::string_view name) const;
  std::vector<std::string> All(std::string_view name) const;

  /// "1" and "true", or "0" and "false"; without a value true.
  bool Flag(std::string_view name) const;

  size_t Number(std::string_view name, size_t otherwise, size_t most) const;

  /// Wall times in nanoseconds. `Until` is the last moment that is meant: of a time without a
  /// fraction, the end of its second. With `otherwise` for what is missing.
  std::optional<int64_t> Since(std::string_view name, const std::string& otherwise = "") const;
  std::optional<int64_t> Until(std::string_view name) const;

 private:
  const Parameters& parameters_;
};

/// A moment as WebQuery reads it: RFC 3339 with up to nine digits behind the second, or any form
/// that zevctl knows. Nothing when the text is none.
std::optional<int64_t> ParseWall(const std::string& text, time_t now, bool end_of_second);

}  // namespace zevweb
