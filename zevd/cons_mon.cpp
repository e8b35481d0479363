// The life of the thread "cons_mon", which is the main thread after start-up.
//
// It makes a pass at least every 2 seconds: a console's output, a new console or one marked closed
// ends the wait in select() (cons_mon_waker does so for the last two), and so do the matcher's
// answer (matcher.h) and SIGHUP. It reads console sockets and sends the output to users with
// acl_lock held for writing. It alone closes the sockets of a_cons_list, moves closed consoles back
// to i_cons_list and frees deleted consoles of a_cons_list. Pairs of locks, in the order in which
// they are tried: acl_lock and icl_lock for a reload, ul_lock and acl_lock to clean up, icl_lock
// and acl_lock to move. To rename a console after an event of the matcher's it takes acl_lock,
// releases it, and then takes acl_lock and icl_lock. It is the thread that SIGTERM interrupts and
// that collects SIGHUP.
#include "cons_mon.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "archive_time.h"
#include "clock.h"
#include "cons_mon_steps.h"
#include "console_lists.h"
#include "console_output.h"
#include "console_users.h"
#include "counters.h"
#include "error.h"
#include "journal_keeper.h"
#include "journal_records.h"
#include "list.h"
#include "lists.h"
#include "load.h"
#include "log.h"
#include "log_directory.h"
#include "mapped_port.h"
#include "matcher.h"
#include "socket_watch.h"
#include "threads.h"
#include "typed_consoles.h"
#include "waker.h"
#include "zev_signal.h"

namespace zevd {

namespace {

constexpr useconds_t kPausePoll = 100;  // microseconds
constexpr unsigned kOtherThreads = kPauseConsConn | kPauseUserConn | kPauseUserMon | kPauseCmdMon;
constexpr timeval kSelectLimit = {2, 0};
constexpr size_t kLongestTurn = 16 * kChunkSize;
constexpr int kMostHalvings = 4;  // down to a chunk

bool IsClosed(const ConsoleNode& cnode) {
  return cnode.status == kNotConnected || cnode.enable == 0;
}

void CloseAfterReceiveFailure(ConsoleNode* cnode, ssize_t result) REQUIRES(acl_lock) {
  cnode->receive_error = result == 0 ? 0 : errno;
  DEBUG_AS("ProcessConsoleOutput", kDetail, "recv() returned %d : %s\n", static_cast<int>(result),
           strerror(errno));
  CloseConsoleConnection(cnode);
}

// How long a pass may read consoles. It holds acl_lock meanwhile. Threads that want two locks try
// for a while and then stay away for up to a second (locks.h); when that is user_mon, all keys
// wait. So a pass is short when somebody wants the lock, and long, for the sake of consoles that
// flood, only when nobody does.
class PassTime {
 public:
  /// True when no further console is to be read in this pass; never before the first is.
  bool IsOver() {
    const int64_t now = MonotonicMicroseconds();
    taken_ = now - std::exchange(looked_at_, now);
    // Not at once: a stream of pairs leaves room for more than one console.
    if (acl_lock.IsAnnounced() || acl_lock.IsWaitedFor()) end_ = std::min(end_, now + kWhenWanted);
    return !std::exchange(first_, false) && now >= end_;
  }

  /// Microseconds between the last two looks.
  int64_t taken() const { return taken_; }

 private:
  static constexpr int64_t kLongest = 4000;
  static constexpr int64_t kWhenWanted = kPairTryTime / 3;

