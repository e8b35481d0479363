// Running "zevctl", for what it does. It does not outlive this process: one that was killed in the
// middle changes nothing afterwards.
#pragma once

#include <string>
#include <vector>

namespace zevfleet {

struct ChildResult {
  int status = -1;     ///< as it ended; -1 when it did not start, was killed, or took too long
  std::string output;  ///< of both streams, up to 64 KiB
};

/// Runs the zevctl that stands beside this program, or else the one that PATH finds, for that many
/// seconds at most. Main thread only: the kernel ends the child with the thread that started it.
ChildResult RunZevctl(std::vector<std::string> words, int seconds);

}  // namespace zevfleet
