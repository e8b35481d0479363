#include "socket_watch.h"

#include <sys/epoll.h>
#include <sys/select.h>

#include <cerrno>
#include <cstring>

#include "error.h"

namespace zevd {

namespace {

// Adds what else ends the wait to the set for select().
bool AddWaker(const Waker* waker, DescriptorSet& asked) {
  if (waker == nullptr) return true;
  const auto add = [&](int descriptor) { return asked.Add(descriptor); };
  return add(waker->descriptor()) && std::ranges::all_of(waker->beside(), add);
}

int Highest(int high_sock, const Waker* waker) {
  if (waker == nullptr) return high_sock;
  int highest = std::max(high_sock, waker->descriptor());
  for (const int descriptor : waker->beside()) highest = std::max(highest, descriptor);
  return highest;
}

// Takes what is not a member out of a set that select() returned. Returns how many that were.
int RemoveWaker(const Waker& waker, DescriptorSet& set) {
  int removed = 0;
  const auto remove = [&](int descriptor) {
    if (!set.Contains(descriptor)) return false;
    set.Remove(descriptor);
    ++removed;
    return true;
  };
  if (remove(waker.descriptor())) waker.Drain();
  for (const int descriptor : waker.beside()) remove(descriptor);
  return removed;
}

// Lets select() look at every member. When memory is short, nothing is waited for; the next pass,
// which begins after a pause, tries again.
int WaitForEach(int high_sock, DescriptorSet& set, const Waker* waker, timeval* timeout) {
  const int highest = Highest(high_sock, waker);
  if (waker != nullptr && (!set.Reserve(highest) || !AddWaker(waker, set))) return 0;
  const int ready = select(highest + 1, set.Native(), nullptr, nullptr, timeout);
  if (ready <= 0 || waker == nullptr) return ready;
  return ready - RemoveWaker(*waker, set);
}

// Waits for the watch, which stands for all of its members.
int WaitForWatch(DescriptorSet& set, const Waker* waker, timeval* timeout, SocketWatch* watch) {
  DescriptorSet& asked = watch->asked();
  asked.Clear();
  if (!asked.Add(watch->descriptor())) return 0;
  if (!AddWaker(waker, asked)) return 0;
  const int ready =
      select(Highest(watch->descriptor(), waker) + 1, asked.Native(), nullptr, nullptr, timeout);
  if (ready < 0) return ready;
  if (waker != nullptr && asked.Contains(waker->descriptor())) waker->Drain();
  if (asked.Contains(watch->descriptor())) return watch->KeepReadable(set);
  set.Clear();
  return 0;
}

int Wait(int high_sock, DescriptorSet& set, const Waker* waker, timeval* timeout,
         SocketWatch* watch) {
  if (watch == nullptr || !watch->usable()) return WaitForEach(high_sock, set, waker, timeout);
  return WaitForWatch(set, waker, timeout, watch);
}

}  // namespace

bool SocketWatch::Open() {
  descriptor_ = epoll_create1(EPOLL_CLOEXEC);
  usable_ = descriptor_ != -1;
  return usable_;
}

void SocketWatch::Control(int operation, int sock) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = sock;
  if (epoll_ctl(descriptor_, operation, sock, &event) == 0 || operation != EPOLL_CTL_ADD) return;
  DEBUG_AS("Follow", kError, "epoll_ctl() failed : %s\n", strerror(errno));
  usable_ = false;
}

void SocketWatch::Follow(const DescriptorSet& sockets) {
  if (!usable_) return;
  watched_.ForEach([&](int sock) {
    if (!sockets.Contains(sock)) Control(EPOLL_CTL_DEL, sock);
  });
  sockets.ForEach([&](int sock) {
    if (!watched_.Contains(sock)) Control(EPOLL_CTL_ADD, sock);
  });
  if (watched_.CopyFrom(sockets)) return;
  ReportOutOfMemory(__func__);
  usable_ = false;
}

void SocketWatch::Forget(int sock) {
  if (!watched_.Contains(sock)) return;
  Control(EPOLL_CTL_DEL, sock);
  watched_.Remove(sock);
}

int SocketWatch::KeepReadable(DescriptorSet& set) const {
  epoll_event events[kMostAtOnce];
  const int count = epoll_wait(descriptor_, events, kMostAtOnce, 0);
  int kept = 0;
  for (int i = 0; i < count; ++i) {
    if (set.Contains(events[i].data.fd)) events[kept++] = events[i];
  }
  set.Clear();
  for (int i = 0; i < kept; ++i) set.Add(events[i].data.fd);  // there was room for it before
  return kept;
}

int WaitForMembers(int high_sock, DescriptorSet& set, const Waker& waker, timeval* timeout,
                   SocketWatch* watch) {
  return Wait(high_sock, set, &waker, timeout, watch);
}

int WaitForMembers(int high_sock, DescriptorSet& set, timeval* timeout, SocketWatch* watch) {
  return Wait(high_sock, set, nullptr, timeout, watch);
}

}  // namespace zevd
