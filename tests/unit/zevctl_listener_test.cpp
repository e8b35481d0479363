// Who listens at the daemon's address, as the system tells it, and whether that is the station.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <sstream>

#include "listener.h"
#include "listener_query.h"
#include "listener_table.h"

namespace zevctl {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

in6_addr Address(const std::string& text) {
  in6_addr address{};
  const std::string written = text.find(':') == std::string::npos ? "::ffff:" + text : text;
  EXPECT_EQ(inet_pton(AF_INET6, written.c_str(), &address), 1) << text;
  return address;
}

Endpoint At(const std::string& address, uint16_t port = 6500) {
  return {Address(address), port};
}

Endpoint DestinationOf(const std::string& address) {
  sockaddr_in6 ipv6{};
  sockaddr_in ipv4{};
  ipv6.sin6_family = AF_INET6;
  ipv4.sin_family = AF_INET;
  ipv6.sin6_port = ipv4.sin_port = htons(6500);
  const bool is_ipv4 = inet_pton(AF_INET, address.c_str(), &ipv4.sin_addr) == 1;
  EXPECT_TRUE(is_ipv4 || inet_pton(AF_INET6, address.c_str(), &ipv6.sin6_addr) == 1) << address;
  const auto destination = is_ipv4 ? Destination(reinterpret_cast<const sockaddr&>(ipv4))
                                   : Destination(reinterpret_cast<const sockaddr&>(ipv6));
  EXPECT_TRUE(destination);
  return destination.value_or(Endpoint());
}

TEST(ZevctlListenerTest, DestinationsInWords) {
  EXPECT_EQ(DestinationOf("127.0.0.1").InWords(), "127.0.0.1 port 6500");
  EXPECT_EQ(DestinationOf("::ffff:10.1.2.3").InWords(), "10.1.2.3 port 6500");
  EXPECT_EQ(DestinationOf("fe80::1").InWords(), "fe80::1 port 6500");
}

TEST(ZevctlListenerTest, TheWildcardLeadsToThisMachine) {
  EXPECT_EQ(DestinationOf("0.0.0.0").InWords(), "127.0.0.1 port 6500");
  EXPECT_EQ(DestinationOf("::").InWords(), "::1 port 6500");
}

TEST(ZevctlListenerTest, OtherFamiliesHaveNoDestination) {
  const sockaddr local = {AF_UNIX, {}};
  EXPECT_FALSE(Destination(local));
}

TEST(ZevctlListenerTest, LoopbackAddressesBelongToThisMachine) {
  for (const char* address : {"127.0.0.1", "127.9.8.7", "::1", "::ffff:127.0.0.1"}) {
    EXPECT_TRUE(IsOfThisMachine(DestinationOf(address))) << address;
  }
}

// ---- Socket diagnostics -------------------------------------------------------------------------

template <typename Record>
void Append(std::string& bytes, const Record& record) {
  bytes.append(reinterpret_cast<const char*>(&record), sizeof record);
}

std::string Message(uint16_t type, const std::string& payload) {
  nlmsghdr header{};
  header.nlmsg_len = static_cast<uint32_t>(sizeof header + payload.size());
  header.nlmsg_type = type;
  std::string message;
  Append(message, header);
  message += payload;
  message.resize(NLMSG_ALIGN(message.size()));
  return message;
}

inet_diag_msg SocketRecord(int family, const std::string& address, uid_t uid, uint32_t inode,
                           uint8_t state) {
  inet_diag_msg socket{};
  socket.idiag_family = static_cast<uint8_t>(family);
  socket.idiag_state = state;
  socket.idiag_uid = uid;
  socket.idiag_inode = inode;
  socket.id.idiag_sport = htons(6500);
  EXPECT_EQ(inet_pton(family, address.c_str(), socket.id.idiag_src), 1) << address;
  return socket;
}

std::string SocketMessage(int family, const std::string& address, uid_t uid, uint32_t inode,
                          uint8_t state = TCP_LISTEN, std::optional<bool> ipv6_only = {}) {
  std::string payload;
  Append(payload, SocketRecord(family, address, uid, inode, state));
  if (ipv6_only) {
    Append(payload, rtattr{RTA_LENGTH(4), INET_DIAG_MARK});
    payload += "mark";
    Append(payload, rtattr{RTA_LENGTH(1), INET_DIAG_SKV6ONLY});
    payload += *ipv6_only ? '\1' : '\0';
  }
  return Message(SOCK_DIAG_BY_FAMILY, payload);
}

TEST(ZevctlListenerTest, DiagnosticsListListeners) {
  const std::string datagram = SocketMessage(AF_INET, "127.0.0.1", 1000, 77) +
                               SocketMessage(AF_INET, "10.0.0.1", 0, 78, TCP_ESTABLISHED) +
                               SocketMessage(AF_INET6, "::", 0, 79, TCP_LISTEN, true) +
                               SocketMessage(AF_INET6, "::1", 5, 80, TCP_LISTEN, false) +
                               SocketMessage(AF_INET6, "fe80::1", 6, 81);
  Listeners found;
  EXPECT_EQ(TakeDiagnostics(datagram, SocketKind::kListening, found), DumpStep::kMore);
  ASSERT_EQ(found.size(), 4U);
  EXPECT_EQ(found[0].bound.InWords(), "127.0.0.1 port 6500");
  EXPECT_EQ(found[0].uid, 1000U);
  EXPECT_EQ(found[0].inode, 77U);
  EXPECT_FALSE(found[0].ipv6_socket);
  EXPECT_EQ(found[1].bound.InWords(), ":: port 6500");
  EXPECT_TRUE(found[1].ipv6_socket);
  EXPECT_EQ(found[1].ipv6_only, true);
  EXPECT_EQ(found[2].ipv6_only, false);
  EXPECT_EQ(found[3].ipv6_only, std::nullopt);
}

TEST(ZevctlListenerTest, DiagnosticsEnd) {
  Listeners found;
  std::string no_error;
  Append(no_error, int{0});
  EXPECT_EQ(TakeDiagnostics(Message(NLMSG_DONE, no_error), SocketKind::kListening, found),
            DumpStep::kDone);
  EXPECT_EQ(TakeDiagnostics(Message(NLMSG_DONE, ""), SocketKind::kListening, found),
            DumpStep::kDone);
  const std::string last = SocketMessage(AF_INET, "127.0.0.1", 0, 1) + Message(NLMSG_DONE, "");
  EXPECT_EQ(TakeDiagnostics(last, SocketKind::kListening, found), DumpStep::kDone);
  EXPECT_EQ(found.size(), 1U);
}

TEST(ZevctlListenerTest, FailedDiagnosticsAreRefused) {
  Listeners found;
  std::string error;
  Append(error, -ENOENT);
  EXPECT_EQ(TakeDiagnostics(Message(NLMSG_DONE, error), SocketKind::kListening, found),
            DumpStep::kFailed);
  EXPECT_EQ(TakeDiagnostics(Message(NLMSG_ERROR, error), SocketKind::kListening, found),
            DumpStep::kFailed);
  EXPECT_EQ(TakeDiagnostics(Message(SOCK_DIAG_BY_FAMILY, "short"), SocketKind::kListening, found),
            DumpStep::kFailed);
  EXPECT_EQ(TakeDiagnostics(std::string("\1\0\0\0 and so on", 14), SocketKind::kListening, found),
            DumpStep::kFailed);
}

TEST(ZevctlListenerTest, TruncatedDiagnosticsAreRefused) {
  const std::string whole = SocketMessage(AF_INET6, "::", 0, 79, TCP_LISTEN, true);
  const size_t padding = 3;  // after the last attribute, which has one byte
  for (size_t size = 1; size < whole.size() - padding; ++size) {
    Listeners found;
    const std::string cut = whole.substr(0, size);
    EXPECT_EQ(TakeDiagnostics(cut, SocketKind::kListening, found), DumpStep::kFailed) << size;
    EXPECT_THAT(found, IsEmpty());
  }
}

TEST(ZevctlListenerTest, AnAttributeThatIsTooLongIsIgnored) {
  std::string payload = SocketMessage(AF_INET6, "::", 0, 79).substr(sizeof(nlmsghdr));
  Append(payload, rtattr{200, INET_DIAG_SKV6ONLY});
  Listeners found;
  EXPECT_EQ(TakeDiagnostics(Message(SOCK_DIAG_BY_FAMILY, payload), SocketKind::kListening, found),
            DumpStep::kMore);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].ipv6_only, std::nullopt);
}

