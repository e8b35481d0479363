// The life of the thread "user_conn", of the "serv_conn" threads, and the records of users.
//
// main starts user_conn; it never ends and nothing wakes it. It owns mapped_port_list, starts one
// detached serv_conn thread for each accepted connection and waits until that thread is counted.
// When a port is dropped, it cancels the port's serv_conn threads.
//
// A serv_conn thread carries one connection through authentication, argument line and attaching. It
// ends by itself, or by cancellation while it waits for the client; everywhere else cancellation is
// disabled, so that no lock is left held and a socket is either handed over or closed, never both.
// It takes one list lock at a time, or acl_lock and icl_lock as a pair for the look-up by port.
#include "user_conn.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "audit.h"
#include "cmd_mon.h"
#include "cons_mon.h"
#include "counters.h"
#include "descriptor_budget.h"
#include "error.h"
#include "liveness.h"
#include "mapped_port.h"
#include "security.h"
#include "socket_watch.h"
#include "user_mon.h"
#include "utf8.h"
#include "util.h"
#include "waker.h"
#include "zev.h"
#include "zev_signal.h"

// ---- Errors and modes ---------------------------------------------------------------------------

thread_local const char* u_err_msg = nullptr;

namespace {

constexpr const char* kUserErrorTexts[kUserErrorCount] = {
    "001 - Authentication failed.\r\n",
    "002 - Invalid argument.\r\n",
    "003 - Timed out.\r\n",
    "004 - Console not found.\r\n",
    "005 - Console is not accessible.\r\n",
    "006 - Console is locked exclusively.\r\n",
    "007 - Cannot grant exclusive access. Console in use.\r\n",
    "008 - Read error.\r\n",
    "009 - Insufficient data.\r\n",
    "010 - Connection failed.\r\n",
    "011 - Console has been deleted.\r\n",
    "012 - Console is disabled.\r\n",
    "013 - Out of memory.\r\n",
    "014 - Not an authorized user.\r\n",
    "015 - Port number not mapped to a console.\r\n",
    "016 - Too many pending client connections.\r\n",
};

/// One row for every access mode.
struct AccessModeRow {
  AccessMode mode;
  const char* keyword;  // what follows "mode=" in the argument line
  const char* name;     // what is printed
};

constexpr AccessModeRow kAccessModes[] = {
    {kExclusiveRevocable, "er", "??"},
    {kExclusive, "ex", "exclusive"},
    {kShared, "sh", "shared"},
    {kReadOnly, "ro", "read-only"},
};

constexpr char kUnknownUser[] = "<unknown>";

}  // namespace

const char* UserErrorText(UserError error) {
  ENTERING();
  return kUserErrorTexts[error - 1];
}

void SetUserError(UserError error) {
  u_err_msg = UserErrorText(error);
}

void SendErrorToUser(int sock, const char* err_msg) {
  ENTERING();
  if (err_msg == nullptr) return;
  zev_debug(kInfo, "%s: %s", __func__, err_msg);
  counters.refusals.Add();
  TEMP_FAILURE_RETRY(send(sock, err_msg, strlen(err_msg), 0));
}

const char* ModeNumToName(int mode) {
  ENTERING();
  for (const AccessModeRow& row : kAccessModes) {
    if (row.mode == mode) return row.name;
  }
  return "??";
}

const char* ModeKeyword(int mode) {
  for (const AccessModeRow& row : kAccessModes) {
    if (row.mode == mode) return row.keyword;
  }
  return "";
}

// ---- Records and lists --------------------------------------------------------------------------

namespace {

void ReportNoMemory(const char* function) {
  SetUserError(kOutOfMemory);
  ReportOutOfMemory(function);
}

// For a user who never came to the monitors: the caller of the attaching code closes the socket.
void DiscardUserNode(UserNode* unode) {
  --unode->cnode->ref_count;
  delete unode;
}

}  // namespace

UserNode* NewUserNode(int sock, ConsoleNode* cnode, const char* user_name, const char* ipaddr,
                      int mode) {
  ENTERING();
  auto* unode = new (std::nothrow) UserNode{};
  if (unode == nullptr) {
    ReportNoMemory(__func__);
    return nullptr;
  }
  unode->sock = sock;
  unode->connected = 1;
  unode->mode = mode;
  unode->since = time(nullptr);
  CopyText(unode->user_name, user_name);
  CopyText(unode->ipaddr, ipaddr);
  CopyText(unode->cons_name, cnode->cname);
  unode->cnode = cnode;
  ++cnode->ref_count;
  return unode;
}

