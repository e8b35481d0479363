// What the command line says. Written by the main thread before there is another, then only read,
// except for log_archive_time and USE_CMD_LINE_ARCH_TIME, which only the thread "cons_mon" uses
// from then on.
#pragma once

#include <cstdint>

namespace zevd {

extern int debug_level;             ///< -d: highest level that zev_debug() writes
extern int security_enabled;        ///< -S: nonzero: users must prove who they are
extern int cons_buf_size;           ///< -B: bytes of each console's replay ring, 0 for none
extern int suppress_cr;             ///< -s: nonzero: no carriage returns in log files
extern int foreground;              ///< -f: nonzero: do not detach
extern int32_t log_archive_time;    ///< -a: age in seconds at which a log directory is archived
extern int USE_CMD_LINE_ARCH_TIME;  ///< 1 after -a, valid or not, until the suite file has it
extern uint16_t user_port;          ///< -p: TCP port on which users connect
extern int max_pending_logins;      ///< most pending logins on a mapped port
extern const char* log_dir;         ///< -l: root of all log files
extern const char* config_file;     ///< -c: console configuration file
extern const char* progname;        ///< argv[0]

}  // namespace zevd
