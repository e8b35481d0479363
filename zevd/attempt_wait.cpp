#include "attempt_wait.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "error.h"

namespace zevd {

namespace {

constexpr int64_t kMillisecondsPerSecond = 1000;
constexpr int64_t kMicrosecondsPerMillisecond = 1000;

// time() reads a clock that is set at each timer tick, the longest of which lasts so many
// milliseconds: until then a second that has begun may not be seen.
constexpr int64_t kTick = 10;

int64_t MillisecondsUntil(time_t second) {
  timeval now{};
  gettimeofday(&now, nullptr);
  return (second - now.tv_sec) * kMillisecondsPerSecond -
         now.tv_usec / kMicrosecondsPerMillisecond + kTick;
}

// The news themselves are found by the pass that follows. Those that find no room here end the next
// wait.
void TakeNews(int descriptor) {
  constexpr int kMostAtOnce = 64;
  epoll_event events[kMostAtOnce];
  epoll_wait(descriptor, events, kMostAtOnce, 0);
}

}  // namespace

void AttemptWait::Open() {
  descriptor_ = epoll_create1(EPOLL_CLOEXEC);
  if (descriptor_ == -1) {
    DEBUG_AS("ConsoleConnectionsThreadStart", kError, "epoll_create1() failed : %s\n",
             strerror(errno));
  }
}

void AttemptWait::Watch(int sock) const {
  if (descriptor_ == -1) return;
  epoll_event event{};
  event.events = EPOLLIN | EPOLLOUT | EPOLLET;
  event.data.fd = sock;
  if (epoll_ctl(descriptor_, EPOLL_CTL_ADD, sock, &event) == 0) return;
  DEBUG_AS("ConnectToConsole", kError, "epoll_ctl() failed : %s\n", strerror(errno));
}

void AttemptWait::Forget(int sock) const {
  epoll_event unused{};
  epoll_ctl(descriptor_, EPOLL_CTL_DEL, sock, &unused);
}

void AttemptWait::BeginPass() {
  second_ = kNoSecond;
  delay_ = kLongest;
}

void AttemptWait::NoteSecond(time_t second) {
  second_ = second_ == kNoSecond ? second : std::min(second_, second);
}

void AttemptWait::NoteDelay(int64_t milliseconds) {
  delay_ = std::min(delay_, milliseconds);
}

int64_t AttemptWait::Milliseconds() const {
  const int64_t until = second_ == kNoSecond ? delay_ : MillisecondsUntil(second_);
  return std::max<int64_t>(std::min(delay_, until), 0);
}

void AttemptWait::Wait(const Waker& waker) const {
  pollfd ends[] = {{waker.descriptor(), POLLIN, 0}, {descriptor_, POLLIN, 0}};
  if (poll(ends, std::size(ends), static_cast<int>(Milliseconds())) <= 0) return;
  if (ends[0].revents != 0) waker.Drain();
  if (ends[1].revents != 0) TakeNews(descriptor_);
}

}  // namespace zevd
