// A set of descriptors of any size, in the layout that select() reads. A plain fd_set ends at 1024
// and would be written past its end; the kernel itself takes any width (select(2), Notes).
#pragma once

#include <sys/select.h>

#include <bit>
#include <climits>
#include <cstddef>

namespace zevd {

class DescriptorSet {
 public:
  DescriptorSet() = default;
  ~DescriptorSet();
  DescriptorSet(const DescriptorSet&) = delete;
  DescriptorSet& operator=(const DescriptorSet&) = delete;

  /// Makes room for descriptors 0 to `fd`; the set only ever grows. False when out of memory, with
  /// the set as it was.
  [[nodiscard]] bool Reserve(int fd);

  /// Adds `fd` (not negative). False when out of memory, with the set as it was.
  bool Add(int fd);

  void Remove(int fd);
  bool Contains(int fd) const;

  /// Empties the set and keeps its room.
  void Clear();

  /// Becomes equal to `other`. False when out of memory, with the set emptied.
  [[nodiscard]] bool CopyFrom(const DescriptorSet& other);

  /// Calls `visit` with every member, lowest first.
  template <typename Visit>
  void ForEach(Visit visit) const {
    for (size_t word = 0; word < word_count_; ++word) {
      for (unsigned long rest = words_[word]; rest != 0; rest &= rest - 1) {
        visit(static_cast<int>(word * kWordBits) + std::countr_zero(rest));
      }
    }
  }

  /// For select(); covers the descriptors for which room was made.
  fd_set* Native() { return reinterpret_cast<fd_set*>(words_); }

 private:
  static constexpr size_t kWordBits = sizeof(unsigned long) * CHAR_BIT;

  static size_t WordOf(int fd) { return static_cast<size_t>(fd) / kWordBits; }
  static unsigned long BitOf(int fd) { return 1UL << (static_cast<size_t>(fd) % kWordBits); }

  unsigned long* words_ = nullptr;
  size_t word_count_ = 0;
};

}  // namespace zevd
