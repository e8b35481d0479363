#include "typed_consoles.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "clock.h"

namespace zevd {

TypedConsoles typed_consoles;

namespace {

/// What the kernel keeps with a socket: the socket itself and when its echo is over, in
/// milliseconds of the monotonic clock, without the higher bits.
union Ticket {
  struct {
    int sock;
    uint32_t until;
  } parts;
  uint64_t whole;
};

uint32_t Now() {
  return static_cast<uint32_t>(MonotonicMilliseconds());
}

bool IsOver(uint32_t until) {
  return static_cast<int32_t>(Now() - until) > 0;
}

}  // namespace

bool TypedConsoles::Open() {
  descriptor_ = epoll_create1(EPOLL_CLOEXEC);
  return descriptor_ != -1;
}

void TypedConsoles::Typed(int sock) const {
  Ticket ticket{};
  ticket.parts = {sock, Now() + static_cast<uint32_t>(kEchoTime)};
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = ticket.whole;
  if (epoll_ctl(descriptor_, EPOLL_CTL_MOD, sock, &event) != 0 && errno == ENOENT) {
    epoll_ctl(descriptor_, EPOLL_CTL_ADD, sock, &event);  // without memory the echo waits
  }
}

// Forgets consoles that print although nobody has typed for long enough. A socket that has been
// closed is forgotten by the kernel.
bool TypedConsoles::AnyAnswers() const {
  constexpr int kMostAtOnce = 64;
  epoll_event events[kMostAtOnce];
  const int count = epoll_wait(descriptor_, events, kMostAtOnce, 0);
  bool any = false;
  for (int i = 0; i < count; ++i) {
    Ticket ticket{};
    ticket.whole = events[i].data.u64;
    if (IsOver(ticket.parts.until)) {
      epoll_ctl(descriptor_, EPOLL_CTL_DEL, ticket.parts.sock, nullptr);
    } else {
      any = true;
    }
  }
  return any;
}

void TypedConsoles::Pause(int64_t microseconds) const {
  const int64_t end = MonotonicMicroseconds() + microseconds;
  pollfd answers = {descriptor_, POLLIN, 0};
  const timespec whole = {0, static_cast<long>(microseconds) * 1000};
  if (ppoll(&answers, 1, &whole, nullptr) == 0 || AnyAnswers()) return;
  // It was not an echo, or ppoll() was interrupted. The rest of the pause is not watched: another
  // such console would only make it a loop.
  const int64_t left = end - MonotonicMicroseconds();
  if (left > 0) usleep(static_cast<useconds_t>(left));
}

}  // namespace zevd
