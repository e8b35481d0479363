#include "attach.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "audit.h"
#include "command.h"
#include "console.h"
#include "console_users.h"
#include "counters.h"
#include "error.h"
#include "fixed_text.h"
#include "journal_records.h"
#include "list.h"
#include "lists.h"
#include "sockets.h"
#include "user.h"
#include "user_output.h"
#include "utf8.h"
#include "waker.h"

namespace zevd {

// ---- Users --------------------------------------------------------------------------------------

namespace {

/// What the attaching code knows of the new user.
struct NewUser {
  int sock;
  const char* user_name;
  const char* ipaddr;
  const char* console_name;
  int mode;
  const Identity* identity;
  const char* greeting;  // after the replay; may be empty
};

constexpr char kAttach[] = "ConnectUserToConsole";

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
  if (!holder->output->Send(banner, strlen(banner))) {
    DEBUG_AS(kAttach, kInfo, "send() failed : %s\n", strerror(errno));
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

// 0 when the mode can be granted beside the users who are attached, else -1. Kept: a revocable
// holder is revoked before the other modes are looked at, and stays revoked when the new user is
// then refused.
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

// The text may be empty. A connection that has failed is noticed when it is read.
void SendText(UserOutput* output, const char* text) {
  if (*text != '\0') static_cast<void>(output->Send(text, strlen(text)));
}

// The negotiation that the console sent first lets the user's client behave as if it had connected
// to the console itself.
void GreetTelnetClient(const ConsoleNode* cnode, UserOutput* output) {
  SendText(output, cnode->telnet_cmd);
  SetTelnetOptions(output);
}

// A record that can be sent to, and the greeting. Null when there is no memory for it.
UserNode* MakeUser(ConsoleNode* cnode, const NewUser& user) REQUIRES(acl_lock) {
  UserNode* unode = NewUserNode(user.sock, cnode, user.user_name, user.ipaddr, user.mode);
  if (unode == nullptr) {
    DEBUG_AS(kAttach, kInfo, "NewUserNode() failed.\n");
    return nullptr;
  }
  if (!unode->output->Watch()) {
    SetUserError(kOutOfMemory);
    DEBUG_AS(kAttach, kError, "epoll_ctl() failed : %s\n", strerror(errno));
    DiscardUserNode(unode);
    return nullptr;
  }
  unode->identity = *user.identity;
  GreetTelnetClient(cnode, unode->output.get());
  return unode;
}

// Puts the user on its console's list; from then on it receives output. Null when refused.
UserNode* JoinConnectedConsole(ConsoleNode* cnode, const NewUser& user) REQUIRES(acl_lock) {
  if (ClaimConsole(cnode, user) != 0) return nullptr;
  UserNode* unode = MakeUser(cnode, user);
  if (unode == nullptr) return nullptr;
  if (AddUserToList(unode, cnode->user_list) != 0) {
    DEBUG_AS(kAttach, kInfo, "AddUserToList() failed.\n");
    DiscardUserNode(unode);
    return nullptr;
  }
  JournalAttached(unode);
  JournalPause(cnode);
  SendBufferedConsoleOutputToUser(cnode, unode);
  SendText(unode->output.get(), user.greeting);
  return unode;
}

// Null when refused. A console that moves between the lists while both are looked at one after the
// other may be missed on both, so a name that is found on neither is looked for twice.
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

// The caller is about to close the socket, so nobody may go on sending to it.
void LeaveConsole(UserNode* unode) {
  const WriteLock lock(acl_lock, CallSite{kAttach, __LINE__});
  UserList* users = unode->cnode->user_list;
  if (IsUserInUserList(unode, users)) RemoveUserFromList(unode, users);
  JournalLeft(unode);
  JournalPause(unode->cnode);
  DiscardUserNode(unode);
}

// Puts the user on the global list; from then on it is the user input monitor's.
int JoinUserList(UserNode* unode, const NewUser& user) {
  WriteLock lock(ul_lock, CallSite{kAttach, __LINE__});
  if (AddUserToList(unode, user_list) != 0) {
    DEBUG_AS(kAttach, kInfo, "AddUserToList() failed.\n");
    lock.Release();
    LeaveConsole(unode);
    return -1;
  }
  DEBUG_AS(kAttach, kInfo, "Connected user \"%s\" to console \"%s\" with mode = %s.\n",
           user.user_name, user.console_name, ModeNumToName(user.mode));
  // With the lock held, so that the entry that tells of the user's leaving comes after this one.
  Audit({"attach", "accepted", &unode->identity, unode->cons_name, ModeKeyword(unode->mode)});
  counters.users_attached.Add();
  user_mon_waker.Wake();
  return 0;
}

}  // namespace

int ConnectUserToConsole(int user_sock, const char* user_name, const char* ipaddr,
                         const char* console_name, uint16_t mode, const Identity& identity,
                         const char* greeting) {
  ENTERING();
  const NewUser user = {user_sock, user_name, ipaddr, console_name, mode, &identity, greeting};
  UserNode* unode = JoinConsole(user);
  return unode == nullptr ? -1 : JoinUserList(unode, user);
}

// ---- Tools --------------------------------------------------------------------------------------

int MonitorSocketForCommands(int sock, const char* user_name, const char* ipaddr,
                             const Identity& identity) {
  ENTERING();
  CommandNode* tool = NewCommandNode(user_name, ipaddr);
  if (tool == nullptr) {
    zev_debug(kError, "%s: NewCommandNode() failed\n", __func__);
    return -1;
  }
  const WriteLock lock(cmd_lock, HERE);
  tool->sock = sock;
  tool->connected = 1;
  tool->identity = identity;
  if (AddCommandToList(tool, cmd_list) != 0) {
    // The node is not freed: a small leak, after an allocation that has failed already.
    // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks)
    zev_debug(kError, "%s: AddCommandToList() failed\n", __func__);
    return -1;
  }
  Audit({"attach", "accepted", &tool->identity, kCommandConsole});
  counters.tools_attached.Add();
  cmd_mon_waker.Wake();
  return 0;
}

}  // namespace zevd
