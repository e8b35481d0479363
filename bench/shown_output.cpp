#include "shown_output.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "farm.h"
#include "process.h"

namespace bench {

namespace {

// A mark is kBefore, a number and kAfter.
constexpr std::string_view kBefore = "\r\n[zevd: ";
constexpr std::string_view kAfter = " bytes were not shown]\r\n";
constexpr char kBracket = '[';  // no console line has one
constexpr size_t kBeforeBracket = 2;
constexpr size_t kLongestMark = 64;
constexpr size_t kBigRead = 262'144;

// The same memory for every read of a thread: it stays in the processor's cache.
std::vector<char>& Buffer() {
  thread_local std::vector<char> buffer(kLongestMark + kBigRead);
  return buffer;
}

}  // namespace

// ---- One user -----------------------------------------------------------------------------------

size_t ShownOutput::Receive(const Descriptor& sock, size_t most) {
  std::vector<char>& buffer = Buffer();
  memcpy(buffer.data(), carried_.data(), carried_.size());
  const size_t room = std::min(most, buffer.size() - carried_.size());
  const ssize_t count = recv(sock.get(), buffer.data() + carried_.size(), room, MSG_DONTWAIT);
  if (count < 0 && errno == EAGAIN) return 0;
  if (count < 0) Fail("a user's recv");
  if (count == 0) throw ConnectionOver();
  Take({buffer.data(), carried_.size() + static_cast<size_t>(count)});
  return static_cast<size_t>(count);
}

void ShownOutput::Take(std::string_view text) {
  for (size_t at = text.find(kBracket); at != std::string_view::npos; at = text.find(kBracket)) {
    if (at < kBeforeBracket) throw std::runtime_error("a mark does not begin with a line end");
    Show(text.substr(0, at - kBeforeBracket));
    text.remove_prefix(at - kBeforeBracket);
    const size_t end = text.find('\n', kBeforeBracket);
    if (end == std::string_view::npos) break;
    LeaveOut(text.substr(0, end + 1));
    text.remove_prefix(end + 1);
  }
  const bool in_mark = text.find(kBracket) != std::string_view::npos;
  const size_t kept = in_mark ? text.size() : std::min(text.size(), kBeforeBracket);
  if (kept > kLongestMark) throw std::runtime_error("a mark has no end");
  Show(text.substr(0, text.size() - kept));
  carried_ = text.substr(text.size() - kept);
  shown_ = taken_ + kept;
}

void ShownOutput::Show(std::string_view text) {
  const std::string& lines = FloodLines();
  while (compare_ == Compare::kEveryByte && !text.empty()) {
    const size_t from = (taken_ + left_out_) % lines.size();
    const size_t length = std::min(text.size(), lines.size() - from);
    if (memcmp(text.data(), lines.data() + from, length) != 0) {
      throw std::runtime_error("a user was shown something else than the console printed");
    }
    text.remove_prefix(length);
    taken_ += length;
  }
  taken_ += text.size();
}

void ShownOutput::LeaveOut(std::string_view mark) {
  uint64_t count = 0;
  const bool framed = mark.starts_with(kBefore) && mark.ends_with(kAfter);
  const size_t length = kBefore.size() + kAfter.size();
  const std::string_view digits =
      framed && mark.size() > length ? mark.substr(kBefore.size(), mark.size() - length) : "";
  const char* end = digits.data() + digits.size();
  const auto parsed = std::from_chars(digits.data(), end, count);
  if (digits.empty() || parsed.ec != std::errc() || parsed.ptr != end) {
    throw std::runtime_error("this is no mark: " + std::string(mark));
  }
  left_out_ += count;
}

// ---- Many who read fast -------------------------------------------------------------------------

FastReaders::FastReaders(std::vector<Descriptor> socks) : poll_(epoll_create1(EPOLL_CLOEXEC)) {
  for (Descriptor& sock : socks) {
    const auto compare =
        readers_.empty() ? ShownOutput::Compare::kEveryByte : ShownOutput::Compare::kNothing;
    readers_.push_back(std::make_unique<Reader>(std::move(sock), compare));
    epoll_event readable{};
    readable.events = EPOLLIN;
    readable.data.ptr = readers_.back().get();
    if (epoll_ctl(poll_.get(), EPOLL_CTL_ADD, readers_.back()->sock.get(), &readable) != 0) {
      Fail("epoll_ctl");
    }
  }
  loop_ = std::make_unique<Loop>([this] { Read(); });
}

void FastReaders::Read() {
  constexpr int kLook = 100;  // milliseconds after which the end is noticed
  std::array<epoll_event, 64> events{};
  const int count = epoll_wait(poll_.get(), events.data(), events.size(), kLook);
  for (int i = 0; i < count; ++i) {
    auto& reader = *static_cast<Reader*>(events[static_cast<size_t>(i)].data.ptr);
    reader.output.Receive(reader.sock, kBigRead);
  }
}

uint64_t FastReaders::shown() const {
  uint64_t sum = 0;
  for (const auto& reader : readers_) sum += reader->output.shown();
  return sum;
}

uint64_t FastReaders::left_out() const {
  uint64_t sum = 0;
  for (const auto& reader : readers_) sum += reader->output.left_out();
  return sum;
}

void FastReaders::WaitFor(uint64_t bytes) const {
  const auto told_of = [](const ShownOutput& output) { return output.shown() + output.left_out(); };
  for (const auto& reader : readers_) {
    WaitUntil("users to be shown everything", [&] {
      Check();
      return told_of(reader->output) >= bytes;
    });
  }
  for (const auto& reader : readers_) {
    if (told_of(reader->output) != bytes) throw std::runtime_error("a user was shown too much");
  }
}

// ---- One who reads slowly -----------------------------------------------------------------------

SlowReader::SlowReader(Descriptor sock, double bytes_per_second)
    : sock_(std::move(sock)),
      bytes_per_second_(bytes_per_second),
      start_(Now()),
      loop_([this] { Read(); }) {}

void SlowReader::Read() {
  constexpr double kPause = 0.010;
  SleepUntil(Now() + kPause);
  const double due = std::floor((Now() - start_) * bytes_per_second_ - read_);
  if (due < 1) return;
  read_ += static_cast<double>(output_.Receive(sock_, static_cast<size_t>(due)));
}

}  // namespace bench
