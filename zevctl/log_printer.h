// Showing the records of logs, each on a line of its own.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "log_filter.h"
#include "log_reader.h"
#include "log_record.h"
#include "shown_lines.h"

namespace zevctl {

enum class LogForm { kBytes, kTerminal, kJson };

struct LogStyle {
  LogForm form = LogForm::kBytes;
  std::optional<size_t> name_width;  ///< of the console's name in front; without one no name
  size_t context = 0;                ///< how many records before and after each match
};

/// Shows the records that the filter takes, or only the last of them. Of several logs, context is
/// that of the same log.
class LogPrinter {
 public:
  /// The filter must live as long.
  LogPrinter(const Filter& filter, LogStyle style) : filter_(filter) { SetStyle(style); }

  void SetStyle(const LogStyle& style) {
    style_ = style;
    lines_.SetStyle(style.context, style.form != LogForm::kJson);
  }

  /// True once the filter has taken a record.
  bool found() const { return found_; }

  /// Shows nothing until ShowLast(), which then shows the last `count` records.
  void KeepLast(size_t count) { lines_.KeepLast(count); }
  void ShowLast() { lines_.ShowLast(); }

  /// Throws ReaderGone soon after nobody reads the output any more.
  void Take(const LogReader& log, const Record& record);

  void Flush() { lines_.Flush(); }

 private:
  std::string TextOf(const LogReader& log, const Record& record, bool is_match) const;

  const Filter& filter_;
  LogStyle style_;
  ShownLines lines_;
  bool found_ = false;
};

}  // namespace zevctl
