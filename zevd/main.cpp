// Start-up: everything up to the creation of the worker threads runs alone on the main thread,
// which then becomes the console output monitor.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "archive_time.h"
#include "audit.h"
#include "cancellation.h"
#include "cons_mon.h"
#include "cookie.h"
#include "error.h"
#include "event.h"
#include "event_set.h"
#include "fixed_text.h"
#include "journal_keeper.h"
#include "journal_records.h"
#include "lists.h"
#include "load.h"
#include "lock_file.h"
#include "log.h"
#include "log_directory.h"
#include "matcher.h"
#include "matcher_process.h"
#include "models.h"
#include "options.h"
#include "service_manager.h"
#include "thread_safety.h"
#include "threads.h"
#include "zev.h"
#include "zev_signal.h"

namespace zevd {

namespace {

// A file that the daemon opens must not become one of the three standard descriptors: the debug
// output would end up in it.
void OccupyStandardDescriptors() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = open("/dev/null", O_RDWR);
  if (fd > STDERR_FILENO) close(fd);
}

// Before the first message, so that a reader of the output who goes away does not end the daemon.
void OutliveReaders() {
  sigset_t broken_pipe;
  sigemptyset(&broken_pipe);
  sigaddset(&broken_pipe, SIGPIPE);
  sigprocmask(SIG_BLOCK, &broken_pipe, nullptr);
}

[[noreturn]] void RefuseSecondInstance() {
  char hostname[kNameSize];
  if (GetHostFromLockFile(hostname, sizeof hostname) == 0) {
    fprintf(stderr, "zevd is already running on \"%s\".\n", hostname);
  } else {
    fprintf(stderr, "zevd is already running.\n");
  }
  EXIT_PROCESS(1);
}

// Before the first thread is created, so that every thread inherits the blocked set.
void ArrangeSignals() {
  BlockSignal(SIGHUP);
  BlockSignal(SIGPIPE);
  ArrangeCancelSignal();
  signal(SIGTERM, TermHandler);
  signal(SIGCHLD, SIG_DFL);  // ignored, it would keep helpers from being waited for
}

void LoadConfiguration() NO_THREAD_SAFETY_ANALYSIS {  // no other thread exists yet
  LoadEventFiles(ev_list);
  matcher.SetsChanged();
  LoadConfigFile(i_cons_list);
  JournalNamesOf(*i_cons_list);
  JournalPausesOf(*i_cons_list);
  LoadModels(&model_list);
}

void OpenLogs() {
  if (LogDirExpired() != 0) ArchiveLogDir();
  OpenConsolidatedLogFile();
}

// It may have been turned off by mistake, as with "-S on".
void WarnOfNoSecurity() {
  if (security_enabled != 0) return;
  DEBUG_AS("main", kError,
           "Security is off: whoever reaches port %d is attached without a login.\n", user_port);
  Audit({"security", "off"});
}

void CreateWorkerThreads() {
  ExpectPasses();
  CreateConsoleConnectionsThread();
  CreateUserConnectionsThread();
  CreateUserMonitorThread();
  CreateCommandMonitorThread();
  CreateJournalThread();
}

}  // namespace

[[noreturn]] void Run(int argc, char** argv) {
  if (IsMatcherProcess(argc, argv)) MatcherMain();
  MeetServiceManager();
  OccupyStandardDescriptors();
  OutliveReaders();
  PostDaemonErrorsToJix();
  ClearThreadNames();
  RegisterThread("main");
  ENTERING_AS("main");
  progname = argv[0];
  umask(007);  // nothing at all for others on any file the daemon creates
  GetCommandLineOptions(argc, argv);
  ChoosePassedSocket(user_port);
  GetZevdArchIntFromConfFile();
  if (Lock() != 0) RefuseSecondInstance();
  if (foreground == 0) RunAsDaemon();
  ConnectToJix();
  Initialize();
  ArrangeSignals();
  StartJournal();
  WarnOfNoSecurity();
  CheckConfigDir();
  if (security_enabled != 0) GenerateCookie();
  LoadConfiguration();
  OpenLogs();
  CreateWorkerThreads();
  MonitorConsoleOutput();
}

}  // namespace zevd

int main(int argc, char** argv) {
  zevd::Run(argc, argv);
}
