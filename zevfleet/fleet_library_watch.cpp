#include "fleet_library_watch.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string_view>

namespace zevfleet {

namespace {

constexpr std::chrono::seconds kTick(1);

constexpr std::string_view kReason =
    "zevfleet: a call of the NATS library does not return, as when the clock is set back; ends\n";

// The other thread stands still, maybe with locks that output streams need.
[[noreturn]] void End() {
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kReason.data(), kReason.size());
  _exit(EXIT_FAILURE);
}

}  // namespace

LibraryWatch::LibraryWatch(int seconds) : seconds_(seconds), thread_([this] { Watch(); }) {}

LibraryWatch::~LibraryWatch() {
  {
    const std::lock_guard lock(mutex_);
    is_over_ = true;
  }
  ending_.notify_one();
  thread_.join();
}

LibraryWatch::Call::Call(LibraryWatch& watch) : watch_(watch) {
  watch_.count_.fetch_add(1, std::memory_order_relaxed);
}

LibraryWatch::Call::~Call() {
  watch_.count_.fetch_add(1, std::memory_order_relaxed);
}

// Waits a second, by a clock that nobody sets.
bool LibraryWatch::IsOver() {
  std::unique_lock lock(mutex_);
  return ending_.wait_for(lock, kTick, [this] { return is_over_; });
}

// Seconds are counted one by one: time for which the process was stopped is no time of the call.
void LibraryWatch::Watch() {
  uint64_t seen = 0;
  int seconds = 0;
  while (!IsOver()) {
    const uint64_t count = count_.load(std::memory_order_relaxed);
    seconds = count == seen && count % 2 == 1 ? seconds + 1 : 0;
    seen = count;
    if (seconds >= seconds_) End();
  }
}

}  // namespace zevfleet