UserListElem* NewUserListElem(UserNode* unode) {
  ENTERING();
  UserListElem* elem = NewElement<UserList>(unode);
  if (elem == nullptr) ReportNoMemory(__func__);
  return elem;
}

UserList* NewUserList(const char* list_name) {
  ENTERING();
  auto* list = new (std::nothrow) UserList;
  if (list == nullptr) {
    ReportNoMemory(__func__);
    return nullptr;
  }
  InitUserList(list, list_name);
  if (list->list_name == nullptr) {
    delete list;
    return nullptr;
  }
  return list;
}

void InitUserList(UserList* list, const char* list_name) {
  ENTERING();
  InitList(*list, list_name);
}

void FreeUserList(UserList* list) {
  ENTERING();
  FreeListRecord(list);
}

int AddUserToList(UserNode* unode, UserList* list) {
  ENTERING();
  UserListElem* elem = nullptr;
  if (ReserveFor(*list, unode)) {
    elem = NewUserListElem(unode);
  } else {
    ReportNoMemory(__func__);
  }
  if (elem == nullptr) {
    zev_debug(kError, "%s: NewUserListElem() returned NULL\n", __func__);
    return -1;
  }
  LinkAtTail(*list, elem);
  zev_debug(kTrace, "%s: Added user to %s for console %s.\n", __func__, list->list_name,
            unode->cons_name);
  zev_debug(kTrace, "%s: Doing FD_SET( %d, ...) for user on %s.\n", __func__, unode->sock,
            list->list_name);
  Recompute(*list);
  return 0;
}

int RemoveUserFromList(UserNode* unode, UserList* list) {
  ENTERING();
  UserListElem* elem = FindElement(*list, unode);
  if (elem == nullptr) {
    zev_debug(kError, "%s: unode not found in user_list\n", __func__);
    TERMINATE(kInternalError);
  }
  Unlink(*list, elem);
  zev_debug(kTrace, "%s: Removed user from %s for console %s.\n", __func__, list->list_name,
            unode->cnode->cname);
  if (list->count < 0) {
    zev_debug(kError, "%s: user_list->count = %d\n", __func__, list->count);
    TERMINATE(kInternalError);
  }
  Recompute(*list);
  return 0;
}

bool IsUserInUserList(const UserNode* unode, const UserList* list) {
  ENTERING();
  return list != nullptr && FindElement(*list, unode) != nullptr;
}

// ---- Attaching ----------------------------------------------------------------------------------

