// The innermost part of the matcher: a process that compiles and matches, and may be killed by what
// it is given. Its parent, matcher_process.cpp, asks it for one thing at a time and watches it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace zevd {

/// A pattern as the daemon has told it.
struct MatcherPattern {
  uint32_t set = 0;
  uint32_t number = 0;
  int32_t priority = 0;
  bool any_case = false;
  bool left_out = false;
  std::string text;
};

/// In the order of sets, and in file order within a set.
using MatcherPatterns = std::vector<MatcherPattern>;

/// A page that the worker shares with its parent, who looks at it when the worker is dead or has
/// taken too long.
struct MatcherBoard {
  static constexpr uint32_t kNone = UINT32_MAX;
  std::atomic<uint32_t> trying{kNone};  ///< the place of the pattern being matched
};

/// Answers requests until the parent closes the socket; then the process ends. A request is
/// kPattern with the place of a pattern in `number`, answered by kTaken or kBadPattern with the
/// reason alone; or kLine with the place of the first pattern to try, answered by kMatch or
/// kMatchOutOfMemory with the place of the pattern, or by kNoMatch.
[[noreturn]] void RunMatcherWorker(int sock, const MatcherPatterns& patterns, MatcherBoard* board);

}  // namespace zevd
