// The grammar is that of the system's regcomp() with REG_EXTENDED. Nothing here recurses.
#include "hard_pattern.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace zevd {

namespace {

constexpr size_t kMany = size_t{1} << 24;  ///< beyond every bound; sums and products end here
constexpr size_t kVague = 8;               ///< this many optional parts make a length unknown
constexpr size_t kLargestCount = 32767;    ///< the matcher refuses larger ones

size_t Sum(size_t a, size_t b) {
  return std::min(a + b, kMany);
}

size_t Product(size_t a, size_t b) {
  return std::min(a * b, kMany);
}

/// What the matcher makes of a part of a pattern.
struct Cost {
  size_t size = 0;       ///< nodes
  size_t optional = 0;   ///< those of them that may be skipped
  size_t doubling = 0;   ///< those that may double the work on all others
  size_t choices = 0;    ///< those that match different bytes, and groups of alternatives
  size_t late = 0;       ///< choices after a part of unknown length
  bool endless = false;  ///< it may be of any length
  bool may_be_absent = true;

  bool IsVague() const { return endless || optional >= kVague; }

  /// `part` follows.
  void Append(const Cost& part) {
    late = Sum(late, IsVague() ? part.choices : part.late);
    choices = Sum(choices, part.choices);
    endless = endless || part.endless;
    size = Sum(size, part.size);
    optional = Sum(optional, part.optional);
    doubling = Sum(doubling, part.doubling);
    may_be_absent = may_be_absent && part.may_be_absent;
  }
};

/// A group that has been begun, or the whole pattern.
struct Level {
  Cost branches;  ///< the alternatives that are complete
  bool any_branch_empty = false;
  size_t branch_count = 0;
  Cost branch;  ///< the present alternative without its last part
  Cost part;    ///< the last one: what a repetition would repeat

  void EndPart() {
    branch.Append(part);
    part = {};
  }

  void EndBranch() {
    EndPart();
    branches.size = Sum(branches.size, branch.size + 1);
    branches.optional = Sum(branches.optional, branch.optional + (branch.may_be_absent ? 1 : 0));
    branches.doubling = Sum(branches.doubling, branch.doubling);
    branches.choices = Sum(branches.choices, branch.choices);
    branches.late = Sum(branches.late, branch.late);
    branches.endless = branches.endless || branch.endless;
    ++branch_count;
    any_branch_empty = any_branch_empty || branch.may_be_absent;
    branch = {};
  }

  Cost AsPart() {
    EndBranch();
    Cost cost = branches;
    cost.may_be_absent = any_branch_empty;
    if (branch_count > 1) cost.choices = Sum(cost.choices, 1);
    return cost;
  }
};

/// How often a part is repeated. The matcher copies it for each time, except for an endless last
/// one, which is a loop.
struct Repetition {
  size_t lowest;
  size_t copies;
  bool endless;
};

bool IsDigit(char byte) {
  return byte >= '0' && byte <= '9';
}

class Judge {
 public:
  explicit Judge(const char* pattern) : at_(pattern) {}

  bool IsHard() {
    while (*at_ != '\0' && !hard_) Step();
    // With a group that was never closed, the matcher refuses the pattern.
    return hard_ || IsTooMuch(Here().AsPart());
  }

 private:
  void Step() {
    switch (*at_) {
      case '\\':
        return Escape();
      case '[':
        return Bracket();
      case '(':
        return OpenGroup();
      case ')':
        return CloseGroup();
      case '|':
        ++at_;
        return Here().EndBranch();
      case '*':
      case '?':
      case '+':
      case '{':
        return Repeat();
      case '^':
      case '$':
        return Anchor(1);
      case '.':
        return Choice(1);
      default:
        return Atom(1);
    }
  }

  Level& Here() { return levels_.at(depth_); }

  void Atom(size_t bytes) {
    at_ += bytes;
    Here().EndPart();
    Here().part = {};
    Here().part.size = 1;
    Here().part.may_be_absent = false;
  }

  void Choice(size_t bytes) {
    Atom(bytes);
    Here().part.choices = 1;
  }

  // The matcher steps over an anchor without reading a byte, and keeps what follows the anchor
  // apart from what follows its alternatives.
  void Anchor(size_t bytes) {
    Atom(bytes);
    Cost& part = Here().part;
    part.optional = 1;
    part.doubling = depth_ == 0 ? 0 : 1;
    part.may_be_absent = true;
  }

