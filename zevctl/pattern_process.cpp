#include "pattern_process.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "exit_status.h"
#include "matcher_process.h"
#include "matcher_wire.h"

namespace zevctl {

namespace {

using zevd::kMatcherComplaints;
using zevd::MatcherKind;
using zevd::MatcherMessage;

constexpr int kMostFailures = 3;

// The number of a set on the wire; 0 is none.
uint32_t WireNumber(size_t set) {
  return static_cast<uint32_t>(set + 1);
}

// The process ends with this one, and Ctrl-C is for this one alone.
[[noreturn]] void BeMatcher(int socket, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(0);
  for (int number = 1; number < SIGRTMIN; ++number) signal(number, SIG_DFL);
  setpgid(0, 0);
  zevd::RunMatcher(socket);
  _exit(0);
}

}  // namespace

struct PatternProcess::Answer {
  MatcherMessage message;
};

PatternProcess::PatternProcess(std::vector<std::vector<ProcessPattern>> sets)
    : sets_(std::move(sets)) {
  for (const auto& set : sets_) states_.emplace_back(set.size());
  Start();
}

PatternProcess::~PatternProcess() {
  End();
}

void PatternProcess::Start() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw Failure(ExitStatus::kFailed, std::string("no socket for costly patterns: ") +
                                           strerror(errno) + "; try again later");
  }
  const Descriptor theirs(ends[1]);
  socket_ = Descriptor(ends[0]);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    close(ends[0]);
    BeMatcher(ends[1], parent);
  }
  if (pid_ == -1) {
    throw Failure(ExitStatus::kFailed, std::string("no process for costly patterns: ") +
                                           strerror(errno) + "; try again later");
  }
  for (size_t set = 0; set < sets_.size(); ++set) {
    for (size_t pattern = 0; pattern < sets_[set].size(); ++pattern) {
      if (!states_[set][pattern].is_left_out) Tell(set, pattern);
    }
  }
  zevd::SendToMatcher(socket_.get(), {.kind = MatcherKind::kStart}, {}, 0);
}

// The place of the pattern goes as its priority, which comes back with each match.
void PatternProcess::Tell(size_t set, size_t pattern) {
  const ProcessPattern& told = sets_[set][pattern];
  const zevd::MatcherHeader header = {
      .kind = told.any_case ? MatcherKind::kAnyCase : MatcherKind::kPattern,
      .set = WireNumber(set),
      .number = static_cast<uint32_t>(pattern),
      .value = static_cast<int32_t>(pattern)};
  Answer answer;
  if (zevd::SendToMatcher(socket_.get(), header, told.expression, 0)) Listen(&answer);
}

void PatternProcess::End() {
  socket_ = Descriptor();
  if (pid_ == -1) return;
  kill(pid_, SIGKILL);
  while (waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
  }
  pid_ = -1;
}

// The next answer that is not about a pattern which is left out. False when the process has ended.
bool PatternProcess::Listen(Answer* answer) {
  for (;;) {
    if (zevd::ReceiveFromMatcher(socket_.get(), &answer->message, 0) != zevd::Received::kMessage) {
      return false;
    }
    const MatcherKind kind = answer->message.header.kind;
    const bool is_awaited =
        kind == MatcherKind::kTaken || kind == MatcherKind::kMatch || kind == MatcherKind::kNoMatch;
    if (is_awaited) return true;
    NoteLeftOut(*answer);
  }
}

// A bad pattern comes with the reason behind its text.
void PatternProcess::NoteLeftOut(const Answer& answer) {
  const zevd::MatcherHeader& header = answer.message.header;
  State& state = states_.at(header.set - 1).at(header.number);
  state.is_left_out = true;
  const std::string_view text = answer.message.Text();
  if (header.kind == MatcherKind::kBadPattern) {
    state.reason = "does not compile: " + std::string(text.substr(text.rfind('\n') + 1));
    return;
  }
  const auto* complaint =
      std::find_if(std::begin(kMatcherComplaints), std::end(kMatcherComplaints),
                   [&](const auto& candidate) { return candidate.kind == header.kind; });
  if (complaint != std::end(kMatcherComplaints)) state.reason = complaint->text;
}

// When the process ends, the line that it was at is given up, as the daemon gives it up.
std::optional<size_t> PatternProcess::FirstMatch(size_t set, const std::string& line) {
  Answer answer;
  const zevd::MatcherHeader request = {
      .kind = MatcherKind::kLine, .set = WireNumber(set), .line = ++line_};
  if (zevd::SendToMatcher(socket_.get(), request, line, 0) && Listen(&answer)) {
    failures_ = 0;
    const zevd::MatcherHeader& header = answer.message.header;
    if (header.kind != MatcherKind::kMatch) return {};
    return static_cast<size_t>(header.value);
  }
  if (++failures_ >= kMostFailures) {
    throw Failure(ExitStatus::kFailed,
                  "the process for costly patterns ends again and again; see whether memory or "
                  "processes run short");
  }
  End();
  Start();
  return {};
}

const std::string& PatternProcess::WhyLeftOut(size_t set, size_t pattern) const {
  return states_.at(set).at(pattern).reason;
}

}  // namespace zevctl
