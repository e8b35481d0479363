#include "prompt.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <ctime>

#include "descriptor.h"
#include "terminal.h"

namespace zevctl {

namespace {

Descriptor OpenTerminal() {
  return Descriptor(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
}

bool Write(int terminal, const std::string& text) {
  return write(terminal, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

/// While one exists, the terminal does not show what is typed. Keys typed before the question or
/// after the answer are thrown away.
class HiddenTyping {
 public:
  explicit HiddenTyping(int terminal)
      : terminal_(terminal), active_(tcgetattr(terminal, &saved_) == 0) {
    Hide();
  }
  ~HiddenTyping() { Show(); }
  HiddenTyping(const HiddenTyping&) = delete;
  HiddenTyping& operator=(const HiddenTyping&) = delete;

  void Hide() const {
    termios hidden = saved_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    hidden.c_lflag |= ECHONL;
    Set(hidden);
  }

  void Show() const { Set(saved_); }

 private:
  // Does not wait for the terminal to take its output, which may never happen.
  void Set(const termios& modes) const {
    if (!active_) return;
    tcflush(terminal_, TCIFLUSH);
    tcsetattr(terminal_, TCSANOW, &modes);
  }

  int terminal_;
  termios saved_{};  // filled while active_ is set
  bool active_;
};

sigset_t Only(int number) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, number);
  return set;
}

// Stops the program, as the signal would have done had it not been read here, and consumes the one
// that continues it. The system does not stop a program when no shell could continue it.
void Stop() {
  const sigset_t stop = Only(SIGTSTP);
  const sigset_t go_on = Only(SIGCONT);
  constexpr timespec kAtOnce{};
  raise(SIGTSTP);
  sigprocmask(SIG_UNBLOCK, &stop, nullptr);
  sigprocmask(SIG_BLOCK, &stop, nullptr);
  sigtimedwait(&go_on, nullptr, &kAtOnce);
}

/// One question whose answer is not shown.
class SecretQuestion {
 public:
  SecretQuestion(int terminal, const std::string& question)
      : terminal_(terminal), question_(question), hidden_(terminal) {}

  /// The answer, or nothing.
  std::optional<Secret> Run() {
    if (!Write(terminal_, question_)) return {};
    while (signal_ == 0) {
      std::array<pollfd, 2> awaited = {pollfd{signals_.fd(), POLLIN, 0},
                                       pollfd{terminal_, POLLIN, 0}};
      if (poll(awaited.data(), awaited.size(), -1) < 0) continue;
      if (awaited[0].revents != 0) {
        TakeSignal();
      } else if (!TakeKey()) {
        break;
      }
    }
    return complete_ ? std::optional(std::move(answer_)) : std::nullopt;
  }

  /// The signal that asks for the end of the program; 0 for none.
  int signal() const { return signal_; }

 private:
  void TakeSignal() {
    const int number = signals_.Take();
    if (number == SIGTSTP) {
      hidden_.Show();
      Stop();
    } else if (number != SIGCONT) {
      signal_ = number;
      return;
    }
    AskAgain();
  }

  // After a stop the shell may have changed the terminal, and the person may have forgotten what
  // was asked.
  void AskAgain() {
    hidden_.Hide();
    answer_.Clear();
    Write(terminal_, question_);
  }

  // False when the answer is complete or will not come.
  bool TakeKey() {
    char key = 0;
    if (read(terminal_, &key, 1) != 1) return false;
    complete_ = key == '\n';
    return !complete_ && answer_.Append(key);
  }

  int terminal_;
  const std::string& question_;
  SignalWatch signals_{SIGTSTP};  // first, so that no signal comes while the typing is hidden
  HiddenTyping hidden_;
  Secret answer_;
  bool complete_ = false;
  int signal_ = 0;
};

}  // namespace

std::optional<std::string> Ask(const std::string& question) {
  const Descriptor terminal = OpenTerminal();
  if (!terminal || !Write(terminal.get(), question)) return {};
  std::string answer;
  char key = 0;
  while (read(terminal.get(), &key, 1) == 1) {
    if (key == '\n') return answer;
    if (answer.size() == Secret::kLongest) break;
    answer.push_back(key);
  }
  return {};
}

std::optional<Secret> AskSecret(const std::string& question) {
  const Descriptor terminal = OpenTerminal();
  if (!terminal) return {};
  std::optional<Secret> answer;
  int signal = 0;
  {
    SecretQuestion asked(terminal.get(), question);
    answer = asked.Run();
    signal = asked.signal();
  }
  if (signal != 0) raise(signal);
  return answer;
}

void Tell(const std::string& text) {
  const Descriptor terminal = OpenTerminal();
  if (terminal) Write(terminal.get(), text);
}

}  // namespace zevctl
