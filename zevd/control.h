// The commands that act: "clear", "disable", "enable", "msg", "force" and "reconnect". The thread
// cmd_mon runs them; each takes the list locks itself and leaves its answer in the response state
// (answer.h). A name counts whatever its case; one that no console has gives an error.
#pragma once

#include "command.h"
#include "locks.h"

namespace zevd {

/// Disconnects the users of the first connected console of that name.
void ClearConsole(const char* cons_name, const CommandNode* tool) REQUIRES(cmd_lock);

/// Disconnects the consoles of that name and their users, and keeps those consoles disconnected.
void DisableConsole(const char* cons_name, const CommandNode* tool) REQUIRES(cmd_lock);

/// Lets the consoles of that name be connected again.
void EnableConsole(const char* cons_name, const CommandNode* tool) REQUIRES(cmd_lock);

/// Sends a message to the users of the connected consoles of that name; "-" stands for all
/// consoles.
void SendMsgToConsole(const char* cons_name, const CommandNode* tool, const char* message)
    REQUIRES(cmd_lock);

/// For the consoles of that name that are not connected: overrides the next refusal by a management
/// port, and has the thread cons_conn try them at once.
void ForceKPMConnection(const char* cons_name, const CommandNode* tool) REQUIRES(cmd_lock);

/// Has the thread cons_conn try the consoles of that name that are not connected at once, and not
/// when they are next due.
void ReconnectConsole(const char* cons_name);

}  // namespace zevd
