// The life of a farm's thread: it waits in epoll for callers, for what its consoles receive or have
// room for, for the clock of those that print steadily, and for tasks that other threads give it.
// The consoles belong to it alone; others only read the atomic counts.
#include "farm.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace bench {

const std::string kConsoleLine =
    "unit3 daemon(1234): request 0001234 done in 12 ms, queue of 3, load 0.42, sir.\r\n";

namespace {

constexpr size_t kMarks = SIZE_MAX - 3;  // from here on a number is no console's
constexpr size_t kListenerMark = kMarks;
constexpr size_t kTaskMark = kMarks + 1;
constexpr size_t kClockMark = kMarks + 2;
constexpr long kLineTime = 1'000'000'000 / kLinesPerSecond;  // nanoseconds
constexpr size_t kTurns = 10;                                // of those who print at once
constexpr uint32_t kFirstAddress = 0x7F010000;               // 127.1.0.0

void Watch(const Descriptor& poll, int fd, uint64_t mark, uint32_t events, int operation) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = mark;
  if (epoll_ctl(poll.get(), operation, fd, &event) != 0) Fail("epoll_ctl");
}

// The console that a caller meant: the address that it called tells.
size_t NumberOf(int sock) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) != 0) Fail("getsockname");
  return ntohl(address.sin_addr.s_addr) - kFirstAddress;
}

// The clock rings `turns` times in the time of a line.
void SetClock(const Descriptor& clock, size_t turns) {
  const long tick = kLineTime / static_cast<long>(turns);
  const itimerspec every_tick = {{0, tick}, {0, tick}};
  if (timerfd_settime(clock.get(), 0, &every_tick, nullptr) != 0) Fail("timerfd");
}

// The line with another number in the place of its own.
std::string Numbered(size_t number) {
  static const std::string own = "0001234";
  std::string digits = std::to_string(number);
  digits.insert(0, own.size() - digits.size(), '0');
  std::string line = kConsoleLine;
  return line.replace(line.find(own), own.size(), digits);
}

}  // namespace

const std::string& FloodLines() {
  static const std::string lines = [] {
    std::string text;
    for (size_t number = 0; number < kFloodCycle; ++number) text += Numbered(number);
    return text;
  }();
  return lines;
}

Farm::Farm()
    : listener_(ListenOn()),
      port_(PortOf(listener_)),
      poll_(epoll_create1(EPOLL_CLOEXEC)),
      task_bell_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      clock_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  bench::Watch(poll_, listener_.get(), kListenerMark, EPOLLIN, EPOLL_CTL_ADD);
  bench::Watch(poll_, task_bell_.get(), kTaskMark, EPOLLIN, EPOLL_CTL_ADD);
  bench::Watch(poll_, clock_.get(), kClockMark, EPOLLIN, EPOLL_CTL_ADD);
  PrintInTurns(0, 0, kTurns);
  thread_ = std::thread([this] { Live(); });
}

Farm::~Farm() {
  ended_ = true;
  eventfd_write(task_bell_.get(), 1);
  thread_.join();
}

std::string Farm::AddressOf(size_t console) {
  const in_addr address = {htonl(kFirstAddress + static_cast<uint32_t>(console))};
  std::array<char, INET_ADDRSTRLEN> text{};
  return inet_ntop(AF_INET, &address, text.data(), text.size());
}

void Farm::SetReply(size_t console, const std::string& reply) {
  Do([&] { Find(console).reply = reply; });
}

void Farm::StopReading(size_t console) {
  Do([&] {
    Find(console).reading = false;
    Watch(console, Find(console), false);
  });
}

void Farm::ReadAgain(size_t console) {
  Do([&] {
    Find(console).reading = true;
    Watch(console, Find(console), false);
  });
}

void Farm::Print(size_t first, size_t count, const std::string& text) {
  Do([&] {
    for (size_t number = first; number < first + count; ++number) Send(number, Find(number), text);
  });
}

void Farm::PrintSteadily(size_t first, size_t count) {
  Do([&] { PrintInTurns(first, count, kTurns); });
}

void Farm::PrintEvenly(size_t first, size_t count) {
  Do([&] { PrintInTurns(first, count, std::max<size_t>(count, 1)); });
}

void Farm::Flood(size_t first, size_t count, uint64_t lines) {
  Do([&] {
    for (size_t number = first; number < first + count; ++number) {
      Find(number).flood_left = lines * kConsoleLine.size();
      Watch(number, Find(number), true);
    }
  });
}

uint64_t Farm::FloodedBytes(size_t console) {
  uint64_t bytes = 0;
  Do([&] { bytes = Find(console).flooded; });
  return bytes;
}

void Farm::Do(const std::function<void()>& task) {
  std::string failure;
  const std::function<void()> guarded = [&] {
    try {
      task();
    } catch (const std::exception& error) {
      failure = error.what();
    }
  };
  task_ = &guarded;
  eventfd_write(task_bell_.get(), 1);
  for (const auto* unfinished = &guarded; task_ == unfinished;) task_.wait(unfinished);
  if (!failure.empty()) throw std::runtime_error(failure);
}

// ---- The farm's thread --------------------------------------------------------------------------

