#include "password_check.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>

namespace {

constexpr int64_t kLongestWait = 30000;       // milliseconds for a turn, and again for an answer
constexpr int64_t kPauseAfterRefusal = 2000;  // milliseconds
constexpr int64_t kLook = 20;                 // milliseconds between two looks at what is awaited
constexpr size_t kRefusalsKept = 4096;        // then the oldest goes; only fast helpers get so far
constexpr size_t kLongestPair = 2048;         // the longest name and password, and the blank

int64_t Now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// True when the connection has failed or was reset. A peer that has only ended its sending may
// still be answered.
bool HasFailed(int sock) {
  pollfd looked_at = {sock, 0, 0};
  return poll(&looked_at, 1, 0) > 0;
}

// Waits, `limit` milliseconds at most. True when the peer whose connection is `sock` has hung up;
// -1 is nobody's.
bool Wait(const PasswordRequest& request, int sock, int64_t limit) {
  pollfd awaited = {sock, POLLRDHUP, 0};
  const timespec time = {limit / 1000, limit % 1000 * 1000000};
  const int ready = ppoll(&awaited, 1, &time, request.blocked);
  if (ready < 0 && errno == EINTR && request.interrupted != nullptr) request.interrupted();
  return ready > 0;
}

// ---- Turns --------------------------------------------------------------------------------------

/// Who was refused last, and when: the newest of them. Two names with the same key share a pause,
/// which costs the second one two seconds.
class Refusals {
 public:
  void Add(uint64_t key) {
    kept_[next_] = {key, Now()};
    next_ = (next_ + 1) % kRefusalsKept;
  }

  /// When the pause of this key is over; a time that has passed when there is none.
  int64_t EndOfPause(uint64_t key) const {
    int64_t end = 0;
    for (const Refusal& refusal : kept_) {
      if (refusal.key == key) end = std::max(end, refusal.when + kPauseAfterRefusal);
    }
    return end;
  }

 private:
  struct Refusal {
    uint64_t key = 0;
    int64_t when = -kPauseAfterRefusal;
  };

  std::array<Refusal, kRefusalsKept> kept_{};
  size_t next_ = 0;
};

/// Whoever waits for a turn, or has one; on the stack of its thread. An address that is not known
/// is nobody's.
struct Caller {
  uint64_t address;
  uint64_t key;  ///< of name and address
  bool known;
  int64_t not_before = 0;  ///< the end of its pause
  int same_ahead = 0;      ///< how many with the same key wait before it, or are being checked
  int address_ahead = 0;   ///< the same for its address
  Caller* next = nullptr;

  explicit Caller(const PasswordRequest& request)
      : address(Hash(request.rhost)),
        key(Hash(request.name) * 31 + address),
        known(request.rhost[0] != '\0') {}

  static uint64_t Hash(const char* text) { return std::hash<std::string_view>()(text); }

  bool IsReady(int64_t now) const { return same_ahead == 0 && not_before <= now; }
  bool IsSameAddress(const Caller& other) const {
    return known && other.known && address == other.address;
  }
  bool IsSameName(const Caller& other) const { return IsSameAddress(other) && key == other.key; }

  bool GoesBefore(const Caller& other, bool came_before) const {
    return address_ahead < other.address_ahead ||
           (came_before && address_ahead == other.address_ahead);
  }

  // `count` is 1 when the other comes to stand before this one, -1 when it goes.
  void Count(const Caller& other, int count) {
    if (IsSameAddress(other)) address_ahead += count;
    if (IsSameName(other)) same_ahead += count;
  }
};

// A leaf that guards what follows. Not a Mutex: this library needs nothing of the daemon's.
std::mutex turns_mutex;
Refusals refusals;
Caller* first_waiting = nullptr;
Caller* first_running = nullptr;
int running = 0;

void Append(Caller** list, Caller* caller) {
  while (*list != nullptr) list = &(*list)->next;
  caller->next = nullptr;
  *list = caller;
}

void Remove(Caller** list, const Caller* caller) {
  while (*list != caller) list = &(*list)->next;
  *list = caller->next;
}

/// One place among the helpers, or in the queue for one.
class Turn {
 public:
  explicit Turn(const PasswordRequest& request) : self_(request) {
    const std::lock_guard lock(turns_mutex);
    if (self_.known) self_.not_before = refusals.EndOfPause(self_.key);
    for (const Caller* other : {first_running, first_waiting}) {
      for (; other != nullptr; other = other->next) self_.Count(*other, 1);
    }
    Append(&first_waiting, &self_);
  }

