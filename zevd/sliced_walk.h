// A walk through a long list that keeps nobody from the list's lock for long.
#pragma once

#include <cstdint>

#include "clock.h"
#include "locks.h"

namespace zevd {

/// Walks from head to tail. Each time it has worked for kSlice it lets others have the lock and
/// goes on behind the last element that it gave out. What others add or take off meanwhile is met
/// or not met accordingly; elements that they add while the list has become shorter may be passed
/// over. The elements have a `place` that grows along the list.
template <typename L>
class SlicedWalk {
 public:
  /// Microseconds of work at a time.
  static constexpr int64_t kSlice = 1000;

  /// `lock` is the lock of the list, held; null when it is not to be released.
  SlicedWalk(const L& list, WriteLock* lock) : list_(list), lock_(lock), next_(list.head) {}

  /// The next element, null at the end. The caller may unlink and free the one before.
  typename L::Element* Next() {
    if (next_ != nullptr && lock_ != nullptr && MonotonicMicroseconds() >= end_) LetOthersIn();
    auto* const elem = next_;
    if (elem != nullptr) next_ = elem->next;
    return elem;
  }

  /// How often others were let in. What was learnt about elements to come may not be true any more
  /// once this has changed.
  unsigned times_let_in() const { return times_let_in_; }

 private:
  void LetOthersIn() {
    const uint64_t place = next_->place;
    lock_->LetOthersIn();
    next_ = list_.head;
    while (next_ != nullptr && next_->place < place) next_ = next_->next;
    ++times_let_in_;
    end_ = MonotonicMicroseconds() + kSlice;
  }

  const L& list_;
  WriteLock* lock_;
  typename L::Element* next_;
  unsigned times_let_in_ = 0;
  int64_t end_ = MonotonicMicroseconds() + kSlice;
};

}  // namespace zevd
