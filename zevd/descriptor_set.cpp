#include "descriptor_set.h"

#include <algorithm>
#include <cstdlib>

namespace zevd {

DescriptorSet::~DescriptorSet() {
  free(words_);
}

bool DescriptorSet::Reserve(int fd) {
  const size_t needed = WordOf(fd) + 1;
  if (needed <= word_count_) return true;
  // Doubling keeps a set that grows one descriptor at a time from being copied each time.
  const size_t room = std::max(needed, word_count_ * 2);
  auto* grown = static_cast<unsigned long*>(realloc(words_, room * sizeof(unsigned long)));
  if (grown == nullptr) return false;
  std::fill(grown + word_count_, grown + room, 0UL);
  words_ = grown;
  word_count_ = room;
  return true;
}

bool DescriptorSet::Add(int fd) {
  if (!Reserve(fd)) return false;
  words_[WordOf(fd)] |= BitOf(fd);
  return true;
}

void DescriptorSet::Remove(int fd) {
  if (Contains(fd)) words_[WordOf(fd)] &= ~BitOf(fd);
}

bool DescriptorSet::Contains(int fd) const {
  return fd >= 0 && WordOf(fd) < word_count_ && (words_[WordOf(fd)] & BitOf(fd)) != 0;
}

void DescriptorSet::Clear() {
  std::fill(words_, words_ + word_count_, 0UL);
}

bool DescriptorSet::CopyFrom(const DescriptorSet& other) {
  Clear();
  if (other.word_count_ == 0) return true;
  const int widest = static_cast<int>(other.word_count_ * kWordBits - 1);
  if (!Reserve(widest)) return false;
  std::copy(other.words_, other.words_ + other.word_count_, words_);
  return true;
}

}  // namespace zevd
