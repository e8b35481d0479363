// The console record and its lists, and the life of the thread "cons_conn".
//
// main starts the thread; it never ends. Nothing wakes it: it makes a pass every 500 microseconds,
// parks when the console output monitor asks for it, and takes icl_lock alone for each of its three
// steps. A console that became connected is moved under icl_lock and acl_lock, and belongs to the
// console output monitor from then on. This thread frees deleted consoles of i_cons_list.
#include "cons_conn.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "cons_mon.h"
#include "counters.h"
#include "descriptor_budget.h"
#include "error.h"
#include "log.h"
#include "user_conn.h"
#include "util.h"
#include "waker.h"
#include "zev.h"
#include "zev_signal.h"

// ---- Records and lists --------------------------------------------------------------------------

namespace {

void TraceNewConsole(const ConsoleSettings& settings) {
  zev_debug(kTrace, "\tcons_name = \"%s\".\n", settings.cons_name);
  zev_debug(kTrace, "\tplat_name = \"%s\".\n", settings.plat_name);
  zev_debug(kTrace, "\tipaddr    = \"%s\".\n", settings.ipaddr);
  zev_debug(kTrace, "\tcons_port = \"%d\".\n", settings.cons_port);
  zev_debug(kTrace, "\tmgmt_port = \"%d\".\n", settings.mgmt_port);
  zev_debug(kTrace, "\tlogging   = \"%d\".\n", settings.logging);
  zev_debug(kTrace, "\tevents    = \"%d\".\n", settings.events);
}

void FillConsole(ConsoleNode* cnode, const ConsoleSettings& settings) {
  CopyText(cnode->cname, settings.cons_name);
  CopyText(cnode->pname, settings.plat_name);
  CopyText(cnode->ipaddr, settings.ipaddr);
  CopyText(cnode->model, settings.model);
  cnode->cons_port = settings.cons_port;
  cnode->mgmt_port = settings.mgmt_port;
  cnode->mapped_port = settings.mapped_port;
  cnode->logging = settings.logging;
  cnode->events = settings.events;
  cnode->enable = settings.enable;
  cnode->auth = settings.auth;
  cnode->enode = settings.enode;
  cnode->sock = -1;
  cnode->log_fd = -1;
  cnode->status = kNotConnected;
}

// The user list and the replay ring. False when out of memory; what was made is freed with the
// node.
bool AllocateParts(ConsoleNode* cnode) {
  cnode->user_list = new (std::nothrow) UserList;
  if (cnode->user_list == nullptr) return false;
  cnode->user_list->list_name = "console's user list";
  if (cons_buf_size == 0) return true;
  cnode->cons_buf.buf = new (std::nothrow) char[static_cast<size_t>(cons_buf_size)];
  if (cnode->cons_buf.buf == nullptr) return false;
  cnode->cons_buf.buf[0] = '\0';
  return true;
}

bool Meets(const ConsoleNode& cnode, MoveCriterion criterion) {
  switch (criterion) {
    case MoveCriterion::kConnected:
      return cnode.status == kConnected;
    case MoveCriterion::kNotConnected:
      // One that was marked closed since the clean-up still has its socket and its users: it is
      // cleaned up, and moved, in the next pass.
      return cnode.status != kConnected && cnode.sock == -1;
    case MoveCriterion::kAll:
      return true;
  }
  return false;
}

void DeleteConsole(ConsoleNode* cnode, ConsoleList* list) {
  zev_debug(kInfo, "%s: Console %s is being deleted.\n", "DeleteMarkedConsoles", cnode->cname);
  if (cnode->sock != -1) {
    ForgetSocket(*list, cnode->sock);
    close(cnode->sock);
    cnode->sock = -1;
  }
  CloseLogFile(cnode);
  RemoveConsoleFromList(cnode, list);
  // When the ports were looked at after the reload, the console was still on its list.
  if (cnode->mapped_port != 0) RefreshMappedPorts();
  FreeConsoleNode(cnode);
}

// For a console that found no room on its list: the next reload makes a new record of it. Nobody
// would close what this one has open.
void AbandonConsole(ConsoleNode* cnode) {
  cnode->status = kNotConnected;
  if (cnode->sock != -1) close(cnode->sock.exchange(-1));
  CloseLogFile(cnode);
  if (cnode->ref_count == 0) FreeConsoleNode(cnode);  // else users who leave still point at it
}

}  // namespace

