// Lines on standard output that were chosen from many: with the context around each match, or only
// the last of them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "standard_output.h"

namespace zevctl {

/// Context is that of the same source: a log, or a console.
class ShownLines {
 public:
  /// `context`: how many lines before and after each match; `separators`: "--" stands where lines
  /// were left out between two matches with context.
  void SetStyle(size_t context, bool separators) {
    context_ = context;
    separators_ = separators;
  }

  /// Shows nothing until ShowLast(), which then shows the last `count` lines.
  void KeepLast(size_t count) { kept_ = count; }
  void ShowLast();

  /// `when`: any measure of time by which TakeLate() finds its place. `text` is called only for
  /// what may be shown.
  template <typename MakeText>
  void Take(const std::string& source, bool is_match, int64_t when, const MakeText& text) {
    if (context_ > 0) {
      TakeWithContext(source, is_match, when, text());
    } else if (is_match) {
      Show({text(), nullptr, 0, when});
    }
  }

  /// A line that stands before those of a later time, as long as these have not been shown.
  void TakeLate(int64_t when, std::string text);

  /// To be called for everything that is looked at. Throws ReaderGone soon after nobody reads the
  /// output any more, and shows now and then what was found.
  void Tick();

  void Flush();

 private:
  using Clock = std::chrono::steady_clock;

  struct Line {
    std::string text;
    const void* source;  // null: it has no neighbours
    uint64_t number;     // of the line among those of that source
    int64_t when;
  };

  /// Around the matches of one source.
  struct Context {
    std::deque<Line> before;
    size_t after_left = 0;
    uint64_t number = 0;  // of the last line
  };

  void TakeWithContext(const std::string& source, bool is_match, int64_t when, std::string text);
  void Show(Line line);
  void Write(const Line& line);
  void LookAtReader();

  size_t context_ = 0;
  bool separators_ = true;
  StandardOutput output_;
  std::optional<size_t> kept_;
  std::deque<Line> last_;
  std::map<std::string, Context, std::less<>> contexts_;
  const void* shown_source_ = nullptr;  // of the last line that was written
  uint64_t shown_number_ = 0;
  size_t taken_ = 0;
  Clock::time_point flushed_ = Clock::now();
};

}  // namespace zevctl
