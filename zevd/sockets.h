// The sockets of the relay: their options, and what they are sent first. Any thread.
#pragma once

namespace zevd {

class UserOutput;

/// Switches a socket option on; a refusal by the system is of no consequence.
void SetSocketFlag(int sock, int level, int option);

/// For every socket that relays traffic: keystrokes do not wait for an acknowledgement, and a peer
/// that stops reading makes a send fail after a bounded time with a bounded backlog.
void PrepareRelaySocket(int sock);

/// Offers to echo and to suppress go-ahead, which puts a telnet client into character mode
/// (RFC 857, RFC 858).
void SetTelnetOptions(int sock);

/// The same to a user who is being attached. A connection that has failed is noticed when it is
/// read.
void SetTelnetOptions(UserOutput* output);

}  // namespace zevd
