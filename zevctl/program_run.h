// Running other programs of this machine, for what they say.
#pragma once

#include <string>
#include <vector>

namespace zevctl {

struct ProgramResult {
  int status = -1;     ///< as it ended; -1 when it did not start, was ended by a signal, or took
                       ///< longer than ten seconds
  std::string output;  ///< both streams, of which the end is left out beyond 256 KiB
};

/// Runs the program, found by PATH unless its name has a '/', without input and in the C locale.
ProgramResult RunProgram(const std::vector<std::string>& command);

}  // namespace zevctl
