// The bytes of telnet commands (RFC 854) that the daemon sends or looks for.
#pragma once

namespace zevd::telnet {

inline constexpr unsigned char kSubnegotiationEnd = 240;
inline constexpr unsigned char kBreak = 243;
inline constexpr unsigned char kSubnegotiationBegin = 250;
inline constexpr unsigned char kWill = 251;
inline constexpr unsigned char kDont = 254;  ///< WILL, WONT, DO and DONT are 251 to 254
inline constexpr unsigned char kIac = 255;   ///< "interpret as command"

}  // namespace zevd::telnet
