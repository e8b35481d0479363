// Showing the records of logs, each on a line of its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

#include "log_filter.h"
#include "log_reader.h"
#include "log_record.h"
#include "standard_output.h"

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
  LogPrinter(const Filter& filter, LogStyle style) : filter_(filter), style_(style) {}

  void SetStyle(const LogStyle& style) { style_ = style; }

  /// True once the filter has taken a record.
  bool found() const { return found_; }

  /// Shows nothing until ShowLast(), which then shows the last `count` records.
  void KeepLast(size_t count) { kept_ = count; }
  void ShowLast();

  /// Throws ReaderGone soon after nobody reads the output any more.
  void Take(const LogReader& log, const Record& record);

  void Flush();

 private:
  using Clock = std::chrono::steady_clock;

  struct Line {
    std::string text;
    const void* log;  // whose it is
    uint64_t number;  // of the record among those of that log
  };

  /// Around the matches in one log.
  struct Context {
    std::deque<Line> before;
    size_t after_left = 0;
    uint64_t number = 0;  // of the last record
  };

  void TakeWithContext(const LogReader& log, const Record& record, bool is_match);
  std::string TextOf(const LogReader& log, const Record& record, bool is_match) const;
  void Show(Line line);
  void Write(const Line& line);
  void LookAtReader();

  const Filter& filter_;
  LogStyle style_;
  StandardOutput output_;
  std::optional<size_t> kept_;
  std::deque<Line> last_;
  std::map<std::string, Context, std::less<>> contexts_;
  const void* shown_log_ = nullptr;  // of the last line that was written
  uint64_t shown_number_ = 0;
  bool found_ = false;
  size_t taken_ = 0;
  Clock::time_point flushed_ = Clock::now();
};

}  // namespace zevctl
