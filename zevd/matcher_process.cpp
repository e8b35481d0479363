#include "matcher_process.h"

#include <linux/capability.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <new>
#include <string>
#include <string_view>

#include "matcher_wire.h"
#include "matcher_worker.h"

namespace zevd {

namespace {

// What may pass beyond the processor time: on a busy machine the worker gets its share late, and a
// worker that is stopped never does.
constexpr int64_t kMostDelay = 2'000'000;  // microseconds

constexpr int kMostIdleEnds = 3;
constexpr int64_t kMicro = 1'000'000;

int64_t TimeOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * kMicro + now.tv_nsec / 1000;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kLimitMemory = false;  // a sanitizer takes terabytes of addresses
#else
constexpr bool kLimitMemory = true;
#endif

void Limit(__rlimit_resource resource, rlim_t most) {
  rlimit limit{};
  if (getrlimit(resource, &limit) != 0) return;
  limit.rlim_max = std::min(limit.rlim_max, most);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(resource, &limit);
}

void LimitWorker() {
  constexpr rlim_t kMostMemory = rlim_t{256} << 20;
  constexpr rlim_t kMostStack = rlim_t{8} << 20;
  if (kLimitMemory) Limit(RLIMIT_AS, kMostMemory);
  Limit(RLIMIT_STACK, kMostStack);
  Limit(RLIMIT_CORE, 0);
}

// The process ends as soon as its parent has ended, even during start-up.
void EndWith(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(0);
}

/// How a request to the worker ended.
enum class Outcome { kAnswered, kCrashed, kTooLong };

/// The worker, as its parent sees it.
class WorkerProcess {
 public:
  explicit WorkerProcess(MatcherBoard* board) : board_(board) {}
  ~WorkerProcess() { End(); }
  WorkerProcess(const WorkerProcess&) = delete;
  WorkerProcess& operator=(const WorkerProcess&) = delete;

  bool runs() const { return pid_ != -1; }
  int sock() const { return sock_; }

  /// Starts one that knows these patterns and has compiled none. False when the system has no room.
  bool Start(int daemon, const MatcherPatterns& patterns);

  /// Kills it. Returns the signal that ended it, 0 for none.
  int End();

  /// Has it do one thing. `time` is the processor time that it may take, in microseconds, and then
  /// what is left of it.
  Outcome Ask(const MatcherHeader& request, std::string_view text, int64_t* time,
              MatcherMessage* answer);

 private:
  int64_t TimeUsed() const;

  MatcherBoard* board_;
  pid_t pid_ = -1;
  int sock_ = -1;
};

bool WorkerProcess::Start(int daemon, const MatcherPatterns& patterns) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
  const pid_t parent = getpid();
  board_->trying = MatcherBoard::kNone;
  pid_ = fork();
  if (pid_ == 0) {
    EndWith(parent);
    close(daemon);
    close(ends[0]);
    LimitWorker();
    RunMatcherWorker(ends[1], patterns, board_);
  }
  close(ends[1]);
  sock_ = ends[0];
  if (pid_ == -1) End();
  return pid_ != -1;
}

int WorkerProcess::End() {
  int status = 0;
  if (sock_ != -1) close(sock_);
  sock_ = -1;
  if (pid_ == -1) return 0;
  kill(pid_, SIGKILL);
  while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
  }
  pid_ = -1;
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

int64_t WorkerProcess::TimeUsed() const {
  clockid_t clock{};
  return clock_getcpuclockid(pid_, &clock) == 0 ? TimeOf(clock) : 0;
}

Outcome WorkerProcess::Ask(const MatcherHeader& request, std::string_view text, int64_t* time,
                           MatcherMessage* answer) {
  const int64_t used_before = TimeUsed();
  const int64_t end = TimeOf(CLOCK_MONOTONIC) + *time + kMostDelay;
  if (!SendToMatcher(sock_, request, text, 0)) return Outcome::kCrashed;
  int64_t left = *time;
  for (;;) {
    pollfd asked = {sock_, POLLIN, 0};
    const int ready = poll(&asked, 1, static_cast<int>(left / 1000) + 1);
    left = *time - (TimeUsed() - used_before);
    if (ready > 0) break;
    if (left <= 0 || TimeOf(CLOCK_MONOTONIC) >= end) return Outcome::kTooLong;
  }
  *time = left;
  const Received received = ReceiveFromMatcher(sock_, answer, 0);
  return received == Received::kMessage ? Outcome::kAnswered : Outcome::kCrashed;
}

/// What the matcher knows and does.
class Supervisor {
 public:
  Supervisor(int daemon, MatcherBoard* board) : daemon_(daemon), board_(board), worker_(board) {}

