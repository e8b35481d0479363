// The life of the "serv_conn" threads.
//
// user_conn starts one for each accepted connection, detached. The thread frees its parameters,
// carries the connection through authentication, argument line and attaching, and either hands the
// socket over to a monitor, which it wakes, or closes it. It ends by itself, or by cancellation
// when its port is dropped: while it waits for the client or the password helper, before it hands
// the socket over, or at its end. Everywhere else cancellation is disabled, so that no lock is left
// held and a socket is either handed over or closed, never both. It takes one list lock at a time,
// or acl_lock and icl_lock as a pair in that order for the look-up by port, and
// pending_logins_mutex alone. With acl_lock it takes the mutexes of user_output.h.
#include "serv_conn.h"

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>

#include "attach.h"
#include "audit.h"
#include "cancellation.h"
#include "command.h"
#include "console_users.h"
#include "error.h"
#include "identity.h"
#include "lists.h"
#include "mapped_port.h"
#include "options.h"
#include "security.h"
#include "serv_conn_steps.h"
#include "user.h"
#include "utf8.h"
#include "util.h"

namespace zevd {

// ---- The argument line --------------------------------------------------------------------------

namespace {

constexpr char kSeparators[] = " \t\n\r";
constexpr char kParse[] = "ParseConsoleArgs";

/// One "key=value" option; `apply` returns 0, or -1 with the error set.
struct ArgumentRow {
  const char* key;
  int (*apply)(const char* value, ConsoleArgs* args);
};

/// A stranger's word as it may be shown.
struct Shown {
  char text[1024];
  explicit Shown(const char* word) {
    CopyText(text, word);
    ReplaceControls(text);
  }
};

int ApplyMode(const char* value, ConsoleArgs* args) {
  const std::optional<AccessMode> mode = FindMode(value);
  if (mode) {
    args->mode = static_cast<uint16_t>(*mode);
    return 0;
  }
  SetUserError(kInvalidArgument);
  DEBUG_AS(kParse, kInfo, "Unrecognized mode \"%s\".\n", Shown(value).text);
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
  DEBUG_AS(kParse, kInfo, "Invalid argument \"%s\".\n", Shown(token).text);
  return -1;
}

int InsufficientData(const char* what) {
  SetUserError(kInsufficientData);
  DEBUG_AS(kParse, kInfo, "%s\n", what);
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

// ---- One connection -----------------------------------------------------------------------------

namespace {

sem_t service_thread_counted;  // posted by each new thread when its port has counted it

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
  DEBUG_AS(kServe, kInfo, "Closing connection with %s.\n", connection.ipaddr);
  return -1;
}

// Finds the console that the port implies and refuses what would also be refused after a login.
int FindMappedConsole(Connection& connection, MappedConsole* console) {
  if (!CopyMappedConsole(connection.port, console)) {
    SetUserError(kPortNotMapped);
    DEBUG_AS(kServe, kError, "Port %d doesn't map to console.\n", connection.port);
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
  // The name that was checked is the one that others see.
  CopyText(connection.args.user_name, connection.identity.user);
  ReplaceControls(connection.args.user_name);
  DEBUG_AS(kServe, kInfo, "Authenticated %s/%d\n", connection.ipaddr, connection.port);
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
  DEBUG_AS(kServe, kDetail, "Received arguments: %s\n", connection.buf);
  const int parsed = ParseConsoleArgs(connection.buf, &connection.args);
  TakeGivenNames(connection);
  if (parsed != 0) {
    AuditRefusal(connection);
    return ClosingConnection(connection);
  }
  if (connection.args.addr[0] != '\0') CopyText(connection.ipaddr, connection.args.addr);
  return 0;
}

// Learns which console is wanted, in which mode and for whom. 0, or -1 with u_err_msg set where a
// reason is known.
int PrepareConnection(Connection& connection) {
  if (security_enabled != 0) DEBUG_AS(kServe, kInfo, "Performing security check.\n");
  return connection.OnMainPort() ? PrepareMainPort(connection) : PrepareMappedPort(connection);
}

// Hands the socket over to the monitors. Users of a mapped port are greeted.
int AttachUser(Connection& connection) {
  const ConsoleArgs& args = connection.args;
  char greeting[kMessageBufferSize] = "";
  if (!connection.OnMainPort()) {
    snprintf(greeting, sizeof greeting, "Connected to console \"%s\" in shared mode.\r\n\n",
             args.cons_name);
  }
  const int result = ConnectUserToConsole(connection.sock, args.user_name, connection.ipaddr,
                                          args.cons_name, args.mode, connection.identity, greeting);
  if (result == 0) {
    connection.sock = -1;
  } else {
    DEBUG_AS(kServe, kInfo, "Closing connection.\n");
    AuditRefusal(connection);
  }
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
  // A password that was typed in place of the name may be in it.
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
  DEBUG_AS(kServe, kInfo, "Servicing request coming from \"%s\" on port %d\n", connection.ipaddr,
           connection.port);
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

// ---- The threads --------------------------------------------------------------------------------

bool StartServiceThread(ServiceReqThreadParams* params) {
  static pthread_attr_t service_conn_attr;
  static bool first_time = true;
  if (first_time) {
    pthread_attr_init(&service_conn_attr);
    pthread_attr_setinheritsched(&service_conn_attr, PTHREAD_INHERIT_SCHED);
    pthread_attr_setdetachstate(&service_conn_attr, PTHREAD_CREATE_DETACHED);
    sem_init(&service_thread_counted, 0, 0);
    first_time = false;
  }
  pthread_t service_conn_thread{};
  const int error = pthread_create(&service_conn_thread, &service_conn_attr,
                                   ServiceConnectionRequestThreadStart, params);
  if (error != 0) {
    DEBUG_AS("AcceptConnectionRequests", kError, "pthread_create() failed : %s\n", strerror(error));
    return false;
  }
  while (sem_wait(&service_thread_counted) != 0) {
  }
  return true;
}

void RefuseConnection(int sock) {
  SendErrorToUser(sock, u_err_msg);
  close(sock);
}

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

}  // namespace zevd
