#include "replay_control.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include "exit_status.h"
#include "journal_text.h"
#include "output.h"
#include "utf8.h"

namespace zevctl {

namespace {

constexpr Nanoseconds kTick = std::chrono::milliseconds(100);  // of the clock that is shown
constexpr size_t kLongestPattern = 500;
constexpr size_t kWholeSeconds = 19;  // characters of a stamp

constexpr std::array kHelp = {
    "space         pause, go on",
    "left, right   10 seconds back, forward",
    "< >           a minute back, forward; the arrows with shift do the same",
    "home, end     to the start, to the end",
    ".             play the next output, and pause",
    "/             ask for a pattern, and go to its next match",
    "n N           next, previous match",
    "e E           next, previous event",
    "+ -           twice as fast, half as fast",
    "q             quit",
    "",
    "Seconds are those of the replay:",
    "pauses that --max-idle shortens count as shortened.",
    "Any key goes back to the replay.",
};

std::string SpeedText(double speed) {
  std::array<char, 16> text{};
  snprintf(text.data(), text.size(), "x%g", speed);
  return text.data();
}

void RemoveLastCharacter(std::string& text) {
  while (!text.empty() && (text.back() & 0xC0) == 0x80) text.pop_back();
  if (!text.empty()) text.pop_back();
}

}  // namespace

struct ReplayControl::Command {
  Key key;
  std::string_view text;
  Act act;
};

const ReplayControl::Command* ReplayControl::CommandFor(const KeyPress& press) {
  static constexpr std::array kCommands = {
      Command{Key::kText, " ", &ReplayControl::TogglePause},
      Command{Key::kText, "q", &ReplayControl::Quit},
      Command{Key::kText, ".", &ReplayControl::Step},
      Command{Key::kText, "/", &ReplayControl::AskPattern},
      Command{Key::kText, "n", &ReplayControl::NextMatch},
      Command{Key::kText, "N", &ReplayControl::PreviousMatch},
      Command{Key::kText, "e", &ReplayControl::NextEvent},
      Command{Key::kText, "E", &ReplayControl::PreviousEvent},
      Command{Key::kText, "+", &ReplayControl::Faster},
      Command{Key::kText, "=", &ReplayControl::Faster},
      Command{Key::kText, "-", &ReplayControl::Slower},
      Command{Key::kText, "<", &ReplayControl::FarBack},
      Command{Key::kText, ">", &ReplayControl::FarForward},
      Command{Key::kText, "?", &ReplayControl::Help},
      Command{Key::kLeft, "", &ReplayControl::Back},
      Command{Key::kRight, "", &ReplayControl::Forward},
      Command{Key::kFarLeft, "", &ReplayControl::FarBack},
      Command{Key::kFarRight, "", &ReplayControl::FarForward},
      Command{Key::kHome, "", &ReplayControl::ToStart},
      Command{Key::kEnd, "", &ReplayControl::ToEnd},
      Command{Key::kInterrupt, "", &ReplayControl::Quit},
      Command{Key::kStop, "", &ReplayControl::Stop},
  };
  const auto* const found =
      std::find_if(kCommands.begin(), kCommands.end(), [&](const Command& command) {
        return command.key == press.key && command.text == press.text;
      });
  return found == kCommands.end() ? nullptr : found;
}

ReplayControl::ReplayControl(const Tape& tape, const ReplayOptions& options, ScreenSize size)
    : tape_(tape),
      title_(options.title),
      pace_(options.speed, options.most_idle),
      player_(tape, size) {}

// While something is being looked for, a key gives that up, and only then means anything else.
void ReplayControl::Press(const KeyPress& press) {
  remark_.clear();
  const bool gives_up = press.key == Key::kInterrupt || press.key == Key::kEscape;
  const bool was_looking = scan_ != nullptr;
  scan_.reset();
  if (was_looking && gives_up) {
    remark_ = "given up";
  } else if (typed_) {
    TypePattern(press);
  } else if (shows_help_ && press.key != Key::kInterrupt) {
    shows_help_ = false;
  } else if (const Command* command = CommandFor(press)) {
    (this->*command->act)();
  } else if (press.key == Key::kText) {
    remark_ = "? lists the keys";
  }
}

void ReplayControl::Pass(Nanoseconds real) {
  is_behind_ = false;
  if (is_paused_ || scan_ || typed_ || shows_help_) return;
  is_behind_ = player_.Pass(pace_.ToPlayed(real), pace_);
}

std::optional<Nanoseconds> ReplayControl::Due() const {
  if (scan_ || is_behind_) return Nanoseconds(0);
  const auto wait = player_.Wait(pace_);
  if (is_paused_ || typed_ || shows_help_ || !wait) return {};
  return std::min(pace_.ToReal(*wait), kTick);
}

bool ReplayControl::TakeStop() {
  return std::exchange(wants_stop_, false);
}

// ---- Going elsewhere ----------------------------------------------------------------------------

void ReplayControl::Step() {
  is_paused_ = true;
  player_.Step();
}

void ReplayControl::SeekForward(Nanoseconds span) {
  Look(ScanForward(tape_, player_, pace_, span), "", false);
}

void ReplayControl::SeekBackward(Nanoseconds span) {
  Look(ScanBackward(tape_, player_, pace_, span), "", false);
}

void ReplayControl::NextEvent() {
  Look(ScanNextEvent(tape_, player_), "no later event", true);
}

void ReplayControl::PreviousEvent() {
  Look(ScanPreviousEvent(tape_, player_), "no earlier event", true);
}

void ReplayControl::NextMatch() {
  if (!pattern_) return AskPattern();
  Look(ScanNextMatch(tape_, player_, *pattern_), "no later match", true);
}

void ReplayControl::PreviousMatch() {
  if (!pattern_) return AskPattern();
  Look(ScanPreviousMatch(tape_, player_, *pattern_), "no earlier match", true);
}

void ReplayControl::Look(std::unique_ptr<Scan> scan, const std::string& in_vain, bool pauses) {
  scan_ = std::move(scan);
  in_vain_ = in_vain;
  scan_pauses_ = pauses;
  Work();  // most places are found at once
}

void ReplayControl::Work() {
  if (!scan_ || !scan_->Work()) return;
  const auto found = scan_->found();
  scan_.reset();
  if (found) {
    player_.Go(*found);
    is_paused_ = is_paused_ || scan_pauses_;
  } else {
    remark_ = in_vain_;
  }
}

// ---- The pattern --------------------------------------------------------------------------------

void ReplayControl::TypePattern(const KeyPress& press) {
  if (press.key == Key::kEnter) {
    TakePattern(*std::exchange(typed_, std::nullopt));
  } else if (press.key == Key::kEscape || press.key == Key::kInterrupt) {
    typed_.reset();
  } else if (press.key == Key::kBackspace) {
    if (typed_->empty()) return typed_.reset();
    RemoveLastCharacter(*typed_);
  } else if (press.key == Key::kText && typed_->size() < kLongestPattern) {
    *typed_ += press.text;
  }
}

// Nothing typed means the pattern that there is.
void ReplayControl::TakePattern(const std::string& text) {
  if (text.empty() && !pattern_) return;
  try {
    if (!text.empty()) pattern_ = std::make_unique<Pattern>(text, false, "pattern");
    NextMatch();
  } catch (const Failure& failure) {
    remark_ = failure.what();
  }
}

// ---- The picture --------------------------------------------------------------------------------

Frame ReplayControl::Picture() const {
  Frame frame = FrameOf(player_.screen());
  frame.status = Status();
  if (shows_help_) {
    frame.rows.assign(kHelp.begin(), kHelp.end());
    frame.cursor_is_visible = false;
  }
  if (typed_) {
    frame.cursor_row = player_.screen().size().rows;
    frame.cursor_column = static_cast<int>(Columns(frame.status));
    frame.cursor_is_visible = true;
  }
  return frame;
}

std::string ReplayControl::StateWord() const {
  if (scan_) return "looking";
  if (player_.AtEnd()) return "end";
  return is_paused_ ? "paused" : "playing";
}

std::string ReplayControl::Status() const {
  if (typed_) return "/" + Printable(*typed_);
  const std::string rest = remark_.empty() ? player_.note() : remark_;
  return " " + Printable(title_) + "  " + StampText(player_.wall()).substr(0, kWholeSeconds) +
         "  " + SpeedText(pace_.speed()) + "  " + StateWord() + "  " +
         (rest.empty() ? "? help" : Harmless(rest));
}

}  // namespace zevctl
