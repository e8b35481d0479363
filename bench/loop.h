// Something that is done again and again in a thread of its own.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>

namespace bench {

/// Runs from the construction on. What is done ends the loop when it throws.
class Loop {
 public:
  explicit Loop(std::function<void()> turn);
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop();

  /// Turns that have ended.
  size_t turns() const { return turns_; }
  /// Throws what ended the loop, if anything did.
  void Check() const;
  /// Ends after the turn that is under way, and checks.
  void Finish();

 private:
  void Live();

  std::function<void()> turn_;
  std::atomic<size_t> turns_{0};
  std::string failure_;  // written before `failed_` is set
  std::atomic<bool> failed_{false};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

}  // namespace bench
