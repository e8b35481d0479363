// A user at a console: keys out, output in, until the user or the daemon ends it.
#pragma once

#include <optional>
#include <string>

#include "login.h"

namespace zevctl {

struct SessionOptions {
  std::string console;
  std::string mode;            ///< as the daemon calls it: ro, sh, ex, er
  std::optional<char> escape;  ///< is used on a terminal only
};

/// How a session ended: the user left, the daemon closed it, somebody had the daemon close it, or a
/// signal is to end the program.
enum class SessionEnd { kLeft, kClosed, kTerminated, kSignal };

struct SessionResult {
  SessionEnd end = SessionEnd::kLeft;
  int signal = 0;         ///< of kSignal
  bool mid_line = false;  ///< the terminal shows the start of a line
};

/// Connects standard input and output to the console. When this returns or throws, the terminal is
/// as it was before. Standard input may end when it is not a terminal: then the session ends once
/// all of it is sent and the console has been quiet for a second, at the latest after ten seconds.
/// Throws Failure(kFailed) when the output cannot be written.
SessionResult RunSession(Opening opening, const SessionOptions& options);

}  // namespace zevctl
