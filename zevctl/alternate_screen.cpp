#include "alternate_screen.h"

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

#include "standard_output.h"

namespace zevctl {

namespace {

// The alternate screen, no cursor, and no second line for what is too wide; and all that undone.
constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l\x1b[?7l";
constexpr std::string_view kLeave = "\x1b[?7h\x1b[?25h\x1b[?1049l";

constexpr std::string_view kTop = "\x1b[H";
constexpr std::string_view kRestOfLine = "\x1b[K";
constexpr std::string_view kRestOfScreen = "\x1b[J";

constexpr std::array kEndingSignals = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

// In a signal handler too. A terminal that has gone needs no restoring.
void Put(std::string_view sequence) {
  const int saved = errno;
  [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, sequence.data(), sequence.size());
  errno = saved;
}

// SA_RESETHAND has brought the default back; the signal arrives once this returns.
void LeaveAndEnd(int signal) {
  Put(kLeave);
  raise(signal);
}

// SIGSTOP stops at once, and the next line runs after the program was continued.
void LeaveAndStop(int /*signal*/) {
  Put(kLeave);
  raise(SIGSTOP);
  Put(kEnter);
}

void OnlyInterrupt(int /*signal*/) {}

// A signal that was ignored when the program started stays ignored.
void Handle(int signal, void (*handler)(int), int flags) {
  struct sigaction before {};
  sigaction(signal, nullptr, &before);
  if (before.sa_handler == SIG_IGN) return;
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = flags;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
}

size_t TerminalRows() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_row;
}

}  // namespace

AlternateScreen::AlternateScreen() {
  for (const int signal : kEndingSignals) {
    Handle(signal, LeaveAndEnd, static_cast<int>(SA_RESETHAND));
  }
  Handle(SIGTSTP, LeaveAndStop, SA_RESTART);
  Handle(SIGWINCH, OnlyInterrupt, SA_RESTART);
  Put(kEnter);
}

AlternateScreen::~AlternateScreen() {
  Put(kLeave);
  for (const int signal : kEndingSignals) Handle(signal, SIG_DFL, 0);
  Handle(SIGTSTP, SIG_DFL, 0);
  Handle(SIGWINCH, SIG_DFL, 0);
}

void AlternateScreen::Show(const std::vector<std::string>& lines) {
  const size_t rows = TerminalRows();
  const bool too_many = rows > 1 && lines.size() > rows;
  const size_t shown = too_many ? rows - 1 : lines.size();
  std::string text(kTop);
  for (size_t i = 0; i < shown; ++i) {
    text += (i == 0 ? "" : "\r\n") + lines[i] + std::string(kRestOfLine);
  }
  if (too_many) {
    text +=
        "\r\n... and " + std::to_string(lines.size() - shown) + " more" + std::string(kRestOfLine);
  }
  StandardOutput output;
  output.Add(text);
  output.Add(kRestOfScreen);
  output.Flush();
}

void WaitWhileRead(std::chrono::milliseconds time) {
  pollfd output = {STDOUT_FILENO, 0, 0};
  const int ready = poll(&output, 1, static_cast<int>(time.count()));
  if (ready > 0 && ReaderHasGone(output.revents)) throw ReaderGone();
}

}  // namespace zevctl
