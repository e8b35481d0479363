// Whether logs hold what consoles printed in a flood: to the byte, and line by line.
//
// A log begins with the line of the greeting; the numbered lines follow it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// How a log shows lines.
struct LogForm {
  bool consolidated = false;  // of all consoles together, each line after its console's name
  bool carriage_returns = false;
};

/// What the log of so many consoles holds after each has printed so many numbered lines.
uintmax_t LogSize(LogForm form, size_t consoles, uint64_t lines_each);

/// Waits until the log has that size; throws when it does not come to it, or is larger.
void WaitForLog(const std::string& path, uintmax_t size);

/// The time in the form of the logs.
std::string StampNow();

/// Throws unless every line of the log has a time from `from` to `to`, and each console's lines are
/// whole and in order. `first` is the console whose log it is, or the first of all.
void CheckLog(const std::string& path, LogForm form, size_t first, size_t consoles,
              const std::string& from, const std::string& to);

}  // namespace bench
