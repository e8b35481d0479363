#include "waker.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

#include "error.h"

namespace zevd {

Waker cons_conn_waker;
Waker cons_mon_waker;
Waker user_conn_waker;
Waker user_mon_waker;
Waker cmd_mon_waker;
Waker journal_waker;

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

void Waker::Beside(int descriptor) {
  if (beside_count_ == kMostBeside) INTERNAL_ERROR("%s: no room for another\n", __func__);
  beside_[beside_count_++] = descriptor;
}

void Waker::NotBeside(int descriptor) {
  int* const end = beside_.data() + beside_count_;
  int* const found = std::find(beside_.data(), end, descriptor);
  if (found == end) INTERNAL_ERROR("%s: %d not found\n", __func__, descriptor);
  *found = end[-1];
  --beside_count_;
}

}  // namespace zevd
