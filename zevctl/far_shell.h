// Running this program at the stations of a fleet: here as a child, elsewhere by ssh, so that
// rights and records are those of the station where something is done.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "far_map.h"

namespace zevctl {

/// How other stations are reached.
struct FarShell {
  std::string command = "ssh";  ///< with words of its own, if any, divided by blanks
};

/// What became of a command at one station.
struct FarResult {
  std::string station;
  int status = -1;     ///< of the command; 255 is ssh's own; -1: it took too long, or was killed
  std::string output;  ///< up to 64 MiB
  std::string errors;  ///< up to 64 KiB

  /// The station was not reached.
  bool IsUnreached() const { return status == -1 || status == kUnreached; }

  static constexpr int kUnreached = 255;  // ssh(1), EXIT STATUS
};

/// The line that runs the words at a station. `with_terminal`: somebody sits there.
std::vector<std::string> FarLine(const FarMap& map, const FarShell& shell,
                                 const FarStation& station, const std::vector<std::string>& words,
                                 bool with_terminal);

/// Runs the words at all these stations at once, for that many seconds at most.
std::vector<FarResult> RunFar(const FarMap& map, const FarShell& shell,
                              const std::vector<FarStation>& stations,
                              const std::vector<std::string>& words, int seconds);

/// Runs the words at all these stations until all of them have ended, and hands over each line of
/// their output.
using TakeFarLine = std::function<void(const std::string& station, std::string_view line)>;
std::vector<FarResult> FollowFar(const FarMap& map, const FarShell& shell,
                                 const std::vector<FarStation>& stations,
                                 const std::vector<std::string>& words, const TakeFarLine& take);

/// Runs the words at one station with this program's own terminal; the status as in FarResult.
int RunFarHere(const FarMap& map, const FarShell& shell, const FarStation& station,
               const std::vector<std::string>& words);

}  // namespace zevctl
