#include "prompt.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>

#include "socket.h"

namespace zevctl {

namespace {

constexpr size_t kLongestAnswer = 1023;  // the daemon takes no longer line

Descriptor OpenTerminal() {
  return Descriptor(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY));
}

/// The terminal shows nothing of what is typed while one of these lives. Keys typed before the
/// question are thrown away, and a signal does not interrupt between hiding and showing: it comes
/// when the answer is there, or ends the program through the terminal's own interrupt key, which is
/// taken as the end of the answer here.
class HiddenTyping {
 public:
  explicit HiddenTyping(int terminal) : terminal_(terminal) {
    active_ = tcgetattr(terminal_, &saved_) == 0;
    if (!active_) return;
    termios hidden = saved_;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
    hidden.c_lflag |= ECHONL;
    tcsetattr(terminal_, TCSAFLUSH, &hidden);
  }

  ~HiddenTyping() {
    if (active_) tcsetattr(terminal_, TCSAFLUSH, &saved_);
  }

  HiddenTyping(const HiddenTyping&) = delete;
  HiddenTyping& operator=(const HiddenTyping&) = delete;

 private:
  int terminal_;
  bool active_ = false;
  termios saved_{};
};

bool Write(int terminal, const std::string& text) {
  return write(terminal, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

constexpr char kInterruptKey = '\x03';

std::optional<std::string> ReadAnswer(int terminal) {
  std::string answer;
  answer.reserve(kLongestAnswer + 1);  // no reallocation leaves a password behind
  char key = 0;
  while (read(terminal, &key, 1) == 1) {
    if (key == '\n') return answer;
    if (key == kInterruptKey || answer.size() == kLongestAnswer) break;
    answer.push_back(key);
  }
  Wipe(answer);
  return {};
}

}  // namespace

std::optional<std::string> Ask(const std::string& question) {
  const Descriptor terminal = OpenTerminal();
  if (!terminal || !Write(terminal.get(), question)) return {};
  return ReadAnswer(terminal.get());
}

std::optional<std::string> AskSecret(const std::string& question) {
  const Descriptor terminal = OpenTerminal();
  if (!terminal) return {};
  const HiddenTyping hidden(terminal.get());
  return Write(terminal.get(), question) ? ReadAnswer(terminal.get()) : std::nullopt;
}

void Tell(const std::string& text) {
  const Descriptor terminal = OpenTerminal();
  if (terminal) Write(terminal.get(), text);
}

void Wipe(std::string& text) {
  text.resize(text.capacity());
  explicit_bzero(text.data(), text.size());
  text.clear();
}

}  // namespace zevctl