  ~Turn() {
    const std::lock_guard lock(turns_mutex);
    Remove(taken_ ? &first_running : &first_waiting, &self_);
    if (taken_) --running;
    for (Caller* other = taken_ ? first_waiting : self_.next; other != nullptr;
         other = other->next) {
      other->Count(self_, -1);
    }
  }

  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  /// Addresses take turns, and among the callers of one address whoever came first goes first: a
  /// crowd behind one address does not keep the others out. One name is checked for one caller of
  /// an address at a time: otherwise a guesser who does not wait for an answer would have as many
  /// tries as there are helpers.
  bool Take() {
    const int64_t now = Now();
    const std::lock_guard lock(turns_mutex);
    if (!self_.IsReady(now) || running + Ahead(now) >= kHelpersAtOnce) return false;
    // Those whom it overtakes have it ahead of them now.
    for (Caller* other = first_waiting; other != &self_; other = other->next) {
      other->Count(self_, 1);
    }
    Remove(&first_waiting, &self_);
    Append(&first_running, &self_);
    ++running;
    taken_ = true;
    return true;
  }

  void NoteRefusal() const {
    if (!self_.known) return;
    const std::lock_guard lock(turns_mutex);
    refusals.Add(self_.key);
    for (Caller* other = first_waiting; other != nullptr; other = other->next) {
      if (other->IsSameName(self_)) other->not_before = Now() + kPauseAfterRefusal;
    }
  }

 private:
  // Callers who wait and go before this one; turns_mutex is held.
  int Ahead(int64_t now) const {
    int ahead = 0;
    bool came_before = true;
    for (const Caller* other = first_waiting; other != nullptr; other = other->next) {
      if (other == &self_) {
        came_before = false;
      } else if (other->IsReady(now) && other->GoesBefore(self_, came_before)) {
        ++ahead;
      }
    }
    return ahead;
  }

  Caller self_;
  bool taken_ = false;
};

// ---- The helper ---------------------------------------------------------------------------------

/// The name, one blank and the password, as the helper reads them; nothing of it stays in memory.
class Pair {
 public:
  explicit Pair(const PasswordRequest& request) {
    const int length = snprintf(text_, sizeof text_, "%s %s", request.name, request.password);
    size_ = std::min(static_cast<size_t>(length), sizeof text_ - 1);
  }
  ~Pair() { explicit_bzero(text_, sizeof text_); }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  // A pipe has room for all of it. False with errno set.
  bool WriteTo(int pipe) const { return write(pipe, text_, size_) == static_cast<ssize_t>(size_); }

 private:
  char text_[kLongestPair];
  size_t size_;
};

/// How a helper is started: with `input` as its standard input, the other two standard descriptors,
/// no signal blocked, the usual ones not ignored, and a process group of its own, by which all of
/// it can be ended.
class SpawnSettings {
 public:
  explicit SpawnSettings(int input) {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
    error_ = posix_spawn_file_actions_adddup2(&actions_, input, STDIN_FILENO);
    if (error_ == 0) {
      error_ = posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    }
    sigset_t set;
    sigemptyset(&set);
    posix_spawnattr_setsigmask(&attributes_, &set);
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGCHLD}) {
      sigaddset(&set, number);
    }
    posix_spawnattr_setsigdefault(&attributes_, &set);
    posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }

  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }

  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  // 0, or the errno value of the failure.
  int Start(const char* path, char* const* arguments, char* const* environment, pid_t* pid) const {
    if (error_ != 0) return error_;
    return posix_spawn(pid, path, &actions_, &attributes_, arguments, environment);
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  int error_;
};

