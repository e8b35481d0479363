#include "replay_loop.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "replay_terminal.h"

namespace zevctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr Nanoseconds kFrameTime = std::chrono::milliseconds(33);
constexpr Nanoseconds kEscapeTime = std::chrono::milliseconds(50);  // to be followed by more

class Replay {
 public:
  Replay(const Tape& tape, const ReplayOptions& options)
      : view_(ReplayTerminal::Size()), control_(tape, options, view_.screen_size()) {}

  int Run();

 private:
  int Timeout() const;
  void Wait();
  void PassTime();
  void TakeKeys();
  void Press(const std::vector<KeyPress>& keys);
  void TakeSignals();
  void TakeSignal(int number);
  void Stop();
  void Draw();
  bool ShowsEnd() const;

  ReplayView view_;
  ReplayControl control_;  // reads the journal first: what fails there leaves the terminal alone
  ReplayTerminal terminal_;
  KeyReader keys_;
  Clock::time_point now_ = Clock::now();
  Clock::time_point drawn_;
  bool draws_end_ = false;
  bool is_over_ = false;
  bool was_stopped_ = false;
  int signal_ = 0;
};

int Replay::Run() {
  while (!is_over_) {
    Draw();
    Wait();
    PassTime();
    control_.Work();
    if (control_.TakeStop()) Stop();
    if (control_.has_quit() || (ShowsEnd() && !terminal_.has_keys())) is_over_ = true;
  }
  return signal_;
}

// A frame that comes too early is drawn when it is time; one for a terminal that is too slow, when
// it has taken the one before.
void Replay::Draw() {
  if (!terminal_.screen().empty() || Clock::now() - drawn_ < kFrameTime) return;
  terminal_.screen().Add(view_.Draw(control_.Picture()));
  drawn_ = Clock::now();
  draws_end_ = control_.AtEnd();
}

bool Replay::ShowsEnd() const {
  return draws_end_ && terminal_.screen().empty();
}

int Replay::Timeout() const {
  auto due = control_.Due();
  if (keys_.IsUndecided()) due = std::min(due.value_or(kEscapeTime), kEscapeTime);
  const Nanoseconds since_drawn = Clock::now() - drawn_;
  if (since_drawn < kFrameTime) {
    due = std::min(due.value_or(kFrameTime), kFrameTime - since_drawn);
  }
  if (!due) return -1;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(*due).count());
}

void Replay::Wait() {
  std::array<pollfd, 3> wanted = {
      pollfd{terminal_.signals().fd(), POLLIN, 0},
      pollfd{terminal_.has_keys() ? STDIN_FILENO : -1, POLLIN, 0},
      pollfd{terminal_.screen().empty() ? -1 : terminal_.screen().fd(), POLLOUT, 0},
  };
  const int ready = poll(wanted.data(), wanted.size(), Timeout());
  if (wanted[0].revents != 0) TakeSignals();
  if (wanted[1].revents != 0) TakeKeys();
  if (ready == 0 && keys_.IsUndecided()) Press(keys_.Decide());
  if (wanted[2].revents != 0 && terminal_.screen().Write() != 0) is_over_ = true;
}

void Replay::PassTime() {
  const auto now = Clock::now();
  control_.Pass(now - now_);
  now_ = now;
}

// A terminal without an end of its keys has gone.
void Replay::TakeKeys() {
  std::array<char, 256> typed{};
  const ssize_t count = read(STDIN_FILENO, typed.data(), typed.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    is_over_ = true;
    return;
  }
  Press(keys_.Take({typed.data(), static_cast<size_t>(count)}));
}

// Between two keys the time that has passed counts for what was going on then.
void Replay::Press(const std::vector<KeyPress>& keys) {
  PassTime();
  for (const KeyPress& key : keys) control_.Press(key);
  drawn_ = {};
}

void Replay::TakeSignals() {
  while (const int number = terminal_.signals().Take()) TakeSignal(number);
}

void Replay::TakeSignal(int number) {
  if (number == SIGWINCH) {
    view_.Forget(ReplayTerminal::Size());
    control_.Resize(view_.screen_size());
  } else if (number == SIGTSTP) {
    Stop();
  } else if (number == SIGCONT) {
    if (!was_stopped_) terminal_.Continue();
    was_stopped_ = false;
    view_.Forget(ReplayTerminal::Size());
  } else {
    signal_ = number;
    is_over_ = true;
  }
  drawn_ = {};
}

// The time that the program was stopped is no part of the replay.
void Replay::Stop() {
  was_stopped_ = true;
  terminal_.Stop();
  view_.Forget(ReplayTerminal::Size());
  control_.Resize(view_.screen_size());
  now_ = Clock::now();
}

}  // namespace

int PlayOnTerminal(const Tape& tape, const ReplayOptions& options) {
  return Replay(tape, options).Run();
}

}  // namespace zevctl
