// The life of the thread "user_conn".
//
// main starts it; it never ends. It makes a pass at least every 2 seconds: a connection request
// ends the wait in select(), and user_conn_waker does so when the ports are to be matched with the
// configuration again and when the thread is to park. At debug level 3 it looks round after every
// pause instead, once the time for that wait is used up (CheckForConnectionRequests()). It alone
// changes mapped_port_list, opens and closes the listening sockets and frees their records. It
// starts one detached serv_conn thread (serv_conn.h) for each accepted connection and waits until
// that thread is counted. It alone tells the service manager that the daemon is ready and alive
// (service_manager.h), so that its own standstill shows as well. When a port is dropped, it cancels
// the port's serv_conn threads. To look for mapped ports it takes acl_lock and icl_lock as a pair
// in that order, and inside it pending_logins_mutex, which it otherwise takes alone.
#include "user_conn.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <password_check.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

#include "audit.h"
#include "cancellation.h"
#include "clock.h"
#include "console.h"
#include "counters.h"
#include "descriptor_budget.h"
#include "error.h"
#include "fixed_text.h"
#include "list.h"
#include "lists.h"
#include "liveness.h"
#include "locks.h"
#include "mapped_port.h"
#include "options.h"
#include "serv_conn.h"
#include "service_manager.h"
#include "socket_watch.h"
#include "sockets.h"
#include "threads.h"
#include "user.h"
#include "user_conn_steps.h"
#include "waker.h"
#include "zev_signal.h"