// ---- The tables in /proc; their addresses are those of a little-endian machine ------------------

constexpr char kHead[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout "
    "inode\n";

struct ProcSocket {
  std::string local;
  std::string remote;
  std::string state;
  uid_t uid;
  uint64_t inode;
};

// A table as the kernel writes it; it fills short lines up with blanks.
std::string ProcTable(const std::vector<ProcSocket>& sockets) {
  constexpr size_t kShortest = 149;
  std::string table = kHead;
  size_t number = 0;
  for (const ProcSocket& socket : sockets) {
    std::ostringstream line;
    line << std::setw(4) << number++ << ": " << socket.local << " " << socket.remote << " "
         << socket.state << " 00000000:00000000 00:00000000 00000000 " << std::setw(5) << socket.uid
         << "        0 " << socket.inode << " 1 0000000000000000 100 0 0 10 0";
    std::string text = line.str();
    text.resize(std::max(text.size(), kShortest), ' ');
    table += text + "\n";
  }
  return table;
}

TEST(ZevctlListenerTest, ProcListsListeners) {
  const std::string table = ProcTable({{"0100007F:1964", "00000000:0000", "0A", 1000, 18206},
                                       {"0100007F:1964", "0100007F:CAFE", "01", 0, 18207}});
  Listeners found;
  EXPECT_TRUE(TakeProcTable(table, false, SocketKind::kListening, found));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].bound.InWords(), "127.0.0.1 port 6500");
  EXPECT_EQ(found[0].uid, 1000U);
  EXPECT_EQ(found[0].inode, 18206U);
}

