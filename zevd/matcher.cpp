#include "matcher.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "clock.h"
#include "console.h"
#include "error.h"
#include "event.h"
#include "event_set.h"
#include "fixed_text.h"
#include "journal_records.h"
#include "list.h"
#include "lists.h"
#include "matcher_process.h"
#include "reg_expr.h"
#include "waker.h"

namespace zevd {

/// A line that waits for its answer; the text follows the record.
struct MatcherLine {
  MatcherLine* next;
  uint64_t number;
  uint32_t set;
  uint32_t console;
  size_t length;
  char cname[kNameSize];

  char* Bytes() { return reinterpret_cast<char*>(this + 1); }
  std::string_view Text() { return {Bytes(), length}; }
  size_t Size() const { return sizeof *this + length; }
};

namespace {

constexpr char kMatcher[] = "Matcher";
constexpr size_t kTextSize = 8192;
constexpr int kMostAtOnce = 64;  // answers in a pass
constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kLongestDelay = 64 * kSecond;
constexpr int64_t kLostPause = 5 * kSecond;  // between two reports of lost lines

/// The one variable of the matcher's environment: where it may have to look for its libraries.
class LibraryPath {
 public:
  LibraryPath() : value_(getenv(kName)) {
    snprintf(variable_, sizeof variable_, "%s=%s", kName, value_ == nullptr ? "" : value_);
  }

  /// Null when it is not set.
  char* variable() { return value_ == nullptr ? nullptr : variable_; }

 private:
  static constexpr char kName[] = "LD_LIBRARY_PATH";

  const char* value_;
  char variable_[kTextSize];
};

/// What posix_spawn() is told: no signal is blocked, and the matcher has its end of the socket and
/// the standard descriptors, with nothing to read.
class SpawnSetUp {
 public:
  SpawnSetUp() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
  }
  ~SpawnSetUp() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSetUp(const SpawnSetUp&) = delete;
  SpawnSetUp& operator=(const SpawnSetUp&) = delete;

