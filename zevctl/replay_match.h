// Where in a console's output a pattern matches.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "log_filter.h"
#include "replay_player.h"

namespace zevctl {

/// Looks at each line, complete or not, and tells where it begins to match. So that a long line in
/// which text is typed over hides nothing, it looks before text goes, too.
class LineMatcher {
 public:
  /// Goes on behind what the decoder has had. A line that matches there already does not match
  /// again.
  LineMatcher(const Pattern& pattern, Decoder decoder);

  /// How many bytes of the output there are up to each place: behind the line, where its text is
  /// typed over or erased, or at the output's end.
  std::vector<size_t> Take(std::string_view output);

  /// What comes first is the rest of a line whose start is not known: it does not count.
  void SkipLine() { is_skipping_ = true; }

  /// From here on even the rest of such a line counts, unless it matches already.
  void EndSkipping() { is_skipping_ = false; }

  /// How many bytes it has looked at so far: those of a long line again and again.
  size_t looked_at() const { return looked_at_; }

 private:
  bool TakePart(std::string_view part);

  const Pattern& pattern_;
  Decoder decoder_;
  bool matches_;  // the line does
  bool is_skipping_ = false;
  size_t looked_at_ = 0;
};

}  // namespace zevctl
