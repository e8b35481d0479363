#include "liveness.h"

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>

#include "sockets.h"

namespace zevd {

namespace {

/// What a socket's keep-alive is set to.
struct KeepAliveRow {
  int option;
  int value;
};

constexpr KeepAliveRow kKeepAlive[] = {
    {TCP_KEEPIDLE, 60},   // seconds of silence before the first probe
    {TCP_KEEPINTVL, 10},  // seconds between probes
    {TCP_KEEPCNT, 6},     // probes
};

constexpr uint32_t kLongestSilence = 300'000;  // milliseconds

}  // namespace

void AskSilentPeer(int sock) {
  for (const KeepAliveRow& row : kKeepAlive) {
    setsockopt(sock, IPPROTO_TCP, row.option, &row.value, sizeof row.value);
  }
  SetSocketFlag(sock, SOL_SOCKET, SO_KEEPALIVE);
}

bool IsGone(const PeerSigns& signs) {
  // A peer that only sends acknowledges nothing new, and its segments are not counted as
  // acknowledgements.
  return signs.waiting > 0 && std::min(signs.since_ack, signs.since_data) >= kLongestSilence;
}

bool HasVanished(int sock) {
  PeerSigns signs{};
  // Most sockets have nothing waiting and cost one call.
  if (ioctl(sock, SIOCOUTQ, &signs.waiting) != 0 || signs.waiting == 0) return false;
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return false;
  signs.since_ack = info.tcpi_last_ack_recv;
  signs.since_data = info.tcpi_last_data_recv;
  return IsGone(signs);
}

}  // namespace zevd
