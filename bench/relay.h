// The yardstick: a plain relay that copies bytes between a user and a console and does nothing
// else.
//
// A user names the console in one line, "ADDRESS PORT\n"; from then on both directions are copied
// as they come, with as few system calls as an event loop needs.
#pragma once

#include <cstdint>
#include <string>

#include "net.h"
#include "process.h"

namespace bench {

/// The relay as a process of its own.
class Relay {
 public:
  Relay();
  uint16_t port() const { return port_; }
  Process& process() { return process_; }
  /// A connection through the relay to this console.
  Descriptor Call(const std::string& address, uint16_t port) const;

 private:
  Descriptor listener_;
  uint16_t port_;
  Process process_;
};

/// The life of that process, on the listener that it inherits. Ends when it is killed.
[[noreturn]] void LiveAsRelay();
inline constexpr char kRelayWord[] = "--live-as-relay";

}  // namespace bench
