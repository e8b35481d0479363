#include "session.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>

#include "console_words.h"
#include "escape.h"
#include "output.h"
#include "telnet.h"
#include "terminal.h"

namespace zevctl {

namespace {

constexpr Milliseconds kQuietAfterInput{1000};  // the console has answered what was sent to it
constexpr Milliseconds kLongestAnswer{10000};   // a console that never stops printing
constexpr size_t kTailSize = 512;               // holds the daemon's last message
constexpr std::string_view kTerminatedText = "Your session has been terminated by ";

struct ModeCode {
  std::string_view mode;
  std::string_view code;  // on the command port
};

constexpr std::array kModeCodes = {
    ModeCode{"ro", "1"},
    ModeCode{"sh", "2"},
    ModeCode{"ex", "3"},
    ModeCode{"er", "4"},
};

std::string WordsOf(std::string_view mode) {
  const auto* row = std::find_if(kModeCodes.begin(), kModeCodes.end(),
                                 [&](const ModeCode& known) { return known.mode == mode; });
  return ModeInWords(std::string(row->code));
}

/// The end of what the console printed.
class Tail {
 public:
  void Add(std::string_view text) {
    text_ += text.substr(text.size() - std::min(text.size(), kTailSize));
    text_.erase(0, text_.size() - std::min(text_.size(), kTailSize));
  }

  bool InLine() const { return !text_.empty() && text_.back() != '\n'; }
  bool TellsOfTermination() const { return text_.find(kTerminatedText) != std::string::npos; }

 private:
  std::string text_;
};

class Session {
 public:
  Session(Opening opening, const SessionOptions& options)
      : options_(options),
        socket_(std::move(opening.socket)),
        keyboard_(STDIN_FILENO),
        escapes_(keyboard_.is_terminal() ? options.escape : std::nullopt),
        wire_(socket_.fd()),
        screen_(STDOUT_FILENO),
        notices_(STDERR_FILENO) {
    keyboard_.Enter();
    Notice(Greeting());
    TakeFromDaemon(opening.received);
  }

  SessionResult Run() {
    while (!end_ || !screen_.empty()) Pass();
    if (*end_ == SessionEnd::kLeft) WriteDaemon();  // what was typed before the escape
    return {*end_, signal_, tail_.InLine()};
  }

 private:
  // What a pass waits for; the order is that of the descriptors.
  enum Source : size_t { kKeys, kDaemon, kScreen, kNotices, kSignals, kSources };
  using Descriptors = std::array<pollfd, kSources>;

  std::string Greeting() const;
  void Notice(const std::string& text);

  void Pass();
  Descriptors Interests() const;
  int Timeout() const;
  void Serve(const Descriptors& ready);
  void NoteSilence();

  void ReadKeys();
  void TakeTyped(std::string_view typed);
  void SendKeys(const std::string& keys);
  void Act(EscapeAction action);
  void SendBreak();
  void Suspend();

  void ReadDaemon();
  void TakeFromDaemon(std::string_view bytes);
  void WriteDaemon();
  void EndByDaemon();

  void WriteScreen();
  void TakeSignal();
  void EndNow(SessionEnd end);

  bool read_only() const { return options_.mode == "ro"; }

  const SessionOptions& options_;
  Socket socket_;
  OfferFilter offers_;
  TelnetStream telnet_;
  SignalWatch signals_;  // before the raw mode, so that no signal comes while that is on
  RawMode keyboard_;
  EscapeReader escapes_;
  OutputQueue wire_;
  OutputQueue screen_;
  OutputQueue notices_;
  Tail tail_;

