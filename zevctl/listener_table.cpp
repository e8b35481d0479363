#include "listener_table.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <sstream>

namespace zevctl {

namespace {

constexpr size_t kWordSize = 4;  // both tables have addresses in words of 32 bits

in6_addr Mapped(uint32_t ipv4_in_network_order) {
  in6_addr address{};
  address.s6_addr[10] = address.s6_addr[11] = 0xFF;
  memcpy(&address.s6_addr[12], &ipv4_in_network_order, kWordSize);
  return address;
}

SocketKind KindOf(unsigned state) {
  return state == TCP_LISTEN ? SocketKind::kListening : SocketKind::kConnected;
}

// ---- Socket diagnostics -------------------------------------------------------------------------

// The record at the front of the bytes; nothing when they are too few. They may be unaligned.
template <typename Record>
std::optional<Record> Front(std::span<const char> bytes) {
  if (bytes.size() < sizeof(Record)) return {};
  Record record;
  memcpy(&record, bytes.data(), sizeof record);
  return record;
}

std::span<const char> Behind(std::span<const char> bytes, size_t length) {
  return bytes.subspan(std::min(bytes.size(), length));
}

std::optional<bool> Ipv6Only(std::span<const char> attributes) {
  while (const auto attribute = Front<rtattr>(attributes)) {
    const size_t length = attribute->rta_len;
    if (length < sizeof *attribute || length > attributes.size()) return {};
    if (attribute->rta_type == INET_DIAG_SKV6ONLY && length > sizeof *attribute) {
      return attributes[sizeof *attribute] != 0;
    }
    attributes = Behind(attributes, RTA_ALIGN(length));
  }
  return {};
}

Endpoint EndpointOf(const __be32* words, uint16_t port_in_network_order, bool ipv6) {
  Endpoint endpoint;
  endpoint.port = ntohs(port_in_network_order);
  if (ipv6) memcpy(&endpoint.address, words, sizeof endpoint.address);
  if (!ipv6) endpoint.address = Mapped(words[0]);
  return endpoint;
}

bool TakeSocket(std::span<const char> payload, SocketKind kind, TcpSockets& found) {
  const auto message = Front<inet_diag_msg>(payload);
  if (!message) return false;
  if (KindOf(message->idiag_state) != kind) return true;
  TcpSocket socket;
  socket.ipv6_socket = message->idiag_family == AF_INET6;
  if (socket.ipv6_socket) {
    socket.ipv6_only = Ipv6Only(Behind(payload, NLMSG_ALIGN(sizeof *message)));
  }
  socket.bound = EndpointOf(message->id.idiag_src, message->id.idiag_sport, socket.ipv6_socket);
  socket.remote = EndpointOf(message->id.idiag_dst, message->id.idiag_dport, socket.ipv6_socket);
  socket.uid = message->idiag_uid;
  socket.inode = message->idiag_inode;
  found.push_back(socket);
  return true;
}

// A dump that failed half-way says so in the message that ends it.
DumpStep StepAtEnd(std::span<const char> payload) {
  const auto error = Front<int>(payload);
  return error && *error < 0 ? DumpStep::kFailed : DumpStep::kDone;
}

// ---- The tables in /proc ------------------------------------------------------------------------

template <typename Number>
bool ParseNumber(std::string_view text, int base, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

// Each word of the address is printed as a number in the byte order of this machine.
bool ParseAddress(std::string_view text, bool ipv6, in6_addr& address) {
  const size_t count = ipv6 ? 4 : 1;
  if (text.size() != count * 2 * kWordSize) return false;
  std::array<uint32_t, 4> words{};
  for (size_t i = 0; i < count; ++i) {
    if (!ParseNumber(text.substr(i * 2 * kWordSize, 2 * kWordSize), 16, words[i])) return false;
  }
  if (ipv6) memcpy(&address, words.data(), sizeof address);
  if (!ipv6) address = Mapped(words[0]);
  return true;
}

// "0100007F:1964"
bool ParseEndpoint(std::string_view text, bool ipv6, Endpoint& endpoint) {
  const size_t colon = text.find(':');
  return colon != std::string_view::npos &&
         ParseAddress(text.substr(0, colon), ipv6, endpoint.address) &&
         ParseNumber(text.substr(colon + 1), 16, endpoint.port);
}

bool TakeProcLine(const std::string& line, bool ipv6, SocketKind kind, TcpSockets& found) {
  std::istringstream fields(line);
  std::string number, local, remote, state, queues, timer, retries, uid, timeout, inode;
  if (!(fields >> number >> local >> remote >> state >> queues >> timer >> retries >> uid >>
        timeout >> inode)) {
    return false;
  }
  unsigned code = 0;
  if (!ParseNumber(state, 16, code)) return false;
  if (KindOf(code) != kind) return true;
  TcpSocket socket;
  socket.ipv6_socket = ipv6;
  const bool parsed = ParseEndpoint(local, ipv6, socket.bound) &&
                      ParseEndpoint(remote, ipv6, socket.remote) &&
                      ParseNumber(uid, 10, socket.uid) && ParseNumber(inode, 10, socket.inode);
  if (parsed) found.push_back(socket);
  return parsed;
}

// ---- Who takes a connection ---------------------------------------------------------------------

bool HaveOneAddress(const Endpoint& one, const Endpoint& other) {
  return IN6_ARE_ADDR_EQUAL(&one.address, &other.address);
}

// An IPv6 wildcard is left out here when the table does not tell whether it takes IPv4.
bool Takes(const Listener& listener, const Endpoint& destination) {
  if (listener.bound.port != destination.port) return false;
  if (HaveOneAddress(listener.bound, destination)) return true;
  if (!listener.bound.IsWildcard()) return false;
  if (listener.ipv6_socket != destination.ipv4()) return true;
  return listener.ipv6_socket && listener.ipv6_only == false;
}

bool MayTake(const Listener& listener, const Endpoint& destination) {
  return listener.bound.port == destination.port && listener.ipv6_socket && !listener.ipv6_only &&
         destination.ipv4() && listener.bound.IsWildcard();
}

template <typename Condition>
Listeners Those(const Listeners& listeners, Condition condition) {
  Listeners found;
  std::copy_if(listeners.begin(), listeners.end(), std::back_inserter(found), condition);
  return found;
}

}  // namespace

uint32_t Endpoint::Ipv4() const {
  uint32_t ipv4 = 0;
  memcpy(&ipv4, &address.s6_addr[12], kWordSize);
  return ipv4;
}

bool Endpoint::IsWildcard() const {
  return ipv4() ? Ipv4() == INADDR_ANY : IN6_IS_ADDR_UNSPECIFIED(&address);
}

bool Endpoint::IsLoopback() const {
  return ipv4() ? address.s6_addr[12] == IN_LOOPBACKNET : IN6_IS_ADDR_LOOPBACK(&address);
}

std::string Endpoint::InWords() const {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const void* bytes = ipv4() ? &address.s6_addr[12] : &address.s6_addr[0];
  inet_ntop(ipv4() ? AF_INET : AF_INET6, bytes, text.data(), text.size());
  return std::string(text.data()) + " port " + std::to_string(port);
}

std::optional<Endpoint> Destination(const sockaddr& address) {
  Endpoint endpoint;
  if (address.sa_family == AF_INET) {
    const auto& ipv4 = reinterpret_cast<const sockaddr_in&>(address);
    endpoint.address = Mapped(ipv4.sin_addr.s_addr);
    endpoint.port = ntohs(ipv4.sin_port);
  } else if (address.sa_family == AF_INET6) {
    const auto& ipv6 = reinterpret_cast<const sockaddr_in6&>(address);
    endpoint.address = ipv6.sin6_addr;
    endpoint.port = ntohs(ipv6.sin6_port);
    endpoint.scope = ipv6.sin6_scope_id;
  } else {
    return {};
  }
  if (endpoint.IsWildcard()) {
    endpoint.address = endpoint.ipv4() ? Mapped(htonl(INADDR_LOOPBACK)) : in6addr_loopback;
  }
  return endpoint;
}

DumpStep TakeDiagnostics(std::span<const char> datagram, SocketKind kind, TcpSockets& found) {
  while (const auto header = Front<nlmsghdr>(datagram)) {
    const size_t length = header->nlmsg_len;
    if (length < sizeof *header || length > datagram.size()) return DumpStep::kFailed;
    const auto payload = datagram.first(length).subspan(sizeof *header);
    if (header->nlmsg_type == NLMSG_DONE) return StepAtEnd(payload);
    if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY || !TakeSocket(payload, kind, found)) {
      return DumpStep::kFailed;
    }
    datagram = Behind(datagram, NLMSG_ALIGN(length));
  }
  return datagram.empty() ? DumpStep::kMore : DumpStep::kFailed;
}

bool TakeProcTable(std::string_view table, bool ipv6, SocketKind kind, TcpSockets& found) {
  std::istringstream lines{std::string(table)};
  std::string line;
  if (!std::getline(lines, line) || line.find("local_address") == std::string::npos) return false;
  while (std::getline(lines, line)) {
    if (!TakeProcLine(line, ipv6, kind, found)) return false;
  }
  return true;
}

// Where a socket takes IPv4, an IPv6 wildcard that would take it too cannot be bound, unless both
// agreed to share the port. So when the table does not tell, the wildcard counts only where there
// is no other socket.
Listeners TakersOf(const Listeners& listeners, const Endpoint& destination) {
  Listeners takers =
      Those(listeners, [&](const Listener& listener) { return Takes(listener, destination); });
  if (!takers.empty()) return takers;
  return Those(listeners, [&](const Listener& listener) { return MayTake(listener, destination); });
}

TcpSockets EndsOf(const TcpSockets& sockets, const Endpoint& here, const Endpoint& there) {
  const auto is_same = [](const Endpoint& one, const Endpoint& other) {
    return one.port == other.port && HaveOneAddress(one, other);
  };
  return Those(sockets, [&](const TcpSocket& socket) {
    return is_same(socket.bound, here) && is_same(socket.remote, there);
  });
}

}  // namespace zevctl