ConsoleNode* NewConsoleNode(const ConsoleSettings& settings) {
  zev_debug(kInfo, "Entering %s\n", __func__);  // the one entry line at level 1
  TraceNewConsole(settings);
  auto* cnode = new (std::nothrow) ConsoleNode{};
  if (cnode == nullptr || !AllocateParts(cnode)) {
    ReportOutOfMemory(__func__);
    if (cnode != nullptr) FreeConsoleNode(cnode);
    return nullptr;
  }
  FillConsole(cnode, settings);
  return cnode;
}

void FreeConsoleNode(ConsoleNode* cnode) {
  ENTERING();
  if (cnode->user_list != nullptr) {
    DropElements(*cnode->user_list);
    delete cnode->user_list;
  }
  delete[] cnode->cons_buf.buf;
  delete cnode;
}

ConsoleListElem* NewConsoleListElem(ConsoleNode* cnode) {
  ENTERING();
  ConsoleListElem* elem = NewElement<ConsoleList>(cnode);
  if (elem == nullptr) ReportOutOfMemory(__func__);
  return elem;
}

ConsoleList* NewConsoleList(const char* list_name) {
  ENTERING();
  auto* list = new (std::nothrow) ConsoleList;
  if (list == nullptr) {
    ReportOutOfMemory(__func__);
    return nullptr;
  }
  InitConsoleList(list, list_name);
  if (list->list_name == nullptr) {
    delete list;
    return nullptr;
  }
  return list;
}

void InitConsoleList(ConsoleList* list, const char* list_name) {
  ENTERING();
  InitList(*list, list_name);
}

void EmptyConsoleList(ConsoleList* list) {
  ENTERING();
  const ListBatch batch(*list);
  for (ConsoleNode* cnode : Nodes(*list)) {
    RemoveConsoleFromList(cnode, list);
    FreeConsoleNode(cnode);
  }
}

void FreeConsoleList(ConsoleList* list) {
  ENTERING();
  if (list->head != nullptr) EmptyConsoleList(list);
  FreeListRecord(list);
}

int AddConsoleToList(ConsoleNode* cnode, ConsoleList* list) {
  ENTERING();
  ConsoleListElem* elem = nullptr;
  if (ReserveFor(*list, cnode)) {
    elem = NewConsoleListElem(cnode);
  } else {
    ReportOutOfMemory(__func__);
  }
  if (elem == nullptr) {
    zev_debug(kError, "%s: NewConsoleListElem() failed.\n", __func__);
    return -1;
  }
  LinkAtTail(*list, elem);
  zev_debug(kTrace, "%s: Added console %s to %s.\n", __func__, cnode->cname, list->list_name);
  Recompute(*list);
  return 0;
}

int RemoveConsoleFromList(ConsoleNode* cnode, ConsoleList* list) {
  ENTERING();
  ConsoleListElem* elem = FindElement(*list, cnode);
  if (elem == nullptr) {
    zev_debug(kError, "%s: cnode not found in cons_list\n", __func__);
    TERMINATE(kInternalError);
  }
  Unlink(*list, elem);
  zev_debug(kTrace, "%s: Removed console %s from %s.\n", __func__, cnode->cname, list->list_name);
  if (list->count < 0) {
    zev_debug(kError, "%s: cons_list->count = %d\n", __func__, list->count);
    TERMINATE(kInternalError);
  }
  zev_debug(kTrace, "%s: Doing FD_CLR( %d, ...) for console %s on %s\n", __func__,
            cnode->sock.load(), cnode->cname, list->list_name);
  Recompute(*list);
  return 0;
}

