#include "user.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "counters.h"
#include "error.h"
#include "list_functions.h"
#include "waker.h"

namespace zevd {

// ---- Errors and modes ---------------------------------------------------------------------------

thread_local const char* u_err_msg = nullptr;

namespace {

static_assert(kUserErrorCount == kHighestRefusal);

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
  const char* word;     // what programs are told
};

constexpr AccessModeRow kAccessModes[] = {
    {kExclusiveRevocable, "er", "??", "exclusive-revoke"},
    {kExclusive, "ex", "exclusive", "exclusive"},
    {kShared, "sh", "shared", "shared"},
    {kReadOnly, "ro", "read-only", "read-only"},
};

// A text of the mode's row, or `otherwise` for a number that is no mode.
const char* TextOfMode(int mode, const char* AccessModeRow::*text, const char* otherwise) {
  for (const AccessModeRow& row : kAccessModes) {
    if (row.mode == mode) return row.*text;
  }
  return otherwise;
}

}  // namespace

const char* UserErrorText(UserError error) {
  ENTERING();
  return kUserErrorTexts[error - 1];
}

void SetUserError(UserError error) {
  u_err_msg = UserErrorText(error);
}

int Refuse(UserError error, const char* format, const char* function, const char* console_name) {
  SetUserError(error);
  zev_debug(kInfo, format, function, console_name);
  return -1;
}

void SendErrorToUser(int sock, const char* err_msg) {
  ENTERING();
  if (err_msg == nullptr) return;
  zev_debug(kInfo, "%s: %s", __func__, err_msg);
  counters.refusals.Add();
  const size_t number = strtoul(err_msg, nullptr, 10);
  if (number >= 1 && number <= kHighestRefusal) counters.refusals_by_number[number - 1].Add();
  TEMP_FAILURE_RETRY(send(sock, err_msg, strlen(err_msg), 0));
}

void ReportNoMemory(const char* function) {
  SetUserError(kOutOfMemory);
  ReportOutOfMemory(function);
}

const char* ModeNumToName(int mode) {
  ENTERING();
  return TextOfMode(mode, &AccessModeRow::name, "??");
}

const char* ModeKeyword(int mode) {
  return TextOfMode(mode, &AccessModeRow::keyword, "");
}

const char* ModeWord(int mode) {
  return TextOfMode(mode, &AccessModeRow::word, "unknown");
}

std::optional<AccessMode> FindMode(const char* keyword) {
  for (const AccessModeRow& row : kAccessModes) {
    if (strcmp(row.keyword, keyword) == 0) return row.mode;
  }
  return std::nullopt;
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
  // Kept: read-only users who came before an exclusive one keep it from blocking others.
  const UserListElem* first = cnode->user_list->head;
  return first != nullptr && first->unode->mode == kExclusive;
}

// ---- Records and lists --------------------------------------------------------------------------

UserNode* NewUserNode(int sock, ConsoleNode* cnode, const char* user_name, const char* ipaddr,
                      int mode) {
  ENTERING();
  auto* unode = new (std::nothrow) UserNode{};
  std::unique_ptr<UserOutput> output(new (std::nothrow) UserOutput(sock));
  if (unode == nullptr || output == nullptr) {
    ReportNoMemory(__func__);
    delete unode;
    return nullptr;
  }
  unode->output = std::move(output);
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

int DropReference(ConsoleNode* cnode) {
  const bool deleted = cnode->deleted == 1;
  const int references = --cnode->ref_count;
  if (references == 0 && deleted) {
    // Whichever thread owns its list frees it now.
    cons_mon_waker.Wake();
    cons_conn_waker.Wake();
  }
  return references;
}

void DiscardUserNode(UserNode* unode) {
  ConsoleNode* cnode = unode->cnode;
  delete unode;
  DropReference(cnode);
}

UserListElem* NewUserListElem(UserNode* unode) {
  ENTERING();
  return NewElement<UserList>(unode, ReportNoMemory);
}

UserList* NewUserList(const char* list_name) {
  ENTERING();
  return NewNamedList(list_name, InitUserList, ReportNoMemory);
}

void InitUserList(UserList* list, const char* list_name) {
  ENTERING();
  InitNamedList(list, list_name, ReportNoMemory);
}

void FreeUserList(UserList* list) {
  ENTERING();
  FreeListRecord(list);
}

int AddUserToList(UserNode* unode, UserList* list) {
  ENTERING();
  UserListElem* elem = MakeElement(*list, unode, NewUserListElem, ReportNoMemory);
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
  if (!UnlinkNode(*list, unode)) INTERNAL_ERROR("%s: unode not found in user_list\n", __func__);
  zev_debug(kTrace, "%s: Removed user from %s for console %s.\n", __func__, list->list_name,
            unode->cnode->cname);
  if (list->count < 0) INTERNAL_ERROR("%s: user_list->count = %d\n", __func__, list->count);
  Recompute(*list);
  return 0;
}

bool IsUserInUserList(const UserNode* unode, const UserList* list) {
  ENTERING();
  return list != nullptr && FindElement(*list, unode) != nullptr;
}

}  // namespace zevd
