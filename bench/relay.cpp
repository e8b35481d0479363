#include "relay.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <unordered_map>

namespace bench {

namespace {

constexpr int kListener = 3;
constexpr size_t kChunk = 65536;

/// One of the two connections of a pair.
struct End {
  explicit End(Descriptor connection) : sock(std::move(connection)) {}
  Descriptor sock;
  End* peer = nullptr;
  std::string pending;  // what this end had no room for; its peer is not read meanwhile
};

class Pairs {
 public:
  explicit Pairs(int poll) : poll_(poll) {}

  void Add(Descriptor user, Descriptor console) {
    End& one = Keep(std::move(user));
    End& other = Keep(std::move(console));
    one.peer = &other;
    other.peer = &one;
  }

  void Serve(int sock, uint32_t events) {
    const auto found = ends_.find(sock);
    if (found == ends_.end()) return;  // removed since the event was taken
    End& end = *found->second;
    const bool alive = ((events & EPOLLOUT) == 0 || Flush(end)) &&
                       ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0 || Copy(end));
    if (!alive) Remove(end);
  }

 private:
  End& Keep(Descriptor sock) {
    const int number = sock.get();
    SetNonBlocking(number);
    SetNoDelay(number);
    End& end = *(ends_[number] = std::make_unique<End>(std::move(sock)));
    Watch(end, EPOLL_CTL_ADD);
    return end;
  }

  // An end is read while its peer has taken everything, and asked for room while it has not itself.
  void Watch(const End& end, int operation) const {
    epoll_event event{};
    event.events = (end.peer == nullptr || end.peer->pending.empty() ? EPOLLIN : 0U) |
                   (end.pending.empty() ? 0U : EPOLLOUT);
    event.data.fd = end.sock.get();
    epoll_ctl(poll_, operation, end.sock.get(), &event);
  }

  void WatchBoth(const End& end) const {
    Watch(end, EPOLL_CTL_MOD);
    Watch(*end.peer, EPOLL_CTL_MOD);
  }

  bool Copy(End& from) {
    const ssize_t count = recv(from.sock.get(), buffer_.data(), buffer_.size(), 0);
    if (count < 0) return errno == EAGAIN;
    if (count == 0) return false;
    End& to = *from.peer;
    const auto length = static_cast<size_t>(count);
    ssize_t sent = send(to.sock.get(), buffer_.data(), length, MSG_NOSIGNAL);
    if (sent < 0 && errno != EAGAIN) return false;
    sent = std::max<ssize_t>(sent, 0);
    if (sent == count) return true;
    to.pending.assign(buffer_.data() + sent, static_cast<size_t>(count - sent));
    WatchBoth(to);
    return true;
  }

  bool Flush(End& to) const {
    const ssize_t sent = send(to.sock.get(), to.pending.data(), to.pending.size(), MSG_NOSIGNAL);
    if (sent < 0) return errno == EAGAIN;
    to.pending.erase(0, static_cast<size_t>(sent));
    if (to.pending.empty()) WatchBoth(to);
    return true;
  }

  void Remove(const End& end) {
    const int peer = end.peer->sock.get();
    ends_.erase(end.sock.get());
    ends_.erase(peer);
  }

  int poll_;
  std::array<char, kChunk> buffer_{};
  std::unordered_map<int, std::unique_ptr<End>> ends_;
};

// The user's first line. It was sent at once, so reading it byte by byte does not wait.
std::string ReadLine(const Descriptor& user) {
  std::string line;
  char byte = 0;
  while (recv(user.get(), &byte, 1, 0) == 1 && byte != '\n') line += byte;
  return line;
}

void AcceptAll(Pairs& pairs) {
  for (;;) {
    Descriptor user(accept4(kListener, nullptr, nullptr, SOCK_CLOEXEC));
    if (user.get() == -1) return;
    const std::string line = ReadLine(user);
    const size_t blank = line.find(' ');
    if (blank == std::string::npos) continue;
    Descriptor console =
        ConnectTo(line.substr(0, blank), static_cast<uint16_t>(std::stoi(line.substr(blank + 1))));
    pairs.Add(std::move(user), std::move(console));
  }
}

}  // namespace

void LiveAsRelay() {
  DescriptorLimit();
  const Descriptor poll(epoll_create1(EPOLL_CLOEXEC));
  Pairs pairs(poll.get());
  epoll_event listening{};
  listening.events = EPOLLIN;
  listening.data.fd = kListener;
  if (epoll_ctl(poll.get(), EPOLL_CTL_ADD, kListener, &listening) != 0) Fail("epoll_ctl");
  std::array<epoll_event, 256> events{};
  for (;;) {
    const int count = epoll_wait(poll.get(), events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<size_t>(i)];
      if (event.data.fd == kListener) {
        AcceptAll(pairs);
      } else {
        pairs.Serve(event.data.fd, event.events);
      }
    }
  }
}

Relay::Relay()
    : listener_(ListenOn()),
      port_(PortOf(listener_)),
      process_({"/proc/self/exe", kRelayWord}, QOR_ROOT "/relay.out", listener_.get()) {}

Descriptor Relay::Call(const std::string& address, uint16_t port) const {
  Descriptor sock = ConnectTo("127.0.0.1", port_);
  SendAll(sock, address + " " + std::to_string(port) + "\n");
  return sock;
}

}  // namespace bench
