// A picture that is drawn again and again, on the terminal's alternate screen: what was on the
// terminal before comes back at the end, however that comes.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace zevctl {

/// Where the terminal has no alternate screen, it ignores the sequences, and the picture stays.
class AlternateScreen {
 public:
  /// Standard output must be a terminal. Signals that end or stop the program restore the terminal
  /// first. There may be one object at a time.
  AlternateScreen();
  ~AlternateScreen();
  AlternateScreen(const AlternateScreen&) = delete;
  AlternateScreen& operator=(const AlternateScreen&) = delete;

  /// Shows the lines from the top. When they are more than the terminal has, the last line tells
  /// how many there are. Throws ReaderGone when the terminal has gone.
  void Show(const std::vector<std::string>& lines);
};

/// Waits, at most until the time is over: a signal that was not ignored ends the wait, so that a
/// picture can be drawn for a terminal that has changed. Throws ReaderGone when nobody reads
/// standard output any more.
void WaitWhileRead(std::chrono::milliseconds time);

}  // namespace zevctl
