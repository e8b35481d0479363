// The literals become a tree, one state for each beginning of a literal, and the tree becomes a
// machine that makes one step for each byte: where the tree does not go on, the machine goes on
// from the longest end of what it has read that is a beginning of a literal, which is the state's
// fallback. States are numbered by depth: those that ordinary lines reach are few and together.
#include "literal_filter.h"

#include <algorithm>
#include <bit>
#include <new>

#include "pattern_literals.h"

namespace zevd {

namespace {

// Zeroes; null when memory runs out.
template <typename T>
std::unique_ptr<T[]> NewArray(size_t size) {
  return std::unique_ptr<T[]>(new (std::nothrow) T[size]());
}

}  // namespace

// ---- NumberSet ----------------------------------------------------------------------------------

NumberSet::NumberSet(size_t size) : size_(size) {
  std::fill_n(words_.begin(), WordCount(), 0);
}

NumberSet::NumberSet(const NumberSet& other) : size_(other.size_) {
  std::copy_n(other.words_.begin(), WordCount(), words_.begin());
}

NumberSet& NumberSet::operator=(const NumberSet& other) {
  size_ = other.size_;
  std::copy_n(other.words_.begin(), WordCount(), words_.begin());
  return *this;
}

size_t NumberSet::Next(size_t from) const {
  if (from >= size_) return size_;
  size_t index = from / kWordBits;
  uint64_t word = words_[index] & (~uint64_t{0} << (from % kWordBits));
  while (word == 0) {
    if (++index == WordCount()) return size_;
    word = words_[index];
  }
  return index * kWordBits + static_cast<size_t>(std::countr_zero(word));
}

// ---- Building -----------------------------------------------------------------------------------

/// The literals as a tree. States are numbered as they are made, from 0 for the root.
class LiteralFilter::Trie {
 public:
  /// Whether literals of so many bytes in all, no two of them alike, stay within the bounds.
  static bool HasRoomFor(size_t bytes, size_t class_count) {
    const size_t most_states = bytes + 1;
    return most_states <= kMostStates &&
           most_states * class_count * sizeof(uint16_t) <= kMostTableBytes;
  }

  /// Makes room for them. False when memory runs out.
  bool Reserve(size_t bytes, size_t class_count) {
    const size_t most_states = bytes + 1;
    class_count_ = class_count;
    children_ = NewArray<uint16_t>(most_states * class_count);
    literals_ = NewArray<uint16_t>(most_states);
    return children_ != nullptr && literals_ != nullptr;
  }

  /// The literal's number, the same for the same literal; the first one is 1.
  uint16_t Add(std::string_view literal, const std::array<uint8_t, 256>& class_of) {
    size_t state = 0;
    for (const char byte : literal) {
      uint16_t& child =
          children_[state * class_count_ + class_of[static_cast<unsigned char>(byte)]];
      if (child == 0) child = static_cast<uint16_t>(state_count_++);
      state = child;
    }
    if (literals_[state] == 0) literals_[state] = static_cast<uint16_t>(++literal_count_);
    return literals_[state];
  }

  size_t StateCount() const { return state_count_; }
  size_t LiteralCount() const { return literal_count_; }
  /// 0 for none.
  uint16_t Child(size_t state, size_t byte_class) const {
    return children_[state * class_count_ + byte_class];
  }
  /// The number of the literal that ends in the state; 0 for none.
  uint16_t LiteralOf(size_t state) const { return literals_[state]; }

