// The commands that look: "console", "who", "mapped_port" and "portholder". The thread cmd_mon runs
// them; each takes the list locks itself and leaves its answer in the response state (answer.h). A
// name counts whatever its case; a null one stands for every console. docs/protocol.md describes
// the answers.
#pragma once

#include "console.h"

namespace zevd {

void ProcessConsoleCommand(const char* cons_name);
void ProcessWhoCommand(const char* cons_name);
void ProcessMappedPortCommand(const char* cons_name);
void PelloxPortHolder(const char* cons_name);

/// The two bytes of a console's status; the caller holds the list's lock.
void GetStatusCode(const ConsoleNode* cnode, char (&status)[2]);

}  // namespace zevd
