// The threads on which handlers run, and the way back to the server's thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "exchange.h"

namespace zevweb {

class WorkerPool : public Workers {
 public:
  /// `wake` has the server's thread call RunOnServer() soon; any thread calls it.
  explicit WorkerPool(std::function<void()> wake);
  ~WorkerPool() override { Stop(); }
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void Run(std::function<void()> work, std::function<void()> done) override;
  void OnServer(std::function<void()> work) override;

  /// Runs what waits for the server's thread.
  void RunOnServer();

  /// Drops what no thread has begun, and waits for the threads.
  void Stop();

 private:
  struct Task {
    std::function<void()> work;
    std::function<void()> done;
  };

  void Work();

  std::function<void()> wake_;
  std::mutex mutex_;
  std::condition_variable condition_;
  std::deque<Task> tasks_;
  std::deque<std::function<void()>> for_server_;
  bool is_stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace zevweb