ConsoleNode* LocateConsoleInList(const char* name, const ConsoleList* list) {
  ENTERING();
  return FindNode(*list, [&](const ConsoleNode& cnode) { return strcmp(cnode.cname, name) == 0; });
}

void MoveConsolesToList(ConsoleList* from_list, ConsoleList* to_list, MoveCriterion criterion) {
  ENTERING();
  const ListBatch leaving(*from_list);
  const ListBatch joining(*to_list);
  for (ConsoleNode* cnode : Nodes(*from_list)) {
    if (!Meets(*cnode, criterion)) continue;
    if (RemoveConsoleFromList(cnode, from_list) != 0) {
      zev_debug(kError, "%s: RemoveConsoleFromList() failed.\n", __func__);
      return;
    }
    if (AddConsoleToList(cnode, to_list) != 0) {
      zev_debug(kError, "%s: AddConsoleToList() failed.\n", __func__);
      AbandonConsole(cnode);
      return;
    }
  }
}

void DeleteMarkedConsoles(ConsoleList* list) {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*list)) {
    if (cnode->deleted != 1) continue;
    if (cnode->user_list->head != nullptr) {
      zev_debug(kInfo, "%s: Disconnecting users from %s.\n", __func__, cnode->cname);
      SendMsgToUsers(cnode, "Console has been deleted.");
      CloseUserConnections(cnode, "The console was deleted.");
    } else if (cnode->ref_count > 0) {
      zev_debug(kInfo, "%s: Console %s has ref_count=%d. Cannot delete yet.\n", __func__,
                cnode->cname, cnode->ref_count.load());
      return;
    } else {
      DeleteConsole(cnode, list);
    }
  }
}

void DumpConsoles(const ConsoleList* list) {
  ENTERING();
  zev_debug(kError, "Dumping \"%s\"...\n", list->list_name);
  for (const ConsoleNode* cnode : Nodes(*list)) {
    zev_debug(kError, "name           = %s\n", cnode->cname);
    zev_debug(kError, "addr           = %s\n", cnode->ipaddr);
    zev_debug(kError, "cons_port      = %d\n", cnode->cons_port);
    zev_debug(kError, "mgmt_port      = %d\n", cnode->mgmt_port);
    zev_debug(kError, "logging        = %d\n", cnode->logging);
    zev_debug(kError, "events         = %d\n", cnode->events);
    zev_debug(kError, "enable         = %d\n", cnode->enable.load());
    zev_debug(kError, "deleted        = %d\n", cnode->deleted);
    zev_debug(kError, "sock           = %d\n", cnode->sock.load());
    zev_debug(kError, "log_fd         = %d\n", cnode->log_fd);
    zev_debug(kError, "status         = %d\n", cnode->status.load());
    zev_debug(kError, "ref_count      = %d\n", cnode->ref_count.load());
    zev_debug(kError, "lfca_time      = %ld\n", cnode->lfca_time);
    zev_debug(kError, "lsca_time      = %ld\n", cnode->lsca_time);
    zev_debug(kError, "telnet_cmd     = %s\n", cnode->telnet_cmd);
    zev_debug(kError, "-----------------------------------------\n\n");
  }
}

// ---- Look-up by mapped port ---------------------------------------------------------------------

namespace {

constexpr char kLookUp[] = "GetConsoleNodeFromMappedPort";

ConsoleNode* FindByMappedPort(uint16_t port) REQUIRES(acl_lock, icl_lock) {
  const auto has_port = [&](const ConsoleNode& cnode) { return cnode.mapped_port == port; };
  ConsoleNode* cnode = FindNode(*i_cons_list, has_port);
  return cnode != nullptr ? cnode : FindNode(*a_cons_list, has_port);
}

}  // namespace

ConsoleNode* GetConsoleNodeFromMappedPort(uint16_t port) {
  ENTERING();
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  return FindByMappedPort(port);
}

