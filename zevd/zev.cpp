#include "zev.h"

#include <fcntl.h>
#include <getopt.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "audit.h"
#include "cmd_mon.h"
#include "cons_conn.h"
#include "counters.h"
#include "error.h"
#include "lists.h"
#include "lock_file.h"
#include "log_directory.h"
#include "options.h"
#include "safe_file.h"
#include "typed_consoles.h"
#include "user_conn.h"
#include "user_mon.h"
#include "user_output.h"
#include "waker.h"
#include "zev_steps.h"

namespace zevd {

namespace {

pthread_t cons_conn_thread;
pthread_t user_conn_thread;
pthread_t user_mon_thread;
pthread_t cmd_mon_thread;
pthread_attr_t cons_conn_attr;
pthread_attr_t user_conn_attr;
pthread_attr_t user_mon_attr;
pthread_attr_t cmd_mon_attr;

constexpr char kOptionString[] = "a:c:d:l:p:fhVs:S:D:B:";
constexpr int32_t kSecondsPerMinute = 60;
constexpr int32_t kSecondsPerDay = 86400;
constexpr int32_t kSecondsPerWeek = 604800;

constexpr char kUsage[] =
    "usage: %s [options]\n"
    "\n"
    " options:\n"
    "   -a N[dw]          Archive log files every N days (d) or weeks (w).\n"
    "                     Default: %d days\n"
    "   -c config_file    Configuration file containing consoles to monitor.\n"
    "                     Default: %s\n"
    "   -d N              Set debug level to N\n"
    "                     Default: %d\n"
    "   -D                Connect to management ports only on demand.\n"
    "   -f                Run in foreground mode.\n"
    "   -h                Display this help message.\n"
    "   -l                Log file directory.\n"
    "                     Default: %s\n"
    "   -p N              Listen on port N for user connections.\n"
    "                     Default: %d\n"
    "   -s { 0 | 1 }      Strip carriage returns from log files.\n"
    "                     Default: %d\n"
    "   -B N              Send up to N bytes of buffered console output when the\n"
    "                     user connects to the console.\n"
    "                     Default: %d\n"
    "   -S { 0 | 1 }      Turn on/off security.\n"
    "                     Default: %d\n"
    "   -V                Display version.\n";

void SetArchiveTime(const char* argument) {
  if (GetLogArchiveTime(argument) != -1) return;
  fprintf(stderr, "Invalid option \"-%c %s\"\n", 'a', argument);
  EXIT_PROCESS(1);
}

const char* CopyArgument(const char* argument) {
  const char* copy = strdup(argument);
  if (copy != nullptr) return copy;
  ReportOutOfMemory("GetCommandLineOptions");
  EXIT_PROCESS(1);
}

/// One row for every option that is handled; a letter of the option string without a row (-D) ends
/// the process like an unknown one.
struct Option {
  char letter;
  void (*apply)(const char* argument);
};

constexpr Option kOptions[] = {
    {'a', SetArchiveTime},
    {'c', [](const char* argument) { config_file = CopyArgument(argument); }},
    {'d', [](const char* argument) { debug_level = atoi(argument); }},
    {'f', [](const char*) { foreground = 1; }},
    {'h', [](const char*) { ShowUsage(progname); }},
    {'l', [](const char* argument) { log_dir = CopyArgument(argument); }},
    {'p', [](const char* argument) { user_port = static_cast<uint16_t>(atoi(argument)); }},
    {'s', [](const char* argument) { suppress_cr = atoi(argument); }},
    {'B', [](const char* argument) { cons_buf_size = atoi(argument); }},
    {'S', [](const char* argument) { security_enabled = atoi(argument); }},
    {'V', [](const char*) { ShowVersion(); }},
};

const Option* FindOption(int letter) {
  for (const Option& option : kOptions) {
    if (option.letter == letter) return &option;
  }
  return nullptr;
}

// Products beyond 32 bits wrap round, as the 32-bit seconds of the setting do.
int32_t Seconds(const char* count, int32_t unit) {
  return static_cast<int32_t>(static_cast<uint32_t>(atoi(count)) * static_cast<uint32_t>(unit));
}

int32_t ParseArchiveTime(const char* str) {
  const size_t length = strlen(str);
  const char unit = length == 0 ? '\0' : str[length - 1];
  if (unit == 'm') return Seconds(str, kSecondsPerMinute);
  if (unit == 'd' || (unit >= '0' && unit <= '9')) return Seconds(str, kSecondsPerDay);
  if (unit == 'w') return Seconds(str, kSecondsPerWeek);
  return -1;
}

// Opened for appending, so that a tool that copies the file and truncates it leaves no hole in it.
// The output of the last run is kept under the old name.
int OpenOutputFile() {
  const LogPath path("zevd.log");
  rename(path.text, LogPath("zevd.log.old").text);
  bool is_new = false;
  const int fd = OpenOrMakeRegularFile(AT_FDCWD, path.text, O_WRONLY | O_APPEND, 0770, &is_new);
  if (fd == -1 || ftruncate(fd, 0) != 0) {
    DEBUG_AS("RunAsDaemon", kError, "open() failed : %s\n", strerror(errno));
    EXIT_PROCESS(1);
  }
  if (GiveStationGroup(fd) != 0) {
    DEBUG_AS("RunAsDaemon", kError, "chown failed : %s\n", strerror(errno));
    EXIT_PROCESS(1);
  }
  return fd;
}

// A station may have thousands of consoles, each with a mapped port and a log file.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void OpenWaker(Waker& waker) {
  if (waker.Open()) return;
  DEBUG_AS("Initialize", kError, "eventfd() failed : %s\n", strerror(errno));
  EXIT_PROCESS(1);
}

void OpenEpoll(bool opened) {
  if (opened) return;
  DEBUG_AS("Initialize", kError, "epoll_create1() failed : %s\n", strerror(errno));
  EXIT_PROCESS(1);
}

void CreateThread(pthread_t* thread, pthread_attr_t* attr, void* (*start)(void*),
                  const char* function, const char* termination_text) {
  pthread_attr_init(attr);
  pthread_attr_setinheritsched(attr, PTHREAD_INHERIT_SCHED);
  const int error = pthread_create(thread, attr, start, nullptr);
  if (error == 0) return;
  DEBUG_AS(function, kError, "pthread_create() failed : %s\n", strerror(error));
  TERMINATE(termination_text);
}

}  // namespace

