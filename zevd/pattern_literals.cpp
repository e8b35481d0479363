// The grammar is that of the system's regcomp() with REG_EXTENDED, in the C locale: the daemon
// never sets another. What it leaves undefined is "not understood", and so is whatever makes the
// matcher look back at what it has matched. Bytes beyond ASCII are promised by no pattern, so that
// nothing here depends on the encoding of a letter.
#include "pattern_literals.h"

#include <algorithm>
#include <cstring>

namespace zevd {

namespace {

constexpr int kDeepestGroup = 24;

/// What is known of every text that a part of a pattern matches. Two parts that follow each other
/// match two texts that follow each other, and so on: the facts of the whole are made of these.
struct Facts {
  bool exact = false;  ///< the text is `head`, which is `tail` too; nothing else can be matched
  Literal head;        ///< it begins with
  Literal tail;        ///< it ends with
  LiteralSet inside;   ///< one of these is in it; none when there is no such promise
};

constexpr Facts Nothing() {
  Facts facts;
  facts.exact = true;
  return facts;
}

constexpr Facts Anything() {
  return {};
}

Literal LiteralOf(std::string_view text) {
  Literal literal;
  literal.length = static_cast<unsigned char>(text.copy(literal.bytes.data(), text.size()));
  return literal;
}

/// `first` and `second` in one, without what has no room at the end or at the beginning.
class Joined {
 public:
  Joined(const Literal& first, const Literal& second) {
    length_ = first.Text().copy(bytes_, first.length);
    length_ += second.Text().copy(bytes_ + length_, second.length);
  }
  bool Fits() const { return length_ <= Literal::kCapacity; }
  Literal Beginning() const { return LiteralOf({bytes_, Kept()}); }
  Literal End() const { return LiteralOf({bytes_ + length_ - Kept(), Kept()}); }

 private:
  size_t Kept() const { return std::min(length_, Literal::kCapacity); }

  char bytes_[2 * Literal::kCapacity] = {};
  size_t length_ = 0;
};

// The longer the shortest literal, the rarer the lines that hold one.
size_t ShortestOf(const LiteralSet& set) {
  size_t shortest = Literal::kCapacity;
  for (const Literal& literal : set) shortest = std::min<size_t>(shortest, literal.length);
  return set.count == 0 ? 0 : shortest;
}

void PreferLiteral(const Literal& literal, LiteralSet* set) {
  const size_t shortest = ShortestOf(*set);
  if (literal.length < shortest || (literal.length == shortest && set->count <= 1)) return;
  set->literals[0] = literal;
  set->count = 1;
}

LiteralSet BestOf(const Facts& facts) {
  LiteralSet best = facts.inside;
  PreferLiteral(facts.head, &best);
  PreferLiteral(facts.tail, &best);
  return best;
}

void Append(const Facts& part, Facts* whole) {
  PreferLiteral(Joined(whole->tail, part.head).Beginning(), &whole->inside);
  if (ShortestOf(part.inside) > ShortestOf(whole->inside)) whole->inside = part.inside;
  const Joined head(whole->head, part.head);
  const Joined tail(whole->tail, part.tail);
  if (whole->exact) whole->head = head.Beginning();
  whole->tail = part.exact ? tail.End() : part.tail;
  whole->exact = whole->exact && part.exact && head.Fits();
}

// What both have in common is kept: in "(error|errors) of", " of" follows either.
Literal CommonBeginning(std::string_view a, std::string_view b) {
  const auto [end, unused] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
  return LiteralOf(a.substr(0, static_cast<size_t>(end - a.begin())));
}

Literal CommonEnd(std::string_view a, std::string_view b) {
  const auto [end, unused] = std::mismatch(a.rbegin(), a.rend(), b.rbegin(), b.rend());
  const auto length = static_cast<size_t>(end - a.rbegin());
  return LiteralOf(a.substr(a.size() - length));
}

// None when either has none, or when there is no room for all.
LiteralSet Union(LiteralSet all, const LiteralSet& more) {
  if (all.count == 0 || more.count == 0 || all.count + more.count > LiteralSet::kCapacity)
    return {};
  for (const Literal& literal : more) all.literals.at(all.count++) = literal;
  return all;
}

void AddAlternative(const Facts& branch, Facts* whole) {
  whole->inside = Union(BestOf(*whole), BestOf(branch));
  whole->head = CommonBeginning(whole->head.Text(), branch.head.Text());
  whole->tail = CommonEnd(whole->tail.Text(), branch.tail.Text());
  whole->exact = false;
}

bool IsOneOf(char byte, const char* bytes) {
  return byte != '\0' && strchr(bytes, byte) != nullptr;
}

bool IsLetterOrDigit(char byte) {
  const unsigned char folded = FoldCase(static_cast<unsigned char>(byte));
  return (folded >= 'a' && folded <= 'z') || (folded >= '0' && folded <= '9');
}

Facts Byte(char byte) {
  const unsigned char folded = FoldCase(static_cast<unsigned char>(byte));
  if (folded >= 128) return Anything();
  Facts facts = Nothing();
  const char text = static_cast<char>(folded);
  facts.head = facts.tail = LiteralOf({&text, 1});
  return facts;
}

/// Reads a pattern from left to right. Each function reads one thing and tells the facts of it. It
/// returns false when the pattern is not understood, and then nothing is known of any part of it.
class Parser {
 public:
  explicit Parser(const char* pattern) : at_(pattern) {}