bool CopyMappedConsole(uint16_t port, MappedConsole* copy) {
  zev_debug(kTrace, "Entering %s\n", kLookUp);
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, CallSite{kLookUp, __LINE__});
  const ConsoleNode* cnode = FindByMappedPort(port);
  if (cnode == nullptr) return false;
  CopyText(copy->cname, cnode->cname);
  copy->status = cnode->status;
  copy->auth = cnode->auth;
  copy->locked_exclusively = IsLockedExclusively(cnode);
  return true;
}

// ---- The connection thread ----------------------------------------------------------------------

namespace {

constexpr useconds_t kPassPause = 500;  // microseconds
constexpr time_t kRetryInterval = 60;   // seconds since the last failure
constexpr time_t kPelloxGrace = 2;      // seconds in which a management port may still refuse
constexpr timeval kStatusWait = {0, 100};
constexpr size_t kPeekSize = 300;
constexpr char kRefusalStart[] = "~NET-E-";
constexpr char kRefusalText[] = "Session is already open";
constexpr char kTakeOver[] = "YES\n";

// Nobody may find the number of a socket that is closed already.
void CloseSocket(ConsoleNode* cnode) {
  close(cnode->sock.exchange(-1));
}

// Starts the connection in the background; the socket is blocking again afterwards.
void StartConnect(ConsoleNode* cnode) {
  const int sock = cnode->sock;
  const int flags = fcntl(sock, F_GETFL);
  fcntl(sock, F_SETFL, flags | O_NONBLOCK);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(cnode->cons_port);
  address.sin_addr.s_addr = inet_addr(cnode->ipaddr);
  zev_debug(kInfo, "%s: Attempting to connect to %s (%s/%d).\n", "ConnectToConsole", cnode->cname,
            cnode->ipaddr, cnode->cons_port);
  cnode->lsca_time = 0;
  const int result = connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address);
  if (result != 0 && errno != EINPROGRESS) {
    counters.console_failures.Add();
    // Neither lfca_time nor status changes: an error that comes at once is tried again at once.
    zev_debug(kInfo, "%s: connect() failed : %s\n", "ConnectToConsole", strerror(errno));
    CloseSocket(cnode);
    return;
  }
  fcntl(sock, F_SETFL, flags);
}

// The log is open when the console was disabled after it had become connected and before it was
// moved.
void AbandonConnection(ConsoleNode* cnode, int status, time_t failed_at) {
  if (cnode->log_fd != -1) CloseLogFile(cnode);
  CloseSocket(cnode);
  cnode->status = status;
  cnode->lfca_time = failed_at;
  cnode->lsca_time = 0;
}

/// Which connections in progress have anything to report, asked of the system in one call for all
/// of them: a wait of its own for every dead host would keep icl_lock from everybody else.
class ProgressPoll {
 public:
  explicit ProgressPoll(const ConsoleList& list) {
    // Without memory for the question every console is asked on its own.
    try {
      for (const ConsoleNode* cnode : Nodes(list)) {
        if (cnode->sock != -1) sockets_.push_back({cnode->sock, POLLIN | POLLOUT, 0});
      }
      asked_ = poll(sockets_.data(), sockets_.size(), 0) >= 0;
    } catch (const std::bad_alloc&) {
      asked_ = false;
    }
  }

  /// Answers for the next console with a socket, in list order.
  bool NextHasNews() {
    if (!asked_) return true;
    return sockets_[next_++].revents != 0;
  }

 private:
  std::vector<pollfd> sockets_;
  size_t next_ = 0;
  bool asked_ = false;
};

void TraceStatusCheck(const ConsoleNode* cnode) {
  zev_debug(kTrace, "Entering %s\n", "CheckConnectionStatus");
  zev_debug(kTrace, "%s: Checking status for \"%s\" (sock=%d).\n", "CheckConnectionStatus",
            cnode->cname, cnode->sock.load());
}

// True while a management port may still answer an established connection with a refusal.
bool InGracePeriod(ConsoleNode* cnode) {
  if (cnode->check_for_NET_E_msg == 0) return false;
  const time_t now = time(nullptr);
  if (cnode->lsca_time == 0) {
    cnode->lsca_time = now;
    return true;
  }
  return now - cnode->lsca_time < kPelloxGrace;
}

