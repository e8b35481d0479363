// A console's bytes without the telnet commands among them.
#pragma once

#include <string>
#include <string_view>

namespace zevctl {

/// Leaves out what a console server and a client agree on between themselves (RFC 854). The pieces
/// may cut a command anywhere.
class TelnetStrip {
 public:
  std::string Take(std::string_view bytes);

 private:
  enum class Place { kText, kCommand, kOption, kNegotiation, kNegotiationCommand };

  /// Whether the byte is part of the text.
  bool TakeOne(unsigned char byte);

  Place place_ = Place::kText;
  size_t negotiation_ = 0;  // its length
};

}  // namespace zevctl
