#include "waker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

Waker cons_mon_waker;
Waker user_mon_waker;
Waker cmd_mon_waker;

bool Waker::Open() {
  descriptor_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  return descriptor_ != -1;
}

void Waker::Wake() const {
  const uint64_t one = 1;
  // A full counter (EAGAIN) means that the waiter is woken already.
  [[maybe_unused]] const ssize_t ignored = write(descriptor_, &one, sizeof one);
}

void Waker::Drain() const {
  uint64_t count = 0;
  // An empty counter (EAGAIN) is what is wanted.
  [[maybe_unused]] const ssize_t ignored = read(descriptor_, &count, sizeof count);
}

int WaitForMembers(int high_sock, DescriptorSet& set, const Waker& waker, timeval* timeout) {
  const int highest = std::max(high_sock, waker.descriptor());
  // Without memory the members are asked again in the next pass, which begins after a pause.
  if (!set.Reserve(highest) || !set.Add(waker.descriptor())) return 0;
  int ready = select(highest + 1, set.Native(), nullptr, nullptr, timeout);
  if (ready > 0 && set.Contains(waker.descriptor())) {
    set.Remove(waker.descriptor());
    waker.Drain();
    --ready;
  }
  return ready;
}