  bool first_ = true;
  int64_t looked_at_ = MonotonicMicroseconds();
  int64_t end_ = looked_at_ + kLongest;
  int64_t taken_ = 0;
};

bool IsLeftOutLonger(const ConsoleNode* cnode, const ConsoleNode* other) REQUIRES(acl_lock) {
  return cnode->left_out_since != 0 &&
         (other->left_out_since == 0 || cnode->left_out_since < other->left_out_since);
}

// Reads a readable console with one call and hands on what it brings. True when there may be more.
bool ReadConsole(ConsoleNode* cnode) REQUIRES(acl_lock) {
  static char buf[kLongestTurn];  // only this thread comes here
  const ssize_t count = recv(cnode->sock, buf, kLongestTurn >> cnode->turn_halvings, MSG_DONTWAIT);
  if (count < 0 && errno == EAGAIN) return false;
  if (count <= 0) {
    CloseAfterReceiveFailure(cnode, count);
    return false;
  }
  counters.console_bytes.Add(static_cast<uint64_t>(count));
  counters.console_lines.Add(static_cast<uint64_t>(std::count(buf, buf + count, '\n')));
  cnode->last_output = time(nullptr);
  DispatchConsoleOutput(cnode, buf, static_cast<int>(count));
  // One that has just filled a chunk is likely to go on; one that printed a line is not asked
  // twice.
  return count >= static_cast<ssize_t>(kChunkSize);
}

/// The turns of the consoles in one pass.
class Turns {
 public:
  /// Reads the console once. False when there is no time; `in_any_case` it is read all the same.
  bool Give(ConsoleNode* cnode, bool in_any_case) REQUIRES(acl_lock) {
    if (IsOver() && !in_any_case) return false;
    latest_ = cnode;
    // Where there is no room to note that there is more, a later pass reads it.
    if (ReadConsole(cnode) && count_ < SocketWatch::kMostAtOnce) unfinished_[count_++] = cnode;
    return true;
  }

  /// Reads those that have more to say again, in the order of their turns, until none has or there
  /// is no time.
  void Finish() REQUIRES(acl_lock) {
    while (count_ > 0) {
      const int count = std::exchange(count_, 0);
      for (int i = 0; i < count; ++i) {
        if (!Give(unfinished_[i], false)) return;
      }
    }
  }

  /// True when no further console is to be read in this pass.
  bool IsOver() REQUIRES(acl_lock) {
    const bool is_over = time_.IsOver();
    if (latest_ != nullptr) FitTurn(std::exchange(latest_, nullptr), time_.taken());
    return is_over;
  }

 private:
  // A turn is not interrupted, so one that took long, as of short lines that are matched with many
  // patterns, makes the next ones of this console shorter. With users, whose lines are not matched,
  // it is the number of sends that takes long, and shorter turns would need more of them.
  static void FitTurn(ConsoleNode* cnode, int64_t taken) REQUIRES(acl_lock) {
    constexpr int64_t kLong = kPairTryTime / 2;
    int& halvings = cnode->turn_halvings;
    if (cnode->user_list->head != nullptr) {
      halvings = 0;
      return;
    }
    if (taken < kLong / 4 && halvings > 0) --halvings;
    for (; taken > kLong && halvings < kMostHalvings; taken /= 2) ++halvings;
  }

