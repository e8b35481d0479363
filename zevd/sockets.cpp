#include "sockets.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "error.h"
#include "user_output.h"

namespace zevd {

namespace {

// The longest wait for a peer, of the few sends that wait at all.
constexpr timeval kSendLimit = {0, 200000};
constexpr int kSendBuffer = 256 * 1024;

constexpr unsigned char kOffers[][3] = {{255, 251, 1}, {255, 251, 3}};  // IAC WILL ECHO, ... SGA

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

bool SetTelnetOptions(UserOutput* output) {
  ENTERING();
  for (const auto& offer : kOffers) {
    if (!output->Send(reinterpret_cast<const char*>(offer), sizeof offer)) return false;
  }
  return true;
}

}  // namespace zevd
