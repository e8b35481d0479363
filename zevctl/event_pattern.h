// Which pattern an event of a console comes from. The daemon posts the console and the line, but
// not the pattern; its files tell which of them it is.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

/// The names of patterns, from the files of the station. They are read again when they have
/// changed; the daemon does so at a reload only, so that in between a name may be that of another
/// pattern, or missing.
class PatternNames {
 public:
  /// `root`: the directory under which the station's files are.
  explicit PatternNames(std::string root);
  ~PatternNames();
  PatternNames(const PatternNames&) = delete;
  PatternNames& operator=(const PatternNames&) = delete;

  /// The name of the pattern that the daemon has matched: the first in the console's event file
  /// that has the priority and matches the line. Nothing when it cannot be told, also because a
  /// pattern is in question that would take long to match.
  std::optional<std::string> Find(const std::string& console, int priority,
                                  const std::string& line);

 private:
  class Pattern;
  using Patterns = std::vector<std::unique_ptr<Pattern>>;
  using Clock = std::chrono::steady_clock;

  void ReadConsoles();
  const Patterns* PatternsOf(const std::string& console);
  static Patterns PatternsIn(const std::string& text);

  std::string root_;
  std::map<std::string, std::string> files_;  // event files by console, as events name it
  std::map<std::string, Patterns> patterns_;  // by event file, as far as they were needed
  std::optional<Clock::time_point> read_;     // when both were read last
};

}  // namespace zevctl
