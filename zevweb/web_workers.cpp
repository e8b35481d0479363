#include "web_workers.h"

#include <exception>
#include <utility>

#include "output.h"

namespace zevweb {

namespace {

constexpr size_t kThreads = 4;
constexpr size_t kMostTasks = 256;

}  // namespace

WorkerPool::WorkerPool(std::function<void()> wake) : wake_(std::move(wake)) {
  for (size_t i = 0; i < kThreads; ++i) threads_.emplace_back([this] { Work(); });
}

void WorkerPool::Run(std::function<void()> work, std::function<void()> done) {
  {
    const std::lock_guard lock(mutex_);
    if (is_stopping_ || tasks_.size() >= kMostTasks) {
      throw Problem(503, "the server has too much to do; try again in a moment");
    }
    tasks_.push_back({std::move(work), std::move(done)});
  }
  condition_.notify_one();
}

void WorkerPool::OnServer(std::function<void()> work) {
  bool is_first = false;
  {
    const std::lock_guard lock(mutex_);
    is_first = for_server_.empty();
    for_server_.push_back(std::move(work));
  }
  if (is_first) wake_();
}

void WorkerPool::RunOnServer() {
  std::deque<std::function<void()>> work;
  {
    const std::lock_guard lock(mutex_);
    work.swap(for_server_);
  }
  for (const auto& one : work) {
    try {
      one();
    } catch (const std::exception& error) {
      zevctl::Announce(std::string("zevweb: ") + error.what());
    }
  }
}

void WorkerPool::Stop() {
  {
    const std::lock_guard lock(mutex_);
    is_stopping_ = true;
    tasks_.clear();
  }
  condition_.notify_all();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void WorkerPool::Work() {
  for (;;) {
    Task task;
    {
      std::unique_lock lock(mutex_);
      condition_.wait(lock, [this] { return is_stopping_ || !tasks_.empty(); });
      if (is_stopping_) return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    try {
      task.work();
    } catch (const std::exception& error) {
      zevctl::Announce(std::string("zevweb: ") + error.what());
    }
    if (task.done) OnServer(std::move(task.done));
  }
}

}  // namespace zevweb
