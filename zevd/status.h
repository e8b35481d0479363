// The two queries that answer with JSON, one object in a line: "status" and "stats". The keys are
// described in docs/protocol.md. Both run on the cmd_mon thread.
#pragma once

namespace zevd {

/// The consoles of that name, in any case, or all of them without a name; first those that are
/// connected.
void ProcessStatusCommand(const char* cons_name);

/// What the daemon has done since it started.
void ProcessStatsCommand();

}  // namespace zevd
