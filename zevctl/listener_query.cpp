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

#include "socket.h"

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

// ---- Listeners ----------------------------------------------------------------------------------

bool DumpListeners(const Descriptor& netlink, uint8_t family, uint16_t port, Listeners& found) {
  inet_diag_req_v2 wanted{};
  wanted.sdiag_family = family;
  wanted.sdiag_protocol = IPPROTO_TCP;
  wanted.idiag_states = 1U << TCP_LISTEN;
  wanted.id.idiag_sport = htons(port);
  Request request(SOCK_DIAG_BY_FAMILY, NLM_F_DUMP);
  request.Add(wanted);
  if (!request.Send(netlink)) return false;
  std::string buffer;
  for (;;) {
    const auto datagram = Receive(netlink, buffer);
    const DumpStep step = datagram.empty() ? DumpStep::kFailed : TakeDiagnostics(datagram, found);
    if (step != DumpStep::kMore) return step == DumpStep::kDone;
  }
}

std::optional<Listeners> ListenersByDiagnostics(uint16_t port) {
  const Descriptor netlink = OpenNetlink(NETLINK_SOCK_DIAG);
  Listeners found;
  const bool told = netlink && DumpListeners(netlink, AF_INET, port, found) &&
                    DumpListeners(netlink, AF_INET6, port, found);
  return told ? std::optional(found) : std::nullopt;
}

bool TakeProcFile(const char* path, bool ipv6, Listeners& found) {
  std::ifstream file(path);
  const std::string table{std::istreambuf_iterator<char>(file), {}};
  return TakeProcTable(table, ipv6, found);
}

// A machine without IPv6 has no table of it.
std::optional<Listeners> ListenersByProc() {
  constexpr char kIpv6Table[] = "/proc/net/tcp6";
  Listeners found;
  const bool told = TakeProcFile("/proc/net/tcp", false, found) &&
                    (access(kIpv6Table, F_OK) != 0 || TakeProcFile(kIpv6Table, true, found));
  return told ? std::optional(found) : std::nullopt;
}

// ---- Addresses ----------------------------------------------------------------------------------

// How the kernel would send to the address: a type of <linux/rtnetlink.h>, nothing when it does not
// tell.
std::optional<uint8_t> RouteType(const Endpoint& destination) {
  const Descriptor netlink = OpenNetlink(NETLINK_ROUTE);
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
  if (!netlink || !request.Send(netlink)) return {};
  std::string buffer;
  const auto answer = Receive(netlink, buffer);
  nlmsghdr header{};
  rtmsg route{};
  if (answer.size() < sizeof header + sizeof route) return {};
  memcpy(&header, answer.data(), sizeof header);
  memcpy(&route, answer.data() + sizeof header, sizeof route);
  return header.nlmsg_type == RTM_NEWROUTE ? std::optional(route.rtm_type) : std::nullopt;
}

// Without netlink: an address of another machine cannot be bound, as a rule.
bool CanBeBound(const Endpoint& destination) {
  if (destination.ipv4()) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = destination.Ipv4();
    const Descriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ||
           errno != EADDRNOTAVAIL;
  }
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = destination.address;
  address.sin6_scope_id = destination.scope;
  const Descriptor probe(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return bind(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 ||
         errno != EADDRNOTAVAIL;
}

}  // namespace

std::optional<Listeners> ListenersOn(uint16_t port) {
  auto listeners = ListenersByDiagnostics(port);
  return listeners ? listeners : ListenersByProc();
}

bool IsOfThisMachine(const Endpoint& destination) {
  if (destination.IsLoopback()) return true;
  const auto type = RouteType(destination);
  return type ? *type == RTN_LOCAL : CanBeBound(destination);
}

}  // namespace zevctl
