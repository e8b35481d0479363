// Tells in one pass over a line which patterns of a list may match it: those with a literal
// (pattern_literals.h) that the line holds, and those without literals. The pass costs the same for
// ten patterns and for a thousand; regexec() is then run for the few that are left.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace zevd {

/// A set of numbers below kCapacity.
class NumberSet {
 public:
  static constexpr size_t kCapacity = 8192;

  /// The empty set, for numbers below `size` only, which is at most kCapacity.
  explicit NumberSet(size_t size);
  ~NumberSet() = default;
  NumberSet(const NumberSet& other);
  NumberSet& operator=(const NumberSet& other);

  void Add(size_t number) { words_[number / kWordBits] |= BitOf(number); }
  bool Contains(size_t number) const { return (words_[number / kWordBits] & BitOf(number)) != 0; }

  /// The smallest member that is not below `from`; `size` when there is none.
  size_t Next(size_t from) const;

 private:
  static constexpr size_t kWordBits = 64;

  static uint64_t BitOf(size_t number) { return uint64_t{1} << (number % kWordBits); }
  size_t WordCount() const { return (size_ + kWordBits - 1) / kWordBits; }

  size_t size_;
  std::array<uint64_t, kCapacity / kWordBits> words_;  ///< the first WordCount() are in use
};

/// Does not change once it is built: any number of threads may ask it at once.
class LiteralFilter {
 public:
  /// No table with transitions grows beyond this.
  static constexpr size_t kMostTableBytes = size_t{4} << 20;

  LiteralFilter() = default;

  /// Makes a new object a filter for the `count` patterns, which are numbered from 0. The texts are
  /// not kept. False when there is nothing to be gained or no room for it: no pattern has literals,
  /// there are more patterns or literals than NumberSet takes, the tables would grow too large, or
  /// memory runs out, which is not reported. The object is then useless.
  [[nodiscard]] bool Build(const char* const* patterns, size_t count);

  /// The numbers of all patterns that may match `text`; no other pattern matches it.
  NumberSet Candidates(std::string_view text) const;

  /// Bytes of memory that the filter takes.
  size_t Size() const;

 private:
  class Trie;

  /// What a state says of the text that has been read.
  struct State {
    uint16_t literal = 0;  ///< the number of the literal that ends here; 0 for none
    uint16_t suffix = 0;   ///< the state of the longest other literal that ends here; 0 for none
  };

  /// One pattern that has a literal, and the next one that has the same.
  struct Use {
    uint32_t pattern = 0;
    uint32_t next = 0;  ///< 0 for none
  };

  static constexpr uint16_t kHit = 0x8000;  ///< flags a transition to a state where literals end
  static constexpr size_t kMostStates = kHit;

  /// Counts literals of which at most `cut` bytes are used, and gives their bytes a class. Returns
  /// how many bytes they have in all.
  size_t CountLiterals(const char* const* patterns, size_t count, size_t cut);
  bool AddPatterns(const char* const* patterns, size_t count, size_t cut, Trie* trie);
  bool Complete(const Trie& trie);
  uint16_t Enter(uint16_t state, uint16_t literal, uint16_t fallback);
  void Note(size_t state, NumberSet* seen, NumberSet* candidates) const;

  std::array<uint8_t, 256> class_of_{};  ///< of each byte; 0 for those that are in no literal
  size_t class_count_ = 1;
  size_t state_count_ = 0;
  size_t literal_count_ = 0;
  size_t use_count_ = 0;
  std::unique_ptr<uint16_t[]> next_;       ///< [state][class], with kHit where it applies
  std::unique_ptr<State[]> states_;        ///< state 0 is the start
  std::unique_ptr<uint32_t[]> first_use_;  ///< of each literal, from 1
  std::unique_ptr<Use[]> uses_;            ///< from 1
  NumberSet always_{0};                    ///< the patterns without literals
};

}  // namespace zevd
