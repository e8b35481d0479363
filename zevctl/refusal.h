// The daemon's numbered refusals: what they mean for the exit status, and what the user can do.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "exit_status.h"

namespace zevctl {

/// One refusal, such as "006 - Console is locked exclusively.".
struct Refusal {
  int number = 0;
  std::string text;  ///< the daemon's own words, with the number, without the line end

  ExitStatus status() const;

  /// What to do next, as a sentence.
  std::string_view advice() const;

  /// "refused: 006 - Console is locked exclusively. Watch it with --mode ro, or wait."
  std::string Message() const;
};

/// The refusal that the daemon sent as the last thing before it closed the connection; nothing when
/// the bytes are something else.
std::optional<Refusal> ParseRefusal(std::string_view bytes);

}  // namespace zevctl
