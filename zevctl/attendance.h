// Who is at consoles, asked for no more of them than have somebody to tell about.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "command_port.h"

namespace zevctl {

/// Every question takes the daemon a pass, and a station may have thousands of consoles. So the
/// command port is asked only about consoles whose state says that there may be somebody.
class Attendance {
 public:
  explicit Attendance(CommandPort& port) : port_(port) {}

  /// The users of the consoles of one name, of which there is at least one. Throws as CommandPort
  /// does.
  std::vector<UserRecord> At(const std::vector<ConsoleRecord>& consoles);

 private:
  bool MayHaveUsers(const ConsoleRecord& console) const;
  std::vector<UserRecord> AskAgain(const ConsoleRecord& console);

  CommandPort& port_;
  std::set<std::string> without_holder_;  // models of which no refused console has one
};

}  // namespace zevctl
