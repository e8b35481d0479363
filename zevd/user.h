// The record of an attached user, lists of such records, and what users are told: error texts and
// the names of access modes.
#pragma once

#include <atomic>
#include <ctime>
#include <memory>
#include <optional>

#include "console.h"
#include "fixed_text.h"
#include "identity.h"
#include "locks.h"
#include "stall.h"
#include "user_list.h"
#include "user_output.h"

namespace zevd {

enum AccessMode : int {
  kReadOnly = 1,
  kShared = 2,
  kExclusive = 3,
  kExclusiveRevocable = 4,  ///< the next user in any mode but read-only takes the console over
};

/// One attached user, on its console's user list and on the global user_list. Only the user input
/// monitor takes it off user_list, closes its socket and frees it. A field without a remark is
/// written before anybody else knows the record, and not changed afterwards.
struct UserNode {
  int sock;
  std::atomic<int> connected;             ///< 0: to be removed; any thread may clear it
  std::atomic<const char*> close_reason;  ///< why it was first cleared; null before
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
  int send_error GUARDED_BY(ul_lock);  ///< why sending to the console failed, 0 when it did not
  Stall console_stall GUARDED_BY(ul_lock);  ///< the console takes nothing of what the user types
  bool typed_iac GUARDED_BY(ul_lock);       ///< what was typed last begins a telnet command
  std::unique_ptr<UserOutput> output;       ///< the way of everything that the user is sent
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

/// The text of an error: "NNN - text\r\n". It is never freed.
const char* UserErrorText(UserError error);
void SetUserError(UserError error);

/// Sets the error and tells the debug output why: `format` takes the name of the function and that
/// of the console. Returns -1.
int Refuse(UserError error, const char* format, const char* function, const char* console_name);

/// Sends the text, if there is one, and counts the refusal.
void SendErrorToUser(int sock, const char* err_msg);

/// Reports an allocation that failed in `function`, as ReportOutOfMemory(), and sets error 013.
void ReportNoMemory(const char* function);

// ---- Access modes -------------------------------------------------------------------------------

/// "read-only", "shared" or "exclusive"; every other mode, revocable included, is "??".
const char* ModeNumToName(int mode);

/// "ro", "sh", "ex" or "er", as in the argument line; empty for another number.
const char* ModeKeyword(int mode);

/// "read-only", "shared", "exclusive" or "exclusive-revoke", as programs are told; "unknown" for
/// another number.
const char* ModeWord(int mode);

/// The mode of a keyword of the argument line, if there is one.
std::optional<AccessMode> FindMode(const char* keyword);

/// 0 when some user of the console holds mode 2 or 3, else 1. The caller of this and of the next
/// two holds the lock of the console's list.
int CanGrantExclAccess(const ConsoleNode* cnode);

/// 1 when some user of the console holds mode 4.
int HasExclRevokeConn(const ConsoleNode* cnode);

/// True when the first user of the console, and only the first, holds mode 3.
bool IsLockedExclusively(const ConsoleNode* cnode);

/// The name that is shown for a user who gave none.
inline constexpr char kUnknownUser[] = "<unknown>";

// ---- Records and lists --------------------------------------------------------------------------

// Whoever changes or reads a list holds its lock, unless nobody else knows the list. Allocation
// failures set u_err_msg to error 013, are reported, and give null or -1.

/// A record for a user who is being attached, counted in the console's ref_count.
UserNode* NewUserNode(int sock, ConsoleNode* cnode, const char* user_name, const char* ipaddr,
                      int mode) REQUIRES(acl_lock);

/// Uncounts one user of the console, which may be freed by its own thread from then on. Returns how
/// many are left.
int DropReference(ConsoleNode* cnode) REQUIRES(acl_lock);

/// For a user who was never put on user_list: uncounts and frees the record, and leaves the socket
/// open.
void DiscardUserNode(UserNode* unode) REQUIRES(acl_lock);
UserListElem* NewUserListElem(UserNode* unode);
UserList* NewUserList(const char* list_name);
void InitUserList(UserList* list, const char* list_name);

/// Frees the list and its name; elements and users are the caller's business.
void FreeUserList(UserList* list);

/// Appends at the tail. 0 or -1.
int AddUserToList(UserNode* unode, UserList* list);

/// Unlinks the user and neither closes nor frees it. A user who is not there ends the process.
int RemoveUserFromList(UserNode* unode, UserList* list);
bool IsUserInUserList(const UserNode* unode, const UserList* list);

}  // namespace zevd
