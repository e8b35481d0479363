// The life of the thread "cons_conn".
//
// main starts the thread; it never ends. It makes a pass at least every 2 seconds: news of an
// attempt in progress, the second at which a console is due, and cons_conn_waker end its wait
// (attempt_wait.h). The last is woken by whoever adds, enables or marks a console of i_cons_list,
// and has the thread park when the console output monitor asks for it. While a connect() fails at
// once, there is no wait. In each of its three steps (free deleted consoles of i_cons_list, begin
// attempts, look at those in progress) it takes icl_lock alone, and others may have it after each
// millisecond of work, so that the list may change in the middle of a step. It opens and closes the
// sockets of these consoles. A console that became connected is moved under icl_lock and acl_lock,
// taken as a pair in that order; it then belongs to the console output monitor, which is woken.
#include "cons_conn.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "attempt_wait.h"
#include "cons_conn_steps.h"
#include "console_lists.h"
#include "counters.h"
#include "descriptor_budget.h"
#include "descriptor_set.h"
#include "error.h"
#include "fixed_text.h"
#include "journal_records.h"
#include "list.h"
#include "lists.h"
#include "log.h"
#include "models.h"
#include "sliced_walk.h"
#include "sockets.h"
#include "threads.h"
#include "util.h"
#include "waker.h"
#include "zev_signal.h"

namespace zevd {

namespace {

constexpr time_t kRetryInterval = 60;  // seconds since the last failure
constexpr time_t kPelloxGrace = 2;     // seconds in which a management port may still refuse
constexpr timeval kStatusWait = {0, 100};
constexpr size_t kPeekSize = 300;
constexpr char kRefusalStart[] = "~NET-E-";
constexpr char kRefusalText[] = "Session is already open";
constexpr char kTakeOver[] = "YES\n";

// The number is forgotten before the socket is closed, so that nobody finds that of a closed one.
void CloseSocket(ConsoleNode* cnode) {
  attempt_wait.Forget(cnode->sock);
  close(cnode->sock.exchange(-1));
}

// Starts the connection in the background; the socket is blocking again afterwards.
void StartConnect(ConsoleNode* cnode) {
  const int sock = cnode->sock;
  const int flags = fcntl(sock, F_GETFL);
  fcntl(sock, F_SETFL, flags | O_NONBLOCK);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(cnode->cons_port);
  address.sin_addr.s_addr = inet_addr(cnode->ipaddr);
  DEBUG_AS("ConnectToConsole", kInfo, "Attempting to connect to %s (%s/%d).\n", cnode->cname,
           cnode->ipaddr, cnode->cons_port);
  cnode->lsca_time = 0;
  const int result = connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address);
  if (result != 0 && errno != EINPROGRESS) {
    counters.console_failures.Add();
    // Kept: neither lfca_time nor status changes, so an error that comes at once is tried again at
    // once.
    DEBUG_AS("ConnectToConsole", kInfo, "connect() failed : %s\n", strerror(errno));
    CloseSocket(cnode);
    return;
  }
  fcntl(sock, F_SETFL, flags);
  attempt_wait.Watch(sock);
}

// The log is open if the console was disabled after it became connected and before it was moved.
void AbandonConnection(ConsoleNode* cnode, int status, time_t failed_at) {
  if (cnode->log_fd != -1) CloseLogFile(cnode);
  CloseSocket(cnode);
  cnode->status = status;
  cnode->lfca_time = failed_at;
  cnode->lsca_time = 0;
}

/// Which connections in progress have anything to report, asked of the kernel for many of them in
/// one call: a separate wait for every dead host would keep everybody else from icl_lock.
class ProgressPoll {
 public:
  /// Answers for the element of a console with a socket. Calls follow the walk.
  bool HasNews(const ConsoleListElem* elem, const SlicedWalk<ConsoleList>& walk) {
    if (next_ == count_ || times_let_in_ != walk.times_let_in()) Ask(elem);
    times_let_in_ = walk.times_let_in();
    return sockets_[next_++].revents != 0;
  }

 private:
  // When the question fails, every console is asked on its own.
  void Ask(const ConsoleListElem* elem) {
    next_ = 0;
    count_ = 0;
    for (; elem != nullptr && count_ < sockets_.size(); elem = elem->next) {
      const int sock = elem->cnode->sock;
      if (sock != -1) sockets_[count_++] = {sock, POLLIN | POLLOUT, 0};
    }
    if (poll(sockets_.data(), count_, 0) >= 0) return;
    for (size_t i = 0; i < count_; ++i) sockets_[i].revents = POLLERR;
  }

