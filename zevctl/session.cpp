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
#include "notes.h"
#include "output.h"
#include "session_talk.h"
#include "telnet.h"
#include "terminal.h"

namespace zevctl {

namespace {

constexpr Milliseconds kQuietAfterInput{1000};  // the console has answered what was sent to it
constexpr Milliseconds kLongestAnswer{10000};   // a console that never stops printing
constexpr Milliseconds kRemoval{2000};          // of the user from the console, by the daemon
constexpr size_t kTailSize = 4096;              // holds the daemon's last message

/// The end of what the console printed.
class Tail {
 public:
  void Add(std::string_view text) {
    text_ += text.substr(text.size() - std::min(text.size(), kTailSize));
    text_.erase(0, text_.size() - std::min(text_.size(), kTailSize));
  }

  const std::string& Text() const { return text_; }

 private:
  std::string text_;
};

class Session {
 public:
  Session(Opening opening, const SessionOptions& options, const Settings& settings,
          Credentials& credentials)
      : options_(options),
        socket_(std::move(opening.socket)),
        keyboard_(STDIN_FILENO),
        escapes_(keyboard_.is_terminal() ? options.escape : std::nullopt),
        wire_(socket_.fd()),
        screen_(STDOUT_FILENO),
        errors_(STDERR_FILENO),
        notes_(screen_, errors_, keyboard_.is_terminal()) {
    keyboard_.Enter();
    if (keyboard_.is_terminal()) {
      talk_.emplace(options, notes_, settings, credentials);
    } else {
      errors_.Add(PlainGreeting());
    }
    notes_.Follow(opening.shown);
    TakeFromDaemon(opening.received);
  }

  SessionResult Run() {
    while (!end_ || !screen_.empty()) Pass();
    if (*end_ == SessionEnd::kLeft) WriteDaemon();  // what was typed before the escape
    if (*end_ == SessionEnd::kChange) AwaitRemoval();
    return {*end_, signal_, notes_.InLine(), change_, error_, tail_.Text()};
  }

 private:
  // What a pass waits for; the order is that of the descriptors.
  enum Source : size_t { kKeys, kDaemon, kScreen, kErrors, kSignals, kPort, kSources };
  using Descriptors = std::array<pollfd, kSources>;

  std::string PlainGreeting() const;

  void Pass();
  Descriptors Interests() const;
  int Timeout() const;
  void Serve(const Descriptors& ready);
  void NoteSilence();
  std::optional<Clock::time_point> Due() const;

  void ReadKeys();
  void HangUp();
  void TakeTyped(std::string_view typed);
  void Answer(char key);
  void SendKeys(const std::string& keys);
  void Act(EscapeAction action);
  void SendBreak();
  void Suspend();
  void AwaitRemoval();

  void ReadDaemon();
  void TakeFromDaemon(std::string_view bytes);
  void WriteDaemon();
  void EndByDaemon(int error);

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
  OutputQueue errors_;
  Notes notes_;
  std::optional<SessionTalk> talk_;  // with a person at a terminal
  Tail tail_;

  bool input_over_ = false;
  Clock::time_point active_{};                 // when the daemon last sent something
  std::optional<Clock::time_point> all_sent_;  // when the last of the input had been sent
  std::optional<SessionEnd> end_;
  int signal_ = 0;
  int error_ = 0;
  SessionChange change_;
};

// For a program, which knows how to leave.
std::string Session::PlainGreeting() const {
  return "Attached to " + Printable(options_.console) + " (" + ModeInFull(options_.mode) +
         (read_only() ? ", what you type is not sent).\n" : ").\n");
}

void Session::Pass() {
  Descriptors descriptors = Interests();
  if (poll(descriptors.data(), descriptors.size(), Timeout()) > 0) Serve(descriptors);
  NoteSilence();
  if (talk_ && !end_) talk_->Pass();
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
  descriptors[kErrors] = {only_if(!errors_.empty(), errors_.fd()), POLLOUT, 0};
  descriptors[kSignals] = {signals_.fd(), POLLIN, 0};
  descriptors[kPort] = {talk_ && !end_ ? talk_->fd() : -1, POLLIN, 0};
  return descriptors;
}

std::optional<Clock::time_point> Session::Due() const {
  if (end_) return {};
  if (all_sent_) return std::min(active_ + kQuietAfterInput, *all_sent_ + kLongestAnswer);
  return talk_ ? talk_->Due() : std::nullopt;
}

int Session::Timeout() const {
  const auto due = Due();
  if (!due) return -1;
  const auto left = std::chrono::ceil<Milliseconds>(*due - Clock::now()).count();
  return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX));
}