  PassTime time_;
  ConsoleNode* latest_ = nullptr;
  ConsoleNode* unfinished_[SocketWatch::kMostAtOnce];
  int count_ = 0;
};

// The last pass used up its time. This thread's own.
bool time_ran_out = false;

// An echo ends the pause. Not after a pass that had more to read than time: a console that floods
// while somebody types at it would end every pause, and threads that wait for acl_lock would hardly
// get it.
void PauseBeforePass() {
  if (time_ran_out) {
    usleep(kPassPause);
  } else {
    typed_consoles.Pause(kPassPause);
  }
}

// ---- The steps of a pass ------------------------------------------------------------------------

constexpr char kLoop[] = "MonitorConsoleOutput";

bool ReloadIsAskedFor() {
  sigset_t hup;
  sigemptyset(&hup);
  sigaddset(&hup, SIGHUP);
  constexpr timespec kNoWait = {0, 0};
  return sigtimedwait(&hup, nullptr, &kNoWait) == SIGHUP;
}

// Without the descriptor, a reload waits until something else ends the wait.
void ListenForHangUps() {
  const int descriptor = OpenSignalDescriptor(SIGHUP);
  if (descriptor != -1) cons_mon_waker.Beside(descriptor);
}

// Kept: returns as soon as any one of the other threads has parked. It is the locks that protect
// the lists.
void PauseOtherThreads() {
  thread_waitreq_mask |= kOtherThreads;
  for (Waker* waker : {&cons_conn_waker, &user_conn_waker, &user_mon_waker, &cmd_mon_waker}) {
    waker->Wake();
  }
  while ((thread_waiting_mask & kOtherThreads) == 0) usleep(kPausePoll);
}

ReloadResult ReloadConfiguration() {
  const LongHold hold;
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, CallSite{kLoop, __LINE__});
  ReloadResult result = ReloadResult::kDone;
  if (ReloadEventFiles() != 0) {
    DEBUG_AS(kLoop, kError, "ReloadEventFiles() failed.\n");
    result = ReloadResult::kEventFilesFailed;
  } else {
    NotePass(kPauseConsMon);
    if (ReloadConfigFile() != 0) {
      DEBUG_AS(kLoop, kError, "ReloadConfigFile() failed.\n");
      result = ReloadResult::kConfigurationFailed;
    }
  }
  CloseDisabledConsoleConnections();
  return result;
}

void Reload() {
  PauseOtherThreads();
  NoteReload(ReloadConfiguration());
  NotePass(kPauseConsMon);  // what is left of the reload may be long, too
  matcher.SetsChanged();
  RefreshMappedPorts();
  cons_conn_waker.Wake();
  GetZevdArchIntFromConfFile();
  ReloadJournal();
  thread_waitreq_mask &= ~kOtherThreads;
}

/// Whether to look through a_cons_list for marked consoles. Whoever marks a console wakes this
/// thread afterwards; while nobody does, a pass costs the same however many consoles there are.
struct Looks {
  unsigned for_deleted = 0;  // wakes seen when deleted consoles were last looked for
  unsigned for_closed = 0;   // the same for closed ones
  bool deleted_left = true;  // some may be left: they are freed once nobody refers to them
  bool closed_left = false;  // some are left: marked since the clean-up, or memory ran out
};

bool IsDeleted(const ConsoleNode& cnode) {
  return cnode.deleted == 1;
}

void DeleteMarked(Looks* looks) {
  const WriteLock lock(acl_lock, CallSite{kLoop, __LINE__});
  if (!cons_mon_waker.WokenSince(&looks->for_deleted) && !looks->deleted_left) return;
  DeleteMarkedConsoles(a_cons_list);
  looks->deleted_left = FindNode(*a_cons_list, IsDeleted) != nullptr;
}

bool CopyConsoleSockets(int* high_sock, DescriptorSet* fdset) {
  const ReadLock lock(acl_lock, CallSite{kLoop, __LINE__});
  *high_sock = a_cons_list->high_sock;
  return fdset->CopyFrom(a_cons_list->fdset);
}

void RelayOutput(DescriptorSet* fdset) {
  int high_sock = -1;
  if (!CopyConsoleSockets(&high_sock, fdset)) {
    ReportOutOfMemory(kLoop);
    return;
  }
  if (CheckForConsoleOutput(high_sock, fdset) == 0) return;
  const WriteLock lock(acl_lock, CallSite{kLoop, __LINE__});
  ProcessConsoleOutput(*fdset);
}

bool AnyConsoleClosed(Looks* looks) {
  const ReadLock lock(acl_lock, CallSite{kLoop, __LINE__});
  const bool woken = cons_mon_waker.WokenSince(&looks->for_closed);
  return (woken || looks->closed_left) && cons_mon::CheckForClosedConnections();
}

void MoveClosedConsoles(Looks* looks) {
  {
    const WriteLockPair lock(ul_lock, acl_lock, Release::kFirstFirst, CallSite{kLoop, __LINE__});
    cons_mon::CleanUpClosedConnections();
  }
  {
    const WriteLockPair lock(icl_lock, acl_lock, Release::kSecondFirst, CallSite{kLoop, __LINE__});
    MoveConsolesToList(a_cons_list, i_cons_list, MoveCriterion::kNotConnected);
    looks->closed_left = cons_mon::CheckForClosedConnections();
  }
  cons_conn_waker.Wake();
}

void RotateLogs() {
  const LongHold hold;
  const WriteLock lock(acl_lock, CallSite{kLoop, __LINE__});
  CloseAllLogFiles();
  ArchiveLogDir();
  OpenAllLogFiles();
}

}  // namespace