void GetCommandLineOptions(int argc, char** argv) {
  ENTERING();
  for (int letter = getopt(argc, argv, kOptionString); letter != -1;
       letter = getopt(argc, argv, kOptionString)) {
    const Option* option = FindOption(letter);
    if (option == nullptr) EXIT_PROCESS(1);
    option->apply(optarg);
  }
}

int32_t GetLogArchiveTime(const char* str) {
  ENTERING();
  USE_CMD_LINE_ARCH_TIME = 1;
  log_archive_time = ParseArchiveTime(str);
  return log_archive_time;
}

void ShowUsage(const char* program) {
  ENTERING();
  printf(kUsage, program, static_cast<int>(log_archive_time / kSecondsPerDay), config_file,
         debug_level, log_dir, user_port, suppress_cr, cons_buf_size, security_enabled);
  fflush(stdout);  // the exit trace comes after it
  EXIT_PROCESS(0);
}

void ShowVersion() {
  ENTERING();
  printf("QOR version %s build date %s\n", QOR_VERSION, __DATE__ " " __TIME__);
  fflush(stdout);  // the exit trace comes after it
  EXIT_PROCESS(0);
}

void RunAsDaemon() {
  ENTERING();
  // The process that holds the lock ends in daemon().
  if (Unlock() != 0) {
    fprintf(stderr, "Unlock() failed.\n");
    EXIT_PROCESS(1);
  }
  if (daemon(1, 0) != 0) {
    zev_debug(kError, "%s: daemon() failed : %s\n", __func__, strerror(errno));
    EXIT_PROCESS(1);
  }
  const int fd = OpenOutputFile();
  dup2(fd, STDOUT_FILENO);
  dup2(fd, STDERR_FILENO);
  if (Lock() != 0) {
    zev_debug(kError, "zevd is already running on this machine.\n");
    EXIT_PROCESS(1);
  }
}

void Initialize() {
  ENTERING();
  StartCounting();
  RaiseDescriptorLimit();
  OpenAudit();
  OpenWaker(cons_conn_waker);
  OpenWaker(cons_mon_waker);
  OpenWaker(user_conn_waker);
  OpenWaker(user_mon_waker);
  OpenWaker(cmd_mon_waker);
  OpenEpoll(OpenUserOutputs());
  OpenEpoll(typed_consoles.Open());
  InitializeLists();
}

void CreateConsoleConnectionsThread() {
  ENTERING();
  CreateThread(&cons_conn_thread, &cons_conn_attr, ConsoleConnectionsThreadStart, __func__,
               "Terminated: Couldn't create cons_conn thread");
}

void CreateUserConnectionsThread() {
  ENTERING();
  CreateThread(&user_conn_thread, &user_conn_attr, UserConnectionsThreadStart, __func__,
               "Terminated: Couldn't create user_conn thread");
}

void CreateUserMonitorThread() {
  ENTERING();
  CreateThread(&user_mon_thread, &user_mon_attr, UserMonitorThreadStart, __func__,
               "Terminated: Couldn't create user_mon thread");
}

void CreateCommandMonitorThread() {
  ENTERING();
  CreateThread(&cmd_mon_thread, &cmd_mon_attr, CommandMonitorThreadStart, __func__,
               "Terminated: Couldn't create cmd_mon thread");
}

}  // namespace zevd
