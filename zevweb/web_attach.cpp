#include "web_attach.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "session_end.h"

namespace zevweb {

namespace {

constexpr size_t kMostOutput = 256 << 10;  // waits here; then the daemon waits
constexpr size_t kMostWire = 64 << 10;
constexpr size_t kTailSize = 4096;
constexpr std::chrono::milliseconds kRemoval{2000};  // of the user from the console
constexpr std::chrono::milliseconds kLook{500};

std::string WordsOf(const zevctl::LastWords& words) {
  using zevctl::Cause;
  if (!words.cause) return "";
  switch (*words.cause) {
    case Cause::kTakenOver:
      return words.who + " took the console over";
    case Cause::kTerminated:
      return words.who + " cleared the console, which cut you off";
    case Cause::kDisabledBy:
      return words.who + " disabled the console";
    case Cause::kDisabled:
      return "the console was disabled by the station's configuration";
    case Cause::kDeleted:
      return "the console was taken out of the station's configuration";
  }
  return "";
}

}  // namespace

WebAttach::WebAttach(zevctl::Opening opening, std::function<void()> came)
    : socket_(std::move(opening.socket)), came_(std::move(came)) {
  fcntl(socket_.fd(), F_SETFL, fcntl(socket_.fd(), F_GETFL) | O_NONBLOCK);
  TakeBytes(opening.received);
}

std::string WebAttach::Take(size_t most) {
  std::string taken;
  bool was_full = false;
  {
    const std::lock_guard lock(mutex_);
    was_full = output_.size() >= kMostOutput;
    taken = output_.substr(0, most);
    output_.erase(0, taken.size());
  }
  if (was_full) changed_();
  return taken;
}

std::string WebAttach::Front(size_t most) const {
  const std::lock_guard lock(mutex_);
  return output_.substr(0, most);
}

bool WebAttach::Send(std::string_view typed) {
  {
    const std::lock_guard lock(mutex_);
    if (is_closed_ || has_left_ || wire_.size() + typed.size() > kMostWire) return false;
    telnet_.SendKeys(typed);
    wire_ += telnet_.TakeWire();
  }
  changed_();
  return true;
}

void WebAttach::SendBreak() {
  {
    const std::lock_guard lock(mutex_);
    if (wire_.size() < kMostWire) telnet_.SendBreak();
    wire_ += telnet_.TakeWire();
  }
  changed_();
}

void WebAttach::Leave() {
  {
    const std::lock_guard lock(mutex_);
    if (has_left_) return;
    has_left_ = true;
    left_at_ = Clock::now();
  }
  changed_();
}

bool WebAttach::IsOver() const {
  const std::lock_guard lock(mutex_);
  return is_closed_ && output_.empty();
}

std::string WebAttach::LastWords() const {
  const std::lock_guard lock(mutex_);
  return WordsOf(zevctl::ParseLastWords(tail_));
}

// ---- The thread ---------------------------------------------------------------------------------

// Answers for which there is no room are dropped: a console that keeps asking and takes nothing
// must not fill the memory.
void WebAttach::TakeBytes(std::string_view bytes) {
  telnet_.Receive(offers_.Pass(bytes));
  const std::string text = telnet_.TakeText();
  const std::string answers = telnet_.TakeWire();
  output_ += text;
  tail_ += text.substr(text.size() - std::min(text.size(), kTailSize));
  tail_.erase(0, tail_.size() - std::min(tail_.size(), kTailSize));
  if (wire_.size() < kMostWire && !has_left_) wire_ += answers;
}

// Without the lock held, `came_` may look at the attachment.
void WebAttach::Receive() {
  {
    const std::lock_guard lock(mutex_);
    std::array<char, 65536> bytes{};
    const ssize_t count = recv(socket_.fd(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    is_closed_ = count <= 0;
    if (count > 0) TakeBytes({bytes.data(), static_cast<size_t>(count)});
  }
  came_();
}

// What is typed before leaving goes out first, as far as the daemon takes it.
void WebAttach::Write() {
  const std::lock_guard lock(mutex_);
  if (!wire_.empty()) {
    const ssize_t count =
        send(socket_.fd(), wire_.data(), wire_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count > 0) wire_.erase(0, static_cast<size_t>(count));
    if (count < 0 && errno != EAGAIN && errno != EINTR) wire_.clear();
  }
  if (!has_left_ || is_shut_ || !wire_.empty()) return;
  shutdown(socket_.fd(), SHUT_WR);
  is_shut_ = true;
}

short WebAttach::Events() const {
  const std::lock_guard lock(mutex_);
  const bool writes = !wire_.empty() || (has_left_ && !is_shut_);
  const bool reads = output_.size() < kMostOutput;
  return static_cast<short>((reads ? POLLIN : 0) | (writes ? POLLOUT : 0));
}

// A daemon that does not answer any more must not keep anybody waiting.
bool WebAttach::IsFinished(Clock::time_point now) {
  bool is_given_up = false;
  {
    const std::lock_guard lock(mutex_);
    is_given_up = !is_closed_ && has_left_ && now - left_at_ >= kRemoval;
    if (is_given_up) is_closed_ = true;
    if (is_given_up) shutdown(socket_.fd(), SHUT_RDWR);
    if (!is_closed_) return false;
  }
  if (is_given_up) came_();
  return true;
}

WebAttaches::WebAttaches()
    : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), thread_([this] { Loop(); }) {}

WebAttaches::~WebAttaches() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  Wake();
  thread_.join();
}

void WebAttaches::Wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof one);
}

std::shared_ptr<WebAttach> WebAttaches::Add(zevctl::Opening opening, std::function<void()> came) {
  std::shared_ptr<WebAttach> attach(new WebAttach(std::move(opening), std::move(came)));
  attach->changed_ = [this] { Wake(); };
  {
    const std::lock_guard lock(mutex_);
    attaches_.push_back(attach);
  }
  Wake();
  return attach;
}

void WebAttaches::Loop() {
  for (;;) {
    std::vector<std::shared_ptr<WebAttach>> served;
    {
      const std::lock_guard lock(mutex_);
      if (ends_) return;
      served = attaches_;
    }
    std::vector<pollfd> awaited = {{wake_.get(), POLLIN, 0}};
    for (const auto& attach : served) {
      const short events = attach->Events();
      awaited.push_back({events != 0 ? attach->socket_.fd() : -1, events, 0});
    }
    poll(awaited.data(), awaited.size(), served.empty() ? -1 : static_cast<int>(kLook.count()));
    uint64_t wakes = 0;
    [[maybe_unused]] const ssize_t count = read(wake_.get(), &wakes, sizeof wakes);
    const auto now = WebAttach::Clock::now();
    std::vector<std::shared_ptr<WebAttach>> over;
    for (size_t i = 0; i < served.size(); ++i) {
      const short events = awaited[i + 1].revents;
      if ((events & POLLOUT) != 0) served[i]->Write();
      if ((events & ~POLLOUT) != 0) served[i]->Receive();
      if (served[i]->IsFinished(now)) over.push_back(served[i]);
    }
    const std::lock_guard lock(mutex_);
    for (const auto& attach : over) std::erase(attaches_, attach);
  }
}

}  // namespace zevweb