namespace zevd {

namespace {

constexpr int kBacklog = 128;
constexpr timeval kSelectLimit = {2, 0};

bool ListensOn(uint16_t port) {
  return IsPortInMappedPortList(port, mapped_port_list);
}

void ConfigureMappedPorts(const ConsoleList& list) {
  for (const ConsoleNode* cnode : Nodes(list)) {
    if (cnode->mapped_port == 0 || ListensOn(cnode->mapped_port)) continue;
    if (ConfigurePort(cnode->mapped_port) != 0) {
      DEBUG_AS("GetPortsToListenOn", kInfo, "Cannot configure port for %s.\n", cnode->cname);
    }
  }
}

// Unlinking the port and cancelling its threads are one step under the mutex: a thread that finds
// its port gone can rely on being cancelled. The ids are valid, because a thread ends only after it
// has taken its own id out, under the same mutex.
void DropPort(MappedPortNode* mpnode) {
  constexpr char kFunction[] = "CleanUpStalePorts";
  const PendingLoginsGuard guard(kFunction);
  RemoveMappedPortFromList(mpnode, mapped_port_list);
  DEBUG_AS(kFunction, kInfo, "Port %d is no longer mapped to console\n", mpnode->port);
  DEBUG_AS(kFunction, kInfo, "Closing connection for mapped port %d\n", mpnode->port);
  ForgetSocket(*mapped_port_list, mpnode->sock);
  close(mpnode->sock);
  for (int i = 0; i < mpnode->pending_logins; ++i) CancelServiceThread(mpnode->thread_ids[i]);
  FreeMappedPortNode(mpnode);
}

DescriptorBudget descriptor_budget;
ReserveDescriptor reserve_descriptor;

// Each login in progress may start a password helper; those that wait for one have none yet.
DescriptorUse LookAtDescriptors() {
  constexpr int kMostHelpers = 2 * kHelpersAtOnce;  // of the daemon's dialogue and of the library
  constexpr int kDescriptorsOfHelper = 2;
  DescriptorUse use = {0, 0};
  if (security_enabled != 0) {
    int logins = 0;
    for (const MappedPortNode* mpnode : Nodes(*mapped_port_list)) logins += mpnode->pending_logins;
    use.wanted = std::min(logins, kMostHelpers) * kDescriptorsOfHelper;
  }
  use.open = CountDescriptors();
  return use;
}

Caller WhoCalls(const MappedPortNode* mpnode, const sockaddr_in& peer) {
  const bool from_station = peer.sin_addr.s_addr == htonl(INADDR_LOOPBACK);
  return from_station && mpnode->port == user_port ? Caller::kStation : Caller::kStranger;
}

void ServeConnection(int sock, const MappedPortNode* mpnode, const sockaddr_in& peer) {
  constexpr char kFunction[] = "AcceptConnectionRequests";
  char address[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
  DEBUG_AS(kFunction, kDetail, "Connection request from IP address \"%s\".\n", address);
  auto* params = new (std::nothrow) ServiceReqThreadParams{};
  if (params == nullptr) {
    ReportNoMemory(kFunction);
    RefuseConnection(sock);
    return;
  }
  params->sock = sock;
  params->port = mpnode->port;
  params->client_addr = peer;
  CopyText(params->ipaddr, address);
  if (!StartServiceThread(params)) {
    SetUserError(kOutOfMemory);
    RefuseConnection(sock);
    delete params;
  }
}

constexpr char kAccept[] = "AcceptConnectionRequests";

/// An error of accept() that costs no more than a try. Any other is a mistake of the daemon's own.
struct AcceptError {
  int error;
  int level;  // at which it is said
};

constexpr AcceptError kPassingErrors[] = {
    // Of a caller who has gone, or of the network (accept(2)).
    {EAGAIN, kDetail},
    {EINTR, kDetail},
    {ECONNABORTED, kInfo},
    {ECONNRESET, kInfo},
    {EPROTO, kInfo},
    {EPERM, kInfo},
    {ENOPROTOOPT, kInfo},
    {EOPNOTSUPP, kInfo},
    {ENETDOWN, kInfo},
    {ENETUNREACH, kInfo},
    {EHOSTDOWN, kInfo},
    {EHOSTUNREACH, kInfo},
    {ENONET, kInfo},
    {ETIMEDOUT, kInfo},
    // Of the system, which pass too: the caller waits meanwhile.
    {ENOMEM, kError},
    {ENOBUFS, kError},
};

// Returns the connection, or -1 with errno set. The listening sockets do not block, because the
// caller that ended the wait may have gone.
int Accept(const MappedPortNode* mpnode, sockaddr_in* peer) {
  socklen_t length = sizeof *peer;
  return accept4(mpnode->sock, reinterpret_cast<sockaddr*>(peer), &length, SOCK_CLOEXEC);
}

void AcceptFailed(int error) {
  for (const AcceptError& row : kPassingErrors) {
    if (row.error != error) continue;
    DEBUG_AS(kAccept, row.level, "accept() failed : %s\n", strerror(error));
    return;
  }
  DEBUG_AS(kAccept, kError, "accept() failed : %s\n", strerror(error));
  TERMINATE(kTerminated);
}

void RefuseForWantOfRoom(int sock) {
  SetUserError(kOutOfMemory);
  RefuseConnection(sock);
}

// All descriptors are in use, as `error` says. Takes the caller with the descriptor in reserve, and
// refuses it. When another thread is quicker to take that descriptor, the caller waits for a later
// pass.
void RefuseWithReserve(const MappedPortNode* mpnode, int error) {
  static Throttle report(kShortageReportInterval);  // this thread's own
  constexpr int kTries = 3;  // what the other thread opened may be closed again at once
  for (int i = 0; i < kTries && OutOfDescriptors(error); ++i) {
    if (!reserve_descriptor.Hold()) return;
    reserve_descriptor.Release();
    sockaddr_in peer{};
    const int sock = Accept(mpnode, &peer);
    error = errno;
    if (sock != -1) {
      PrepareRelaySocket(sock);
      RefuseForWantOfRoom(sock);
      reserve_descriptor.Hold();
      descriptor_budget.Forget();
      if (report.IsDue()) DEBUG_AS(kAccept, kError, "All descriptors are in use\n");
      return;
    }
    if (!reserve_descriptor.Hold()) return;
  }
  AcceptFailed(error);
}

void AcceptOn(const MappedPortNode* mpnode) {
  sockaddr_in peer{};
  const int sock = Accept(mpnode, &peer);
  if (sock == -1) {
    if (OutOfDescriptors(errno)) return RefuseWithReserve(mpnode, errno);
    return AcceptFailed(errno);
  }
  PrepareRelaySocket(sock);
  AskSilentPeer(sock);
  counters.connections.Add();
  if (mpnode->port != user_port && mpnode->pending_logins == max_pending_logins) {
    SetUserError(kTooManyPending);
    DEBUG_AS(kAccept, kInfo, "Reached max_pending_logins (%d)\n", max_pending_logins);
    RefuseConnection(sock);
    return;
  }
  if (!descriptor_budget.Admits(WhoCalls(mpnode, peer), LookAtDescriptors)) {
    RefuseForWantOfRoom(sock);
    return;
  }
  ServeConnection(sock, mpnode, peer);
}

// For whoever looks after the station: tools and operators have no way in.
void ReportMainPortUnavailable() {
  DEBUG_AS("GetPortsToListenOn", kError,
           "Nobody can connect through port %d. Another program may be listening there; the "
           "port is tried again at each reload.\n",
           user_port);
  Audit({"listen", "refused", nullptr, nullptr, nullptr,
         "Nobody can connect through the main port."});
}

// A daemon without its main port is ready, too: it logs, and consoles' own ports serve users.
void ReportMainPort() {
  char status[80];
  snprintf(status, sizeof status,
           ListensOn(user_port) ? "Serving users on port %d."
                                : "Nobody can connect through port %d; it is in use.",
           user_port);
  ReportToServiceManager(status);
}

}  // namespace

void* UserConnectionsThreadStart(void* /*unused*/) {
  RegisterThread("user_conn");
  ENTERING();
  BlockSignal(SIGTERM);
  reserve_descriptor.Hold();
  SetupMappedPorts();
  WaitForConnectionRequests();
}

void SetupMappedPorts() {
  ENTERING();
  // Cleared first, so that a refresh that is asked for meanwhile is done in the next pass and not
  // forgotten.
  refresh_mapped_ports = 0;
  const ListBatch batch(*mapped_port_list);
  CleanUpStalePorts();
  GetPortsToListenOn();
  descriptor_budget.Forget();
  ReportMainPort();
}

int GetPortsToListenOn() {
  ENTERING();
  if (!ListensOn(user_port) && ConfigurePort(user_port) != 0) {
    zev_debug(kInfo, "%s: Cannot configure main port %d.\n", __func__, user_port);
    ReportMainPortUnavailable();
  }
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  ConfigureMappedPorts(*i_cons_list);
  ConfigureMappedPorts(*a_cons_list);
  return 0;
}

int ConfigurePort(uint16_t port) {
  ENTERING();
  const int sock = ListenOnPort(port);
  if (sock == -1) {
    zev_debug(kError, "%s: Cannot listen on port %d.\n", __func__, port);
    return -1;
  }
  MappedPortNode* mpnode = NewMappedPortNode(sock, port);
  if (mpnode == nullptr) {
    zev_debug(kInfo, "%s: NewMappedPortNode() failed.\n", __func__);
    close(sock);
    return -1;
  }
  const PendingLoginsGuard guard(__func__);
  if (AddMappedPortToList(mpnode, mapped_port_list) != 0) {
    // Not on the list, the port is tried again at the next refresh.
    close(sock);
    FreeMappedPortNode(mpnode);
  }
  return 0;
}

void CleanUpStalePorts() {
  ENTERING();
  for (MappedPortNode* mpnode : Nodes(*mapped_port_list)) {
    if (mpnode->port == user_port || GetConsoleNodeFromMappedPort(mpnode->port) != nullptr)
      continue;
    DropPort(mpnode);
  }
}

int ListenOnPort(uint16_t port) {
  ENTERING();
  const int passed = DuplicatePassedSocket(port);
  if (passed != -1) {
    zev_debug(kError, "%s: bind() to port %d succeeded\n", __func__, port);
    return passed;
  }
  const int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  if (sock == -1) {
    zev_debug(kError, "%s: socket() failed : %s\n", __func__, strerror(errno));
    return -1;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(port);
  SetSocketFlag(sock, SOL_SOCKET, SO_REUSEADDR);
  if (bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    zev_debug(kError, "%s: bind() failed : %s\n", __func__, strerror(errno));
    zev_debug(kError, "%s: Could not bind to port %d\n", __func__, port);
    close(sock);
    return -1;
  }
  zev_debug(kError, "%s: bind() to port %d succeeded\n", __func__, port);
  if (listen(sock, kBacklog) != 0) {
    // Another process was quicker to listen on the same address; accepting here would fail for
    // ever.
    zev_debug(kError, "%s: listen() failed : %s\n", __func__, strerror(errno));
    close(sock);
    return -1;
  }
  return sock;
}

void WaitForConnectionRequests() {
  ENTERING();
  DescriptorSet fdset;
  for (;;) {
    ParkIfAsked(kPauseUserConn);
    usleep(kPassPause);
    reserve_descriptor.Hold();  // again, if another thread took it before
    if (refresh_mapped_ports != 0) SetupMappedPorts();
    ServeServiceManager();
    const int high_sock = mapped_port_list->high_sock;
    if (!fdset.CopyFrom(mapped_port_list->fdset)) {
      ReportOutOfMemory(__func__);
      continue;
    }
    if (CheckForConnectionRequests(high_sock, &fdset) == 1) AcceptConnectionRequests(&fdset);
  }
}

int CheckForConnectionRequests(int high_sock, DescriptorSet* fdset) {
  ENTERING();
  // Kept at level 3: select() leaves the unslept time here and nothing resets it: once a wait has
  // run out, every later one only looks, and the pause of the loop alone paces the thread.
  static timeval rest = kSelectLimit;
  zev_debug(kTrace, "%s: Calling select( %d + 1, fdset, 0, 0, (%d,%d))\n", __func__, high_sock,
            static_cast<int>(rest.tv_sec), static_cast<int>(rest.tv_usec));
  timeval timeout = kSelectLimit;
  SocketWatch* const watch = WatchOf(mapped_port_list);
  const int ready = debug_level >= kTrace
                        ? WaitForMembers(high_sock, *fdset, &rest, watch)
                        : WaitForMembers(high_sock, *fdset, user_conn_waker, &timeout, watch);
  if (ready < 0) {
    zev_debug(kError, "%s: select() failed : %s\n", __func__, strerror(errno));
    TERMINATE(kTerminated);
  }
  return ready > 0 ? 1 : 0;
}

void AcceptConnectionRequests(const DescriptorSet* fdset) {
  ENTERING();
  ForEachReady(*mapped_port_list, *fdset, AcceptOn);
}

}  // namespace zevd
