#include "logger.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <ctime>
#include <vector>

#include "farm.h"
#include "station.h"

namespace bench {

namespace {

constexpr size_t kChunk = 65536;
constexpr size_t kStampLength = 18;  // "%y/%m/%d_%T "

/// The time as text, formatted once a second.
class Stamp {
 public:
  const char* Now() {
    const time_t now = time(nullptr);
    if (now != when_) {
      tm local{};
      localtime_r(&now, &local);
      strftime(text_.data(), text_.size(), "%y/%m/%d_%T ", &local);
      when_ = now;
    }
    return text_.data();
  }

 private:
  time_t when_ = 0;
  std::array<char, kStampLength + 1> text_{};
};

struct LoggedConsole {
  Descriptor sock;
  Descriptor file;
  bool in_line = false;  // the last line has no end yet
};

/// What one read brings, with a time before each line.
class Record {
 public:
  Record() : in_(kChunk), out_(kChunk * (kStampLength + 1)) {}

  // False at the end of the stream.
  bool Copy(LoggedConsole& console) {
    const ssize_t count = recv(console.sock.get(), in_.data(), in_.size(), MSG_DONTWAIT);
    if (count <= 0) return count < 0;
    const size_t length = Stamped(console, static_cast<size_t>(count));
    if (write(console.file.get(), out_.data(), length) != static_cast<ssize_t>(length)) {
      Fail("write");
    }
    return true;
  }

 private:
  size_t Stamped(LoggedConsole& console, size_t count) {
    const char* stamp = stamp_.Now();
    char* to = out_.data();
    const char* end = in_.data() + count;
    for (const char* from = in_.data(); from < end;) {
      if (!console.in_line) to = std::copy_n(stamp, kStampLength, to);
      const void* newline = memchr(from, '\n', static_cast<size_t>(end - from));
      console.in_line = newline == nullptr;
      const char* next = console.in_line ? end : static_cast<const char*>(newline) + 1;
      to = std::copy(from, next, to);
      from = next;
    }
    return static_cast<size_t>(to - out_.data());
  }

  std::vector<char> in_;
  std::vector<char> out_;
  Stamp stamp_;
};

LoggedConsole Call(uint16_t port, size_t console) {
  const std::string path = Logger::LogOf(console);
  Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  if (file.get() == -1) Fail(path);
  return {ConnectTo(Farm::AddressOf(console), port), std::move(file)};
}

}  // namespace

void LiveAsLogger(uint16_t port, size_t consoles) {
  DescriptorLimit();
  const Descriptor poll(epoll_create1(EPOLL_CLOEXEC));
  std::vector<LoggedConsole> logged;
  for (size_t i = 0; i < consoles; ++i) {
    logged.push_back(Call(port, i));
    epoll_event readable{};
    readable.events = EPOLLIN;
    readable.data.u64 = i;
    if (epoll_ctl(poll.get(), EPOLL_CTL_ADD, logged.back().sock.get(), &readable) != 0) {
      Fail("epoll_ctl");
    }
  }
  Record record;
  std::array<epoll_event, 256> events{};
  for (;;) {
    const int count = epoll_wait(poll.get(), events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      LoggedConsole& console = logged[events[static_cast<size_t>(i)].data.u64];
      if (!record.Copy(console)) throw std::runtime_error("a console has hung up");
    }
  }
}

Logger::Logger(uint16_t port, size_t consoles)
    : process_({"/proc/self/exe", kLoggerWord, std::to_string(port), std::to_string(consoles)},
               QOR_ROOT "/logger.out") {}

std::string Logger::LogOf(size_t console) {
  return QOR_ROOT "/logs/" + Station::NameOf(console) + ".log";
}

}  // namespace bench
