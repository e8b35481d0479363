// The sockets of the relay: their options, their room, and what they are sent first. Any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace zevd {

/// Switches a socket option on; a refusal by the system is of no consequence.
void SetSocketFlag(int sock, int level, int option);

/// For every socket that relays traffic: keystrokes do not wait for an acknowledgement, and a peer
/// that stops reading makes a send fail after a bounded time with a bounded backlog.
void PrepareRelaySocket(int sock);

/// True when the socket takes a chunk without making the sender wait, or has an error to report.
bool HasSendRoom(int sock);

/// Offers to echo and to suppress go-ahead, which puts a telnet client into character mode
/// (RFC 857, RFC 858).
void SetTelnetOptions(int sock);

/// Sends to one peer that may wait for it for 200 ms in all.
class SendBudget {
 public:
  SendBudget();

  /// As send(2); EAGAIN once the time is used up.
  ssize_t Send(int sock, const char* buf, size_t count, int flags);

 private:
  int64_t deadline_;  // CLOCK_MONOTONIC, microseconds
};

}  // namespace zevd
