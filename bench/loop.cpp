#include "loop.h"

#include <stdexcept>
#include <utility>

namespace bench {

Loop::Loop(std::function<void()> turn) : turn_(std::move(turn)), thread_([this] { Live(); }) {}

Loop::~Loop() {
  ended_ = true;
  if (thread_.joinable()) thread_.join();
}

void Loop::Check() const {
  if (failed_) throw std::runtime_error(failure_);
}

void Loop::Finish() {
  ended_ = true;
  thread_.join();
  Check();
}

void Loop::Live() {
  try {
    for (; !ended_; ++turns_) turn_();
  } catch (const std::exception& error) {
    failure_ = error.what();
    failed_ = true;
  }
}

}  // namespace bench