TEST(ZevctlListenerTest, ProcListsIpv6Listeners) {
  const std::string table = ProcTable({{"00000000000000000000000001000000:1964",
                                        "00000000000000000000000000000000:0000", "0A", 7, 9}});
  Listeners found;
  EXPECT_TRUE(TakeProcTable(table, true, SocketKind::kListening, found));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].bound.InWords(), "::1 port 6500");
  EXPECT_TRUE(found[0].ipv6_socket);
  EXPECT_EQ(found[0].ipv6_only, std::nullopt);
}

TEST(ZevctlListenerTest, MalformedProcTablesAreRefused) {
  Listeners found;
  EXPECT_FALSE(TakeProcTable("", false, SocketKind::kListening, found));
  EXPECT_FALSE(TakeProcTable("something else\n", false, SocketKind::kListening, found));
  for (const char* line :
       {"0: x\n", "0: 0100007F:1964 0:0 0A 0:0 0:0 0 -1 0 9\n",
        "0: 0100007F 0:0 0A 0:0 0:0 0 1 0 9\n", "0: 0100007F:19640 0:0 0A 0:0 0:0 0 1 0 9\n",
        "0: 0100007G:1964 0:0 0A 0:0 0:0 0 1 0 9\n", "0: 0100007F:1964 0:0 ZZ 0:0 0:0 0 1 0 9\n",
        "0: 0100007F:1964 0:0 0A 0:0 0:0 0 1 0 x\n"}) {
    EXPECT_FALSE(TakeProcTable(std::string(kHead) + line, false, SocketKind::kListening, found))
        << line;
  }
  EXPECT_THAT(found, IsEmpty());
}

// ---- Who takes a connection ---------------------------------------------------------------------

