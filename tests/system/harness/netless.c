/* Keeps a program from learning who listens, and holds it still where it connects.
 *
*   HIDE_NETLINK  no netlink socket can be made
 *   HIDE_PROC     the tables of /proc/net cannot be opened
 *   GATE          a directory: before a connection over IPv4 is begun, the file "reached" is made
 *                 there, and the file "open" is waited for
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define NEXT(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

int socket(int domain, int type, int protocol) {
  if (domain == AF_NETLINK && getenv("HIDE_NETLINK") != NULL) {
    errno = EPROTONOSUPPORT;
    return -1;
  }
  return NEXT(socket)(domain, type, protocol);
}

static int is_hidden(const char *path) {
  return getenv("HIDE_PROC") != NULL && strncmp(path, "/proc/net/", strlen("/proc/net/")) == 0;
}

FILE *fopen(const char *path, const char *mode) {
  if (!is_hidden(path)) return NEXT(fopen)(path, mode);
  errno = EACCES;
  return NULL;
}

FILE *fopen64(const char *path, const char *mode) { return fopen(path, mode); }

static void pass(const char *gate) {
  char path[4096];
  snprintf(path, sizeof path, "%s/reached", gate);
  close(open(path, O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  snprintf(path, sizeof path, "%s/open", gate);
  while (access(path, F_OK) != 0) poll(NULL, 0, 1);
}

int connect(int fd, const struct sockaddr *address, socklen_t size) {
  const char *gate = getenv("GATE");
  if (gate != NULL && address->sa_family == AF_INET) pass(gate);
  return NEXT(connect)(fd, address, size);
}