namespace {

/// What the attaching code knows of the new user.
struct NewUser {
  int sock;
  const char* user_name;
  const char* ipaddr;
  const char* console_name;
  int mode;
  const Identity* identity;
};

constexpr char kAttach[] = "ConnectUserToConsole";

// `format` takes the two names.
int Refuse(UserError error, const char* format, const char* function, const char* console_name) {
  SetUserError(error);
  zev_debug(kInfo, format, function, console_name);
  return -1;
}

int RefuseInaccessible(const ConsoleNode* cnode, const char* console_name) {
  if (cnode->enable != 0) {
    return Refuse(kConsoleNotAccessible, "%s: Console \"%s\" is inaccessible.\n", kAttach,
                  console_name);
  }
  return Refuse(kConsoleDisabled, "%s: Console \"%s\" is disabled.\n", kAttach, console_name);
}

// Tells the revocable holder who takes the console over, and marks it for closing.
void RevokeHolder(const ConsoleNode* cnode, const NewUser& user) {
  UserNode* holder = FindNode(
      *cnode->user_list, [](const UserNode& unode) { return unode.mode == kExclusiveRevocable; });
  char line[kMessageBufferSize];
  char banner[kMessageBufferSize];
  snprintf(line, sizeof line, "Your session has been terminated by %s@%s", user.user_name,
           user.ipaddr);
  FormatBanner(banner, sizeof banner, line);
  if (send(holder->sock, banner, strlen(banner), MSG_DONTWAIT) < 0) {
    zev_debug(kInfo, "%s: send() failed : %s\n", kAttach, strerror(errno));
  }
  CloseUserConnection(holder, "Another user took the console over.");
}

// True when the console is on i_cons_list; the user is then refused.
bool IsInaccessible(const char* console_name) {
  const WriteLock lock(icl_lock, CallSite{kAttach, __LINE__});
  const ConsoleNode* cnode = LocateConsoleInList(console_name, i_cons_list);
  if (cnode == nullptr) return false;
  RefuseInaccessible(cnode, console_name);
  return true;
}

// 0 when the mode can be granted beside the users who are attached. A revocable holder is revoked
// before anything is checked, and stays revoked when the new user is then refused.
int ClaimConsole(const ConsoleNode* cnode, const NewUser& user) {
  // Closed already, and on its way to i_cons_list.
  if (cnode->sock == -1) return RefuseInaccessible(cnode, user.console_name);
  if (cnode->deleted == 1) {
    return Refuse(kConsoleDeleted, "%s: Console \"%s\" has been deleted.\n", kAttach,
                  user.console_name);
  }
  if (user.mode == kReadOnly) return 0;
  if (HasExclRevokeConn(cnode) != 0) RevokeHolder(cnode, user);
  if (IsLockedExclusively(cnode)) {
    return Refuse(kConsoleLocked, "%s: Console \"%s\" is locked exclusively.\n", kAttach,
                  user.console_name);
  }
  const bool wants_exclusive = user.mode == kExclusive || user.mode == kExclusiveRevocable;
  if (wants_exclusive && CanGrantExclAccess(cnode) == 0) {
    return Refuse(kCannotGrantExclusive, "%s: Cannot grant exclusive access for \"%s\".\n", kAttach,
                  user.console_name);
  }
  return 0;
}

// The negotiation that the console sent first lets the user's client behave as if it had connected
// to the console itself.
void GreetTelnetClient(const ConsoleNode* cnode, int sock) {
  if (cnode->telnet_cmd[0] != '\0') send(sock, cnode->telnet_cmd, strlen(cnode->telnet_cmd), 0);
  SetTelnetOptions(sock);
}

// Puts the user on its console's list; from then on it receives output. Null when refused.
UserNode* JoinConnectedConsole(ConsoleNode* cnode, const NewUser& user) REQUIRES(acl_lock) {
  if (ClaimConsole(cnode, user) != 0) return nullptr;
  GreetTelnetClient(cnode, user.sock);
  UserNode* unode = NewUserNode(user.sock, cnode, user.user_name, user.ipaddr, user.mode);
  if (unode == nullptr) {
    zev_debug(kInfo, "%s: NewUserNode() failed.\n", kAttach);
    return nullptr;
  }
  unode->identity = *user.identity;
  if (AddUserToList(unode, cnode->user_list) != 0) {
    zev_debug(kInfo, "%s: AddUserToList() failed.\n", kAttach);
    DiscardUserNode(unode);
    return nullptr;
  }
  SendBufferedConsoleOutputToUser(cnode, unode);
  return unode;
}

// Null when refused. A console that moves between the lists while both are looked at one after the
// other may be missed on both, so a name that is on neither is looked for twice.
UserNode* JoinConsole(const NewUser& user) {
  constexpr int kLooks = 2;
  for (int look = 0; look < kLooks; ++look) {
    {
      const WriteLock lock(acl_lock, CallSite{kAttach, __LINE__});
      ConsoleNode* cnode = LocateConsoleInList(user.console_name, a_cons_list);
      if (cnode != nullptr) return JoinConnectedConsole(cnode, user);
    }
    if (IsInaccessible(user.console_name)) return nullptr;
  }
  char name[kNameSize];
  CopyText(name, user.console_name);
  ReplaceControls(name);
  Refuse(kConsoleNotFound, "%s: Console \"%s\" not found.\n", kAttach, name);
  return nullptr;
}

// The caller is about to close the socket, so nothing may go on sending to it.
void LeaveConsole(UserNode* unode) {
  const WriteLock lock(acl_lock, CallSite{kAttach, __LINE__});
  UserList* users = unode->cnode->user_list;
  if (IsUserInUserList(unode, users)) RemoveUserFromList(unode, users);
  DiscardUserNode(unode);
}

// Puts the user on the global list; from then on it is the user input monitor's.
int JoinUserList(UserNode* unode, const NewUser& user) {
  WriteLock lock(ul_lock, CallSite{kAttach, __LINE__});
  if (AddUserToList(unode, user_list) != 0) {
    zev_debug(kInfo, "%s: AddUserToList() failed.\n", kAttach);
    lock.Release();
    LeaveConsole(unode);
    return -1;
  }
  zev_debug(kInfo, "%s: Connected user \"%s\" to console \"%s\" with mode = %s.\n", kAttach,
            user.user_name, user.console_name, ModeNumToName(user.mode));
  // With the lock held: the entry that tells of the end comes after this one.
  Audit({"attach", "accepted", &unode->identity, unode->cons_name, ModeKeyword(unode->mode)});
  counters.users_attached.Add();
  user_mon_waker.Wake();
  return 0;
}

}  // namespace

