#include "quiet_port.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <utility>

#include "command_wire.h"

namespace zevctl {

namespace {

constexpr Milliseconds kConnectLimit{1000};
constexpr uint32_t kLongestAnswer = 1 << 22;  // in bytes: thousands of users at one console

}  // namespace

// The listener may be wrong, or nobody's: then the session's own connection has told.
QuietPort::QuietPort(const Settings& settings, Credentials& credentials)
    : credentials_(credentials) {
  try {
    contact_.emplace(Reach(settings, kConnectLimit, credentials.cookie_useful()));
    reached_ = true;
    Send(contact_->proof + CommandPortLine(settings) + "\n" + std::string(kCommandPortProbe));
  } catch (const Failure& failure) {
    reached_ = failure.status() != ExitStatus::kNoDaemon;
    Close();
  }
}

void QuietPort::Ask(const std::string& command) {
  if (closed()) return;
  command_ = command;
  if (stage_ == Stage::kOpen) Send(command_ + "\n");
}

void QuietPort::Read() {
  if (closed()) return;
  std::array<char, 65536> chunk{};
  const ssize_t count = recv(fd(), chunk.data(), chunk.size(), MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) return Close();
  heard_ = true;
  received_.append(chunk.data(), static_cast<size_t>(count));
  try {
    Advance();
  } catch (const Failure&) {
    Close();
  }
}

std::optional<std::string> QuietPort::Take() {
  return std::exchange(answer_, {});
}

std::optional<std::string> QuietPort::Ask(const std::string& command, Milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  Ask(command);
  while (!closed() && !answer_) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now());
    if (left <= Milliseconds::zero() || !WaitFor(fd(), POLLIN, left)) break;
    Read();
  }
  return Take();
}

void QuietPort::Advance() {
  bool more = true;
  while (more && !closed()) more = stage_ == Stage::kLogin ? TakeLoginStep() : TakeAnswer();
}

// False when more must arrive first. The probe follows every password: a login has skipped the one
// before it.
bool QuietPort::TakeLoginStep() {
  const LoginStep step = dialogue_.Next(received_);
  if (step == LoginStep::kWait) return false;
  if (step == LoginStep::kOver) {
    stage_ = Stage::kProbe;
  } else if (contact_->distrusted || !credentials_.Known()) {
    Close();
  } else if (step == LoginStep::kName) {
    Send(credentials_.Name() + "\n");
  } else {
    Send(credentials_.Password().Line());
    Send(kCommandPortProbe);
  }
  return true;
}

// A refusal is no header either.
bool QuietPort::TakeAnswer() {
  if (received_.size() < zevd::kHeaderSize) return false;
  const AnswerHeader header =
      DecodeHeader(std::span<const char>(received_).first(zevd::kHeaderSize));
  if (header.count > kLongestAnswer) {
    Close();
    return false;
  }
  const size_t end = zevd::kHeaderSize + header.count;
  if (received_.size() < end) return false;
  std::string text = received_.substr(zevd::kHeaderSize, header.count);
  received_.erase(0, end);
  Accept(header, std::move(text));
  return true;
}

void QuietPort::Accept(const AnswerHeader& header, std::string text) {
  const bool is_probe = std::exchange(stage_, Stage::kOpen) == Stage::kProbe;
  if (is_probe && header.type == zevd::kErrorFollows) {
    if (busy()) Send(command_ + "\n");
  } else if (!is_probe && busy() && header.type == zevd::kRecordsFollow) {
    command_.clear();
    answer_ = std::move(text);
  } else {
    Close();
  }
}

// The commands are short, and there is one at a time: a connection that does not take one at once
// is broken.
void QuietPort::Send(std::string_view bytes) {
  if (closed()) return;
  const ssize_t sent = send(fd(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(bytes.size())) Close();
}

void QuietPort::Close() {
  contact_.reset();
  command_.clear();
}

}  // namespace zevctl
