#include "telnet_scan.h"

#include <cstring>

#include "telnet_bytes.h"

namespace zevd {

TelnetScan::State TelnetScan::After(unsigned char byte) const {
  switch (state_) {
    case State::kCommand:
      if (byte == telnet::kSubnegotiationBegin) return State::kSubnegotiation;
      return byte >= telnet::kWill && byte <= telnet::kDont ? State::kOption : State::kText;
    case State::kSubnegotiation:
      return byte == telnet::kIac ? State::kCommandInside : State::kSubnegotiation;
    case State::kCommandInside:
      return byte == telnet::kSubnegotiationEnd ? State::kText : State::kSubnegotiation;
    case State::kText:
    case State::kOption:
      break;
  }
  return State::kText;
}

void TelnetScan::Step(unsigned char byte) {
  state_ = After(byte);
  if (++length_ >= kLongestCommand) state_ = State::kText;
}

void TelnetScan::Scan(const char* bytes, size_t count) {
  const char* end = bytes + count;
  while (bytes != end) {
    if (InCommand()) {
      Step(static_cast<unsigned char>(*bytes++));
      continue;
    }
    const void* found = memchr(bytes, telnet::kIac, static_cast<size_t>(end - bytes));
    if (found == nullptr) return;
    bytes = static_cast<const char*>(found) + 1;
    state_ = State::kCommand;
    length_ = 1;
  }
}

size_t TelnetScan::ScanToEndOfCommand(const char* bytes, size_t count) {
  size_t scanned = 0;
  while (InCommand() && scanned < count) Step(static_cast<unsigned char>(bytes[scanned++]));
  return scanned;
}

}  // namespace zevd
