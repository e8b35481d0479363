// What the whole daemon shares: the options, the global lists and their locks, the pause protocol.
//
// Threads: "main", which becomes the console output monitor "cons_mon"; "cons_conn",
// "user_conn", "user_mon" and "cmd_mon"; and one short-lived "serv_conn" for every accepted user
// connection. No thread is ever joined and nothing global is ever destroyed, because any thread may
// end the process at any time.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "cmd_mon.h"
#include "cons_conn.h"
#include "event_set.h"
#include "locks.h"
#include "mapped_port.h"
#include "models.h"
#include "user_conn.h"

// ---- Options: written before the worker threads start, only read afterwards ---------------------

extern int debug_level;             ///< -d: highest level that zev_debug() writes
extern int security_enabled;        ///< -S: nonzero: users must prove who they are
extern int cons_buf_size;           ///< -B: bytes of each console's replay ring, 0 for none
extern int suppress_cr;             ///< -s: nonzero: no carriage returns in log files
extern int foreground;              ///< -f: nonzero: do not detach
extern int32_t log_archive_time;    ///< -a: age in seconds at which a log directory is archived
extern int USE_CMD_LINE_ARCH_TIME;  ///< 1 once -a was given, valid or not
extern uint16_t user_port;          ///< -p: TCP port on which users connect
extern int max_pending_logins;      ///< most pending logins on a mapped port
extern const char* log_dir;         ///< -l: root of all log files
extern const char* config_file;     ///< -c: console configuration file
extern const char* progname;        ///< argv[0]

// ---- The global lists; they live for ever -------------------------------------------------------

extern ConsoleList* const a_cons_list PT_GUARDED_BY(acl_lock);  ///< connected consoles
extern ConsoleList* const i_cons_list PT_GUARDED_BY(icl_lock);  ///< all other consoles
extern UserList* const user_list PT_GUARDED_BY(ul_lock);        ///< every attached user
extern CommandList* const cmd_list PT_GUARDED_BY(cmd_lock);     ///< command connections
extern EventSetList* const ev_list;  ///< changed before the threads start, or with both console
                                     ///< list locks held
/// Changed by the user_conn thread alone, the elements with pending_logins_mutex held; the set, the
/// index and the watch are that thread's own.
extern MappedPortList* const mapped_port_list;
extern ModelList model_list;  ///< filled before the threads start, then only read

// ---- Pause protocol: one bit for every long-lived thread ----------------------------------------

enum PauseBit : unsigned {
  kPauseConsConn = 0x1,
  kPauseConsMon = 0x2,
  kPauseUserConn = 0x4,
  kPauseUserMon = 0x8,
  kPauseCmdMon = 0x10,
};

extern std::atomic<unsigned> thread_waitreq_mask;  ///< written by the console output monitor
extern std::atomic<unsigned> thread_waiting_mask;  ///< each bit written by its own thread

/// Lets the kernel wake the calling thread half a millisecond later than it asked to be, together
/// with others (prctl(2), PR_SET_TIMERSLACK). For threads that only look round, 2000 times a
/// second: a timer interrupt of its own for each of their pauses is most of what an idle station
/// costs.
void ShareWakeUps();

/// Top of a long-lived thread's loop: stands still while the thread's bit is requested.
void ParkIfAsked(unsigned bit);

// ---- Start-up; main thread only -----------------------------------------------------------------

/// Parses the options in command-line order; ends the process on -h, -V and on anything unknown.
void GetCommandLineOptions(int argc, char** argv);

/// Seconds that the argument of -a stands for, also stored in log_archive_time; -1 when invalid.
int32_t GetLogArchiveTime(const char* str);

[[noreturn]] void ShowUsage(const char* program);
[[noreturn]] void ShowVersion();

/// Detaches from the terminal; output goes to "zevd.log" in the log directory from then on.
void RunAsDaemon();

/// Raises the descriptor limit and makes the global lists and the wakers ready.
void Initialize();

void CreateConsoleConnectionsThread();
void CreateUserConnectionsThread();
void CreateUserMonitorThread();
void CreateCommandMonitorThread();
