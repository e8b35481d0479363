#include "listener_query.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "descriptor.h"

namespace zevctl {

namespace {

constexpr size_t kDatagramSize = 65536;  // the kernel's are of 32 KiB at most

// ---- Netlink ------------------------------------------------------------------------------------

// Connected to the kernel, so that nobody else can answer.
Descriptor OpenNetlink(int protocol) {
  Descriptor opened(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol));
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  if (opened && connect(opened.get(), reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) != 0) {
    opened.Close();
  }
  return opened;
}

/// A request that grows record by record; the first is the header.
class Request {
 public:
  Request(uint16_t type, uint16_t flags) {
    header_.nlmsg_type = type;
    header_.nlmsg_flags = static_cast<uint16_t>(flags | NLM_F_REQUEST);
    Add(header_);
  }

  template <typename Record>
  void Add(const Record& record) {
    static_assert(sizeof record % NLMSG_ALIGNTO == 0, "what follows must be aligned");
    bytes_.append(reinterpret_cast<const char*>(&record), sizeof record);
  }

  template <typename Value>
  void AddAttribute(uint16_t type, const Value& value) {
    Add(rtattr{RTA_LENGTH(sizeof value), type});
    Add(value);
  }

  bool Send(const Descriptor& netlink) {
    header_.nlmsg_len = static_cast<uint32_t>(bytes_.size());
    memcpy(bytes_.data(), &header_, sizeof header_);
    return send(netlink.get(), bytes_.data(), bytes_.size(), 0) ==
           static_cast<ssize_t>(bytes_.size());
  }

 private:
  nlmsghdr header_{};
  std::string bytes_;
};

// The next datagram; empty when there is none, or one that is longer than any should be.
std::span<const char> Receive(const Descriptor& netlink, std::string& buffer) {
  buffer.resize(kDatagramSize);
  ssize_t size = -1;
  do {
    size = recv(netlink.get(), buffer.data(), buffer.size(), MSG_TRUNC);
  } while (size < 0 && errno == EINTR);
  if (size < 0 || static_cast<size_t>(size) > buffer.size()) return {};
  return std::span<const char>(buffer).first(static_cast<size_t>(size));
}

// ---- Sockets ------------------------------------------------------------------------------------

/// Which sockets are asked for; a port of 0 stands for all.
struct Wanted {
  SocketKind kind;
  uint16_t local_port;
  uint16_t remote_port;
};

// In a dump, sockets that wait for the last step of a connection's setup belong to SYN_RECV.
uint32_t StatesOf(SocketKind kind) {
  constexpr uint32_t kListening = 1U << TCP_LISTEN;
  constexpr uint32_t kAll = (2U << TCP_CLOSING) - 1;
  return kind == SocketKind::kListening ? kListening : kAll & ~kListening;
}

bool DumpSockets(const Descriptor& netlink, uint8_t family, const Wanted& wanted,
                 TcpSockets& found) {
  inet_diag_req_v2 record{};
  record.sdiag_family = family;
  record.sdiag_protocol = IPPROTO_TCP;
  record.idiag_states = StatesOf(wanted.kind);
  record.id.idiag_sport = htons(wanted.local_port);
  record.id.idiag_dport = htons(wanted.remote_port);
  Request request(SOCK_DIAG_BY_FAMILY, NLM_F_DUMP);
  request.Add(record);
  if (!request.Send(netlink)) return false;
  std::string buffer;
  for (;;) {
    const auto datagram = Receive(netlink, buffer);
    const DumpStep step =
        datagram.empty() ? DumpStep::kFailed : TakeDiagnostics(datagram, wanted.kind, found);
    if (step != DumpStep::kMore) return step == DumpStep::kDone;
  }
}

std::optional<TcpSockets> SocketsByDiagnostics(const Wanted& wanted) {
  const Descriptor netlink = OpenNetlink(NETLINK_SOCK_DIAG);
  TcpSockets found;
  const bool told = netlink && DumpSockets(netlink, AF_INET, wanted, found) &&
                    DumpSockets(netlink, AF_INET6, wanted, found);
  return told ? std::optional(found) : std::nullopt;
}

bool TakeProcFile(const char* path, bool ipv6, SocketKind kind, TcpSockets& found) {
  std::ifstream file(path);
  const std::string table{std::istreambuf_iterator<char>(file), {}};
  return TakeProcTable(table, ipv6, kind, found);
}

// A machine without IPv6 has no table for it.
std::optional<TcpSockets> SocketsByProc(SocketKind kind) {
  constexpr char kIpv6Table[] = "/proc/net/tcp6";
  TcpSockets found;
  const bool told = TakeProcFile("/proc/net/tcp", false, kind, found) &&
                    (access(kIpv6Table, F_OK) != 0 || TakeProcFile(kIpv6Table, true, kind, found));
  return told ? std::optional(found) : std::nullopt;
}

std::optional<TcpSockets> SocketsOf(const Wanted& wanted) {
  auto sockets = SocketsByDiagnostics(wanted);
  return sockets ? sockets : SocketsByProc(wanted.kind);
}

// ---- Addresses ----------------------------------------------------------------------------------

Request RouteRequest(const Endpoint& destination) {
  rtmsg wanted{};
  wanted.rtm_family = destination.ipv4() ? AF_INET : AF_INET6;
  wanted.rtm_dst_len = destination.ipv4() ? 32 : 128;
  Request request(RTM_GETROUTE, 0);
  request.Add(wanted);
  if (destination.ipv4()) {
    request.AddAttribute(RTA_DST, destination.Ipv4());
  } else {
    request.AddAttribute(RTA_DST, destination.address);
  }
  if (destination.scope != 0) request.AddAttribute(RTA_OIF, destination.scope);
  return request;
}

// How the kernel would send to the address: a type of <linux/rtnetlink.h>, nothing when it does not
// tell.
std::optional<uint8_t> RouteType(const Endpoint& destination) {
  const Descriptor netlink = OpenNetlink(NETLINK_ROUTE);
  if (!netlink || !RouteRequest(destination).Send(netlink)) return {};
  std::string buffer;
  const auto answer = Receive(netlink, buffer);
  nlmsghdr header{};
  rtmsg route{};
  if (answer.size() < sizeof header + sizeof route) return {};
  memcpy(&header, answer.data(), sizeof header);
  memcpy(&route, answer.data() + sizeof header, sizeof route);
  return header.nlmsg_type == RTM_NEWROUTE ? std::optional(route.rtm_type) : std::nullopt;
}

template <typename Address>
bool CanBind(int family, const Address& address) {
  const Descriptor probe(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ||
         errno != EADDRNOTAVAIL;
}

// For a system without netlink. As a rule, an address of another machine cannot be bound.
bool CanBeBound(const Endpoint& destination) {
  if (destination.ipv4()) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = destination.Ipv4();
    return CanBind(AF_INET, address);
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = destination.address;
  address.sin6_scope_id = destination.scope;
  return CanBind(AF_INET6, address);
}

}  // namespace

std::optional<Listeners> ListenersOn(uint16_t port) {
  return SocketsOf({SocketKind::kListening, port, 0});
}

std::optional<TcpSockets> ConnectedSockets(uint16_t local_port, uint16_t remote_port) {
  return SocketsOf({SocketKind::kConnected, local_port, remote_port});
}

bool IsOfThisMachine(const Endpoint& destination) {
  if (destination.IsLoopback()) return true;
  const auto type = RouteType(destination);
  return type ? *type == RTN_LOCAL : CanBeBound(destination);
}

}  // namespace zevctl
