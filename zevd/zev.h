// Start-up: options, detaching, what the threads share, and the threads themselves. Main thread,
// before there is another.
//
// Threads: "main", which becomes the console output monitor "cons_mon"; "cons_conn",
// "user_conn", "user_mon" and "cmd_mon"; and one short-lived "serv_conn" for every accepted user
// connection. No thread is ever joined and nothing global is ever destroyed, because any thread may
// end the process at any time.
#pragma once

namespace zevd {

/// Parses the options in command-line order; ends the process on -h, -V and on anything unknown.
void GetCommandLineOptions(int argc, char** argv);

/// Detaches from the terminal; output goes to "zevd.log" in the log directory from then on.
void RunAsDaemon();

/// Raises the descriptor limit and makes the global lists and the wakers ready.
void Initialize();

void CreateConsoleConnectionsThread();
void CreateUserConnectionsThread();
void CreateUserMonitorThread();
void CreateCommandMonitorThread();

}  // namespace zevd
