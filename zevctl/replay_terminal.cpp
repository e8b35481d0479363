#include "replay_terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>

namespace zevctl {

namespace {

// The alternate screen, and no second line for what is too wide; and all that undone.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?7l";
constexpr std::string_view kLeave = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";

// For a terminal that takes nothing.
constexpr std::chrono::milliseconds kLongestLeave{500};

}  // namespace

ReplayTerminal::ReplayTerminal() : raw_(STDIN_FILENO), screen_(STDOUT_FILENO) {
  Enter();
}

ReplayTerminal::~ReplayTerminal() {
  Leave();
}

ScreenSize ReplayTerminal::Size() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) {
    return {};
  }
  return {size.ws_row, size.ws_col};
}

void ReplayTerminal::Enter() {
  raw_.Enter();
  screen_.Add(kEnter);
}

// What waits to be drawn does not matter any more, but a sequence of it may have been begun: the
// cancel character ends that.
void ReplayTerminal::Leave() {
  const auto limit = std::chrono::steady_clock::now() + kLongestLeave;
  if (!screen_.empty()) {
    screen_.Clear();
    screen_.Add("\x18");
  }
  screen_.Add(kLeave);
  while (!screen_.empty() && std::chrono::steady_clock::now() < limit) {
    pollfd output = {screen_.fd(), POLLOUT, 0};
    if (poll(&output, 1, 50) > 0 && screen_.Write() != 0) break;
  }
  raw_.Leave();
}

void ReplayTerminal::Stop() {
  Leave();
  raise(SIGSTOP);
  Enter();
}

void ReplayTerminal::Continue() {
  raw_.Enter();
}

}  // namespace zevctl
