/* Loaded into the daemon before the C library: makes the kernel report that nothing was heard for a
   long time from the peers whose ports a file names. The file may change at any time. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

struct silence {
  _Atomic uint32_t milliseconds; /* to be added to how long it is since the peer was heard of */
  _Atomic uint32_t ports[8];     /* of the peers concerned; 0 for none */
};

static struct silence nobody;
static struct silence *wanted = &nobody;

__attribute__((constructor)) static void map_silence(void) {
  const char *path = getenv("SILENT_PEERS");
  const int fd = path == NULL ? -1 : open(path, O_RDONLY | O_CLOEXEC);
  void *mapped = mmap(NULL, sizeof *wanted, PROT_READ, MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED) abort();
  close(fd);
  wanted = mapped;
}

static int is_silent(int sock) {
  struct sockaddr_in peer = {0};
  socklen_t size = sizeof peer;
  if (getpeername(sock, (struct sockaddr *)&peer, &size) != 0) return 0;
  if (peer.sin_family != AF_INET) return 0;
  for (size_t i = 0; i < sizeof wanted->ports / sizeof wanted->ports[0]; ++i) {
    if (atomic_load(&wanted->ports[i]) == ntohs(peer.sin_port)) return 1;
  }
  return 0;
}

int getsockopt(int sock, int level, int option, void *restrict value, socklen_t *restrict size) {
  const int result = (int)syscall(SYS_getsockopt, sock, level, option, value, size);
  if (result != 0 || level != IPPROTO_TCP || option != TCP_INFO || !is_silent(sock)) return result;
  struct tcp_info *info = value;
  info->tcpi_last_ack_recv += atomic_load(&wanted->milliseconds);
  info->tcpi_last_data_recv += atomic_load(&wanted->milliseconds);
  return result;
}
