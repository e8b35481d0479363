// The yardstick of a console with many users: one thread that reads the console and sends what it
// has read to each of them in turn, and does nothing else.
#pragma once

#include <cstdint>
#include <vector>

#include "farm.h"
#include "process.h"

namespace bench {

/// The repeater as a process of its own. It calls the farm's first console once all users are
/// there.
class Repeater {
 public:
  Repeater(const Farm& farm, size_t users);
  Process& process() { return process_; }
  /// The users, who have seen the greeting.
  std::vector<Descriptor> Call() const;

 private:
  Descriptor listener_;
  size_t users_;
  Process process_;
};

/// The life of that process, on the listener that it inherits. Ends when it is killed.
[[noreturn]] void LiveAsRepeater(uint16_t port, size_t users);
inline constexpr char kRepeaterWord[] = "--live-as-repeater";

}  // namespace bench
