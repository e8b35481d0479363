// What a replay shows on the terminal: the console's screen, and a line of its own below it.
#pragma once

#include <string>
#include <vector>

#include "virtual_screen.h"

namespace zevctl {

/// One picture, row by row, without the sequences that place the rows.
struct Frame {
  std::vector<std::string> rows;
  std::string status;  ///< printable; drawn in reverse below the rows, and cut to fit
  int cursor_row = 0;
  int cursor_column = 0;
  bool cursor_is_visible = true;
};

/// The frame that shows the screen.
Frame FrameOf(const VirtualScreen& screen);

class ReplayView {
 public:
  /// The size of the whole terminal.
  explicit ReplayView(ScreenSize terminal);

  /// What draws the frame, where the last one stands already: only the rows that differ.
  std::string Draw(const Frame& frame);

  /// The terminal's size is another, or something else has been drawn there: the next frame is
  /// drawn whole.
  void Forget(ScreenSize terminal);

  /// How much of the terminal the console's screen has.
  ScreenSize screen_size() const;

 private:
  ScreenSize terminal_;
  std::vector<std::string> drawn_;  // empty when nothing is known
  std::string cursor_;
};

}  // namespace zevctl
