#include "attach_seam.h"

#include <algorithm>
#include <string>
#include <vector>

namespace zevctl {

namespace {

constexpr size_t kNoChance = 32;      // so many equal bytes are the same bytes
constexpr size_t kMostLooked = 4096;  // lengths that are tried, the longest first

// Whether the rest of what was received is what the console printed after the user had attached, as
// far as the journal has that.
bool IsFrom(std::string_view rest, std::string_view after) {
  return after.starts_with(rest);
}

// The lengths of all starts of `received` with which `before` ends, the longest first: by the
// borders of the one text behind the other (Knuth, Morris and Pratt).
std::vector<size_t> Overlaps(std::string_view received, std::string_view before) {
  before.remove_prefix(before.size() - std::min(before.size(), received.size()));
  received = received.substr(0, before.size());
  const std::string text = std::string(received) + std::string(before);
  std::vector<size_t> borders(text.size() + 1, 0);
  for (size_t i = 1, length = 0; i < text.size(); ++i) {
    while (length > 0 && text[i] != text[length]) length = borders[length];
    if (text[i] == text[length]) ++length;
    borders[i + 1] = length;
  }
  std::vector<size_t> lengths;
  for (size_t length = borders.back(); length > 0 && lengths.size() < kMostLooked;
       length = borders[length]) {
    if (length <= received.size()) lengths.push_back(length);
  }
  return lengths;
}

}  // namespace

std::optional<size_t> RepeatedBytes(std::string_view received, std::string_view before,
                                    std::string_view after) {
  if (IsFrom(received, after)) return 0;
  for (const size_t length : Overlaps(received, before)) {
    if (IsFrom(received.substr(length), after)) return length;
  }
  return {};
}

size_t ProbablyRepeatedBytes(std::string_view received, std::string_view before) {
  const std::vector<size_t> lengths = Overlaps(received, before);
  const bool is_certain =
      !lengths.empty() && (lengths.front() >= kNoChance || lengths.front() == received.size());
  return is_certain ? lengths.front() : 0;
}

}  // namespace zevctl
