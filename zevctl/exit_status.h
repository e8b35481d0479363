// How the program ends: one status for each outcome, and the exception that carries it to main().
#pragma once

#include <stdexcept>
#include <string>

namespace zevctl {

/// Part of the interface: scripts depend on these numbers, and the manual page lists them.
enum class ExitStatus : int {
  kOk = 0,
  kFailed = 1,       ///< the daemon answered with an error; nothing matched; a file cannot be used
  kUsage = 2,        ///< the command line was not understood
  kNoDaemon = 3,     ///< the daemon cannot be reached, or does not answer
  kNotAdmitted = 4,  ///< the daemon did not let the user in
  kNoSuchConsole = 5,  ///< no console has that name
  kNotAccessible = 6,  ///< the console is not connected, is disabled or has been deleted
  kInUse = 7,          ///< somebody else has the console
  kRefused = 8,        ///< refused for another reason
  kSessionEnded = 9,   ///< the daemon closed a session that the user had not left
  kDeclined = 10,      ///< the user did not confirm
  kNotTheDaemon = 11,  ///< somebody else listens on the daemon's port; no secret was sent
  kDamaged = 12,       ///< the journal is not as it was written
};

/// Ends the program with a message for the user.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& message)
      : std::runtime_error(message), status_(status) {}

  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace zevctl
