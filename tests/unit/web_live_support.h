// What a test puts in place of the server: its thread is the test's own.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "exchange.h"

namespace test {

/// Work runs at once, and what is for the server's thread when the test looks for it.
class TestWorkers : public zevweb::Workers {
 public:
  void Run(std::function<void()> work, std::function<void()> done) override;
  void OnServer(std::function<void()> work) override;

  /// Does what is for the server's thread until the condition holds; false when that takes longer
  /// than some seconds.
  bool Until(const std::function<bool()>& holds);

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  std::deque<std::function<void()>> waiting_;
};

/// A page that takes a frame whenever it is told to.
class TestPeer : public zevweb::Peer {
 public:
  struct Frame {
    std::string bytes;
    bool is_text = false;
  };

  void WantToWrite() override { wants_ = true; }
  void Write(std::string_view bytes, bool is_text) override;
  void Close(uint16_t status, std::string_view reason) override;

  /// Takes all that the channel has for it now.
  void TakeAll(zevweb::Channel& channel);

  /// The output of all binary frames, and the position of the last one that had any.
  std::string Output() const;
  std::string LastPosition() const;

  /// Text frames with this word, as they came.
  std::vector<std::string> Texts(const std::string& what) const;

  std::vector<Frame> frames;
  uint16_t closed = 0;

 private:
  std::atomic<bool> wants_ = false;
};

}  // namespace test
