// The connection between the password helper and the password service, which is the same program
// with the right to read the password database. Both ends:
//
//   the service   sends kReadyByte once it may be asked; it closes callers for whom it has no room
//   the helper    sends the address (QOR_RHOST), a null byte, and the pair as it has read it; then
//                 it ends its sending
//   the service   sends kAcceptedByte or kRefusedByte
#pragma once

#include <cstddef>

inline constexpr char kPasswordSocket[] = "/run/zevd/password.sock";
inline constexpr char kServiceUser[] = "zevd";  // who may ask, besides root

inline constexpr char kReadyByte = '?';
inline constexpr char kAcceptedByte = '+';
inline constexpr char kRefusedByte = '-';

/// The longest address that is passed on; a longer one is none.
inline constexpr size_t kLongestAddress = 255;

/// What the helper learned.
enum class Verdict {
  kNoService,  ///< nobody serves this user: the helper is on its own
  kAccepted,
  kRefused,  ///< or there was no answer in time
};

/// Asks the service about a pair. While the service has no room, it is asked again for 20 seconds.
Verdict AskPasswordService(const char* address, const char* pair, size_t length);

/// Whether the caller at the other end of the accepted socket is one who may ask.
bool MayAsk(int sock);
