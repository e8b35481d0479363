#include "replay_match.h"

#include <algorithm>
#include <string>
#include <utility>

namespace zevctl {

LineMatcher::LineMatcher(const Pattern& pattern, Decoder decoder)
    : pattern_(pattern),
      decoder_(std::move(decoder)),
      has_matched_(pattern.Matches(decoder_.lines.Line())) {}

std::vector<size_t> LineMatcher::Take(std::string_view output) {
  std::vector<size_t> places;
  for (size_t begin = 0; begin < output.size();) {
    const size_t length = output.substr(begin).find('\n');
    const size_t end = length == output.npos ? output.size() : begin + length + 1;
    if (TakeLine(output.substr(begin, end - begin))) places.push_back(end);
    begin = end;
  }
  return places;
}

// A part may end several lines where it moves the cursor about.
bool LineMatcher::TakeLine(std::string_view part) {
  bool matches = false;
  const auto look = [&](const std::string& line) {
    const bool is_new = !has_matched_ && pattern_.Matches(line);
    matches = matches || is_new;
    return is_new;
  };
  decoder_.Take(
      part, [](std::string_view) {},
      [&](const std::string& line) {
        look(line);
        has_matched_ = false;
      });
  if (look(decoder_.lines.Line())) has_matched_ = true;
  return matches;
}

}  // namespace zevctl
