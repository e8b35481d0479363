// What the client itself says on the terminal while it shows a console.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "screen_state.h"
#include "socket.h"
#include "terminal.h"

namespace zevctl {

/// Lines of the client between what a console prints. Each begins a line and waits, for a moment at
/// most, until the console has finished an escape sequence. They stand among the console's output
/// where both go to one terminal, and on standard error otherwise.
class Notes {
 public:
  /// `raw`: the terminal is in raw mode, where a line feed does not go to the start of the line.
  Notes(OutputQueue& screen, OutputQueue& errors, bool raw);

  /// Says the text, which may have several lines, after the name of this program.
  void Say(const std::string& text);

  /// Shows text of the console again, as it was.
  void Repeat(const std::string& text);

  /// The console has printed this.
  void Follow(std::string_view text);

  /// Writes what has waited, where it is time.
  void Flush();

  /// When Flush() should be called at the latest.
  std::optional<Clock::time_point> Due() const;

  bool InLine() const { return state_.InLine(); }

 private:
  void Write(const std::string& text);
  std::string LineEnds(const std::string& text) const;

  OutputQueue& screen_;
  OutputQueue& errors_;
  bool raw_;
  bool one_terminal_;
  ScreenState state_;
  std::deque<std::string> waiting_;
  Clock::time_point waits_since_{};
};

}  // namespace zevctl
