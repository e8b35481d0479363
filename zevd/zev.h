// Start-up: options, detaching, what the threads share, and the threads themselves. Main thread,
// before there is another.
//
// Threads: "main", which becomes the console output monitor "cons_mon"; "cons_conn",
// "user_conn", "user_mon" and "cmd_mon"; and one short-lived "serv_conn" for every accepted user
// connection. No thread is ever joined and nothing global is ever destroyed, because any thread may
// end the process at any time.
#pragma once

namespace zevd {

/// Parses the options in command-line order; ends the process on -h, -V, an invalid -a and on
/// anything unknown.
void GetCommandLineOptions(int argc, char** argv);

/// Detaches from the terminal; output goes to "zevd.log" in the log directory from then on. The
/// instance lock is released and taken again. A failure ends the process.
void RunAsDaemon();

/// Starts the counters, raises the descriptor limit, and makes the audit trail, the wakers and the
/// global lists ready.
void Initialize();

// A thread that cannot be created ends the process.

void CreateConsoleConnectionsThread();
void CreateUserConnectionsThread();
void CreateUserMonitorThread();
void CreateCommandMonitorThread();

}  // namespace zevd
