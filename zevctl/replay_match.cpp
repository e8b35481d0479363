#include "replay_match.h"

#include <algorithm>
#include <string>
#include <utility>

namespace zevctl {

namespace {

// The last byte of control sequences that erase text, or move the cursor to where it is typed over.
constexpr std::string_view kTakingAway = "DGJKPX@`";

constexpr std::string_view kControlSequence = "\x1b[";
constexpr std::string_view kParameters = "0123456789;:?";

bool TakesTextAway(std::string_view rest) {
  if (!rest.starts_with(kControlSequence)) return false;
  const size_t last = rest.find_first_not_of(kParameters, kControlSequence.size());
  return last != rest.npos && kTakingAway.find(rest[last]) != kTakingAway.npos;
}

// As far as the line's end, or the next place where some of its text may go.
size_t PartAtFront(std::string_view rest) {
  for (size_t at = rest.find_first_of("\r\n\x1b"); at != rest.npos;
       at = rest.find_first_of("\r\n\x1b", at + 1)) {
    if (rest[at] == '\n') return at + 1;
    if (rest[at] == '\r') return at + (rest.substr(at + 1).starts_with('\n') ? 2 : 1);
    if (at > 0 && TakesTextAway(rest.substr(at))) return at;
  }
  return rest.size();
}

}  // namespace

LineMatcher::LineMatcher(const Pattern& pattern, Decoder decoder)
    : pattern_(pattern),
      decoder_(std::move(decoder)),
      matches_(pattern.Matches(decoder_.lines.Line())) {}

std::vector<size_t> LineMatcher::Take(std::string_view output) {
  std::vector<size_t> places;
  looked_at_ += output.size();
  for (size_t begin = 0; begin < output.size();) {
    const size_t length = PartAtFront(output.substr(begin));
    if (TakePart(output.substr(begin, length))) places.push_back(begin + length);
    begin += length;
  }
  return places;
}

// A part may end several lines where it moves the cursor about.
bool LineMatcher::TakePart(std::string_view part) {
  bool begins = false;
  const auto look = [&](const std::string& line) {
    const bool matched = std::exchange(matches_, pattern_.Matches(line));
    looked_at_ += line.size();
    begins = begins || (matches_ && !matched && !is_skipping_);
  };
  decoder_.Take(
      part, [](std::string_view) {},
      [&](const std::string& line) {
        look(line);
        matches_ = false;
        is_skipping_ = false;
      });
  look(decoder_.lines.Line());
  return begins;
}

}  // namespace zevctl