int ConnectUserToConsole(int user_sock, const char* user_name, const char* ipaddr,
                         const char* console_name, uint16_t mode, const Identity& identity) {
  ENTERING();
  const NewUser user = {user_sock, user_name, ipaddr, console_name, mode, &identity};
  UserNode* unode = JoinConsole(user);
  return unode == nullptr ? -1 : JoinUserList(unode, user);
}

int CanGrantExclAccess(const ConsoleNode* cnode) {
  ENTERING();
  const UserNode* in_the_way = FindNode(*cnode->user_list, [](const UserNode& unode) {
    return unode.mode == kShared || unode.mode == kExclusive;
  });
  return in_the_way == nullptr ? 1 : 0;
}

int HasExclRevokeConn(const ConsoleNode* cnode) {
  ENTERING();
  const UserNode* holder = FindNode(
      *cnode->user_list, [](const UserNode& unode) { return unode.mode == kExclusiveRevocable; });
  return holder == nullptr ? 0 : 1;
}

bool IsLockedExclusively(const ConsoleNode* cnode) {
  ENTERING();
  // Read-only users who came before an exclusive one keep it from blocking others.
  const UserListElem* first = cnode->user_list->head;
  return first != nullptr && first->unode->mode == kExclusive;
}

// ---- The argument line --------------------------------------------------------------------------

namespace {

constexpr char kSeparators[] = " \t\n\r";
constexpr char kParse[] = "ParseConsoleArgs";

/// One "key=value" option; `apply` returns 0, or -1 with the error set.
struct ArgumentRow {
  const char* key;
  int (*apply)(const char* value, ConsoleArgs* args);
};

/// A word of a stranger's as it may be shown.
struct Shown {
  char text[1024];
  explicit Shown(const char* word) {
    CopyText(text, word);
    ReplaceControls(text);
  }
};

int ApplyMode(const char* value, ConsoleArgs* args) {
  for (const AccessModeRow& row : kAccessModes) {
    if (strcmp(value, row.keyword) != 0) continue;
    args->mode = static_cast<uint16_t>(row.mode);
    return 0;
  }
  SetUserError(kInvalidArgument);
  zev_debug(kInfo, "%s: Unrecognized mode \"%s\".\n", kParse, Shown(value).text);
  return -1;
}

constexpr ArgumentRow kArguments[] = {
    {"mode=", ApplyMode},
    {"user=",
     [](const char* value, ConsoleArgs* args) {
       if (args->names_user) CopyText(args->earlier_user_name, args->user_name);
       args->names_user = true;
       CopyText(args->user_name, value);
       ReplaceControls(args->user_name);
       return 0;
     }},
    {"addr=",
     [](const char* value, ConsoleArgs* args) {
       CopyText(args->addr, value);
       ReplaceControls(args->addr);
       return 0;
     }},
};

int ApplyArgument(const char* token, ConsoleArgs* args) {
  for (const ArgumentRow& row : kArguments) {
    const size_t length = strlen(row.key);
    if (strncmp(token, row.key, length) == 0) return row.apply(token + length, args);
  }
  SetUserError(kInvalidArgument);
  zev_debug(kInfo, "%s: Invalid argument \"%s\".\n", kParse, Shown(token).text);
  return -1;
}

int InsufficientData(const char* what) {
  SetUserError(kInsufficientData);
  zev_debug(kInfo, "%s: %s\n", kParse, what);
  return -1;
}

// Takes an optional token prefix and the console name off the line.
int ParseConsoleName(char* buf, char** rest, ConsoleArgs* args) {
  const char* token = strtok_r(buf, kSeparators, rest);
  if (token == nullptr) return InsufficientData("No console arguments found.");
  if (strcmp(token, "token") == 0) {
    CopyText(args->auth_mechanism, token);
    token = strtok_r(nullptr, kSeparators, rest);
    if (token == nullptr) return InsufficientData("Cookie not specified.");
    CopyText(args->user_cookie, token);
    token = strtok_r(nullptr, kSeparators, rest);
    if (token == nullptr) return InsufficientData("Console name not specified.");
  }
  CopyText(args->cons_name, token);
  return 0;
}

}  // namespace

