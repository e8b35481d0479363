// What the keys of a replay do, without a terminal.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "log_filter.h"
#include "replay_keys.h"
#include "replay_pace.h"
#include "replay_player.h"
#include "replay_scan.h"
#include "replay_tape.h"
#include "replay_view.h"

namespace zevctl {

struct ReplayOptions {
  std::string title;  ///< the console's name
  double speed = 1;
  std::optional<Nanoseconds> most_idle;
};

class ReplayControl {
 public:
  ReplayControl(const Tape& tape, const ReplayOptions& options, ScreenSize size);

  void Press(const KeyPress& press);
  void Resize(ScreenSize size) { player_.Resize(size); }

  /// Time has passed for the person who looks.
  void Pass(Nanoseconds real);

  /// Looks on for the place that was asked for.
  void Work();

  /// When Pass() or Work() should be called next; nothing while only a key matters.
  std::optional<Nanoseconds> Due() const;

  Frame Picture() const;

  bool AtEnd() const { return player_.AtEnd() && !scan_; }
  bool has_quit() const { return has_quit_; }

  /// Whether the program is to be stopped now; asked once for each wish.
  bool TakeStop();

 private:
  using Act = void (ReplayControl::*)();
  struct Command;
  static const Command* CommandFor(const KeyPress& press);

  // One for each key.
  void Quit() { has_quit_ = true; }
  void Stop() { wants_stop_ = true; }
  void TogglePause() { is_paused_ = !is_paused_; }
  void Step();
  void Back() { SeekBackward(kNear); }
  void Forward() { SeekForward(kNear); }
  void FarBack() { SeekBackward(kFar); }
  void FarForward() { SeekForward(kFar); }
  void ToStart() { player_.GoToStart(); }
  void ToEnd() { player_.GoToEnd(); }
  void NextEvent();
  void PreviousEvent();
  void NextMatch();
  void PreviousMatch();
  void AskPattern() { typed_.emplace(); }
  void Faster() { pace_.Double(); }
  void Slower() { pace_.Halve(); }
  void Help() { shows_help_ = true; }

  void SeekForward(Nanoseconds span);
  void SeekBackward(Nanoseconds span);
  void Look(std::unique_ptr<Scan> scan, const std::string& in_vain, bool pauses);
  void TypePattern(const KeyPress& press);
  void TakePattern(const std::string& text);
  std::string Status() const;
  std::string StateWord() const;

  static constexpr Nanoseconds kNear = std::chrono::seconds(10);
  static constexpr Nanoseconds kFar = std::chrono::minutes(1);

  const Tape& tape_;
  std::string title_;
  Pace pace_;
  Player player_;
  std::unique_ptr<Pattern> pattern_;
  std::unique_ptr<Scan> scan_;
  std::string in_vain_;  // what is said when the scan finds nothing
  bool scan_pauses_ = false;
  std::optional<std::string> typed_;  // of a pattern
  std::string remark_;
  bool is_paused_ = false;
  bool is_behind_ = false;
  bool shows_help_ = false;
  bool has_quit_ = false;
  bool wants_stop_ = false;
};

}  // namespace zevctl
