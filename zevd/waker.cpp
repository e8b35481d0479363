#include "waker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

namespace zevd {

Waker cons_mon_waker;
Waker user_mon_waker;
Waker cmd_mon_waker;

bool Waker::Open() {
  descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return descriptor_ != -1;
}

void Waker::Wake() {
  ++wakes_;
  const uint64_t one = 1;
  // A full counter (EAGAIN) means that the waiter is woken already.
  [[maybe_unused]] const ssize_t ignored = write(descriptor_, &one, sizeof one);
}

bool Waker::WokenSince(unsigned* seen) const {
  const unsigned wakes = wakes_;
  if (wakes == *seen) return false;
  *seen = wakes;
  return true;
}

void Waker::Drain() const {
  uint64_t count = 0;
  // An empty counter (EAGAIN) is what is wanted.
  [[maybe_unused]] const ssize_t ignored = read(descriptor_, &count, sizeof count);
}

}  // namespace zevd
