// Where telnet commands lie in a stream of output (RFC 854), so that none is torn. Belongs to
// whoever owns the stream.
#pragma once

#include <cstddef>

namespace zevd {

class TelnetScan {
 public:
  /// The longest command that is kept whole, in bytes. A subnegotiation that goes on for longer
  /// counts as text from there, as nothing says that it will ever end.
  static constexpr size_t kLongestCommand = 128;

  /// Goes over the next bytes of the stream.
  void Scan(const char* bytes, size_t count);

  /// Goes over the next bytes only until the command that has begun is over. Returns how many that
  /// were; 0 when none has begun.
  size_t ScanToEndOfCommand(const char* bytes, size_t count);

  /// True when the stream has begun a command and not ended it.
  bool InCommand() const { return state_ != State::kText; }

  /// The bytes of that command so far; 0 when none has begun.
  size_t begun() const { return InCommand() ? length_ : 0; }

 private:
  enum class State { kText, kCommand, kOption, kSubnegotiation, kCommandInside };

  State After(unsigned char byte) const;
  void Step(unsigned char byte);

  State state_ = State::kText;
  size_t length_ = 0;
};

}  // namespace zevd
