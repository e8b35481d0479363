// Peers that vanish without a word: a machine that lost its power, a network that went away. Their
// connections would stay for ever, with the console or the login place that they hold.
//
// Two rules find them. While no data waits to be acknowledged, the kernel probes a silent peer
// (keep-alive). While some does, it sends no such probes, and a peer that has sent nothing for five
// minutes, not even an acknowledgement, is gone. A peer that is there but reads nothing is left
// alone: it answers the kernel's probes of its closed window, which come at most two minutes apart.
// TCP_USER_TIMEOUT would end such a connection, too (tcp(7)), so it is not set.
#pragma once

#include <cstdint>

namespace zevd {

/// Has the kernel probe a peer that has been silent for a minute, and then every ten seconds; after
/// six probes without an answer the connection ends with ETIMEDOUT.
void AskSilentPeer(int sock);

/// What the kernel knows of a TCP connection.
struct PeerSigns {
  int waiting;          ///< bytes in the send queue: not acknowledged, or not yet sent
  uint32_t since_ack;   ///< milliseconds since the last acknowledgement
  uint32_t since_data;  ///< milliseconds since the peer last sent something
};

/// True when data waits for the peer and there has been no sign of it for five minutes.
bool IsGone(const PeerSigns& signs);

/// The same for a socket. False when the kernel cannot tell.
bool HasVanished(int sock);

/// Milliseconds between two looks of a monitor for vanished peers: each look takes a system call or
/// two for each of them.
inline constexpr int64_t kVanishedLookInterval = 10'000;

}  // namespace zevd
