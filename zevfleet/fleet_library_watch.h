// Ends the process when a call of the NATS library does not return. The library waits by the clock
// of the day: when that is set back, a wait takes as much longer, and nothing else would end it.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace zevfleet {

class LibraryWatch {
 public:
  /// A call may take so many seconds, of those in which this process is not stopped.
  explicit LibraryWatch(int seconds);
  ~LibraryWatch();
  LibraryWatch(const LibraryWatch&) = delete;
  LibraryWatch& operator=(const LibraryWatch&) = delete;

  /// The time of one call. One at a time, of one thread.
  class Call {
   public:
    explicit Call(LibraryWatch& watch);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

   private:
    LibraryWatch& watch_;
  };

 private:
  void Watch();
  bool IsOver();

  const int seconds_;
  std::atomic<uint64_t> count_ = 0;  // odd while there is a call
  std::mutex mutex_;
  std::condition_variable ending_;
  bool is_over_ = false;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace zevfleet
