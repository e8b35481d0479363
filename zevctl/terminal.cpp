#include "terminal.h"

#include <fcntl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

namespace zevctl {

namespace {

constexpr std::array kWatched = {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGCONT};

// A pipe that poll() finds writable takes this much at once.
constexpr size_t kPiece = PIPE_BUF;

bool IsIgnored(int number) {
  struct sigaction action {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

template <typename Numbers>
void Add(const Numbers& numbers, sigset_t& set) {
  for (const int number : numbers) {
    if (!IsIgnored(number)) sigaddset(&set, number);
  }
}

// In the background the terminal's modes are those of another program, and setting them would stop
// this one.
bool InBackground(int terminal) {
  const pid_t foreground = tcgetpgrp(terminal);
  return foreground > 0 && foreground != getpgrp();
}

// A write to a terminal blocks while the terminal takes only some of it. Making the descriptor
// nonblocking would affect all programs that share it, so the terminal is opened once more. One
// that belongs to another user can be opened only as the terminal of this session.
Descriptor OpenForWriting(int terminal) {
  if (isatty(terminal) != 1) return {};
  constexpr int kFlags = O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  const std::string path = "/proc/self/fd/" + std::to_string(terminal);
  Descriptor opened(open(path.c_str(), kFlags));
  if (!opened && tcgetsid(terminal) == getsid(0)) opened = Descriptor(open("/dev/tty", kFlags));
  return opened;
}

// Sockets need no mode of their own, whether they are standard output or the connection.
ssize_t WriteSome(int fd, std::string_view bytes) {
  const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  return sent < 0 && errno == ENOTSOCK ? write(fd, bytes.data(), bytes.size()) : sent;
}

}  // namespace

RawMode::RawMode(int fd) : fd_(fd), is_terminal_(tcgetattr(fd, &saved_) == 0) {}

// Neither call waits for the terminal to take its output, which may never happen.
void RawMode::Enter() const {
  if (!is_terminal_ || InBackground(fd_)) return;
  termios raw = saved_;
  cfmakeraw(&raw);
  tcsetattr(fd_, TCSANOW, &raw);
}

void RawMode::Leave() const {
  if (is_terminal_ && !InBackground(fd_)) tcsetattr(fd_, TCSANOW, &saved_);
}

SignalWatch::SignalWatch(std::initializer_list<int> more) {
  sigset_t watched;
  sigemptyset(&watched);
  Add(kWatched, watched);
  Add(more, watched);
  sigprocmask(SIG_BLOCK, &watched, &saved_);
  descriptor_ = Descriptor(signalfd(-1, &watched, SFD_NONBLOCK | SFD_CLOEXEC));
}

SignalWatch::~SignalWatch() {
  sigprocmask(SIG_SETMASK, &saved_, nullptr);
}

int SignalWatch::Take() const {
  signalfd_siginfo info{};
  if (read(fd(), &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return 0;
  return static_cast<int>(info.ssi_signo);
}

OutputQueue::OutputQueue(int fd) : fd_(fd), nonblocking_(OpenForWriting(fd)) {}

void OutputQueue::Add(std::string_view bytes) {
  pending_.erase(0, written_);
  written_ = 0;
  pending_ += bytes;
}

void OutputQueue::Clear() {
  pending_.clear();
  written_ = 0;
}

int OutputQueue::Write() {
  const std::string_view piece = std::string_view(pending_).substr(written_, kPiece);
  if (piece.empty()) return 0;
  const ssize_t count = WriteSome(fd(), piece);
  if (count < 0) return errno == EAGAIN || errno == EINTR ? 0 : errno;
  written_ += static_cast<size_t>(count);
  if (empty()) Clear();
  return 0;
}

}  // namespace zevctl