struct Socket {
  const char* address;
  bool ipv6 = false;
  std::optional<bool> ipv6_only = {};
  uint16_t port = 6500;
};

// Which of the sockets take a connection to the destination, by their places in the list.
std::vector<uint64_t> Takers(const std::vector<Socket>& sockets, const std::string& destination) {
  Listeners listeners;
  for (const Socket& socket : sockets) {
    listeners.push_back(
        {At(socket.address, socket.port), socket.ipv6, socket.ipv6_only, 0, listeners.size(), {}});
  }
  std::vector<uint64_t> takers;
  for (const Listener& taker : TakersOf(listeners, DestinationOf(destination))) {
    takers.push_back(taker.inode);
  }
  return takers;
}

TEST(ZevctlListenerTest, ASocketTakesItsOwnAddressOrAll) {
  const std::vector<Socket> sockets = {{"127.0.0.1"}, {"0.0.0.0"}, {"127.0.0.2"}, {"::1", true}};
  EXPECT_THAT(Takers(sockets, "127.0.0.1"), ElementsAre(0, 1));
  EXPECT_THAT(Takers(sockets, "127.0.0.2"), ElementsAre(1, 2));
  EXPECT_THAT(Takers(sockets, "::ffff:127.0.0.2"), ElementsAre(1, 2));
  EXPECT_THAT(Takers(sockets, "10.0.0.1"), ElementsAre(1));
  EXPECT_THAT(Takers(sockets, "::1"), ElementsAre(3));
  EXPECT_THAT(Takers(sockets, "::2"), IsEmpty());
}

TEST(ZevctlListenerTest, ASocketAtAnotherPortTakesNothing) {
  EXPECT_THAT(Takers({{"127.0.0.1", false, {}, 6501}, {"::", true, false, 6499}}, "127.0.0.1"),
              IsEmpty());
}

TEST(ZevctlListenerTest, AnIpv6SocketMayTakeIpv4) {
  EXPECT_THAT(Takers({{"::", true, false}}, "127.0.0.1"), ElementsAre(0));
  EXPECT_THAT(Takers({{"::", true, true}}, "127.0.0.1"), IsEmpty());
  EXPECT_THAT(Takers({{"::ffff:127.0.0.1", true, false}}, "127.0.0.1"), ElementsAre(0));
  EXPECT_THAT(Takers({{"::ffff:0.0.0.0", true, false}}, "127.0.0.1"), ElementsAre(0));
  EXPECT_THAT(Takers({{"::", true, true}}, "::1"), ElementsAre(0));
  EXPECT_THAT(Takers({{"0.0.0.0"}}, "::1"), IsEmpty());
}

TEST(ZevctlListenerTest, AnUncertainIpv6WildcardCountsOnlyWithoutOthers) {
  EXPECT_THAT(Takers({{"::", true}}, "127.0.0.1"), ElementsAre(0));
  EXPECT_THAT(Takers({{"::", true}, {"0.0.0.0"}}, "127.0.0.1"), ElementsAre(1));
  EXPECT_THAT(Takers({{"::", true}, {"127.0.0.2"}}, "127.0.0.1"), ElementsAre(0));
}

TEST(ZevctlListenerTest, AllSocketsThatShareAPortCount) {
  EXPECT_THAT(Takers({{"127.0.0.1"}, {"127.0.0.1"}, {"127.0.0.1"}}, "127.0.0.1"),
              ElementsAre(0, 1, 2));
}

// ---- Whether it is the station's ----------------------------------------------------------------

constexpr uid_t kOwner = 500;
constexpr uid_t kCaller = 1000;
constexpr uid_t kOther = 2000;

struct Seen {
  uid_t uid;
  uint64_t inode;
};

Listeners Those(const std::vector<Seen>& seen) {
  Listeners listeners;
  for (const auto& [uid, inode] : seen) {
    listeners.push_back({At("127.0.0.1"), false, {}, uid, inode, {}});
  }
  return listeners;
}