/// A running helper; ended, with all that it has started, when it is given up.
class Helper {
 public:
  Helper() = default;
  ~Helper() {
    End();
    for (const int fd : pipe_) {
      if (fd != -1) close(fd);
    }
  }
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  // False with errno set.
  bool Start(const char* path, const char* rhost) {
    if (pipe2(pipe_, O_CLOEXEC) != 0) return false;
    errno = Spawn(path, rhost);
    return errno == 0;
  }

  // False with errno set. The end for reading stays open here too, so that nothing raises SIGPIPE
  // and what the helper leaves unread shows.
  bool Send(const Pair& pair) {
    const bool written = pair.WriteTo(pipe_[1]);
    const int error = errno;
    close(std::exchange(pipe_[1], -1));  // its input ends here
    errno = error;
    return written;
  }

  // True when it has ended with status 0 in time. One that has not ended by then is given up.
  bool Accepts(const PasswordRequest& request) {
    const int64_t deadline = Now() + kLongestWait;
    int status = 0;
    for (int64_t look = 1; !HasEnded(&status); look = std::min(2 * look, kLook)) {
      if (Now() >= deadline) return false;
      Wait(request, -1, look);
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  // Whatever its status says, a helper that has not read the pair has not checked it.
  bool HasReadAll() const {
    int left = 0;
    return ioctl(pipe_[0], FIONREAD, &left) == 0 && left == 0;
  }

 private:
  // 0, or the errno value of the failure. What is not a program is run by the shell.
  int Spawn(const char* path, const char* rhost) {
    char peer[128];
    snprintf(peer, sizeof peer, "QOR_RHOST=%s", rhost);
    const char* environment[] = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", peer, nullptr};
    const char* program[] = {path, nullptr};
    const char* script[] = {"sh", path, nullptr};
    const SpawnSettings settings(pipe_[0]);
    int error =
        settings.Start(path, const_cast<char**>(program), const_cast<char**>(environment), &pid_);
    if (error == ENOEXEC) {
      error = settings.Start("/bin/sh", const_cast<char**>(script), const_cast<char**>(environment),
                             &pid_);
    }
    if (error != 0) pid_ = -1;
    return error;
  }

  bool HasEnded(int* status) {
    const pid_t ended = waitpid(pid_, status, WNOHANG);
    if (ended == 0 || (ended < 0 && errno == EINTR)) return false;
    if (ended < 0) *status = -1;
    pid_ = -1;
    return true;
  }

  void End() {
    if (pid_ == -1) return;
    kill(-pid_, SIGKILL);
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
  }

  pid_t pid_ = -1;
  int pipe_[2] = {-1, -1};  // to its standard input
};

PasswordCheck Ask(const char* path, const PasswordRequest& request) {
  Helper helper;
  const Pair pair(request);
  if (!helper.Start(path, request.rhost)) return PasswordCheck::kNotStarted;
  if (!helper.Send(pair)) return PasswordCheck::kNotRead;
  if (!helper.Accepts(request)) return PasswordCheck::kRefused;
  if (helper.HasReadAll()) return PasswordCheck::kAccepted;
  errno = EPIPE;
  return PasswordCheck::kNotRead;
}

}  // namespace

PasswordCheck CheckPassword(const char* helper, const PasswordRequest& request) {
  Turn turn(request);
  const int64_t deadline = Now() + kLongestWait;
  if (HasFailed(request.sock)) return PasswordCheck::kNoTurn;
  while (!turn.Take()) {
    if (Now() >= deadline) return PasswordCheck::kNoTurn;
    if (Wait(request, request.sock, kLook)) return PasswordCheck::kNoTurn;
  }
  const bool one_word = strpbrk(request.name, " \t\n\v\f\r") == nullptr;
  const PasswordCheck result = one_word ? Ask(helper, request) : PasswordCheck::kRefused;
  if (result != PasswordCheck::kAccepted) {
    const int error = errno;
    turn.NoteRefusal();
    errno = error;
  }
  return result;
}
