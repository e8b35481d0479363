// A user at a console: keys out, output in, until the user or the daemon ends it.
#pragma once

#include <string>

#include "login.h"
#include "session_options.h"
#include "settings.h"

namespace zevctl {

/// How a session ended: the user left, wants it to go on in another way, or hung the terminal up;
/// the daemon closed it; or a signal is to end the program.
enum class SessionEnd { kLeft, kChange, kHungUp, kClosed, kSignal };

struct SessionResult {
  SessionEnd end = SessionEnd::kLeft;
  int signal = 0;         ///< of kSignal
  bool mid_line = false;  ///< the terminal shows the start of a line
  SessionChange change;   ///< of kChange
  int error = 0;          ///< of kClosed: the errno value, 0 when the daemon ended the connection
  std::string last;       ///< of kClosed: the end of what was received, the daemon's last words
};

/// Connects standard input and output to the console. When this returns or throws, the terminal is
/// as it was before. Standard input may end when it is not a terminal: then the session ends once
/// all of it is sent and the console has been quiet for a second, at the latest after ten seconds.
/// After kChange the daemon has removed the user from the console, if it did so within two seconds.
/// Throws Failure(kFailed) when the output cannot be written.
SessionResult RunSession(Opening opening, const SessionOptions& options, const Settings& settings,
                         Credentials& credentials);

}  // namespace zevctl
