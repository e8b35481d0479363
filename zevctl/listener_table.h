// Reading the system's tables of this machine's TCP sockets, and finding sockets in them.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zevctl {

/// An address and a port. IPv4 addresses are kept in the form of IPv6 addresses, ::ffff:a.b.c.d.
struct Endpoint {
  in6_addr address{};
  uint16_t port = 0;
  uint32_t scope = 0;  ///< interface of a link-local address

  bool ipv4() const { return IN6_IS_ADDR_V4MAPPED(&address); }

  /// The IPv4 address, in network order.
  uint32_t Ipv4() const;

  bool IsWildcard() const;
  bool IsLoopback() const;

  /// "127.0.0.1 port 6500"
  std::string InWords() const;
};

/// Where a connection to the address leads; the wildcard leads to this machine. Nothing for an
/// address that is neither IPv4 nor IPv6.
std::optional<Endpoint> Destination(const sockaddr& address);

struct TcpSocket {
  Endpoint bound;  ///< the address at this end
  bool ipv6_socket = false;
  std::optional<bool> ipv6_only;  ///< of an IPv6 socket, where the table tells
  uid_t uid = 0;                  ///< whose it is
  uint64_t inode = 0;             ///< tells it from all others, even later ones; 0 while no process
                                  ///< has it
  Endpoint remote;                ///< the other end of a connection
};

using TcpSockets = std::vector<TcpSocket>;
using Listener = TcpSocket;
using Listeners = TcpSockets;

enum class SocketKind { kListening, kConnected };

enum class DumpStep { kMore, kDone, kFailed };

/// Adds the sockets of one kind from one datagram of the kernel's answer to a dump of sockets
/// (sock_diag(7)). Whatever does not listen counts as connected.
DumpStep TakeDiagnostics(std::span<const char> datagram, SocketKind kind, TcpSockets& found);

/// Adds the sockets of one kind from the text of /proc/net/tcp or /proc/net/tcp6; false when the
/// text is something else.
bool TakeProcTable(std::string_view table, bool ipv6, SocketKind kind, TcpSockets& found);

/// The listeners among which the kernel chooses one for a connection to the address. A socket bound
/// to the address itself takes precedence over a wildcard. Of several that share the port by
/// agreement any one may get the connection, so all of them have to be right.
Listeners TakersOf(const Listeners& listeners, const Endpoint& destination);

/// The sockets at the end `here` of a connection between the two addresses. An IPv4 connection that
/// an IPv6 socket has accepted counts as IPv4.
TcpSockets EndsOf(const TcpSockets& sockets, const Endpoint& here, const Endpoint& there);

}  // namespace zevctl
