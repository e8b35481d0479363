#include "context.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <filesystem>

namespace bench {

namespace {

// Stamp, blank, name, blank, and the line without its carriage return.
uintmax_t RecordSize(size_t line) {
  constexpr size_t kStampAndBlanks = 19;
  return kStampAndBlanks + Station::NameOf(0).size() + line - 1;
}

}  // namespace

Samples Typists::TypeEvery(double interval, size_t keys) {
  Samples times;
  double next = Now();
  const auto type = [&](User& user, std::vector<double>& into) {
    next += interval / 2;
    SleepUntil(next);
    into.push_back(user.Echo());
  };
  for (size_t i = 0; i < keys; ++i) {
    type(daemon, times.daemon);
    type(relay, times.relay);
  }
  return times;
}

Samples Typists::TypeFast(size_t keys) {
  constexpr size_t kTurn = 25;
  Samples times;
  for (size_t typed = 0; typed < keys; typed += kTurn) {
    const size_t turn = std::min(kTurn, keys - typed);
    for (size_t i = 0; i < turn; ++i) times.daemon.push_back(daemon.Echo());
    for (size_t i = 0; i < turn; ++i) times.relay.push_back(relay.Echo());
  }
  return times;
}

void Typists::Append(Samples& to, const Samples& more) {
  to.daemon.insert(to.daemon.end(), more.daemon.begin(), more.daemon.end());
  to.relay.insert(to.relay.end(), more.relay.begin(), more.relay.end());
}

User RelayedFarm::Attach(size_t console) const {
  User user(Call(console));
  user.Expect(std::string(kGreeting));
  return user;
}

Sink::Sink() : poll_(epoll_create1(EPOLL_CLOEXEC)), thread_([this] { Drain(); }) {}

Sink::~Sink() {
  ended_ = true;
  thread_.join();
}

void Sink::Add(Descriptor sock) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = sock.get();
  if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, sock.get(), &event) != 0) Fail("epoll_ctl");
  socks_.push_back(std::move(sock));
}

void Sink::Drain() {
  constexpr int kLook = 100;  // milliseconds after which the end is noticed
  constexpr size_t kRoom = 65536;
  std::vector<char> buffer(kRoom);
  std::array<epoll_event, 256> events{};
  while (!ended_) {
    const int count = epoll_wait(poll_.get(), events.data(), events.size(), kLook);
    for (int i = 0; i < count; ++i) {
      const int sock = events[static_cast<size_t>(i)].data.fd;
      const ssize_t taken = recv(sock, buffer.data(), buffer.size(), MSG_DONTWAIT);
      if (taken > 0) received_ += static_cast<uint64_t>(taken);
      if (taken == 0) epoll_ctl(poll_.get(), EPOLL_CTL_DEL, sock, nullptr);
    }
  }
}

LogWatch::LogWatch(size_t consoles) : expected_(consoles * RecordSize(kGreeting.size())) {
  Wait();
}

void LogWatch::WaitFor(uint64_t lines) {
  expected_ += lines * RecordSize(kConsoleLine.size());
  Wait();
}

void LogWatch::Wait() const {
  const std::string log = Station::ConsolidatedLog();
  WaitUntil("all lines to be logged", [&] { return std::filesystem::file_size(log) >= expected_; });
  if (std::filesystem::file_size(log) != expected_) {
    throw std::runtime_error("the consolidated log is larger than the lines that were printed");
  }
}

std::unique_ptr<Station> NewStation(const Context& context, Farm& farm,
                                    std::vector<ConsolePlan> consoles, bool security,
                                    const std::vector<std::string>& options) {
  Station::ClearRoot();
  return std::make_unique<Station>(context.daemon, farm, std::move(consoles), security, options);
}

}  // namespace bench
