// Waiting for a list's sockets. select() looks at every socket of a set in every pass. A list that
// may have thousands of members registers them with the kernel instead (epoll(7)), which then names
// only those that have something to say. One select() still does the waiting, on the one descriptor
// that stands for all members.
//
// A watch belongs to one list (list.h) and follows its set. What it holds is guarded by the list's
// lock, except where a function says that the waiting thread owns it.
#pragma once

#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <new>

#include "descriptor_set.h"
#include "waker.h"

namespace zevd {

class SocketWatch {
 public:
  /// The most members that are named at once. Whoever reads them holds the list's lock meanwhile.
  /// Threads that want two locks try for a millisecond and a half and then stay away for up to a
  /// second (locks.h): they get the lock in between.
  static constexpr int kMostAtOnce = 64;

  /// Before the threads start. False when the system has no descriptor left (errno tells).
  [[nodiscard]] bool Open();

  /// False when the kernel took no watch, or not every member, which is reported: from then on
  /// select() looks at every member. Any thread.
  bool usable() const { return usable_; }

  /// The watch's own descriptor, readable while a member is.
  int descriptor() const { return descriptor_; }

  /// Makes `sockets`, all open, the members. The list's lock is held for writing.
  void Follow(const DescriptorSet& sockets);

  /// Must be called before a socket is closed that the watch may have. The kernel goes on naming
  /// the socket while another descriptor of it is open, as in a child that is being started; and
  /// its number can come back as another socket of the same list. The list's lock is held for
  /// writing.
  void Forget(int sock);

  /// Removes from `set` what is not readable now. Returns the number of those that stay, at most
  /// kMostAtOnce; the next calls name those that were left out before they name the same ones
  /// again. The waiting thread only.
  int KeepReadable(DescriptorSet& set) const;

  /// For the waiting thread's own use: what it hands to select().
  DescriptorSet& asked() { return asked_; }

 private:
  void Control(int operation, int sock);

  int descriptor_ = -1;
  std::atomic<bool> usable_{false};
  DescriptorSet watched_;
  DescriptorSet asked_;
};

/// Finds the members of a list by their sockets, so that a pass need not walk the list to find the
/// few that are ready. `Elem` is the list's element, with a `place` that grows along the list.
/// Guarded by the list's lock, for writing.
template <typename Elem>
class SocketIndex {
 public:
  SocketIndex() = default;
  ~SocketIndex();
  SocketIndex(const SocketIndex&) = delete;
  SocketIndex& operator=(const SocketIndex&) = delete;

  /// Makes room for sockets 0 to `sock`. False when out of memory, with the index as it was.
  [[nodiscard]] bool Reserve(int sock);

  void Clear();

  /// There is room for `sock`. Should two members have the same socket, the first one set stays.
  void Set(int sock, Elem* elem);

  /// Calls `visit` with the elements of those sockets: one that is `before` another comes first;
  /// otherwise they come in list order.
  template <typename Before, typename Visit>
  void ForEachInOrder(const DescriptorSet& sockets, Before before, Visit visit);

 private:
  Elem** members_ = nullptr;  ///< by socket
  Elem** found_ = nullptr;    ///< work space of ForEachInOrder()
  int room_ = 0;              ///< elements in each of the two
};

/// Waits until a member of `set` (descriptors 0 to `high_sock`) is readable, `waker` is woken or
/// `timeout` is over; select() leaves the unslept time in `timeout`. Returns the number of readable
/// members, the waker not counted, 0 also when memory is short, or -1 with errno set; when it is
/// above 0, `set` holds exactly those. A usable `watch` has all members of `set`; without one,
/// select() looks at every member.
int WaitForMembers(int high_sock, DescriptorSet& set, const Waker& waker, timeval* timeout,
                   SocketWatch* watch = nullptr);

/// The same where nothing but a member ends the wait.
int WaitForMembers(int high_sock, DescriptorSet& set, timeval* timeout,
                   SocketWatch* watch = nullptr);

// ---- Definitions --------------------------------------------------------------------------------

template <typename Elem>
SocketIndex<Elem>::~SocketIndex() {
  delete[] members_;
  delete[] found_;
}

template <typename Elem>
bool SocketIndex<Elem>::Reserve(int sock) {
  if (sock < room_) return true;
  const int room = std::max(sock + 1, room_ * 2);
  auto** members = new (std::nothrow) Elem* [static_cast<size_t>(room)] {};
  auto** found = new (std::nothrow) Elem* [static_cast<size_t>(room)] {};
  if (members == nullptr || found == nullptr) {
    delete[] members;
    delete[] found;
    return false;
  }
  std::copy(members_, members_ + room_, members);
  delete[] members_;
  delete[] found_;
  members_ = members;
  found_ = found;
  room_ = room;
  return true;
}

template <typename Elem>
void SocketIndex<Elem>::Clear() {
  std::fill(members_, members_ + room_, nullptr);
}

template <typename Elem>
void SocketIndex<Elem>::Set(int sock, Elem* elem) {
  if (members_[sock] == nullptr) members_[sock] = elem;
}

template <typename Elem>
template <typename Before, typename Visit>
void SocketIndex<Elem>::ForEachInOrder(const DescriptorSet& sockets, Before before, Visit visit) {
  Elem** end = found_;
  sockets.ForEach([&](int sock) {
    if (sock < room_ && members_[sock] != nullptr) *end++ = members_[sock];
  });
  std::sort(found_, end, [&](const Elem* a, const Elem* b) {
    if (before(a, b)) return true;
    return a->place < b->place && !before(b, a);
  });
  std::for_each(found_, end, visit);
}

}  // namespace zevd