void Session::Serve(const Descriptors& ready) {
  if (ready[kSignals].revents != 0) TakeSignal();
  if ((ready[kKeys].revents & POLLHUP) != 0) HangUp();
  if (ready[kErrors].revents != 0 && errors_.Write() != 0) errors_.Clear();
  if (ready[kScreen].revents != 0 && !(end_ && screen_.empty())) WriteScreen();
  if (ready[kKeys].revents != 0) ReadKeys();
  if (end_) return;
  if ((ready[kDaemon].revents & POLLOUT) != 0) WriteDaemon();
  if ((ready[kDaemon].revents & ~POLLOUT) != 0) ReadDaemon();
  if (ready[kPort].revents != 0) talk_->Read();
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
  if (count > 0) {
    TakeTyped({typed.data(), static_cast<size_t>(count)});
  } else {
    HangUp();
  }
}

// Only a terminal hangs up; there may be a signal as well, and that is what ends the program then.
void Session::HangUp() {
  if (!keyboard_.is_terminal() || end_) return;
  TakeSignal();
  if (!end_) EndNow(SessionEnd::kHungUp);
}

void Session::TakeTyped(std::string_view typed) {
  while (!typed.empty() && end_ != SessionEnd::kLeft && end_ != SessionEnd::kChange) {
    if (talk_ && talk_->asking()) {
      Answer(typed.front());
      typed.remove_prefix(1);
      continue;
    }
    const EscapeStep step = escapes_.Next(typed);
    SendKeys(step.keys);
    Act(step.action);
  }
}

void Session::Answer(char key) {
  const auto change = talk_->Answer(key);
  if (!change) return;
  change_ = *change;
  EndNow(SessionEnd::kChange);
}

// The daemon would throw away what a read-only user types. What is typed on a terminal is sent as
// keys, anything else as it is.
void Session::SendKeys(const std::string& keys) {
  if (keys.empty() || end_) return;
  if (read_only()) {
    if (talk_) talk_->TypedInVain();
    return;
  }
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
    case EscapeAction::kSuspend:
      Suspend();
      break;
    default:
      if (talk_) talk_->Act(action);
      break;
  }
}

void Session::SendBreak() {
  if (end_) return;
  if (read_only()) return notes_.Say("No break was sent: you are only watching.");
  telnet_.SendBreak();
  wire_.Add(telnet_.TakeWire());
  notes_.Say("A break was sent.");
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
  if (count <= 0) return EndByDaemon(count < 0 ? errno : 0);
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
  if (talk_) {
    talk_->Follow(text);
  } else {
    notes_.Follow(text);
  }
  if (!wire_.Full()) wire_.Add(answers);
}

// A connection that broke may still hold what the daemon sent before; reading finds its end.
void Session::WriteDaemon() {
  if (wire_.Write() != 0) wire_.Clear();
}

void Session::EndByDaemon(int error) {
  end_ = SessionEnd::kClosed;
  error_ = error;
  wire_.Clear();
}

// What is typed before goes out as far as it is taken at once. As long as the daemon knows this
// connection, it could refuse the next one for the sake of it.
void Session::AwaitRemoval() {
  WriteDaemon();
  shutdown(socket_.fd(), SHUT_WR);
  const auto deadline = Clock::now() + kRemoval;
  std::array<char, 65536> rest{};
  for (auto left = kRemoval; left > Milliseconds::zero();
       left = std::chrono::ceil<Milliseconds>(deadline - Clock::now())) {
    if (!WaitFor(socket_.fd(), POLLIN, left)) return;
    const ssize_t count = recv(socket_.fd(), rest.data(), rest.size(), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) return;
  }
}

void Session::WriteScreen() {
  const int error = screen_.empty() ? EPIPE : screen_.Write();
  if (error == 0) return;
  throw Failure(ExitStatus::kFailed, std::string("the output cannot be written: ") +
                                         strerror(error) + "; attach again where it can");
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

SessionResult RunSession(Opening opening, const SessionOptions& options, const Settings& settings,
                         Credentials& credentials) {
  signal(SIGPIPE, SIG_IGN);  // a failed write reports it
  return Session(std::move(opening), options, settings, credentials).Run();
}

}  // namespace zevctl
