// Showing the past line by line, for people and for programs.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "history_part.h"
#include "log_filter.h"
#include "shown_lines.h"

namespace zevctl {

struct HistoryStyle {
  bool json = false;
  std::optional<size_t> name_width;  ///< of the console's name in front; without one no name
  size_t context = 0;                ///< how many lines before and after each match
  bool with_output = true;
};

/// Shows the lines in which the pattern is found, if there is one, or only the last of them.
class HistoryPrinter {
 public:
  /// `pattern` may be null, and must live as long.
  HistoryPrinter(const Pattern* pattern, bool inverted) : pattern_(pattern), inverted_(inverted) {}

  void SetStyle(const HistoryStyle& style);

  bool IsWanted(const HistoryLine& line) const;

  /// True once a wanted line has been taken.
  bool found() const { return found_; }

  void KeepLast(size_t count) { lines_.KeepLast(count); }
  void ShowLast() { lines_.ShowLast(); }

  /// Throws ReaderGone soon after nobody reads the output any more.
  void Take(const HistoryLine& line);

  void Flush() { lines_.Flush(); }

 private:
  std::string TextOf(const HistoryLine& line) const;
  std::string JsonOf(const HistoryLine& line, bool is_match) const;

  const Pattern* pattern_;
  bool inverted_;
  HistoryStyle style_;
  ShownLines lines_;
  bool found_ = false;
};

}  // namespace zevctl