int ParseConsoleArgs(char* buf, ConsoleArgs* args) {
  ENTERING();
  *args = ConsoleArgs{};
  CopyText(args->user_name, kUnknownUser);
  args->mode = kShared;
  char* rest = nullptr;
  if (ParseConsoleName(buf, &rest, args) != 0) return -1;
  for (const char* token = strtok_r(nullptr, kSeparators, &rest); token != nullptr;
       token = strtok_r(nullptr, kSeparators, &rest)) {
    if (ApplyArgument(token, args) != 0) return -1;
  }
  return 0;
}

void SetTelnetOptions(int sock) {
  ENTERING();
  constexpr unsigned char kOffers[][3] = {{255, 251, 1}, {255, 251, 3}};  // IAC WILL ECHO, ... SGA
  for (const auto& offer : kOffers) send(sock, offer, sizeof offer, 0);
}

// ---- The listening thread -----------------------------------------------------------------------

namespace {

constexpr useconds_t kPassPause = 500;  // microseconds
constexpr int kBacklog = 128;

std::atomic<int> refresh_mapped_ports{0};

// The user_conn thread's own.
pthread_attr_t service_conn_attr;
int first_time = 1;

sem_t service_thread_counted;  // posted by each new serv_conn thread once its port counts it

bool ListensOn(uint16_t port) {
  return IsPortInMappedPortList(port, mapped_port_list);
}

void ConfigureMappedPorts(const ConsoleList& list) {
  for (const ConsoleNode* cnode : Nodes(list)) {
    if (cnode->mapped_port == 0 || ListensOn(cnode->mapped_port)) continue;
    if (ConfigurePort(cnode->mapped_port) != 0) {
      zev_debug(kInfo, "%s: Cannot configure port for %s.\n", "GetPortsToListenOn", cnode->cname);
    }
  }
}

// Unlinking the port and cancelling its threads are one step under the mutex: a thread that finds
// its port gone can rely on being cancelled. The ids are valid, because a thread ends only after it
// has taken its own out, under the same mutex.
void DropPort(MappedPortNode* mpnode) {
  constexpr char kFunction[] = "CleanUpStalePorts";
  const PendingLoginsGuard guard(kFunction);
  RemoveMappedPortFromList(mpnode, mapped_port_list);
  zev_debug(kInfo, "%s: Port %d is no longer mapped to console\n", kFunction, mpnode->port);
  zev_debug(kInfo, "%s: Closing connection for mapped port %d\n", kFunction, mpnode->port);
  ForgetSocket(*mapped_port_list, mpnode->sock);
  close(mpnode->sock);
  for (int i = 0; i < mpnode->pending_logins; ++i) CancelServiceThread(mpnode->thread_ids[i]);
  FreeMappedPortNode(mpnode);
}

void RefuseConnection(int sock) {
  SendErrorToUser(sock, u_err_msg);
  close(sock);
}

DescriptorBudget descriptor_budget;
ReserveDescriptor reserve_descriptor;

// Logins that are under way may each start a password helper; those who wait for one have none.
DescriptorUse LookAtDescriptors() {
  constexpr int kMostHelpers = 16;  // eight of the daemon's dialogue, eight of the library's
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

// Waits until the new thread is counted, so that the next request on the port meets the true number
// of pending logins and the port is never dropped between the two.
bool StartServiceThread(ServiceReqThreadParams* params) {
  pthread_t service_conn_thread{};
  const int error = pthread_create(&service_conn_thread, &service_conn_attr,
                                   ServiceConnectionRequestThreadStart, params);
  if (error != 0) {
    zev_debug(kError, "%s: pthread_create() failed : %s\n", "AcceptConnectionRequests",
              strerror(error));
    return false;
  }
  while (sem_wait(&service_thread_counted) != 0) {
  }
  return true;
}

void ServeConnection(int sock, const MappedPortNode* mpnode, const sockaddr_in& peer) {
  constexpr char kFunction[] = "AcceptConnectionRequests";
  char address[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address);
  zev_debug(kDetail, "%s: Connection request from IP address \"%s\".\n", kFunction, address);
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

/// An error of accept() that costs no more than a try. All others are our own.
struct AcceptError {
  int error;
  int level;  // at which it is said
};

constexpr AcceptError kPassingErrors[] = {
    // Of the caller who went again, or of the network between (accept(2)).
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
    // The system's own, which pass too: the caller waits meanwhile.
    {ENOMEM, kError},
    {ENOBUFS, kError},
};

bool OutOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE;
}

// The connection, or -1 with errno set. The listening sockets do not block: the caller whom the
// wait told of may have gone.
int Accept(const MappedPortNode* mpnode, sockaddr_in* peer) {
  socklen_t length = sizeof *peer;
  return accept4(mpnode->sock, reinterpret_cast<sockaddr*>(peer), &length, SOCK_CLOEXEC);
}

void AcceptFailed(int error) {
  for (const AcceptError& row : kPassingErrors) {
    if (row.error != error) continue;
    zev_debug(row.level, "%s: accept() failed : %s\n", kAccept, strerror(error));
    return;
  }
  zev_debug(kError, "%s: accept() failed : %s\n", kAccept, strerror(error));
  TERMINATE(kTerminated);
}

void RefuseForWantOfRoom(int sock) {
  SetUserError(kOutOfMemory);
  RefuseConnection(sock);
}

// All descriptors are in use, as `error` says: the caller is taken with the one in reserve, and
// refused. Where another thread was quicker to open one in its place, the caller waits for a later
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
      if (report.IsDue()) zev_debug(kError, "%s: All descriptors are in use\n", kAccept);
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
    zev_debug(kInfo, "%s: Reached max_pending_logins (%d)\n", kAccept, max_pending_logins);
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
  zev_debug(kError,
            "%s: Nobody can connect through port %d. Another program may be listening there; the "
            "port is tried again at each reload.\n",
            "GetPortsToListenOn", user_port);
  Audit({"listen", "refused", nullptr, nullptr, nullptr,
         "Nobody can connect through the main port."});
}

}  // namespace