 private:
  size_t class_count_ = 0;
  size_t state_count_ = 1;
  size_t literal_count_ = 0;
  std::unique_ptr<uint16_t[]> children_;
  std::unique_ptr<uint16_t[]> literals_;
};

bool LiteralFilter::Build(const char* const* patterns, size_t count) {
  if (count > NumberSet::kCapacity) return false;
  // When there are very many long literals, a part of each will do: it is as necessary as the
  // whole.
  constexpr size_t kShortestCut = 3;
  Trie trie;
  for (size_t cut = Literal::kCapacity; cut >= kShortestCut; cut /= 2) {
    const size_t bytes = CountLiterals(patterns, count, cut);
    if (bytes == 0) return false;
    if (!Trie::HasRoomFor(bytes, class_count_)) continue;
    return trie.Reserve(bytes, class_count_) && AddPatterns(patterns, count, cut, &trie) &&
           Complete(trie);
  }
  return false;
}

size_t LiteralFilter::CountLiterals(const char* const* patterns, size_t count, size_t cut) {
  size_t bytes = 0;
  use_count_ = 0;
  for (size_t pattern = 0; pattern < count; ++pattern) {
    for (const Literal& literal : MandatoryLiterals(patterns[pattern])) {
      ++use_count_;
      bytes += literal.Text().substr(0, cut).size();
      for (const char byte : literal.Text().substr(0, cut)) {
        uint8_t& byte_class = class_of_[static_cast<unsigned char>(byte)];
        if (byte_class == 0) byte_class = static_cast<uint8_t>(class_count_++);
      }
    }
  }
  // A capital letter is found as the small one, which is the one that literals have.
  for (size_t byte = 0; byte < class_of_.size(); ++byte) {
    class_of_[byte] = class_of_[FoldCase(static_cast<unsigned char>(byte))];
  }
  return bytes;
}

bool LiteralFilter::AddPatterns(const char* const* patterns, size_t count, size_t cut, Trie* trie) {
  first_use_ = NewArray<uint32_t>(use_count_ + 1);
  uses_ = NewArray<Use>(use_count_ + 1);
  if (first_use_ == nullptr || uses_ == nullptr) return false;
  always_ = NumberSet(count);
  uint32_t use = 0;
  for (size_t pattern = 0; pattern < count; ++pattern) {
    const LiteralSet literals = MandatoryLiterals(patterns[pattern]);
    if (literals.count == 0) always_.Add(pattern);
    for (const Literal& literal : literals) {
      uint32_t& first = first_use_[trie->Add(literal.Text().substr(0, cut), class_of_)];
      uses_[++use] = {static_cast<uint32_t>(pattern), first};
      first = use;
    }
  }
  literal_count_ = trie->LiteralCount();
  return literal_count_ < NumberSet::kCapacity;
}

// Fills in the state. Returns the transition that leads to it.
uint16_t LiteralFilter::Enter(uint16_t state, uint16_t literal, uint16_t fallback) {
  State& entered = states_[state];
  entered.literal = literal;
  entered.suffix = states_[fallback].literal != 0 ? fallback : states_[fallback].suffix;
  const bool hit = entered.literal != 0 || entered.suffix != 0;
  return hit ? static_cast<uint16_t>(state | kHit) : state;
}

bool LiteralFilter::Complete(const Trie& trie) {
  state_count_ = trie.StateCount();
  next_ = NewArray<uint16_t>(state_count_ * class_count_);
  states_ = NewArray<State>(state_count_);
  const auto in_trie = NewArray<uint16_t>(state_count_);
  const auto fallback = NewArray<uint16_t>(state_count_);
  if (next_ == nullptr || states_ == nullptr || in_trie == nullptr || fallback == nullptr)
    return false;
  uint16_t entered = 0;
  for (size_t state = 0; state < state_count_; ++state) {
    for (size_t byte_class = 0; byte_class < class_count_; ++byte_class) {
      // The fallback is nearer to the root, so its own way on is known; the root's is the root.
      const uint16_t otherwise =
          state == 0 ? uint16_t{0} : next_[fallback[state] * class_count_ + byte_class];
      const uint16_t child = trie.Child(in_trie[state], byte_class);
      uint16_t& next = next_[state * class_count_ + byte_class];
      next = otherwise;
      if (child == 0) continue;
      in_trie[++entered] = child;
      fallback[entered] = otherwise & (kHit - 1);
      next = Enter(entered, trie.LiteralOf(child), fallback[entered]);
    }
  }
  return true;
}

size_t LiteralFilter::Size() const {
  return sizeof *this + state_count_ * class_count_ * sizeof next_[0] +
         state_count_ * sizeof states_[0] + (use_count_ + 1) * sizeof first_use_[0] +
         (use_count_ + 1) * sizeof uses_[0];
}

// ---- Asking -------------------------------------------------------------------------------------

void LiteralFilter::Note(size_t state, NumberSet* seen, NumberSet* candidates) const {
  for (; state != 0; state = states_[state].suffix) {
    const size_t literal = states_[state].literal;
    if (literal == 0) continue;
    if (seen->Contains(literal)) return;  // and so have those at its end
    seen->Add(literal);
    for (uint32_t use = first_use_[literal]; use != 0; use = uses_[use].next) {
      candidates->Add(uses_[use].pattern);
    }
  }
}

NumberSet LiteralFilter::Candidates(std::string_view text) const {
  NumberSet candidates = always_;
  NumberSet seen(literal_count_ + 1);
  const uint16_t* const next = next_.get();
  const size_t class_count = class_count_;
  size_t state = 0;
  for (const char byte : text) {
    const uint16_t entry = next[state * class_count + class_of_[static_cast<unsigned char>(byte)]];
    state = entry & (kHit - 1);
    if ((entry & kHit) != 0) Note(state, &seen, &candidates);
  }
  return candidates;
}

}  // namespace zevd
