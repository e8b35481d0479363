// An event file as the daemon reads it: its patterns, and the lines that it leaves out.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

/// A line of an event file that has all its parts.
struct EventPattern {
  std::string name;
  int priority = 0;
  bool any_case = false;
  std::string expression;
  size_t line = 0;       ///< counted from 1
  bool is_hard = false;  ///< too much for the system's matcher (hard_pattern.h)
};

struct EventFile {
  std::vector<EventPattern> patterns;  ///< in file order
  std::vector<size_t> incomplete;      ///< lines that lack a part

  /// The daemon has the whole file matched by a process of its own.
  bool IsHard() const;
};

EventFile ReadEventFile(std::string_view text);

}  // namespace zevctl
