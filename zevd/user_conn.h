// Users: the listening thread "user_conn", the "serv_conn" threads that carry one connection each
// through its handshake, attaching users to consoles, and the user records and lists.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "cons_conn.h"
#include "descriptor_set.h"
#include "fixed_text.h"
#include "identity.h"
#include "locks.h"
#include "stall.h"

enum AccessMode : int {
  kReadOnly = 1,
  kShared = 2,
  kExclusive = 3,
  kExclusiveRevocable = 4,  ///< the next user in any mode but read-only takes the console over
};

/// One attached user. It stands on its console's user list and on the global user_list; only the
/// user input monitor takes it off, closes its socket and frees it.
struct UserNode {
  int sock;
  std::atomic<int> connected;             ///< 0: to be removed; any thread may clear it
  std::atomic<const char*> close_reason;  ///< why it was cleared first; null before
  int mode;                               ///< AccessMode
  time_t since;                           ///< when the user was attached
  char user_name[kUserNameSize];
  char ipaddr[kNameSize];  ///< the address that is shown for the user
  Identity identity;       ///< who it really is
  /// The console; never changes, and the console outlives the user (ref_count).
  ConsoleNode* cnode;
  /// The console's name at the time of attaching, for debug lines that are written without the lock
  /// of the console's list.
  char cons_name[kNameSize];
  int send_error;       ///< why sending to the console failed, 0 when it did not; under ul_lock
  Stall console_stall;  ///< the console takes nothing of what the user types; under ul_lock
  Stall output_stall;   ///< the user takes nothing of what the console prints; under acl_lock
};

// ---- Errors that users are told -----------------------------------------------------------------

enum UserError : int {
  kAuthenticationFailed = 1,
  kInvalidArgument,
  kTimedOut,
  kConsoleNotFound,
  kConsoleNotAccessible,
  kConsoleLocked,
  kCannotGrantExclusive,
  kReadError,
  kInsufficientData,
  kConnectionFailed,
  kConsoleDeleted,
  kConsoleDisabled,
  kOutOfMemory,
  kNotAuthorized,
  kPortNotMapped,
  kTooManyPending,
};

inline constexpr int kUserErrorCount = 16;

/// Why the connection that the calling thread is busy with is refused; null for no reason. Set
/// where something fails, sent by the code that closes the connection.
extern thread_local const char* u_err_msg;

/// The text of an error: "NNN - text\r\n".
const char* UserErrorText(UserError error);
void SetUserError(UserError error);

/// Sends the text, if there is one.
void SendErrorToUser(int sock, const char* err_msg);

/// "read-only", "shared" or "exclusive"; every other mode, revocable included, is "??".
const char* ModeNumToName(int mode);

/// "ro", "sh", "ex" or "er", as in the argument line; empty for another number.
const char* ModeKeyword(int mode);

// ---- Records and lists --------------------------------------------------------------------------

/// A record for a user who is attached, counted in the console's ref_count; the caller holds
/// acl_lock. Null, with u_err_msg set, when out of memory.
UserNode* NewUserNode(int sock, ConsoleNode* cnode, const char* user_name, const char* ipaddr,
                      int mode);
UserListElem* NewUserListElem(UserNode* unode);
UserList* NewUserList(const char* list_name);
void InitUserList(UserList* list, const char* list_name);

/// Frees the list and its name; elements and users are the caller's business.
void FreeUserList(UserList* list);

/// Appends at the tail. 0, or -1 when out of memory.
int AddUserToList(UserNode* unode, UserList* list);

/// Unlinks the user and neither closes nor frees it. A user who is not there ends the process.
int RemoveUserFromList(UserNode* unode, UserList* list);
bool IsUserInUserList(const UserNode* unode, const UserList* list);

// ---- Attaching ----------------------------------------------------------------------------------

/// Attaches the connection to the console, greets its telnet client and replays recent output. 0,
/// or -1 with u_err_msg set; the caller then closes the socket. After 0 the socket is the
/// monitors'. `user_name` and `ipaddr` are what others are shown; `identity` is who it really is.
int ConnectUserToConsole(int user_sock, const char* user_name, const char* ipaddr,
                         const char* console_name, uint16_t mode, const Identity& identity = {})
    EXCLUDES(acl_lock, icl_lock, ul_lock);

/// 0 when some user of the console holds mode 2 or 3, else 1. Caller holds the console's list lock.
int CanGrantExclAccess(const ConsoleNode* cnode);

/// 1 when some user of the console holds mode 4. Caller holds the console's list lock.
int HasExclRevokeConn(const ConsoleNode* cnode);

/// True when the first user of the console, and only the first, holds mode 3. Caller as above.
bool IsLockedExclusively(const ConsoleNode* cnode);

// ---- The argument line --------------------------------------------------------------------------

inline constexpr size_t kCookieSize = 17;

/// What a client asks for.
struct ConsoleArgs {
  char auth_mechanism[kCookieSize];  ///< "token" or empty
  char user_cookie[kCookieSize];
  char cons_name[kNameSize];
  char user_name[kUserNameSize];          ///< the last "user=" of the line
  char earlier_user_name[kUserNameSize];  ///< the one before that, or empty
  bool names_user;                        ///< there was a "user="
  uint16_t mode;
  char addr[kNameSize];  ///< address to show in place of the peer's, or empty
};

/// Splits the line `buf` in place. Control characters in what others will be shown become "?". 0,
/// or -1 with u_err_msg set.
int ParseConsoleArgs(char* buf, ConsoleArgs* args);

/// Offers to echo and to suppress go-ahead, which puts a telnet client into character mode
/// (RFC 857, RFC 858).
void SetTelnetOptions(int sock);

// ---- The listening thread; everything but RefreshMappedPorts() is its own -----------------------

void* UserConnectionsThreadStart(void* unused);

/// Asks for the ports to be matched with the configuration again. Any thread.
void RefreshMappedPorts();

void SetupMappedPorts();
int GetPortsToListenOn();
int ConfigurePort(uint16_t port);
void CleanUpStalePorts();

/// A listening socket on all interfaces, or -1.
int ListenOnPort(uint16_t port);
[[noreturn]] void WaitForConnectionRequests();

/// 1 when some port has a connection request. `fdset` is the caller's copy; it then holds the ready
/// sockets.
int CheckForConnectionRequests(int high_sock, DescriptorSet* fdset);
void AcceptConnectionRequests(const DescriptorSet* fdset);

// ---- The service thread -------------------------------------------------------------------------

/// Handed to a serv_conn thread, which frees it.
struct ServiceReqThreadParams {
  int sock;
  uint16_t port;  ///< the listening port on which the connection was accepted
  char ipaddr[kNameSize];
  sockaddr_in client_addr;
};

void* ServiceConnectionRequestThreadStart(void* thread_params);

/// Cancellation: closes the socket that `args` points at, unless it has been handed over (-1).
void ServiceConnectionRequestThreadCleanUp(void* args);