  void Escape() {
    const char byte = at_[1];
    hard_ = byte >= '1' && byte <= '9';
    if (byte == '\0') return Atom(1);
    if (strchr("<>bB`'", byte) != nullptr) return Anchor(2);
    return strchr("wWsS", byte) == nullptr ? Atom(2) : Choice(2);
  }

  void OpenGroup() {
    ++at_;
    if (depth_ == kDeepestPattern) {
      hard_ = true;
      return;
    }
    Here().EndPart();
    levels_.at(++depth_) = {};
  }

  // A parenthesis that closes nothing stands for itself.
  void CloseGroup() {
    if (depth_ == 0) return Atom(1);
    ++at_;
    const Cost group = Here().AsPart();
    --depth_;
    Here().part = group;
  }

  // A bracket that is not closed is refused, and nothing after it is read.
  void Bracket() {
    const char* end = at_ + 1;
    if (*end == '^') ++end;
    const char* first = end;
    while (*end != '\0' && (*end != ']' || end == first)) end = PastMember(end);
    Choice(static_cast<size_t>(end - at_) + (*end == ']' ? 1 : 0));
  }

  // "[:alpha:]", "[=a=]" and "[.hyphen.]" are members with a bracket of their own.
  static const char* PastMember(const char* member) {
    if (*member != '[' || member[1] == '\0' || strchr(".=:", member[1]) == nullptr)
      return member + 1;
    const char closing[] = {member[1], ']', '\0'};
    const char* found = strstr(member + 2, closing);
    return found == nullptr ? member + strlen(member) : found + 2;
  }

  void Repeat() {
    const Repetition times = ReadRepetition();
    Cost& part = Here().part;
    const size_t size = Product(part.size, times.copies);
    copies_ = Sum(copies_, size - std::min(size, part.size));
    part.size = size;
    part.optional = Sum(Product(part.optional, times.copies), times.copies - times.lowest);
    part.late = LateOf(part, times);
    part.choices = Product(part.choices, times.copies - (times.endless ? 1 : 0));
    part.endless = part.endless || times.endless;
    part.doubling = Product(part.doubling, times.copies);
    if (part.may_be_absent) part.doubling = Sum(part.doubling, times.copies);
    part.may_be_absent = part.may_be_absent || times.lowest == 0;
    hard_ = copies_ > kMostCopies || IsTooMuch(part);
  }

  // What is repeated follows itself.
  static size_t LateOf(const Cost& part, const Repetition& times) {
    const bool one_node = part.size == 1;
    if (times.endless) return one_node ? 0 : Product(part.choices, times.copies);
    const bool vague = part.IsVague() || times.copies - times.lowest >= kVague;
    if (!vague || times.copies == 1) return part.late;
    return Sum(part.late, Product(part.choices, times.copies - 1));
  }

  static bool IsTooMuch(const Cost& part) {
    return part.optional > kMostOptional || part.doubling > kMostDoubling ||
           part.late > kMostLateChoices;
  }

  Repetition ReadRepetition() {
    const char byte = *at_++;
    if (byte == '{') return ReadCount();
    if (byte == '?') return {0, 1, false};
    return byte == '+' ? Repetition{1, 2, true} : Repetition{0, 1, true};
  }

  // What follows the brace: "3}", "3,}", "3,5}", or ",5}" for "0,5}". Anything else is refused.
  Repetition ReadCount() {
    const size_t lowest = ReadNumber();
    size_t highest = lowest;
    bool endless = false;
    if (*at_ == ',') {
      ++at_;
      endless = !IsDigit(*at_);
      highest = endless ? lowest + 1 : ReadNumber();
    }
    if (*at_ == '}') ++at_;
    highest = std::max({highest, lowest, size_t{1}});
    return {std::min(lowest, highest), highest, endless};
  }

  size_t ReadNumber() {
    size_t number = 0;
    for (; IsDigit(*at_); ++at_) {
      number = std::min(number * 10 + static_cast<size_t>(*at_ - '0'), kLargestCount);
    }
    return number;
  }

  const char* at_;
  bool hard_ = false;
  size_t copies_ = 0;
  size_t depth_ = 0;
  std::array<Level, kDeepestPattern + 1> levels_;
};

}  // namespace

bool IsHardPattern(const char* pattern) {
  return Judge(pattern).IsHard();
}

}  // namespace zevd
