#include "stall.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "clock.h"

namespace zevd {

namespace {

// Bytes that the peer has acknowledged since the connection began; 0 when the kernel cannot tell.
// The number of unsent bytes would not do: another sender may fill at once the room that the peer
// has made.
uint64_t BytesTaken(int sock) {
  tcp_info info{};
  socklen_t size = sizeof info;
  return getsockopt(sock, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 ? info.tcpi_bytes_acked : 0;
}

}  // namespace

bool Stall::IsTooLong(int sock, const StallLimits& limits) {
  const int64_t now = MonotonicMilliseconds();
  const uint64_t taken = BytesTaken(sock);
  if (since_ < 0) {
    since_ = now;
    last_progress_ = now;
  } else if (taken != taken_) {
    last_progress_ = now;
  }
  taken_ = taken;
  return now - last_progress_ >= limits.idle || now - since_ >= limits.no_room;
}

}  // namespace zevd
