// The terminal of a replay: keys as they are typed, the alternate screen, and all of that undone at
// the end, however that comes.
#pragma once

#include <csignal>
#include <string_view>

#include "terminal.h"
#include "virtual_screen.h"

namespace zevctl {

class ReplayTerminal {
 public:
  /// Standard output must be a terminal.
  ReplayTerminal();
  ~ReplayTerminal();
  ReplayTerminal(const ReplayTerminal&) = delete;
  ReplayTerminal& operator=(const ReplayTerminal&) = delete;

  /// The terminal's size now.
  static ScreenSize Size();

  /// True when keys can be typed.
  bool has_keys() const { return raw_.is_terminal(); }

  OutputQueue& screen() { return screen_; }
  const OutputQueue& screen() const { return screen_; }
  const SignalWatch& signals() const { return signals_; }

  /// Stops the program, as Ctrl-Z does, with the terminal as it was before; returns when it is
  /// continued.
  void Stop();

  /// After others have stopped the program, and continued it.
  void Continue();

 private:
  void Enter();
  void Leave();

  SignalWatch signals_{SIGTSTP, SIGWINCH};  // first, so that none comes in between
  RawMode raw_;
  OutputQueue screen_;
};

}  // namespace zevctl
