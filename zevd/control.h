// The commands that act: "clear", "disable", "enable", "msg", "force" and "reconnect". The cmd_mon
// thread's own; each takes the list locks itself. A name that no console has is the answer.
#pragma once

#include "command.h"

namespace zevd {

void ClearConsole(const char* cons_name, const CommandNode* tool) REQUIRES(cmd_lock);
void DisableConsole(const char* cons_name, const CommandNode* tool) REQUIRES(cmd_lock);
void EnableConsole(const char* cons_name);
void SendMsgToConsole(const char* cons_name, const CommandNode* tool, const char* message)
    REQUIRES(cmd_lock);
void ForceKPMConnection(const char* cons_name, const CommandNode* tool) REQUIRES(cmd_lock);
/// Has `cons_conn` try a console that is not connected at once, not at its next turn.
void ReconnectConsole(const char* cons_name);

}  // namespace zevd