void Farm::Live() {
  std::array<epoll_event, 256> events{};
  while (!ended_) {
    const int count = epoll_wait(poll_.get(), events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<size_t>(i)];
      const size_t mark = event.data.u64;
      if (mark == kListenerMark) {
        AcceptAll();
      } else if (mark == kTaskMark) {
        RunTasks();
      } else if (mark == kClockMark) {
        PrintDue();
      } else {
        Serve(mark, event.events);
      }
    }
  }
}

void Farm::RunTasks() {
  eventfd_t rings = 0;
  eventfd_read(task_bell_.get(), &rings);
  const std::function<void()>* task = task_;
  if (task == nullptr) return;
  (*task)();
  task_ = nullptr;
  task_.notify_all();
}

void Farm::PrintInTurns(size_t first, size_t count, size_t turns) {
  first_printing_ = first;
  printing_ = count;
  turns_ = turns;
  SetClock(clock_, turns);
}

// The consoles take turns, so that their lines are spread over the time instead of coming at once.
void Farm::PrintDue() {
  uint64_t ticks = 0;
  if (read(clock_.get(), &ticks, sizeof ticks) != sizeof ticks) return;
  for (; ticks > 0; --ticks, ++tick_) {
    for (size_t i = tick_ % turns_; i < printing_; i += turns_) {
      const auto found = consoles_.find(first_printing_ + i);
      if (found != consoles_.end()) Send(found->first, *found->second, kConsoleLine);
    }
  }
}

void Farm::AcceptAll() {
  for (;;) {
    const int sock = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (sock == -1) {
      if (errno == EAGAIN) return;
      continue;  // the caller is gone already
    }
    SetNoDelay(sock);
    const size_t number = NumberOf(sock);
    if (consoles_.contains(number)) Drop(number);
    Console& console = *(consoles_[number] = std::make_unique<Console>(Descriptor(sock)));
    bench::Watch(poll_, sock, number, EPOLLIN, EPOLL_CTL_ADD);
    Send(number, console, kGreeting);
    ++connected_;
  }
}

void Farm::Serve(size_t number, uint32_t events) {
  const auto found = consoles_.find(number);
  if (found == consoles_.end()) return;  // dropped since the event was taken
  Console& console = *found->second;
  if ((events & EPOLLOUT) != 0) SendMore(number, console);
  if ((events & (EPOLLERR | EPOLLHUP)) != 0 || (console.reading && !Receive(console))) {
    Drop(number);
  } else if (!console.pending.empty() && !console.watched_for_room) {
    Watch(number, console, true);
  }
}

// False when the connection is over.
bool Farm::Receive(Console& console) {
  std::array<char, 65536> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)
  const ssize_t count = recv(console.sock.get(), buffer.data(), buffer.size(), 0);
  if (count < 0) return errno == EAGAIN;
  if (count == 0) return false;
  const std::string_view received(buffer.data(), static_cast<size_t>(count));
  console.pending += console.reply.empty() ? received : std::string_view(console.reply);
  return SendPending(console);
}

void Farm::Send(size_t number, Console& console, std::string_view text) {
  console.pending += text;
  if (SendPending(console) && !console.pending.empty()) Watch(number, console, true);
}

void Farm::SendMore(size_t number, Console& console) {
  if (SendPending(console) && console.pending.empty() && SendFlood(console) &&
      console.flood_left == 0) {
    Watch(number, console, false);
  }
}

// False when the connection is broken; its next event drops it.
bool Farm::SendPending(Console& console) {
  if (console.pending.empty()) return true;
  const ssize_t sent =
      send(console.sock.get(), console.pending.data(), console.pending.size(), MSG_NOSIGNAL);
  if (sent < 0) return errno == EAGAIN;
  console.pending.erase(0, static_cast<size_t>(sent));
  return true;
}

bool Farm::SendFlood(Console& console) {
  const std::string& lines = FloodLines();
  const size_t from = console.flooded % lines.size();
  const size_t count = std::min<uint64_t>(lines.size() - from, console.flood_left);
  if (count == 0) return true;
  const ssize_t sent = send(console.sock.get(), lines.data() + from, count, MSG_NOSIGNAL);
  if (sent < 0) return errno == EAGAIN;
  console.flooded += static_cast<uint64_t>(sent);
  console.flood_left -= static_cast<uint64_t>(sent);
  return true;
}

void Farm::Watch(size_t number, Console& console, bool for_room) {
  console.watched_for_room = for_room || console.flood_left > 0 || !console.pending.empty();
  const uint32_t events =
      (console.reading ? EPOLLIN : 0U) | (console.watched_for_room ? EPOLLOUT : 0U);
  bench::Watch(poll_, console.sock.get(), number, events, EPOLL_CTL_MOD);
}

void Farm::Drop(size_t number) {
  consoles_.erase(number);
  --connected_;
  ++lost_;
}

Farm::Console& Farm::Find(size_t number) {
  const auto found = consoles_.find(number);
  if (found == consoles_.end()) {
    throw std::runtime_error("console " + std::to_string(number) + " is not connected");
  }
  return *found->second;
}

}  // namespace bench