void* UserConnectionsThreadStart(void* /*unused*/) {
  RegisterThread("user_conn");
  ENTERING();
  BlockSignal(SIGTERM);
  ShareWakeUps();
  reserve_descriptor.Hold();
  SetupMappedPorts();
  WaitForConnectionRequests();
}

void RefreshMappedPorts() {
  ENTERING();
  refresh_mapped_ports = 1;
}

void SetupMappedPorts() {
  ENTERING();
  // Cleared first: a refresh that is asked for meanwhile is done at the next pass, not forgotten.
  refresh_mapped_ports = 0;
  const ListBatch batch(*mapped_port_list);
  CleanUpStalePorts();
  GetPortsToListenOn();
  descriptor_budget.Forget();
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
    reserve_descriptor.Hold();  // if another thread was quicker before
    if (refresh_mapped_ports != 0) SetupMappedPorts();
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
  // select() leaves the unslept time here and nothing resets it: once a wait has run out, every
  // later one only looks, and the pause of the loop alone paces the thread.
  static timeval timeout = {2, 0};
  zev_debug(kTrace, "%s: Calling select( %d + 1, fdset, 0, 0, (%d,%d))\n", __func__, high_sock,
            static_cast<int>(timeout.tv_sec), static_cast<int>(timeout.tv_usec));
  const int ready = WaitForMembers(high_sock, *fdset, &timeout, WatchOf(mapped_port_list));
  if (ready < 0) {
    zev_debug(kError, "%s: select() failed : %s\n", __func__, strerror(errno));
    TERMINATE(kTerminated);
  }
  return ready > 0 ? 1 : 0;
}

void AcceptConnectionRequests(const DescriptorSet* fdset) {
  ENTERING();
  if (first_time != 0) {
    pthread_attr_init(&service_conn_attr);
    pthread_attr_setinheritsched(&service_conn_attr, PTHREAD_INHERIT_SCHED);
    pthread_attr_setdetachstate(&service_conn_attr, PTHREAD_CREATE_DETACHED);
    sem_init(&service_thread_counted, 0, 0);
    first_time = 0;
  }
  ForEachReady(*mapped_port_list, *fdset, AcceptOn);
}