Trust Judged(const std::vector<Seen>& before, const std::vector<Seen>& after,
             std::optional<uid_t> station = kOwner) {
  return Judge(Those(before), Those(after), station, kCaller);
}

TEST(ZevctlListenerTest, ListenersOfRootAndTheOwnerAreTheStations) {
  EXPECT_EQ(Judged({{0, 1}}, {{0, 1}}), Trust::kStation);
  EXPECT_EQ(Judged({{kOwner, 1}}, {{kOwner, 1}}), Trust::kStation);
  EXPECT_EQ(Judged({{kOwner, 1}, {0, 2}}, {{0, 2}, {kOwner, 1}}), Trust::kStation);
}

TEST(ZevctlListenerTest, WithoutAnOwnerOnlyListenersOfRootAreTheStations) {
  EXPECT_EQ(Judged({{0, 1}}, {{0, 1}}, {}), Trust::kStation);
  EXPECT_EQ(Judged({{kOwner, 1}}, {{kOwner, 1}}, {}), Trust::kStranger);
}

TEST(ZevctlListenerTest, AllListenersMustBeRight) {
  EXPECT_EQ(Judged({{0, 1}, {kOther, 2}}, {{0, 1}, {kOther, 2}}), Trust::kStranger);
  EXPECT_EQ(Judged({{0, 1}, {kCaller, 2}}, {{0, 1}, {kCaller, 2}}), Trust::kOwn);
}

TEST(ZevctlListenerTest, TheListenerMustStayTheSame) {
  EXPECT_EQ(Judged({{0, 1}}, {{0, 2}}), Trust::kChanged);
  EXPECT_EQ(Judged({}, {{0, 2}}), Trust::kChanged);
  EXPECT_EQ(Judged({{0, 1}}, {}), Trust::kChanged);
  EXPECT_EQ(Judged({{0, 1}}, {{0, 1}, {0, 2}}), Trust::kChanged);
  EXPECT_EQ(Judged({{kOther, 1}}, {{0, 2}}), Trust::kChanged);
  EXPECT_EQ(Judged({{kCaller, 1}}, {{kCaller, 2}}), Trust::kChanged);
  EXPECT_EQ(Judged({{0, 1}}, {{kOther, 2}}), Trust::kStranger);
}

TEST(ZevctlListenerTest, TheListenerMustBeSeen) {
  EXPECT_EQ(Judged({}, {}), Trust::kNobody);
  EXPECT_EQ(Judge({}, Those({{0, 1}}), kOwner, kCaller), Trust::kUntold);
  EXPECT_EQ(Judge(Those({{0, 1}}), {}, kOwner, kCaller), Trust::kUntold);
}

// ---- The other end of a connection --------------------------------------------------------------

TEST(ZevctlListenerTest, DiagnosticsListConnections) {
  inet_diag_msg socket = SocketRecord(AF_INET, "127.0.0.1", 1000, 77, TCP_SYN_RECV);
  socket.id.idiag_dport = htons(40000);
  inet_pton(AF_INET, "127.0.0.2", socket.id.idiag_dst);
  std::string payload;
  Append(payload, socket);
  const std::string datagram =
      SocketMessage(AF_INET, "127.0.0.1", 0, 76) + Message(SOCK_DIAG_BY_FAMILY, payload);
  TcpSockets found;
  EXPECT_EQ(TakeDiagnostics(datagram, SocketKind::kConnected, found), DumpStep::kMore);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].bound.InWords(), "127.0.0.1 port 6500");
  EXPECT_EQ(found[0].remote.InWords(), "127.0.0.2 port 40000");
  EXPECT_EQ(found[0].uid, 1000U);
  EXPECT_EQ(found[0].inode, 77U);
}

TEST(ZevctlListenerTest, ProcListsConnections) {
  const std::string table = ProcTable({{"0100007F:1964", "00000000:0000", "0A", 1000, 5},
                                       {"0100007F:1964", "0200007F:9C40", "01", 1000, 6}});
  TcpSockets found;
  EXPECT_TRUE(TakeProcTable(table, false, SocketKind::kConnected, found));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].remote.InWords(), "127.0.0.2 port 40000");
  EXPECT_EQ(found[0].inode, 6U);
}

