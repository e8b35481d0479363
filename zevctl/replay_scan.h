// Looking for a place on a tape, in small steps: whoever waits for it can give up.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "journal/journal.h"
#include "log_filter.h"
#include "replay_player.h"
#include "replay_tape.h"

namespace zevctl {

class Scan {
 public:
  virtual ~Scan() = default;

  /// Looks on for some milliseconds. True when that is over.
  virtual bool Work() = 0;

  /// What was found, once Work() has returned true.
  const std::optional<Landing>& found() const { return found_; }

 protected:
  std::optional<Landing> found_;
};

/// The place so much later, as it is played at speed 1; the end of the tape when that is earlier.
std::unique_ptr<Scan> ScanForward(const Tape& tape, const Player& player, const Pace& pace,
                                  Nanoseconds span);

/// The place so much earlier, or the start of the tape.
std::unique_ptr<Scan> ScanBackward(const Tape& tape, const Player& player, const Pace& pace,
                                   Nanoseconds span);

/// Behind the next event, or the one before.
std::unique_ptr<Scan> ScanNextEvent(const Tape& tape, const Player& player);
std::unique_ptr<Scan> ScanPreviousEvent(const Tape& tape, const Player& player);

/// Behind the next line that the pattern matches, or the one before. The pattern must live longer.
std::unique_ptr<Scan> ScanNextMatch(const Tape& tape, const Player& player, const Pattern& pattern);
std::unique_ptr<Scan> ScanPreviousMatch(const Tape& tape, const Player& player,
                                        const Pattern& pattern);

}  // namespace zevctl