// ---- The service thread -------------------------------------------------------------------------

namespace {

constexpr char kServe[] = "ServiceConnectionRequestThreadStart";
constexpr time_t kArgumentWait = 10;  // seconds
constexpr size_t kLineSize = 1024;

/// One connection on its way to a console.
struct Connection {
  int sock;  ///< -1 once it is closed or handed over
  uint16_t port;
  sockaddr_in client_addr;
  char ipaddr[kNameSize];
  char buf[kLineSize];  ///< the argument line
  ConsoleArgs args;
  Identity identity;

  bool OnMainPort() const { return port == user_port; }
};

// Not for refused logins, which are written where they are judged.
void AuditRefusal(const Connection& connection) {
  Audit({"attach", "refused", &connection.identity, connection.args.cons_name,
         ModeKeyword(connection.args.mode), u_err_msg});
}

int ClosingConnection(const Connection& connection) {
  zev_debug(kInfo, "%s: Closing connection with %s.\n", kServe, connection.ipaddr);
  return -1;
}

// Finds the console that the port implies and refuses what would be refused after a login too.
int FindMappedConsole(Connection& connection, MappedConsole* console) {
  if (!CopyMappedConsole(connection.port, console)) {
    SetUserError(kPortNotMapped);
    zev_debug(kError, "%s: Port %d doesn't map to console.\n", kServe, connection.port);
    return -1;
  }
  if (console->status != 0) {
    return Refuse(kConsoleNotAccessible, "%s: Console \"%s\" is inaccessible.\n", kServe,
                  console->cname);
  }
  if (console->locked_exclusively) {
    return Refuse(kConsoleLocked, "%s: Console \"%s\" is locked exclusively.\n", kServe,
                  console->cname);
  }
  CopyText(connection.args.cons_name, console->cname);
  return 0;
}

int LogIn(Connection& connection) {
  if (PromptForUserNameAndPasswd(connection.sock, connection.args.cons_name, connection.identity) !=
      0) {
    return ClosingConnection(connection);
  }
  zev_debug(kInfo, "%s: Authenticated %s/%d\n", kServe, connection.ipaddr, connection.port);
  return 0;
}

int AuthenticateMainPort(Connection& connection) {
  if (DoAuthentication(connection.sock, connection.client_addr, connection.buf,
                       sizeof connection.buf, connection.identity) != 0) {
    return ClosingConnection(connection);
  }
  return 0;
}

int ReadArgumentLine(Connection& connection) {
  if (ReadLineWithTimeout(connection.sock, connection.buf, sizeof connection.buf, kArgumentWait) !=
      0) {
    AuditRefusal(connection);
    return ClosingConnection(connection);
  }
  return 0;
}

int PrepareMappedPort(Connection& connection) {
  MappedConsole console{};
  if (FindMappedConsole(connection, &console) != 0) {
    CopyText(connection.args.cons_name, console.cname);
    AuditRefusal(connection);
    return -1;
  }
  if (security_enabled == 0) return ReadArgumentLine(connection);
  return console.auth == 1 ? LogIn(connection) : 0;
}

// What the client says of itself. The authenticated name is the last one in the line; the one
// before it is the client's own.
void TakeGivenNames(Connection& connection) {
  const ConsoleArgs& args = connection.args;
  Identity& identity = connection.identity;
  const bool proved = identity.user[0] != '\0';
  CopyText(identity.given_user,
           proved || !args.names_user ? args.earlier_user_name : args.user_name);
  CopyText(identity.given_from, args.addr);
}

int PrepareMainPort(Connection& connection) {
  const int result =
      security_enabled != 0 ? AuthenticateMainPort(connection) : ReadArgumentLine(connection);
  if (result != 0) return -1;
  zev_debug(kDetail, "%s: Received arguments: %s\n", kServe, connection.buf);
  const int parsed = ParseConsoleArgs(connection.buf, &connection.args);
  TakeGivenNames(connection);
  if (parsed != 0) {
    AuditRefusal(connection);
    return ClosingConnection(connection);
  }
  if (connection.args.addr[0] != '\0') CopyText(connection.ipaddr, connection.args.addr);
  return 0;
}

// Learns which console is wanted, in which mode and for whom. 0, or -1 with u_err_msg set.
int PrepareConnection(Connection& connection) {
  if (security_enabled != 0) zev_debug(kInfo, "%s: Performing security check.\n", kServe);
  return connection.OnMainPort() ? PrepareMainPort(connection) : PrepareMappedPort(connection);
}

void SendGreeting(int sock, const char* cons_name) {
  char greeting[kMessageBufferSize];
  snprintf(greeting, sizeof greeting, "Connected to console \"%s\" in shared mode.\r\n\n",
           cons_name);
  send(sock, greeting, strlen(greeting), 0);
}

// Hands the socket over to the monitors. The greeting of a mapped port goes through a descriptor of
// its own: the user may be gone, and the number of the other one in use elsewhere, by then.
int AttachUser(Connection& connection) {
  const ConsoleArgs& args = connection.args;
  const int greeting_sock =
      connection.OnMainPort() ? -1 : fcntl(connection.sock, F_DUPFD_CLOEXEC, 0);
  const int result = ConnectUserToConsole(connection.sock, args.user_name, connection.ipaddr,
                                          args.cons_name, args.mode, connection.identity);
  if (result == 0) {
    connection.sock = -1;
    if (greeting_sock != -1) SendGreeting(greeting_sock, args.cons_name);
  } else {
    zev_debug(kInfo, "%s: Closing connection.\n", kServe);
    AuditRefusal(connection);
  }
  if (greeting_sock != -1) close(greeting_sock);
  return result;
}

int HandOverToCommands(Connection& connection) {
  const int result = MonitorSocketForCommands(connection.sock, connection.args.user_name,
                                              connection.ipaddr, connection.identity);
  if (result != 0) {
    AuditRefusal(connection);
    return ClosingConnection(connection);
  }
  connection.sock = -1;
  return 0;
}

int HandOver(Connection& connection) {
  EndIfCancelled();  // a login on a port that was dropped ends here
  const bool wants_commands = strcmp(connection.args.cons_name, kCommandConsole) == 0;
  return wants_commands ? HandOverToCommands(connection) : AttachUser(connection);
}

void ServiceConnection(Connection& connection) {
  u_err_msg = nullptr;
  if (PrepareConnection(connection) == 0 && HandOver(connection) == 0) return;
  SendErrorToUser(connection.sock, u_err_msg);
  close(connection.sock);
  connection.sock = -1;
  // A password that was typed where the name belongs may be in it.
  explicit_bzero(&connection.identity, sizeof connection.identity);
}

void TakeParams(ServiceReqThreadParams* params, Connection& connection) {
  connection.sock = params->sock;
  connection.port = params->port;
  connection.client_addr = params->client_addr;
  CopyText(connection.ipaddr, params->ipaddr);
  CopyText(connection.identity.from, params->ipaddr);
  CopyText(connection.args.user_name, kUnknownUser);
  connection.args.mode = kShared;
  zev_debug(kInfo, "%s: Servicing request coming from \"%s\" on port %d\n", kServe,
            connection.ipaddr, connection.port);
  delete params;
}

// Counts the thread for as long as it serves the connection.
void ServeWhileCounted(Connection& connection) {
  const int counted = IncrementPendingLogins(mapped_port_list, connection.port, pthread_self());
  sem_post(&service_thread_counted);
  if (counted != 0) {
    RefuseConnection(connection.sock);
    connection.sock = -1;
    return;
  }
  ServiceConnection(connection);
  DecrementPendingLogins(mapped_port_list, connection.port, pthread_self());
}

}  // namespace

void* ServiceConnectionRequestThreadStart(void* thread_params) {
  int state = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  RegisterThread("serv_conn");
  ENTERING();
  Connection connection{};
  TakeParams(static_cast<ServiceReqThreadParams*>(thread_params), connection);
  pthread_cleanup_push(ServiceConnectionRequestThreadCleanUp, &connection.sock);
  ServeWhileCounted(connection);
  zev_debug(kInfo, "%s: Exiting thread.\n", __func__);
  UnregisterThread();
  pthread_cleanup_pop(0);
  return nullptr;
}

void ServiceConnectionRequestThreadCleanUp(void* args) {
  ENTERING();
  const int sock = *static_cast<const int*>(args);
  if (sock != -1) close(sock);
}
