#include "web_live_support.h"

#include <chrono>

namespace test {

namespace {

constexpr size_t kTimeSize = 8;

}  // namespace

void TestWorkers::Run(std::function<void()> work, std::function<void()> done) {
  work();
  if (done) OnServer(std::move(done));
}

void TestWorkers::OnServer(std::function<void()> work) {
  const std::lock_guard lock(mutex_);
  waiting_.push_back(std::move(work));
  condition_.notify_all();
}

bool TestWorkers::Until(const std::function<bool()>& holds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  std::unique_lock lock(mutex_);
  for (;;) {
    while (!waiting_.empty()) {
      const auto work = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      work();
      lock.lock();
    }
    lock.unlock();
    const bool is_so = holds();
    lock.lock();
    if (is_so) return true;
    if (!condition_.wait_until(lock, deadline, [&] { return !waiting_.empty(); })) return false;
  }
}

void TestPeer::Write(std::string_view bytes, bool is_text) {
  frames.push_back({std::string(bytes), is_text});
}

void TestPeer::Close(uint16_t status, std::string_view /*reason*/) {
  closed = status;
}

void TestPeer::TakeAll(zevweb::Channel& channel) {
  while (wants_.exchange(false)) channel.Writable();
}

std::string TestPeer::Output() const {
  std::string output;
  for (const Frame& frame : frames) {
    if (!frame.is_text)
      output += frame.bytes.substr(2 + static_cast<size_t>(frame.bytes[1]) + kTimeSize);
  }
  return output;
}

std::string TestPeer::LastPosition() const {
  std::string position;
  for (const Frame& frame : frames) {
    if (!frame.is_text && frame.bytes[1] > 0)
      position = frame.bytes.substr(2, static_cast<size_t>(frame.bytes[1]));
  }
  return position;
}

std::vector<std::string> TestPeer::Texts(const std::string& what) const {
  std::vector<std::string> texts;
  for (const Frame& frame : frames) {
    if (frame.is_text && frame.bytes.starts_with("{\"what\":\"" + what + "\""))
      texts.push_back(frame.bytes);
  }
  return texts;
}

}  // namespace test