  bool Pattern(Facts* facts) { return Alternatives(0, facts) && *at_ == '\0'; }

 private:
  bool Alternatives(int depth, Facts* facts) {
    if (!Sequence(depth, facts)) return false;
    while (*at_ == '|') {
      ++at_;
      Facts branch;
      if (!Sequence(depth, &branch)) return false;
      AddAlternative(branch, facts);
    }
    return true;
  }

  bool Sequence(int depth, Facts* facts) {
    *facts = Nothing();
    while (!IsEndOfSequence(depth)) {
      Facts part;
      if (!Part(depth, &part)) return false;
      Append(part, facts);
    }
    return true;
  }

  // A parenthesis that closes nothing stands for itself.
  bool IsEndOfSequence(int depth) const {
    return *at_ == '\0' || *at_ == '|' || (depth > 0 && *at_ == ')');
  }

  bool Part(int depth, Facts* facts) {
    if (TakeAnchor()) {
      *facts = Nothing();
      return true;  // nothing repeats an anchor: an operator after it is met again and refused
    }
    if (!Atom(depth, facts)) return false;
    while (IsOneOf(*at_, "*+?{")) {
      bool may_be_absent = false;
      if (!Repetition(&may_be_absent)) return false;
      if (may_be_absent) *facts = Anything();
      facts->exact = false;
    }
    return true;
  }

  bool TakeAnchor() {
    const bool escaped = *at_ == '\\' && IsOneOf(at_[1], "<>bB`'");
    if (!escaped && !IsOneOf(*at_, "^$")) return false;
    at_ += escaped ? 2 : 1;
    return true;
  }

  bool Atom(int depth, Facts* facts) {
    if (IsOneOf(*at_, "*+?{")) return false;
    if (*at_ == '(') return Group(depth + 1, facts);
    if (*at_ == '[') return Bracket(facts);
    if (*at_ == '\\') return Escape(facts);
    *facts = *at_ == '.' ? Anything() : Byte(*at_);
    ++at_;
    return true;
  }

  bool Group(int depth, Facts* facts) {
    ++at_;
    if (depth > kDeepestGroup || !Alternatives(depth, facts) || *at_ != ')') return false;
    ++at_;
    return true;
  }

  // A digit refers back to what a group has matched. "\w" and its like are sets; what the other
  // letters mean is not defined.
  bool Escape(Facts* facts) {
    const char byte = at_[1];
    if (byte == '\0' || (byte >= '1' && byte <= '9')) return false;
    *facts = IsLetterOrDigit(byte) ? Anything() : Byte(byte);
    at_ += 2;
    return true;
  }

  // "[.]" is how many write a dot, and "[Ee]" an E of either case: sets of one byte. A hyphen
  // counts as a member, so that no range is taken for one byte.
  bool Bracket(Facts* facts) {
    ++at_;
    bool one_byte = *at_ != '^';
    if (!one_byte) ++at_;
    const char* first = at_;
    while (*at_ != ']' || at_ == first) {
      if (*at_ == '\0') return false;
      if (*at_ == '[' && IsOneOf(at_[1], ".=:")) {
        one_byte = false;
        if (!SkipNamedMember()) return false;
        continue;
      }
      if (FoldCase(static_cast<unsigned char>(*at_)) !=
          FoldCase(static_cast<unsigned char>(*first)))
        one_byte = false;
      ++at_;
    }
    *facts = one_byte ? Byte(*first) : Anything();
    ++at_;
    return true;
  }

  // "[:alpha:]", "[=a=]" or "[.hyphen.]".
  bool SkipNamedMember() {
    const char end[] = {at_[1], ']', '\0'};
    const char* found = strstr(at_ + 2, end);
    if (found == nullptr) return false;
    at_ = found + 2;
    return true;
  }

  bool Repetition(bool* may_be_absent) {
    const char byte = *at_++;
    if (byte == '{') return Interval(may_be_absent);
    *may_be_absent = byte != '+';
    return true;
  }

  // What follows the brace: "3}", "3,}", "3,5}", or ",5}" for "0,5}".
  bool Interval(bool* may_be_absent) {
    const std::string_view rest(at_);
    const size_t end = std::min(rest.find('}'), rest.size());
    const std::string_view bounds = rest.substr(0, end);
    if (end == rest.size() || bounds.empty()) return false;
    if (bounds.find_first_not_of("0123456789,") != std::string_view::npos) return false;
    if (bounds.find(',') != bounds.rfind(',')) return false;
    const std::string_view lowest = bounds.substr(0, bounds.find(','));
    *may_be_absent = lowest.find_first_not_of('0') == std::string_view::npos;
    at_ += end + 1;
    return true;
  }

  const char* at_;
};

}  // namespace

LiteralSet MandatoryLiterals(const char* pattern) {
  Facts facts;
  return Parser(pattern).Pattern(&facts) ? BestOf(facts) : LiteralSet{};
}

}  // namespace zevd