void MonitorConsoleOutput() {
  RegisterThread("cons_mon");
  ENTERING();
  ListenForHangUps();
  DescriptorSet fdset;
  Looks looks;
  for (;;) {
    ParkIfAsked(kPauseConsMon);
    if (ReloadIsAskedFor()) Reload();
    PauseBeforePass();
    DeleteMarked(&looks);
    RelayOutput(&fdset);
    matcher.Serve();
    RepeatLostNames();
    if (AnyConsoleClosed(&looks)) MoveClosedConsoles(&looks);
    if (LogDirExpired() != 0) RotateLogs();
  }
}

int CheckForConsoleOutput(int high_sock, DescriptorSet* fdset) {
  ENTERING();
  timeval timeout = kSelectLimit;
  zev_debug(kTrace, "%s: Calling select( %d + 1, fdset, 0, 0, (%d,%d))\n", __func__, high_sock,
            static_cast<int>(timeout.tv_sec), static_cast<int>(timeout.tv_usec));
  const int ready =
      WaitForMembers(high_sock, *fdset, cons_mon_waker, &timeout, WatchOf(a_cons_list));
  if (ready < 0) {
    zev_debug(kError, "%s: select() failed : %s\n", __func__, strerror(errno));
    DumpConsoles(a_cons_list);
    DumpConsoles(i_cons_list);
    TERMINATE(kTerminated);
  }
  return ready != 0 ? 1 : 0;
}

void ProcessConsoleOutput(const DescriptorSet& fdset) {
  ENTERING();
  static uint64_t pass = 0;  // only this thread comes here
  ++pass;
  Turns turns;
  // A list without a watch knows no order except its own, in which the last would never have a
  // turn.
  const bool in_any_case = WatchOf(a_cons_list) == nullptr;
  // The analysis does not follow the lock into a template.
  const auto read = [&](ConsoleNode* cnode) NO_THREAD_SAFETY_ANALYSIS {
    if (turns.Give(cnode, in_any_case)) {
      cnode->left_out_since = 0;
    } else if (cnode->left_out_since == 0) {
      cnode->left_out_since = pass;
    }
  };
  ForEachReady(*a_cons_list, fdset, IsLeftOutLonger, read);
  turns.Finish();
  time_ran_out = turns.IsOver();
}

void CloseDisabledConsoleConnections() {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (cnode->enable != 0) continue;
    CloseConsoleConnection(cnode);
    SendMsgToUsers(cnode, "Console has been disabled.");
  }
}

void OpenAllLogFiles() {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*a_cons_list)) OpenLogFile(cnode);
  OpenConsolidatedLogFile();
}

void CloseAllLogFiles() {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*a_cons_list)) CloseLogFile(cnode);
  CloseConsolidatedLogFile();
}

void CloseConsoleConnection(ConsoleNode* cnode) {
  ENTERING();
  zev_debug(kInfo, "%s: Closing connection with console %s\n", __func__, cnode->cname);
  cnode->status = kNotConnected;
  cons_mon_waker.Wake();
}

namespace cons_mon {

bool CheckForClosedConnections() {
  ENTERING();
  return FindNode(*a_cons_list, IsClosed) != nullptr;
}

void CleanUpClosedConnections() {
  ENTERING();
  for (ConsoleNode* cnode : Nodes(*a_cons_list)) {
    if (!IsClosed(*cnode)) continue;
    CloseUserConnections(cnode, "The console's connection was closed.");
    cnode->status = kNotConnected;
    counters.console_losses.Add();
    JournalClosed(cnode);
    cnode->receive_error = 0;
    ForgetSocket(*a_cons_list, cnode->sock);
    close(cnode->sock);
    cnode->sock = -1;
    CloseLogFile(cnode);
  }
}

ConsoleNode* GetClosedConnection() {
  ENTERING();
  return FindNode(*a_cons_list,
                  [](const ConsoleNode& cnode) { return cnode.status == kNotConnected; });
}

}  // namespace cons_mon

}  // namespace zevd
