// The two queries that answer with JSON, one object in a line: "status" and "stats". The keys are
// described in docs/protocol.md. Both run on the cmd_mon thread.
#pragma once

namespace zevd {

/// The consoles of that name, whatever its case, or all of them without a name; connected ones
/// first.
void ProcessStatusCommand(const char* cons_name);

/// What the daemon has done since it started.
void ProcessStatsCommand();

}  // namespace zevd