  void Serve() {
    while (WaitForDaemon() && ReceiveFromMatcher(daemon_, &message_, 0) == Received::kMessage) {
      if (!Handle()) return;
    }
  }

 private:
  bool WaitForDaemon();
  bool Handle();
  bool TakePattern();
  bool CompileAll();
  bool CompileOne(uint32_t place);
  bool MatchLine();
  bool Settle(Outcome outcome, uint32_t* place);
  uint32_t BlameForEnd(uint32_t place);
  bool AnswerLine(MatcherKind kind, uint32_t place);
  bool Restart();
  void LeaveOut(uint32_t place, MatcherKind reason, int signal = 0, std::string_view why = {});
  bool Tell(MatcherHeader header, std::string_view text = {});

  int daemon_;
  MatcherBoard* board_;
  WorkerProcess worker_;
  MatcherPatterns patterns_;
  MatcherMessage message_;  ///< the daemon's last one
  MatcherMessage answer_;   ///< the worker's last one
  bool fresh_ = false;      ///< the worker has matched nothing yet
  int idle_ends_ = 0;       ///< of workers that had nothing to do, since the last answer
  bool excused_ = false;    ///< the line has been tried again, for what may be nobody's fault
};

// A worker that ends while it has nothing to do, killed by somebody, is replaced. False: the daemon
// cannot be waited for, or there is no worker that stays.
bool Supervisor::WaitForDaemon() {
  for (;;) {
    pollfd asked[] = {{daemon_, POLLIN, 0}, {worker_.sock(), POLLIN, 0}};
    if (poll(asked, 2, -1) == -1) {
      if (errno == EINTR) continue;
      return false;
    }
    if (asked[1].revents != 0 && (++idle_ends_ > kMostIdleEnds || !Restart())) return false;
    if (asked[0].revents != 0) return true;
  }
}

// False when the daemon has gone or the system has no room for a worker: the process ends then.
bool Supervisor::Handle() {
  switch (message_.header.kind) {
    case MatcherKind::kForget:
      worker_.End();
      patterns_.clear();
      return true;
    case MatcherKind::kPattern:
    case MatcherKind::kAnyCase:
      return TakePattern();
    case MatcherKind::kStart:
      return Restart();
    case MatcherKind::kLine:
      return MatchLine();
    default:
      return false;
  }
}

bool Supervisor::Tell(MatcherHeader header, std::string_view text) {
  return SendToMatcher(daemon_, header, text, 0);
}

bool Supervisor::TakePattern() {
  const MatcherHeader& header = message_.header;
  patterns_.push_back({.set = header.set,
                       .number = header.number,
                       .priority = header.value,
                       .any_case = header.kind == MatcherKind::kAnyCase,
                       .left_out = false,
                       .text = std::string(message_.Text())});
  return Tell({.kind = MatcherKind::kTaken});
}

void Supervisor::LeaveOut(uint32_t place, MatcherKind reason, int signal, std::string_view why) {
  MatcherPattern& pattern = patterns_.at(place);
  pattern.left_out = true;
  std::string text = pattern.text;
  if (!why.empty()) text.append("\n").append(why);
  Tell({.kind = reason, .set = pattern.set, .number = pattern.number, .value = signal}, text);
}

// ---- Compiling ----------------------------------------------------------------------------------

// Replaces the worker by one that has compiled all patterns except those left out. Each pattern
// that ends a worker is left out, so there is one pattern less each time. False when the system has
// no room.
bool Supervisor::Restart() {
  do {
    worker_.End();
    if (!worker_.Start(daemon_, patterns_)) return false;
  } while (!CompileAll());
  fresh_ = true;
  return true;
}

// False when the worker has not survived it.
bool Supervisor::CompileAll() {
  for (uint32_t place = 0; place < patterns_.size(); ++place) {
    if (!patterns_[place].left_out && !CompileOne(place)) return false;
  }
  return true;
}

bool Supervisor::CompileOne(uint32_t place) {
  int64_t time = kCompileTime;
  const MatcherHeader request = {.kind = MatcherKind::kPattern, .number = place};
  switch (worker_.Ask(request, {}, &time, &answer_)) {
    case Outcome::kAnswered:
      if (answer_.header.kind == MatcherKind::kBadPattern)
        LeaveOut(place, MatcherKind::kBadPattern, 0, answer_.Text());
      return true;
    case Outcome::kCrashed:
      LeaveOut(place, MatcherKind::kCompileCrashed, worker_.End());
      return false;
    case Outcome::kTooLong:
      LeaveOut(place, MatcherKind::kCompileTooLong);
      return false;
  }
  return false;
}

// ---- Matching -----------------------------------------------------------------------------------

bool Supervisor::AnswerLine(MatcherKind kind, uint32_t place) {
  MatcherHeader header = {.kind = kind, .line = message_.header.line};
  if (kind == MatcherKind::kNoMatch) return Tell(header);
  const MatcherPattern& pattern = patterns_.at(place);
  header.value = pattern.priority;
  return Tell(header, pattern.text);
}

// False when there is no worker to be had, or no daemon.
bool Supervisor::MatchLine() {
  excused_ = false;
  int64_t time = kLineTime;
  const auto first = std::lower_bound(
      patterns_.begin(), patterns_.end(), message_.header.set,
      [](const MatcherPattern& pattern, uint32_t set) { return pattern.set < set; });
  auto place = static_cast<uint32_t>(first - patterns_.begin());
  while (worker_.runs() && time > 0) {
    const MatcherHeader request = {
        .kind = MatcherKind::kLine, .set = message_.header.set, .number = place};
    const Outcome outcome = worker_.Ask(request, message_.Text(), &time, &answer_);
    if (outcome == Outcome::kTooLong) time = 0;
    if (Settle(outcome, &place)) return AnswerLine(answer_.header.kind, answer_.header.number);
    if (!Restart()) return false;
  }
  return AnswerLine(MatcherKind::kNoMatch, 0);
}

// True when the line has its answer. Otherwise the worker is of no more use, and the line goes on
// at `place`.
bool Supervisor::Settle(Outcome outcome, uint32_t* place) {
  if (outcome == Outcome::kCrashed) {
    *place = BlameForEnd(*place);
    return false;
  }
  if (outcome == Outcome::kTooLong) {
    const uint32_t trying = board_->trying;
    if (trying != MatcherBoard::kNone) LeaveOut(trying, MatcherKind::kMatchTooLong);
    return false;
  }
  if (answer_.header.kind != MatcherKind::kMatchOutOfMemory) {
    fresh_ = false;
    idle_ends_ = 0;
    return true;
  }
  // What earlier lines have left in the worker's memory is not this pattern's fault.
  *place = answer_.header.number;
  if (!fresh_) return false;
  LeaveOut(*place, MatcherKind::kMatchOutOfMemory);
  ++*place;
  return false;
}

// The worker has ended by itself. Returns where the line goes on. A kill from outside, as for lack
// of memory, is excused once in a line.
uint32_t Supervisor::BlameForEnd(uint32_t place) {
  const int signal = worker_.End();
  const uint32_t trying = board_->trying;
  const bool excusable = trying == MatcherBoard::kNone || signal == SIGKILL;
  if (excusable && !excused_) {
    excused_ = true;
    return trying == MatcherBoard::kNone ? place : trying;
  }
  if (trying == MatcherBoard::kNone) return MatcherBoard::kNone;  // beyond all patterns
  LeaveOut(trying, MatcherKind::kMatchCrashed, signal);
  return trying + 1;
}

// ---- The process --------------------------------------------------------------------------------

// The matcher needs nothing of what the daemon's user may do.
void GiveUpPrivileges() {
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
  syscall(SYS_capset, &header, none);
}

// A SIGHUP that is meant for all programs of the daemon's name does nothing here.
void ResetSignals() {
  for (int signum = 1; signum < SIGRTMIN; ++signum) signal(signum, SIG_DFL);
  signal(SIGHUP, SIG_IGN);
}

MatcherBoard* MakeBoard() {
  void* page = mmap(nullptr, sizeof(MatcherBoard), PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return page == MAP_FAILED ? nullptr : new (page) MatcherBoard;
}

}  // namespace

bool IsMatcherProcess(int argc, char** argv) {
  if (argc != 1 || strcmp(argv[0], kMatcherName) != 0) return false;
  int type = 0;
  int domain = 0;
  socklen_t length = sizeof type;
  return getsockopt(kMatcherSocket, SOL_SOCKET, SO_TYPE, &type, &length) == 0 &&
         getsockopt(kMatcherSocket, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
         type == SOCK_SEQPACKET && domain == AF_UNIX;
}

void MatcherMain() {
  constexpr int kNiceness = 10;
  constexpr rlim_t kMostDescriptors = 16;
  ResetSignals();
  prctl(PR_SET_NAME, kMatcherName);
  close_range(kMatcherSocket + 1, ~0U, 0);
  Limit(RLIMIT_NOFILE, kMostDescriptors);
  setpriority(PRIO_PROCESS, 0, kNiceness);
  GiveUpPrivileges();
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // a daemon that has gone before has closed the socket
  RunMatcher(kMatcherSocket);
  _exit(0);
}

void RunMatcher(int sock) {
  MatcherBoard* board = MakeBoard();
  if (board == nullptr) return;
  Supervisor(sock, board).Serve();
  munmap(board, sizeof *board);
}

}  // namespace zevd
