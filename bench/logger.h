// The yardstick of logging: reads consoles and writes what they print, each line with its time, and
// does nothing else.
//
// One thread waits in one epoll. What one read of a console brings becomes one write into the
// console's own file; there is no consolidated one.
#pragma once

#include <cstdint>
#include <string>

#include "process.h"

namespace bench {

/// The logger as a process of its own, which calls the first consoles of the farm at this port.
class Logger {
 public:
  Logger(uint16_t port, size_t consoles);
  Process& process() { return process_; }
  static std::string LogOf(size_t console);

 private:
  Process process_;
};

/// The life of that process. Ends when it is killed.
[[noreturn]] void LiveAsLogger(uint16_t port, size_t consoles);
inline constexpr char kLoggerWord[] = "--live-as-logger";

}  // namespace bench
