// Where in a console's output a pattern matches.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "log_filter.h"
#include "replay_player.h"

namespace zevctl {

/// Looks at each line, complete or not, and tells where it matches for the first time.
class LineMatcher {
 public:
  /// Goes on behind what the decoder has had. A line that matches there already does not match
  /// again.
  LineMatcher(const Pattern& pattern, Decoder decoder);

  /// How many bytes of the output there are up to each place: behind the line, or the output's end.
  std::vector<size_t> Take(std::string_view output);

  /// What comes first is the rest of a line whose start is not known: it does not count.
  void SkipLine() { has_matched_ = true; }

 private:
  bool TakeLine(std::string_view part);

  const Pattern& pattern_;
  Decoder decoder_;
  bool has_matched_;
};

}  // namespace zevctl