  /// 0 or an error number.
  int Prepare(int sock) {
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setsigmask(&attributes_, &none);
    const int error = posix_spawn_file_actions_adddup2(&actions_, sock, kMatcherSocket);
    if (error != 0) return error;
    return posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// Starts the program's own file, whatever has become of its name.
int StartMatcherProcess(int sock, pid_t* pid) {
  char name[sizeof kMatcherName];
  CopyText(name, kMatcherName);
  char* arguments[] = {name, nullptr};
  LibraryPath library_path;
  char* environment[] = {library_path.variable(), nullptr};
  SpawnSetUp set_up;
  const int error = set_up.Prepare(sock);
  if (error != 0) return error;
  return posix_spawn(pid, "/proc/self/exe", set_up.actions(), set_up.attributes(), arguments,
                     environment);
}

bool IsForMatcher(const EventSetNode& enode) {
  return enode.re_list->matcher_set != 0;
}

RegExNode* FindPattern(uint32_t set, uint32_t number) {
  const EventSetNode* enode = FindNode(*ev_list, [&](const EventSetNode& candidate) {
    return candidate.re_list->matcher_set == set;
  });
  if (enode == nullptr) return nullptr;
  uint32_t here = 0;
  return FindNode(*enode->re_list, [&](const RegExNode&) { return here++ == number; });
}

void ReportBadPattern(std::string_view text) {
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view reason = text.substr(std::min(end + 1, text.size()));
  DEBUG_AS("ParseRegExFile", kError, "regcomp() failed for pattern %.*s : %.*s\n",
           static_cast<int>(end), text.data(), static_cast<int>(reason.size()), reason.data());
}

void ReportLeftOut(const MatcherMessage& message) {
  for (const MatcherComplaint& complaint : kMatcherComplaints) {
    if (complaint.kind != message.header.kind) continue;
    char cause[32] = "";
    if (message.header.value != 0)
      snprintf(cause, sizeof cause, " (signal %d)", message.header.value);
    DEBUG_AS(kMatcher, kError, "Pattern \"%.*s\" %s%s and is left out until the next reload.\n",
             static_cast<int>(message.length), message.text, complaint.text, cause);
  }
}

// Gives the console the name that its event had (event.h), unless the console is gone. The names of
// consoles that are not connected are read under acl_lock too, while their users are removed.
void RenameConsole(const char* name, const char* changed) EXCLUDES(acl_lock, icl_lock) {
  {
    const WriteLock lock(acl_lock, HERE);
    if (ConsoleNode* cnode = LocateConsoleInList(name, a_cons_list); cnode != nullptr) {
      CopyText(cnode->cname, changed);
      JournalName(cnode);
      return;
    }
  }
  const WriteLockPair lock(acl_lock, icl_lock, Release::kFirstFirst, HERE);
  if (ConsoleNode* cnode = LocateConsoleInList(name, i_cons_list); cnode != nullptr) {
    CopyText(cnode->cname, changed);
    JournalName(cnode);
  }
}

void PostMatch(MatcherLine* line, const MatcherMessage& message) EXCLUDES(acl_lock, icl_lock) {
  char text[kTextSize];
  snprintf(text, sizeof text, "%.*s", static_cast<int>(line->length), line->Bytes());
  DEBUG_AS("WriteBuffer", kInfo, "Matched pattern \"%.*s\" in string \"%s\".\n",
           static_cast<int>(message.length), message.text, text);
  const RegExNode* pattern = FindPattern(line->set, message.header.number);
  JournalEvent(line->console, pattern == nullptr ? message.Text() : pattern->jix_name,
               message.header.value, text);
  char changed[kNameSize];
  CopyText(changed, line->cname);
  PostJixEvent("qor.zevd.console", "name", changed, "message", text, message.header.value);
  if (strcmp(changed, line->cname) != 0) RenameConsole(line->cname, changed);
}

}  // namespace

constinit Matcher matcher{StartMatcherProcess};

// ---- Lines --------------------------------------------------------------------------------------

void Matcher::Take(const char* cname, uint32_t set, std::string_view record, uint32_t console) {
  // A NUL ends the text, as it does in the daemon's own matching.
  const std::string_view text = record.substr(0, std::min(record.find('\0'), kTextSize - 1));
  const size_t size = sizeof(MatcherLine) + text.size();
  const MutexLock lock(mutex_);
  void* room = queued_ + size > kQueueSize ? nullptr : operator new(size, std::nothrow);
  if (room == nullptr) {
    if (lost_++ == 0) lost_since_ = MonotonicMicroseconds();
    return;
  }
  auto* line = new (room) MatcherLine{nullptr, ++last_line_, set, console, text.size(), {}};
  CopyText(line->cname, cname);
  text.copy(line->Bytes(), text.size());
  (first_ == nullptr ? first_ : last_->next) = line;
  last_ = line;
  if (unsent_ == nullptr) unsent_ = line;
  queued_ += size;
  if (sets_told_) SendLines();
}

MatcherLine* Matcher::RemoveFirst() {
  MatcherLine* line = first_;
  if (unsent_ == line) unsent_ = line->next;
  first_ = line->next;
  if (first_ == nullptr) last_ = nullptr;
  queued_ -= line->Size();
  return line;
}

// Lines that were handed over stay and are still answered: they stand before the others.
void Matcher::DropUnsent() {
  last_ = nullptr;
  for (MatcherLine* line = first_; line != unsent_; line = line->next) last_ = line;
  (last_ == nullptr ? first_ : last_->next) = nullptr;
  unsigned long dropped = 0;
  for (MatcherLine* line = unsent_; line != nullptr; line = unsent_) {
    unsent_ = line->next;
    queued_ -= line->Size();
    operator delete(line);
    ++dropped;
  }
  if (dropped == 0) return;
  DEBUG_AS(kMatcher, kError, "%lu lines were not matched: they waited at a reload.\n", dropped);
}

void Matcher::ReportLost(int64_t now) {
  if (lost_ == 0 || (first_ != nullptr && now - lost_since_ < kLostPause)) return;
  DEBUG_AS(kMatcher, kError, "%lu lines were not matched: too many were waiting.\n", lost_);
  lost_ = 0;
}

// ---- What the matcher is told -------------------------------------------------------------------

void Matcher::SetsChanged() {
  ENTERING();
  const MutexLock lock(mutex_);
  wanted_ = FindNode(*ev_list, IsForMatcher) != nullptr;
  if (!wanted_ && sock_ != -1) {
    dismissed_ = true;
    LoseConnection();
  }
  DropUnsent();
  forgotten_ = sets_told_ = false;
  patterns_told_ = 0;
  const int64_t now = MonotonicMicroseconds();
  Reap(now);
  if (wanted_ && pid_ == -1 && now >= start_time_) Start(now);
  SendSets();
}

void Matcher::SendSets() {
  if (sock_ == -1 || sets_told_) return;
  if (!forgotten_ && !SendToMatcher(sock_, {.kind = MatcherKind::kForget}, {}, MSG_DONTWAIT))
    return;
  forgotten_ = true;
  size_t place = 0;
  for (const EventSetNode* enode : Nodes(*ev_list)) {
    if (!IsForMatcher(*enode)) continue;
    uint32_t number = 0;
    for (const RegExNode* node : Nodes(*enode->re_list)) {
      const MatcherHeader header = {
          .kind = node->any_case ? MatcherKind::kAnyCase : MatcherKind::kPattern,
          .set = enode->re_list->matcher_set,
          .number = number++,
          .value = node->priority};
      if (place++ < patterns_told_) continue;
      if (!node->left_out && !SendToMatcher(sock_, header, node->pattern, MSG_DONTWAIT)) return;
      ++patterns_told_;
    }
  }
  sets_told_ = SendToMatcher(sock_, {.kind = MatcherKind::kStart}, {}, MSG_DONTWAIT);
}

// A line for which there is no room is sent after the next answer. A failure shows when that is
// read.
void Matcher::SendLines() {
  while (sock_ != -1 && unsent_ != nullptr) {
    const MatcherHeader header = {
        .kind = MatcherKind::kLine, .set = unsent_->set, .line = unsent_->number};
    if (!SendToMatcher(sock_, header, unsent_->Text(), MSG_DONTWAIT)) return;
    unsent_ = unsent_->next;
  }
}

// ---- What it answers ----------------------------------------------------------------------------

void Matcher::Serve() {
  for (int left = kMostAtOnce; left > 0; --left) {
    MatcherMessage message;
    MatcherLine* matched = nullptr;
    {
      const MutexLock lock(mutex_);
      if (TakeAnswer(&message, &matched) == Step::kDone) break;
    }
    if (matched != nullptr) PostMatch(matched, message);
    operator delete(matched);
  }
  const MutexLock lock(mutex_);
  if (!wanted_ && pid_ == -1 && lost_ == 0) return;
  const int64_t now = MonotonicMicroseconds();
  Reap(now);
  if (wanted_ && pid_ == -1 && now >= start_time_) Start(now);
  SendSets();
  if (sets_told_) SendLines();
  ReportLost(now);
}

Matcher::Step Matcher::TakeAnswer(MatcherMessage* message, MatcherLine** matched) {
  if (sock_ == -1) return Step::kDone;
  const Received received = ReceiveFromMatcher(sock_, message, MSG_DONTWAIT);
  if (received == Received::kNothing) return Step::kDone;
  if (received == Received::kEnd) {
    LoseConnection();
    return Step::kDone;
  }
  answered_ = true;
  switch (message->header.kind) {
    case MatcherKind::kTaken:
      break;
    case MatcherKind::kMatch:
      *matched = AnswerOf(*message);
      break;
    case MatcherKind::kNoMatch:
      operator delete(AnswerOf(*message));
      break;
    default:
      NoteLeftOut(*message);
  }
  return Step::kAgain;
}

// The answered line, which now belongs to the caller. Null when the answer is for another line than
// the one that is due; the matcher is then ended.
MatcherLine* Matcher::AnswerOf(const MatcherMessage& message) {
  if (first_ != unsent_ && first_->number == message.header.line) return RemoveFirst();
  DEBUG_AS(kMatcher, kError, "An answer was not the one that was due.\n");
  LoseConnection();
  return nullptr;
}

// The next matcher is not told of the pattern any more.
void Matcher::NoteLeftOut(const MatcherMessage& message) {
  RegExNode* node = FindPattern(message.header.set, message.header.number);
  if (node != nullptr) node->left_out = true;
  if (message.header.kind == MatcherKind::kBadPattern) {
    ReportBadPattern(message.Text());
  } else {
    ReportLeftOut(message);
  }
}

// ---- The process --------------------------------------------------------------------------------

void Matcher::Start(int64_t now) {
  int ends[2];
  int error = socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0 ? 0 : errno;
  start_time_ = now + kSecond;
  if (error == 0) {
    error = start_(ends[1], &pid_);
    close(ends[1]);
    if (error != 0) close(ends[0]);
  }
  if (error != 0) {
    pid_ = -1;
    if (error != last_error_)
      DEBUG_AS(kMatcher, kError, "The matcher cannot be started : %s\n", strerror(error));
  } else {
    sock_ = ends[0];
    cons_mon_waker.Beside(sock_);
    dismissed_ = answered_ = forgotten_ = sets_told_ = false;
    patterns_told_ = 0;
    unsent_ = first_;
    start_time_ = now;
  }
  last_error_ = error;
}

// The line that the matcher was at is given up, in case it was the reason; the lines after it are
// handed to the next matcher.
void Matcher::LoseConnection() {
  cons_mon_waker.NotBeside(sock_);
  close(sock_);
  sock_ = -1;
  sets_told_ = false;
  kill(pid_, SIGKILL);  // the id is still its own: it has not been waited for
  if (first_ != unsent_ && !dismissed_) operator delete(RemoveFirst());
  unsent_ = first_;
}

// No second matcher is started before the first has ended. When one never said anything, the next
// is started later and later.
void Matcher::Reap(int64_t now) {
  int status = 0;
  if (pid_ == -1 || sock_ != -1 || waitpid(pid_, &status, WNOHANG) != pid_) return;
  pid_ = -1;
  delay_ =
      answered_ || dismissed_ ? kSecond : std::min(std::max(2 * delay_, kSecond), kLongestDelay);
  start_time_ = dismissed_ ? now : start_time_ + delay_;
  if (dismissed_) return;
  const bool killed = WIFSIGNALED(status);
  DEBUG_AS(kMatcher, kError, "The matcher has ended (%s %d) and is started again.\n",
           killed ? "signal" : "status", killed ? WTERMSIG(status) : WEXITSTATUS(status));
}

}  // namespace zevd