// True when the console became connected.
bool ApplyConnectionStatus(ConsoleNode* cnode, int result) {
  constexpr char kFunction[] = "UpdateConnectionStatus";
  if (cnode->enable == 0) {
    zev_debug(kInfo, "%s: Console %s was disabled.\n", kFunction, cnode->cname);
    AbandonConnection(cnode, kNotConnected, 0);
    return false;
  }
  switch (result) {
    case kConnected:
      if (InGracePeriod(cnode)) return false;
      zev_debug(kInfo, "%s: Connected to %s (%s/%d).\n", kFunction, cnode->cname, cnode->ipaddr,
                cnode->cons_port);
      cnode->status = kConnected;
      counters.console_connections.Add();
      if (cnode->log_fd == -1) OpenLogFile(cnode);
      DrainTelnetControlSequence(cnode->sock, cnode->telnet_cmd, sizeof cnode->telnet_cmd);
      return true;
    case kNotConnected:
      zev_debug(kInfo, "%s: Connection to %s (%s/%d) failed.\n", kFunction, cnode->cname,
                cnode->ipaddr, cnode->cons_port);
      counters.console_failures.Add();
      AbandonConnection(cnode, kNotConnected, time(nullptr));
      return false;
    case kRefused:
      zev_debug(kInfo, "%s: Connection to %s (%s/%d) refused.\n", kFunction, cnode->cname,
                cnode->ipaddr, cnode->cons_port);
      counters.console_failures.Add();
      AbandonConnection(cnode, kRefused, time(nullptr));
      return false;
    case kInProgress:
      cnode->status = kInProgress;
      return false;
    default:
      zev_debug(kError, "%s: Unknown status returned for %s.\n", kFunction, cnode->cname);
      TERMINATE(kInternalError);
  }
}

// Another client holds the management port's session. Takes it over when an operator asked for it.
int HandleRefusal(ConsoleNode* cnode, char* text) {
  constexpr char kFunction[] = "CheckConnectionStatus";
  cnode->check_for_NET_E_msg = 0;
  CopyText(cnode->pellox_port_holder_ipaddr, GetPortHolderIPAddr(text));
  if (cnode->force == 0) return kRefused;
  zev_debug(kInfo, "%s: Forcing connection for %s\n", kFunction, cnode->cname);
  cnode->force = 0;
  if (send(cnode->sock, kTakeOver, strlen(kTakeOver), 0) < 0) {
    zev_debug(kError, "%s: send() failed : %s\n", kFunction, strerror(errno));
    return kRefused;
  }
  return kConnected;
}

// What a socket that is both writable and readable has to say; nothing is consumed.
int ExamineFirstData(ConsoleNode* cnode) {
  char text[kPeekSize];
  const ssize_t count = recv(cnode->sock, text, sizeof text, MSG_PEEK);
  if (count < 0) {
    if (errno == EINPROGRESS) return kInProgress;
    return errno == ECONNREFUSED ? kRefused : kNotConnected;
  }
  text[std::min(static_cast<size_t>(count), sizeof text - 1)] = '\0';
  return GotErrorMessage(text) ? HandleRefusal(cnode, text) : kConnected;
}

AttemptBudget attempt_budget;

bool IsDue(const ConsoleNode& cnode) {
  return cnode.sock == -1 && time(nullptr) - cnode.lfca_time >= kRetryInterval;
}

// Every console that is being connected wants a log as soon as it is.
DescriptorUse LookAtDescriptors() REQUIRES(icl_lock) {
  DescriptorUse use = {CountDescriptors(), 0};
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (cnode->sock != -1 && cnode->log_fd == -1) ++use.wanted;
  }
  return use;
}

// True when there is no descriptor beyond the one in reserve.
bool OutOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE;
}

void MoveConnectedConsoles() {
  {
    const WriteLockPair lock(icl_lock, acl_lock, Release::kSecondFirst,
                             CallSite{"ConsoleConnectionsThreadStart", __LINE__});
    MoveConsolesToList(i_cons_list, a_cons_list, MoveCriterion::kConnected);
  }
  cons_mon_waker.Wake();
}

}  // namespace

