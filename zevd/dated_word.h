// A small number that remembers since when it has had its value.
#pragma once

#include <atomic>
#include <ctime>

namespace zevd {

/// Reads and writes like an int. Any thread may do either; since() may be a moment behind.
class DatedWord {
 public:
  DatedWord() = default;
  DatedWord(int value) { *this = value; }  // NOLINT(google-explicit-constructor): as an atomic's
  ~DatedWord() = default;

  /// A copy has the value since the time of copying; assigning the value that it has already
  /// changes nothing.
  DatedWord(const DatedWord& other) : DatedWord(other.load()) {}
  DatedWord& operator=(const DatedWord& other) { return *this = other.load(); }

  DatedWord& operator=(int value) {
    if (value_.exchange(value) != value) since_ = time(nullptr);
    return *this;
  }

  int load() const { return value_; }
  operator int() const { return value_; }  // NOLINT(google-explicit-constructor): as an atomic's

  /// When it was last given another value; 0 when it never was.
  time_t since() const { return since_; }

 private:
  std::atomic<int> value_{0};
  std::atomic<time_t> since_{0};
};

}  // namespace zevd
