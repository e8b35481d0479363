// One answer for all who ask for the same within a moment.
#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>

#include "exchange.h"

namespace zevweb {

/// Whoever comes while nobody asks, and the last answer is too old, asks; the others wait for that
/// answer. What is thrown counts as an answer. Any thread may use it.
template <typename Value>
class WebShared {
 public:
  using Clock = std::chrono::steady_clock;
  using Pointer = std::shared_ptr<const Value>;

  WebShared(std::chrono::milliseconds lifetime, std::chrono::milliseconds patience)
      : lifetime_(lifetime), patience_(patience) {}

  /// Throws Problem(503) when the one who asks has had no answer for longer than the patience.
  Pointer Get(const std::function<Pointer()>& ask) {
    std::unique_lock lock(mutex_);
    if (IsFresh()) return Answer();
    if (is_asking_) return Await(lock);
    is_asking_ = true;
    lock.unlock();
    Pointer value;
    std::exception_ptr error;
    try {
      value = ask();
    } catch (...) {
      error = std::current_exception();
    }
    lock.lock();
    is_asking_ = false;
    value_ = std::move(value);
    error_ = error;
    answered_ = Clock::now();
    ++answers_;
    condition_.notify_all();
    return Answer();
  }

  /// The next one who comes asks anew.
  void Forget() {
    const std::lock_guard lock(mutex_);
    answered_ = {};
  }

 private:
  bool IsFresh() const {
    return answered_ != Clock::time_point() && Clock::now() - answered_ < lifetime_;
  }

  Pointer Answer() const {
    if (error_) std::rethrow_exception(error_);
    return value_;
  }

  Pointer Await(std::unique_lock<std::mutex>& lock) {
    const uint64_t before = answers_;
    if (condition_.wait_for(lock, patience_, [&] { return answers_ != before; })) return Answer();
    throw Problem(503, "the daemon does not answer; try again, and see zevd.log");
  }

  const std::chrono::milliseconds lifetime_;
  const std::chrono::milliseconds patience_;
  std::mutex mutex_;
  std::condition_variable condition_;
  bool is_asking_ = false;
  uint64_t answers_ = 0;
  Clock::time_point answered_{};
  Pointer value_;
  std::exception_ptr error_;
};

}  // namespace zevweb
