// What users are shown of a flood: the numbered lines, with marks in the places of what was left
// out for those who read too slowly.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "net.h"

namespace bench {

/// Takes the stream of one user, from the beginning of the first flood on. Others may ask for the
/// counts meanwhile.
class ShownOutput {
 public:
  enum class Compare { kNothing, kEveryByte };
  explicit ShownOutput(Compare compare) : compare_(compare) {}

  /// Receives at most so many bytes. Throws when the connection is over, and when something comes
  /// that is not the next piece of the flood, or no mark.
  void Receive(const Descriptor& sock, size_t most);

  /// Bytes of the console's that were shown.
  uint64_t shown() const { return shown_; }
  /// Bytes that were left out, as the marks say.
  uint64_t left_out() const { return left_out_; }
  uint64_t marks() const { return marks_; }

 private:
  void Take(std::string_view text);
  void Show(std::string_view text);
  void LeaveOut(std::string_view mark);

  Compare compare_;
  std::string carried_;  // the end of what came, which may belong to a mark
  uint64_t taken_ = 0;   // bytes shown before those
  std::atomic<uint64_t> shown_{0};
  std::atomic<uint64_t> left_out_{0};
  std::atomic<uint64_t> marks_{0};
};

/// Users who read as fast as they can, in one thread. Every byte of the first one is compared.
class FastReaders {
 public:
  explicit FastReaders(std::vector<Descriptor> socks);
  FastReaders(const FastReaders&) = delete;
  FastReaders& operator=(const FastReaders&) = delete;
  ~FastReaders();

  size_t size() const { return readers_.size(); }
  /// Bytes shown to all of them together, and those left out.
  uint64_t shown() const;
  uint64_t left_out() const;
  /// Waits until each was shown, or told of, so many bytes; no more may come.
  void WaitFor(uint64_t bytes) const;
  /// Throws what ended the reading, if anything did.
  void CheckReading() const;

 private:
  struct Reader {
    Reader(Descriptor connection, ShownOutput::Compare compare)
        : sock(std::move(connection)), output(compare) {}
    Descriptor sock;
    ShownOutput output;
  };
  void Live();
  void ReadAll();

  Descriptor poll_;
  std::vector<std::unique_ptr<Reader>> readers_;
  std::string failure_;  // written before `failed_` is set
  std::atomic<bool> failed_{false};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

/// A user who reads so many bytes a second, in a thread of his own.
class SlowReader {
 public:
  SlowReader(Descriptor sock, double bytes_per_second);
  SlowReader(const SlowReader&) = delete;
  SlowReader& operator=(const SlowReader&) = delete;
  ~SlowReader();

  const ShownOutput& output() const { return output_; }
  void CheckReading() const;

 private:
  void Live();

  Descriptor sock_;
  double bytes_per_second_;
  ShownOutput output_{ShownOutput::Compare::kEveryByte};
  std::string failure_;  // written before `failed_` is set
  std::atomic<bool> failed_{false};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};

}  // namespace bench