  bool input_over_ = false;
  Clock::time_point active_{};                 // when the daemon last sent something
  std::optional<Clock::time_point> all_sent_;  // when the last of the input had been sent
  std::optional<SessionEnd> end_;
  int signal_ = 0;
};

std::string Session::Greeting() const {
  std::string attached = "Attached to " + Printable(options_.console) + " (" +
                         WordsOf(options_.mode) +
                         (read_only() ? ", what you type is not sent)." : ").");
  if (!keyboard_.is_terminal()) return attached;
  if (!options_.escape) return attached + " There is no escape: to leave, end zevctl from outside.";
  const std::string name = KeyName(*options_.escape);
  return attached + " Type " + name + ". at the start of a line to leave, " + name + "? for help.";
}

// In raw mode a line feed does not go to the start of the line.
void Session::Notice(const std::string& text) {
  notices_.Add(text + (keyboard_.is_terminal() && isatty(STDERR_FILENO) == 1 ? "\r\n" : "\n"));
}

void Session::Pass() {
  Descriptors descriptors = Interests();
  if (poll(descriptors.data(), descriptors.size(), Timeout()) > 0) Serve(descriptors);
  NoteSilence();
}

// A full queue stops what fills it and nothing else. poll() ignores negative descriptors. It always
// looks at standard output, to notice that its reader has gone.
Session::Descriptors Session::Interests() const {
  const auto only_if = [](bool wanted, int fd) { return wanted ? fd : -1; };
  const short from_daemon = screen_.Full() ? 0 : POLLIN;
  const short to_daemon = wire_.empty() ? 0 : POLLOUT;
  const short to_screen = screen_.empty() ? 0 : POLLOUT;
  Descriptors descriptors{};
  descriptors[kKeys] = {only_if(!input_over_ && !wire_.Full(), STDIN_FILENO), POLLIN, 0};
  descriptors[kDaemon] = {only_if(!end_ && (from_daemon | to_daemon) != 0, socket_.fd()),
                          static_cast<short>(from_daemon | to_daemon), 0};
  descriptors[kScreen] = {screen_.fd(), to_screen, 0};
  descriptors[kNotices] = {only_if(!notices_.empty(), notices_.fd()), POLLOUT, 0};
  descriptors[kSignals] = {signals_.fd(), POLLIN, 0};
  return descriptors;
}

int Session::Timeout() const {
  if (!all_sent_ || end_) return -1;
  const auto until = std::min(active_ + kQuietAfterInput, *all_sent_ + kLongestAnswer);
  const auto left = std::chrono::ceil<Milliseconds>(until - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

void Session::Serve(const Descriptors& ready) {
  if (ready[kSignals].revents != 0) TakeSignal();
  if (ready[kNotices].revents != 0 && notices_.Write() != 0) notices_.Clear();
  if (ready[kScreen].revents != 0) WriteScreen();
  if (ready[kKeys].revents != 0) ReadKeys();
  if (end_) return;
  if ((ready[kDaemon].revents & POLLOUT) != 0) WriteDaemon();
  if ((ready[kDaemon].revents & ~POLLOUT) != 0) ReadDaemon();
}

void Session::NoteSilence() {
  if (!input_over_ || end_ || !wire_.empty()) return;
  if (!all_sent_) active_ = *(all_sent_ = Clock::now());
  if (Timeout() == 0) end_ = SessionEnd::kLeft;
}

void Session::ReadKeys() {
  std::array<char, 4096> typed{};
  const ssize_t count = read(STDIN_FILENO, typed.data(), typed.size());
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  input_over_ = count <= 0;
  if (count > 0) TakeTyped({typed.data(), static_cast<size_t>(count)});
}

void Session::TakeTyped(std::string_view typed) {
  while (!typed.empty() && end_ != SessionEnd::kLeft) {
    const EscapeStep step = escapes_.Next(typed);
    SendKeys(step.keys);
    Act(step.action);
  }
}

// The daemon would throw away what a read-only user types. What is typed on a terminal is sent as
// keys, anything else as it is.
void Session::SendKeys(const std::string& keys) {
  if (read_only() || end_) return;
  if (keyboard_.is_terminal()) {
    telnet_.SendKeys(keys);
  } else {
    telnet_.SendData(keys);
  }
  wire_.Add(telnet_.TakeWire());
}

void Session::Act(EscapeAction action) {
  switch (action) {
    case EscapeAction::kNone:
      break;
    case EscapeAction::kLeave:
      EndNow(SessionEnd::kLeft);
      break;
    case EscapeAction::kBreak:
      SendBreak();
      break;
    case EscapeAction::kHelp:
      notices_.Add(EscapeHelp(*options_.escape));
      break;
    case EscapeAction::kSuspend:
      Suspend();
      break;
  }
}

void Session::SendBreak() {
  if (read_only()) return Notice("\r\nA read-only user cannot send a break.");
  telnet_.SendBreak();
  wire_.Add(telnet_.TakeWire());
}

// The whole job stops, as with the terminal's own suspend key, and goes on after kill(). What was
// typed before still goes out, as far as it is taken at once.
void Session::Suspend() {
  WriteDaemon();
  keyboard_.Leave();
  kill(0, SIGTSTP);
  keyboard_.Enter();
}

void Session::ReadDaemon() {
  std::array<char, 65536> received{};
  const ssize_t count = recv(socket_.fd(), received.data(), received.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return EndByDaemon();
  active_ = Clock::now();
  TakeFromDaemon({received.data(), static_cast<size_t>(count)});
}

// Answers for which there is no room are dropped: a console that keeps asking and takes nothing
// must not fill the memory.
void Session::TakeFromDaemon(std::string_view bytes) {
  telnet_.Receive(offers_.Pass(bytes));
  const std::string text = telnet_.TakeText();
  const std::string answers = telnet_.TakeWire();
  tail_.Add(text);
  screen_.Add(text);
  if (!wire_.Full()) wire_.Add(answers);
}

// A connection that broke may still hold what the daemon sent before; reading finds its end.
void Session::WriteDaemon() {
  if (wire_.Write() != 0) wire_.Clear();
}

void Session::EndByDaemon() {
  end_ = tail_.TellsOfTermination() ? SessionEnd::kTerminated : SessionEnd::kClosed;
  wire_.Clear();
}

void Session::WriteScreen() {
  const int error = screen_.empty() ? EPIPE : screen_.Write();
  if (error == 0) return;
  throw Failure(ExitStatus::kFailed,
                std::string("the output cannot be written: ") + strerror(error));
}

// While the program was stopped, the shell may have changed the terminal's modes.
void Session::TakeSignal() {
  const int number = signals_.Take();
  if (number == SIGCONT) return keyboard_.Enter();
  if (number == 0) return;
  signal_ = number;
  EndNow(SessionEnd::kSignal);
}

// Drops the output that a blocked terminal has not taken, so that it can take the last messages.
void Session::EndNow(SessionEnd end) {
  end_ = end;
  if (screen_.empty()) return;
  screen_.Clear();
  tcflush(STDOUT_FILENO, TCOFLUSH);
}

}  // namespace

SessionResult RunSession(Opening opening, const SessionOptions& options) {
  signal(SIGPIPE, SIG_IGN);  // a failed write reports it
  return Session(std::move(opening), options).Run();
}

}  // namespace zevctl
