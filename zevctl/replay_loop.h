// A replay on the terminal: keys, time, and the picture.
#pragma once

#include "replay_control.h"
#include "replay_tape.h"

namespace zevctl {

/// Plays until the user quits, or, where no keys can be typed, to the tape's end. Returns the
/// signal that ended it, or 0. The terminal is as it was before, also after an exception.
int PlayOnTerminal(const Tape& tape, const ReplayOptions& options);

}  // namespace zevctl