void* ConsoleConnectionsThreadStart(void* /*unused*/) {
  RegisterThread("cons_conn");
  ENTERING();
  BlockSignal(SIGTERM);
  ShareWakeUps();
  for (;;) {
    ParkIfAsked(kPauseConsConn);
    usleep(kPassPause);
    {
      const WriteLock lock(icl_lock, HERE);
      DeleteMarkedConsoles(i_cons_list);
    }
    {
      const WriteLock lock(icl_lock, HERE);
      ConnectToConsoles();
    }
    int new_connections = 0;
    {
      const WriteLock lock(icl_lock, HERE);
      new_connections = UpdateConnectionStatus();
    }
    if (new_connections != 0) MoveConnectedConsoles();
  }
}

void ConnectToConsoles() {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (cnode->enable == 0) continue;
    if (IsDue(*cnode) && !attempt_budget.Admits(LookAtDescriptors)) continue;
    ConnectToConsole(cnode, 1);
  }
}

void ConnectToConsole(ConsoleNode* cnode, int keep_alive) {
  ENTERING();
  if (!IsDue(*cnode)) return;
  cnode->check_for_NET_E_msg = IsPellox(cnode->model, &model_list);
  cnode->sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (cnode->sock == -1) {
    const int error = errno;
    if (OutOfDescriptors(error)) {
      attempt_budget.Exhausted(error);
      return;  // tried again in a later pass
    }
    zev_debug(kError, "ConnectToConsole: socket() failed: %s\n", strerror(error));
    EXIT_PROCESS(1);
  }
  if (keep_alive != 0) SetSocketFlag(cnode->sock, SOL_SOCKET, SO_KEEPALIVE);
  PrepareRelaySocket(cnode->sock);
  StartConnect(cnode);
}

int UpdateConnectionStatus() {
  ENTERING();
  ProgressPoll progress(*i_cons_list);
  int connected = 0;
  for (ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (cnode->sock == -1) continue;
    int result = kInProgress;
    if (progress.NextHasNews()) {
      result = CheckConnectionStatus(cnode);
    } else {
      TraceStatusCheck(cnode);
    }
    if (ApplyConnectionStatus(cnode, result)) connected = 1;
  }
  return connected;
}

int CheckConnectionStatus(ConsoleNode* cnode) {
  TraceStatusCheck(cnode);
  const int sock = cnode->sock;
  if (sock == -1) return kNotConnected;
  DescriptorSet readable;
  DescriptorSet writable;
  timeval wait = kStatusWait;
  if (!readable.Add(sock) || !writable.Add(sock)) return kInProgress;  // asked again next pass
  const int ready = select(sock + 1, readable.Native(), writable.Native(), nullptr, &wait);
  if (ready < 0) {
    zev_debug(kInfo, "%s: select() failed : %s\n", __func__, strerror(errno));
    return kNotConnected;
  }
  if (ready == 0) return kInProgress;
  if (!writable.Contains(sock)) return kNotConnected;
  if (!readable.Contains(sock)) return kConnected;
  return ExamineFirstData(cnode);
}

bool GotErrorMessage(char* buf) {
  ENTERING();
  char* rest = nullptr;
  for (const char* line = strtok_r(buf, "\r\n", &rest); line != nullptr;
       line = strtok_r(nullptr, "\r\n", &rest)) {
    if (strncmp(line, kRefusalStart, strlen(kRefusalStart)) == 0 &&
        strstr(line, kRefusalText) != nullptr) {
      return true;
    }
  }
  return false;
}

const char* GetPortHolderIPAddr(char* buf) {
  ENTERING();
  constexpr int kWordsBefore = 10;
  char* rest = buf;
  for (int i = 0; i < kWordsBefore; ++i) {
    if (strtok_r(nullptr, " ", &rest) == nullptr) return "";
  }
  rest += strspn(rest, " ");
  rest[strcspn(rest, ",")] = '\0';
  return rest;
}