TEST(ZevctlListenerTest, ProcListsIpv4ThatAnIpv6SocketAccepted) {
  const std::string table = ProcTable({{"0000000000000000FFFF00000100007F:1964",
                                        "0000000000000000FFFF00000100007F:9C40", "01", 7, 9}});
  TcpSockets found;
  EXPECT_TRUE(TakeProcTable(table, true, SocketKind::kConnected, found));
  EXPECT_EQ(EndsOf(found, At("127.0.0.1"), At("127.0.0.1", 40000)).size(), 1U);
}

TEST(ZevctlListenerTest, AnEndMatchesBothAddressesAndBothPorts) {
  const Endpoint here = At("127.0.0.1");
  const Endpoint there = At("127.0.0.1", 40000);
  TcpSockets sockets;
  for (const auto& [bound, remote] :
       {std::pair(here, there), std::pair(there, here), std::pair(At("127.0.0.2"), there),
        std::pair(here, At("127.0.0.2", 40000)), std::pair(here, At("127.0.0.1", 40001)),
        std::pair(At("127.0.0.1", 6501), there)}) {
    sockets.push_back({bound, false, {}, 0, sockets.size(), remote});
  }
  const TcpSockets ends = EndsOf(sockets, here, there);
  ASSERT_EQ(ends.size(), 1U);
  EXPECT_EQ(ends[0].inode, 0U);
}

Trust PeersJudged(Trust listener, const std::vector<Seen>& peers,
                  std::optional<uid_t> station = kOwner) {
  return JudgePeers(listener, Those(peers), station, kCaller);
}

TEST(ZevctlListenerTest, TheOtherEndMustBeTheStations) {
  EXPECT_EQ(PeersJudged(Trust::kStation, {{0, 1}}), Trust::kStation);
  EXPECT_EQ(PeersJudged(Trust::kStation, {{kOwner, 1}}), Trust::kStation);
  EXPECT_EQ(PeersJudged(Trust::kStation, {{kOwner, 1}}, {}), Trust::kTaken);
  EXPECT_EQ(PeersJudged(Trust::kStation, {{kOther, 1}}), Trust::kTaken);
  EXPECT_EQ(PeersJudged(Trust::kStation, {{kCaller, 1}}), Trust::kTaken);
  EXPECT_EQ(PeersJudged(Trust::kStation, {{0, 1}, {kOther, 2}}), Trust::kTaken);
}

TEST(ZevctlListenerTest, TheOtherEndOfATunnelMayBeTheCallers) {
  EXPECT_EQ(PeersJudged(Trust::kOwn, {{kCaller, 1}}), Trust::kOwn);
  EXPECT_EQ(PeersJudged(Trust::kOwn, {{0, 1}}), Trust::kOwn);
  EXPECT_EQ(PeersJudged(Trust::kOwn, {{kOther, 1}}), Trust::kTaken);
}

TEST(ZevctlListenerTest, ASocketNotYetAcceptedIsTheListeners) {
  EXPECT_EQ(PeersJudged(Trust::kStation, {{0, 0}}), Trust::kStation);
  EXPECT_EQ(PeersJudged(Trust::kOwn, {{0, 0}}), Trust::kOwn);
  EXPECT_EQ(PeersJudged(Trust::kStation, {{0, 0}, {kOther, 1}}), Trust::kTaken);
  EXPECT_EQ(PeersJudged(Trust::kStation, {{0, 0}, {0, 1}}), Trust::kTaken);
}

TEST(ZevctlListenerTest, TheOtherEndMustBeSeen) {
  EXPECT_EQ(PeersJudged(Trust::kStation, {}), Trust::kUnseen);
  EXPECT_EQ(JudgePeers(Trust::kStation, {}, kOwner, kCaller), Trust::kUntold);
}

}  // namespace

}  // namespace zevctl