  // Not more than are looked at in about a millisecond, after which they would be asked anew.
  std::array<pollfd, 64> sockets_{};
  size_t count_ = 0;
  size_t next_ = 0;
  unsigned times_let_in_ = 0;
};

void TraceStatusCheck(const ConsoleNode* cnode) {
  ENTERING_AS("CheckConnectionStatus");
  DEBUG_AS("CheckConnectionStatus", kTrace, "Checking status for \"%s\" (sock=%d).\n", cnode->cname,
           cnode->sock.load());
}

// True while a management port may still answer an established connection with a refusal.
bool InGracePeriod(ConsoleNode* cnode) {
  if (cnode->check_for_NET_E_msg == 0) return false;
  const time_t now = time(nullptr);
  if (cnode->lsca_time == 0) cnode->lsca_time = now;
  if (now - cnode->lsca_time >= kPelloxGrace) return false;
  attempt_wait.NoteSecond(cnode->lsca_time + kPelloxGrace);
  return true;
}

// True when the console became connected.
bool ApplyConnectionStatus(ConsoleNode* cnode, int result) {
  constexpr char kFunction[] = "UpdateConnectionStatus";
  if (cnode->enable == 0) {
    DEBUG_AS(kFunction, kInfo, "Console %s was disabled.\n", cnode->cname);
    if (cnode->status == kConnected) JournalLost(cnode, "The console was disabled.");
    AbandonConnection(cnode, kNotConnected, 0);
    return false;
  }
  switch (result) {
    case kConnected:
      if (InGracePeriod(cnode)) return false;
      DEBUG_AS(kFunction, kInfo, "Connected to %s (%s/%d).\n", cnode->cname, cnode->ipaddr,
               cnode->cons_port);
      cnode->status = kConnected;
      attempt_wait.Forget(cnode->sock);
      counters.console_connections.Add();
      JournalConnected(cnode);
      if (cnode->log_fd == -1) OpenLogFile(cnode);
      DrainTelnetControlSequence(cnode->sock, cnode->telnet_cmd, sizeof cnode->telnet_cmd);
      return true;
    case kNotConnected:
      DEBUG_AS(kFunction, kInfo, "Connection to %s (%s/%d) failed.\n", cnode->cname, cnode->ipaddr,
               cnode->cons_port);
      counters.console_failures.Add();
      AbandonConnection(cnode, kNotConnected, time(nullptr));
      return false;
    case kRefused:
      DEBUG_AS(kFunction, kInfo, "Connection to %s (%s/%d) refused.\n", cnode->cname, cnode->ipaddr,
               cnode->cons_port);
      counters.console_failures.Add();
      AbandonConnection(cnode, kRefused, time(nullptr));
      return false;
    case kInProgress:
      cnode->status = kInProgress;
      return false;
    default:
      DEBUG_AS(kFunction, kError, "Unknown status returned for %s.\n", cnode->cname);
      TERMINATE(kInternalError);
  }
}

// Another client holds the management port's session. Takes it over when an operator asked for it.
int HandleRefusal(ConsoleNode* cnode, char* text) {
  constexpr char kFunction[] = "CheckConnectionStatus";
  cnode->check_for_NET_E_msg = 0;
  CopyText(cnode->pellox_port_holder_ipaddr, GetPortHolderIPAddr(text));
  if (cnode->force == 0) return kRefused;
  DEBUG_AS(kFunction, kInfo, "Forcing connection for %s\n", cnode->cname);
  cnode->force = 0;
  if (send(cnode->sock, kTakeOver, strlen(kTakeOver), 0) < 0) {
    DEBUG_AS(kFunction, kError, "send() failed : %s\n", strerror(errno));
    return kRefused;
  }
  return kConnected;
}

// What a socket that is both writable and readable has to say; nothing is consumed.
int ExamineFirstData(ConsoleNode* cnode) {
  char text[kPeekSize];
  const ssize_t count = recv(cnode->sock, text, sizeof text, MSG_PEEK);
  if (count < 0) {
    if (errno == EINPROGRESS) return kInProgress;
    return errno == ECONNREFUSED ? kRefused : kNotConnected;
  }
  text[std::min(static_cast<size_t>(count), sizeof text - 1)] = '\0';
  return GotErrorMessage(text) ? HandleRefusal(cnode, text) : kConnected;
}

AttemptBudget attempt_budget;

bool IsDue(const ConsoleNode& cnode) {
  return cnode.sock == -1 && time(nullptr) - cnode.lfca_time >= kRetryInterval;
}

// Every console with an attempt in progress will want a log.
DescriptorUse LookAtDescriptors() REQUIRES(icl_lock) {
  DescriptorUse use = {CountDescriptors(), 0};
  for (const ConsoleNode* cnode : Nodes(*i_cons_list)) {
    if (cnode->sock != -1 && cnode->log_fd == -1) ++use.wanted;
  }
  return use;
}

// Without a socket after ConnectToConsoles() has looked at it, a console is due later, waits for
// descriptors, or could not even begin, and is then tried again in the next pass.
void NoteNextAttempt(const ConsoleNode& cnode) {
  if (cnode.sock != -1) return;
  if (IsDue(cnode)) {
    attempt_wait.NoteDelay(attempt_budget.TimeToNextLook());
  } else {
    attempt_wait.NoteSecond(cnode.lfca_time + kRetryInterval);
  }
}

void MoveConnectedConsoles() {
  {
    const WriteLockPair lock(icl_lock, acl_lock, Release::kSecondFirst,
                             CallSite{"ConsoleConnectionsThreadStart", __LINE__});
    MoveConsolesToList(i_cons_list, a_cons_list, MoveCriterion::kConnected);
  }
  cons_mon_waker.Wake();
}

}  // namespace

