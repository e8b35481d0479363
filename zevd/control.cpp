#include "control.h"

#include <cstdio>
#include <cstring>

#include "answer.h"
#include "console.h"
#include "console_users.h"
#include "error.h"
#include "journal_records.h"
#include "list.h"
#include "lists.h"
#include "locks.h"
#include "waker.h"

namespace zevd {

namespace {

/// A text that names the operator, as the users will see it.
struct OperatorText {
  char text[kMessageBufferSize];
  OperatorText(const char* what, const CommandNode* tool) REQUIRES(cmd_lock) {
    snprintf(text, sizeof text, "%s by %s@%s", what, tool->user_name, tool->ipaddr);
  }
};

// Runs `act` for every matching console of the list. True when there was one.
template <typename Action>
bool ForEachMatch(const ConsoleList& list, const char* cons_name, Action act) {
  bool found = false;
  for (ConsoleNode* cnode : Nodes(list)) {
    if (!IsCalled(*cnode, cons_name)) continue;
    act(cnode);
    found = true;
  }
  return found;
}

void ThrowUsersOff(const char* function, ConsoleNode* cnode, const char* text, const char* reason) {
  DEBUG_AS(function, kInfo, "%s\n", text);
  SendMsgToUsers(cnode, text);
  CloseUserConnections(cnode, reason);
}

void MarkDisabled(ConsoleNode* cnode, const Identity* who) {
  if (cnode->enable != 0) JournalDisabled(cnode, who);
  cnode->status = kNotConnected;
  cnode->enable = 0;
}

// Changes every console of that name that is not connected; a connected one needs no change. True
// when there is either.
template <typename Action>
bool ChangeInaccessible(const char* cons_name, Action act, CallSite site) {
  const WriteLockPair lock(icl_lock, acl_lock, Release::kFirstFirst, site);
  return ForEachMatch(*i_cons_list, cons_name, act) ||
         FindByAnyCase(a_cons_list, cons_name) != nullptr;
}

}  // namespace

void ClearConsole(const char* cons_name, const CommandNode* tool) {
  ENTERING();
  const OperatorText text("Your session has been terminated", tool);
  bool found = false;
  {
    const WriteLockPair lock(acl_lock, icl_lock, Release::kSecondFirst, HERE);
    ConsoleNode* cnode = FindByAnyCase(a_cons_list, cons_name);
    if (cnode != nullptr)
      ThrowUsersOff(__func__, cnode, text.text, "An operator cleared the console.");
    found = cnode != nullptr || FindByAnyCase(i_cons_list, cons_name) != nullptr;
  }
  if (!found) return AnswerUnrecognizedAndLog(__func__, cons_name);
  AnswerDone();
}

void DisableConsole(const char* cons_name, const CommandNode* tool) {
  ENTERING();
  const OperatorText text("Console has been disabled", tool);
  const Identity* who = &tool->identity;
  constexpr char kFunction[] = "DisableConsole";
  bool found = false;
  {
    const WriteLockPair lock(acl_lock, icl_lock, Release::kSecondFirst, HERE);
    found = ForEachMatch(*a_cons_list, cons_name, [&](ConsoleNode* cnode) {
      ThrowUsersOff(kFunction, cnode, text.text, "An operator disabled the console.");
      MarkDisabled(cnode, who);
      cons_mon_waker.Wake();
    });
    if (!found) {
      found = ForEachMatch(*i_cons_list, cons_name, [&](ConsoleNode* cnode) {
        DEBUG_AS(kFunction, kInfo, "%s\n", text.text);
        MarkDisabled(cnode, who);
        cons_conn_waker.Wake();
      });
    }
  }
  if (!found) return AnswerUnrecognizedAndLog(__func__, cons_name);
  AnswerDone();
}

void EnableConsole(const char* cons_name, const CommandNode* tool) {
  ENTERING();
  const Identity* who = &tool->identity;
  const auto enable = [&](ConsoleNode* cnode) {
    if (cnode->enable == 0) JournalEnabled(cnode, who);
    cnode->enable = 1;
    cons_conn_waker.Wake();
  };
  bool found = false;
  {
    const WriteLockPair lock(acl_lock, icl_lock, Release::kSecondFirst, HERE);
    found = ForEachMatch(*a_cons_list, cons_name, enable) ||
            ForEachMatch(*i_cons_list, cons_name, enable);
  }
  if (!found) return AnswerUnrecognized(cons_name);
  AnswerDone();
}

void SendMsgToConsole(const char* cons_name, const CommandNode* tool, const char* message) {
  ENTERING();
  constexpr char kAllConsoles[] = "-";
  const Identity* who = &tool->identity;
  char text[kMessageBufferSize];
  snprintf(text, sizeof text, "Message from %s@%s: \n\n\r%s", tool->user_name, tool->ipaddr,
           message);
  const bool to_all = strcmp(cons_name, kAllConsoles) == 0;
  bool found = to_all;
  {
    const WriteLock lock(acl_lock, HERE);
    found |= ForEachMatch(*a_cons_list, to_all ? nullptr : cons_name, [&](ConsoleNode* cnode) {
      SendMsgToUsers(cnode, text);
      if (!to_all) JournalMessage(cnode, *who, message);
    });
  }
  if (to_all) JournalMessage(nullptr, *who, message);
  if (!found) return AnswerUnrecognized(cons_name);
  AnswerDone();
}

void ForceKPMConnection(const char* cons_name, const CommandNode* /*tool*/) {
  ENTERING();
  const auto force = [](ConsoleNode* cnode) {
    cnode->force = 1;
    if (cnode->sock == -1) cnode->lfca_time = 0;
    cons_conn_waker.Wake();
  };
  const bool found = ChangeInaccessible(cons_name, force, HERE);
  if (!found) return AnswerUnrecognizedAndLog(__func__, cons_name);
  AnswerDone();
}

void ReconnectConsole(const char* cons_name) {
  ENTERING();
  const auto try_again = [](ConsoleNode* cnode) {
    cnode->lfca_time = 0;
    cons_conn_waker.Wake();
  };
  const bool found = ChangeInaccessible(cons_name, try_again, HERE);
  if (!found) return AnswerUnrecognizedAndLog(__func__, cons_name);
  AnswerDone();
}

}  // namespace zevd
