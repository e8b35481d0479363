// Which records of a log are wanted.
#pragma once

#include <regex.h>

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "log_record.h"

namespace zevctl {

/// A POSIX extended regular expression.
class Pattern {
 public:
  /// Throws Failure(kUsage) when the text is none; the message begins with its `source`.
  Pattern(const std::string& text, bool ignore_case, const std::string& source = "--grep");
  ~Pattern();
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;

  /// The text may hold NULs and does not end with one.
  bool Matches(std::string_view text) const;

 private:
  std::string ErrorText(int error) const;

  regex_t compiled_{};
};

/// What the user has asked for. Times are in seconds since the epoch.
struct Filter {
  std::optional<time_t> since;
  std::optional<time_t> until;
  std::optional<Pattern> pattern;
  bool inverted = false;  ///< what does not match the pattern is wanted

  bool IsEmpty() const { return !since && !until && !pattern; }

  bool TakesTimeOf(const Record& record) const;
  bool TakesBodyOf(const Record& record) const;
};

}  // namespace zevctl
