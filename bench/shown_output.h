// What users are shown of a flood: the numbered lines, with marks in the places of what was left
// out for those who read too slowly.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "loop.h"
#include "net.h"

namespace bench {

/// Takes the stream of one user, from the beginning of the first flood on. Others may ask for the
/// counts meanwhile.
class ShownOutput {
 public:
  enum class Compare { kNothing, kEveryByte };
  explicit ShownOutput(Compare compare) : compare_(compare) {}

  /// Receives at most so many bytes, marks included, and returns how many came. Throws when the
  /// connection is over, and when something comes that is neither the next piece of the flood nor a
  /// mark.
  size_t Receive(const Descriptor& sock, size_t most);

  /// Bytes of the console's that were shown.
  uint64_t shown() const { return shown_; }
  /// Bytes that were left out, as the marks say.
  uint64_t left_out() const { return left_out_; }

 private:
  void Take(std::string_view text);
  void Show(std::string_view text);
  void LeaveOut(std::string_view mark);

  Compare compare_;
  std::string carried_;  // the end of what came, which may belong to a mark
  uint64_t taken_ = 0;   // bytes shown before those
  std::atomic<uint64_t> shown_{0};
  std::atomic<uint64_t> left_out_{0};
};

/// Users who read as fast as they can, in one thread. Every byte of the first one is compared.
class FastReaders {
 public:
  explicit FastReaders(std::vector<Descriptor> socks);

  size_t size() const { return readers_.size(); }
  /// Bytes shown to all of them together, and those left out.
  uint64_t shown() const;
  uint64_t left_out() const;
  /// Waits until each was shown, or told of, so many bytes; no more may come.
  void WaitFor(uint64_t bytes) const;
  /// Throws what ended the reading, if anything did.
  void Check() const { loop_->Check(); }

 private:
  struct Reader {
    Reader(Descriptor connection, ShownOutput::Compare compare)
        : sock(std::move(connection)), output(compare) {}
    Descriptor sock;
    ShownOutput output;
  };
  void Read();

  Descriptor poll_;
  std::vector<std::unique_ptr<Reader>> readers_;
  std::unique_ptr<Loop> loop_;
};

/// A user who reads so many bytes a second, in a thread of his own.
class SlowReader {
 public:
  SlowReader(Descriptor sock, double bytes_per_second);

  /// Throws what ended the reading, if anything did.
  void Check() const { loop_.Check(); }

 private:
  void Read();

  Descriptor sock_;
  double bytes_per_second_;
  double start_;
  double read_ = 0;
  ShownOutput output_{ShownOutput::Compare::kEveryByte};
  Loop loop_;
};

}  // namespace bench
