// Ranges in names, addresses and ports: "rack7-[01-40]" stands for forty texts.
#pragma once

#include <string>
#include <vector>

namespace zevctl {

/// A text with ranges. All ranges of a text run together: "10.0.0.[1-3]:20[01-03]" stands for three
/// texts.
struct RangeText {
  std::vector<std::string> texts;  ///< at least one, unless there is a mistake
  bool has_range = false;
  std::string mistake;  ///< empty, or what is wrong with a range
};

/// A range is numbers and pairs of them between brackets, such as [1-8] or [01-08,11,15-20]. A
/// leading zero keeps the width. Brackets around anything else stand for themselves.
RangeText Expand(const std::string& text);

}  // namespace zevctl
