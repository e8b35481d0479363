#include "sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "error.h"
#include "telnet_bytes.h"
#include "user_output.h"

namespace zevd {

namespace {

// The longest wait for a peer, of the few sends that wait at all.
constexpr timeval kSendLimit = {0, 200000};
constexpr int kSendBuffer = 256 * 1024;

// ECHO and SUPPRESS-GO-AHEAD.
constexpr unsigned char kOffers[][3] = {{telnet::kIac, telnet::kWill, 1},
                                        {telnet::kIac, telnet::kWill, 3}};

}  // namespace

void SetSocketFlag(int sock, int level, int option) {
  const int on = 1;
  setsockopt(sock, level, option, &on, sizeof on);
}

void PrepareRelaySocket(int sock) {
  SetSocketFlag(sock, IPPROTO_TCP, TCP_NODELAY);
  setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof kSendLimit);
  setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
}

void SetTelnetOptions(int sock) {
  ENTERING();
  for (const auto& offer : kOffers) send(sock, offer, sizeof offer, 0);
}

void SetTelnetOptions(UserOutput* output) {
  ENTERING();
  for (const auto& offer : kOffers) {
    static_cast<void>(output->Send(reinterpret_cast<const char*>(offer), sizeof offer));
  }
}

}  // namespace zevd
