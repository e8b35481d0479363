// A replay for other programs.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "replay_pace.h"
#include "replay_tape.h"
#include "virtual_screen.h"

namespace zevctl {

/// Takes text that is to be written. Throws when that is not possible.
using TextSink = std::function<void(std::string_view)>;

struct AsciicastOptions {
  std::string title;
  ScreenSize size;
  std::optional<Nanoseconds> most_idle;  ///< a wish that stands in the header
};

/// The tape as an asciicast, version 2: the screen as it was at the start, what a terminal draws as
/// output, and a marker for what else happened. Output that would make a terminal do more than draw
/// is left out.
/// Returns what of it cannot be read.
std::vector<journal::Damage> ExportAsciicast(const Tape& tape, const AsciicastOptions& options,
                                             const TextSink& sink);

/// The tape's lines, without escape sequences; the first is whole, also when it began before the
/// tape. Returns what of it cannot be read.
std::vector<journal::Damage> ExportText(const Tape& tape, const TextSink& sink);

/// One line of an asciicast: seconds since its begin, the kind of event, and text.
std::string AsciicastEvent(Nanoseconds time, char kind, std::string_view text);

}  // namespace zevctl