AttemptWait attempt_wait;

void* ConsoleConnectionsThreadStart(void* /*unused*/) {
  RegisterThread("cons_conn");
  ENTERING();
  BlockSignal(SIGTERM);
  attempt_wait.Open();
  for (;;) {
    ParkIfAsked(kPauseConsConn);
    usleep(kPassPause);
    attempt_wait.BeginPass();
    {
      WriteLock lock(icl_lock, HERE);
      DeleteMarkedConsoles(i_cons_list, &lock);
    }
    {
      WriteLock lock(icl_lock, HERE);
      ConnectToConsoles(&lock);
    }
    int new_connections = 0;
    {
      WriteLock lock(icl_lock, HERE);
      new_connections = UpdateConnectionStatus(&lock);
    }
    if (new_connections != 0) {
      MoveConnectedConsoles();
      attempt_wait.NoteDelay(0);  // those that found no memory are moved in the next pass
    }
    attempt_wait.Wait(cons_conn_waker);
  }
}

void ConnectToConsoles(WriteLock* lock) {
  ENTERING();
  SlicedWalk walk(*i_cons_list, lock);
  while (const ConsoleListElem* elem = walk.Next()) {
    ConsoleNode* cnode = elem->cnode;
    if (cnode->enable == 0) continue;
    if (!IsDue(*cnode) || attempt_budget.Admits(LookAtDescriptors)) ConnectToConsole(cnode, 1);
    NoteNextAttempt(*cnode);
  }
}

void ConnectToConsole(ConsoleNode* cnode, int keep_alive) {
  ENTERING();
  if (!IsDue(*cnode)) return;
  cnode->check_for_NET_E_msg = IsPellox(cnode->model, &model_list);
  cnode->sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (cnode->sock == -1) {
    const int error = errno;
    if (OutOfDescriptors(error)) {
      attempt_budget.Exhausted(error);
      return;  // tried again in a later pass
    }
    zev_debug(kError, "ConnectToConsole: socket() failed: %s\n", strerror(error));
    EXIT_PROCESS(1);
  }
  if (keep_alive != 0) SetSocketFlag(cnode->sock, SOL_SOCKET, SO_KEEPALIVE);
  PrepareRelaySocket(cnode->sock);
  StartConnect(cnode);
}

int UpdateConnectionStatus(WriteLock* lock) {
  ENTERING();
  ProgressPoll progress;
  int connected = 0;
  SlicedWalk walk(*i_cons_list, lock);
  while (const ConsoleListElem* elem = walk.Next()) {
    ConsoleNode* cnode = elem->cnode;
    if (cnode->sock == -1) continue;
    int result = kInProgress;
    if (progress.HasNews(elem, walk)) {
      result = CheckConnectionStatus(cnode);
    } else {
      TraceStatusCheck(cnode);
    }
    if (ApplyConnectionStatus(cnode, result)) connected = 1;
  }
  return connected;
}

int CheckConnectionStatus(ConsoleNode* cnode) {
  TraceStatusCheck(cnode);
  const int sock = cnode->sock;
  if (sock == -1) return kNotConnected;
  DescriptorSet readable;
  DescriptorSet writable;
  timeval wait = kStatusWait;
  if (!readable.Add(sock) || !writable.Add(sock)) return kInProgress;  // asked again next pass
  const int ready = select(sock + 1, readable.Native(), writable.Native(), nullptr, &wait);
  if (ready < 0) {
    zev_debug(kInfo, "%s: select() failed : %s\n", __func__, strerror(errno));
    return kNotConnected;
  }
  if (ready == 0) return kInProgress;
  if (!writable.Contains(sock)) return kNotConnected;
  if (!readable.Contains(sock)) return kConnected;
  return ExamineFirstData(cnode);
}

bool GotErrorMessage(char* buf) {
  ENTERING();
  char* rest = nullptr;
  for (const char* line = strtok_r(buf, "\r\n", &rest); line != nullptr;
       line = strtok_r(nullptr, "\r\n", &rest)) {
    if (strncmp(line, kRefusalStart, strlen(kRefusalStart)) == 0 &&
        strstr(line, kRefusalText) != nullptr) {
      return true;
    }
  }
  return false;
}

const char* GetPortHolderIPAddr(char* buf) {
  ENTERING();
  constexpr int kWordsBefore = 10;
  char* rest = buf;
  for (int i = 0; i < kWordsBefore; ++i) {
    if (strtok_r(nullptr, " ", &rest) == nullptr) return "";
  }
  rest += strspn(rest, " ");
  rest[strcspn(rest, ",")] = '\0';
  return rest;
}

}  // namespace zevd
