// The daemon's matcher process, run for patterns that are too much for the system's matcher: it
// gives a line up after a tenth of a second, and outlives whatever a pattern does to it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace zevctl {

/// A pattern as the process knows it.
struct ProcessPattern {
  std::string expression;
  bool any_case = false;
};

/// Sets of patterns, in a process of their own. Make it before much memory is mapped: the process
/// begins as a copy of this one, and what it may take is limited.
class PatternProcess {
 public:
  /// The sets count from 0. Throws Failure(kFailed) when the system has no room for a process.
  explicit PatternProcess(std::vector<std::vector<ProcessPattern>> sets);
  ~PatternProcess();
  PatternProcess(const PatternProcess&) = delete;
  PatternProcess& operator=(const PatternProcess&) = delete;

  /// The first pattern of the set that matches, as the daemon would have it: the patterns of a set
  /// share the time for a line. Throws Failure(kFailed) when the process cannot be kept running.
  std::optional<size_t> FirstMatch(size_t set, const std::string& line);

  /// Why a pattern has been left out since; empty for one that has not.
  const std::string& WhyLeftOut(size_t set, size_t pattern) const;

 private:
  struct State {
    bool is_left_out = false;
    std::string reason;
  };

  void Start();
  void Tell(size_t set, size_t pattern);
  void End();
  struct Answer;
  bool Listen(Answer* answer);
  void NoteLeftOut(const Answer& answer);

  std::vector<std::vector<ProcessPattern>> sets_;
  std::vector<std::vector<State>> states_;
  Descriptor socket_;
  pid_t pid_ = -1;
  uint64_t line_ = 0;
  int failures_ = 0;  ///< since the last answer
};

}  // namespace zevctl
