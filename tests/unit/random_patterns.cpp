#include "random_patterns.h"

#include <cstdlib>
#include <string_view>

namespace test {

namespace {

constexpr int kDeepestGroup = 3;
// Each repetition of something that may match nothing can double the time that the system takes to
// compile a pattern, or multiply it by the number of alternatives; "(a?|b?|)+*" is already too
// much.
constexpr int kMostRepetitions = 6;
constexpr int kMostRepeatedGroups = 1;
constexpr int kMostAlternatives = 4;
constexpr size_t kLastReference = 9;
constexpr size_t kLongestLine = 120;

// Few letters, so that lines meet literals by chance too; and bytes of all other kinds.
constexpr std::string_view kPlain = "aabbccABCxyz0123 -_:,\"'/<>=@`~!#%&;]}\t\x01\xc3\xa9\xff";
constexpr std::string_view kOperators = "*+?{}()[]|.^$\\";
constexpr const char* kWords[] = {"disk", "error", "Fan", "LINK", "is down", "port 1", "ab", "abc"};
constexpr const char* kAnchors[] = {"^", "$", "\\b", "\\B", "\\<", "\\>", "\\`", "\\'"};

/// A piece of a pattern and a text for it.
struct Piece {
  std::string pattern;
  std::string sample;
};

constexpr struct {
  const char* pattern;
  const char* samples;  ///< each byte is one
} kSets[] = {
    {".", "aB0 -\xe9"},
    {"\\w", "aB0_"},
    {"\\W", " -:"},
    {"\\s", " \t"},
    {"\\S", "aB0-"},
    {"[abc]", "abc"},
    {"[a-c]", "abc"},
    {"[^abc]", "xyz0 "},
    {"[Aa]", "aA"},
    {"[]x]", "]x"},
    {"[^]x]", "ab0"},
    {"[[]", "["},
    {"[.]", "."},
    {"[*]", "*"},
    {"[a[]", "a["},
    {"[[:digit:]]", "0123"},
    {"[[:alpha:]_]", "aB_"},
    {"[^[:space:]]", "aB0-"},
    {"[[:upper:]]", "ABC"},
    {"[[=a=]b]", "ab"},
    {"[[.-.]a]", "-a"},
    {"[[.].]a]", "]a"},
    {"[a\\]", "a\\"},
    {"[\\]]", "?"},
    {"[x-]", "x-"},
    {"[-x]", "-x"},
    {"[+--]", "+,-"},
    {"[(|)]", "(|)"},
    {"[{}]", "{}"},
    {"[\xe9z]", "\xe9z"},
    {"[B]", "B"},
    {"[$]", "$"},
    {"[a-]x]", "?"},
};

constexpr struct {
  const char* pattern;
  size_t lowest;
  size_t highest;  ///< of those that samples have
} kRepetitions[] = {
    {"*", 0, 2},    {"?", 0, 1},     {"+", 1, 3},     {"{2}", 2, 2},  {"{1}", 1, 1},
    {"{0}", 0, 0},  {"{0,2}", 0, 2}, {"{1,2}", 1, 2}, {"{,2}", 0, 2}, {"{1,}", 1, 3},
    {"{0,}", 0, 2}, {"{,}", 0, 2},   {"*?", 0, 1},    {"+*", 0, 2},   {"{2}?", 0, 0},
};

constexpr size_t kRepetitionsOfGroups = 12;  // without those of two operators

class Generator {
 public:
  explicit Generator(Dice& dice) : dice_(dice), may_refer_(dice.OneIn(8)) {}

  Piece Alternatives(int depth) {
    Piece piece = Sequence(depth);
    for (int more = kMostAlternatives - 1; more > 0 && dice_.OneIn(depth == 0 ? 6 : 2); --more) {
      const Piece other = dice_.OneIn(8) ? Piece{} : Sequence(depth);
      piece.pattern += "|" + other.pattern;
      if (dice_.OneIn(2)) piece.sample = other.sample;
    }
    return piece;
  }

 private:
  Piece Sequence(int depth) {
    Piece piece;
    if (dice_.OneIn(12)) return piece;
    const size_t length = 1 + dice_.Below(depth == 0 ? 6 : 3);
    for (size_t i = 0; i < length; ++i) {
      const Piece part = Part(depth);
      piece.pattern += part.pattern;
      piece.sample += part.sample;
    }
    return piece;
  }

  Piece Part(int depth) {
    if (dice_.OneIn(16)) return {dice_.Choose(kAnchors), ""};
    if (depth == 0 && may_refer_ && dice_.OneIn(4)) return Reference();
    Piece piece = Atom(depth);
    if (!dice_.OneIn(3) || !MayRepeat(piece)) return piece;
    const size_t kinds = IsGroup(piece) ? kRepetitionsOfGroups : std::size(kRepetitions);
    const auto& repetition = kRepetitions[dice_.Below(kinds)];
    const size_t times =
        repetition.lowest + dice_.Below(repetition.highest - repetition.lowest + 1);
    std::string sample;
    for (size_t i = 0; i < times; ++i) sample += piece.sample;
    return {piece.pattern + repetition.pattern, sample};
  }

  Piece Atom(int depth) {
    switch (dice_.Below(12)) {
      case 0:
      case 1:
        return Set();
      case 2:
      case 3:
      case 4:
        if (depth < kDeepestGroup) return Group(depth + 1);
        return Byte();
      case 5:
      case 6: {
        const char* word = dice_.Choose(kWords);
        return {word, word};
      }
      case 7:
        return Escaped();
      default:
        return Byte();
    }
  }

  static bool IsGroup(const Piece& piece) { return piece.pattern.front() == '('; }

  bool MayRepeat(const Piece& piece) {
    if (++repetitions_ > kMostRepetitions) return false;
    return !IsGroup(piece) || ++repeated_groups_ <= kMostRepeatedGroups;
  }

  Piece Byte() {
    const std::string byte(1, dice_.Choose(kPlain));
    return {byte, byte};
  }

  Piece Set() {
    const auto& set = dice_.Choose(kSets);
    const std::string_view samples = set.samples;
    return {set.pattern, std::string(1, dice_.Choose(samples))};
  }

  Piece Escaped() {
    const char byte =
        dice_.OneIn(4) ? dice_.Choose(std::string_view("adnQ0,-\"")) : dice_.Choose(kOperators);
    return {std::string("\\") + byte, std::string(1, byte)};
  }

  Piece Group(int depth) {
    ++groups_;
    const Piece inner = Alternatives(depth);
    return {"(" + inner.pattern + ")", inner.sample};
  }

  // For some references to groups that match nothing, or differently each time, the system's
  // matcher calls itself until the stack overflows; those are not made.
  Piece Reference() {
    if (groups_ >= kLastReference) return Byte();
    ++groups_;
    const Piece referred = dice_.OneIn(2) ? Set() : Byte();
    const Piece between = Byte();
    return {"(" + referred.pattern + ")" + between.pattern + "\\" + std::to_string(groups_),
            referred.sample + between.sample + referred.sample};
  }

  Dice& dice_;
  bool may_refer_;
  size_t groups_ = 0;
  int repetitions_ = 0;
  int repeated_groups_ = 0;
};

char OtherCase(char byte) {
  const bool is_letter = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z');
  return is_letter ? static_cast<char>(byte ^ 0x20) : byte;
}

void ChangeCase(std::string& text, Dice& dice) {
  for (char& byte : text) {
    if (dice.OneIn(2)) byte = OtherCase(byte);
  }
}

// A byte is lost, another one, or only of the other case.
void Damage(std::string& text, Dice& dice) {
  if (text.empty()) return;
  char& byte = text[dice.Below(text.size())];
  switch (dice.Below(3)) {
    case 0:
      text.erase(static_cast<size_t>(&byte - text.data()), 1);
      break;
    case 1:
      byte = dice.Choose(kPlain);
      break;
    default:
      byte = OtherCase(byte);
  }
}

std::string Noise(Dice& dice) {
  std::string noise;
  for (size_t left = dice.Below(6); left > 0; --left) noise += dice.Choose(kPlain);
  return noise;
}

std::string FromSample(const RandomPattern& pattern, Dice& dice) {
  std::string text = pattern.sample;
  if (pattern.any_case) ChangeCase(text, dice);
  if (dice.OneIn(3)) Damage(text, dice);
  if (dice.OneIn(8)) text = text.substr(dice.Below(text.size() + 1));
  return text;
}

}  // namespace

unsigned Seed() {
  const char* seed = getenv("ZEVD_TEST_SEED");
  return seed == nullptr ? 1 : static_cast<unsigned>(strtoul(seed, nullptr, 10));
}

RandomPattern MakePattern(Dice& dice) {
  const Piece piece = Generator(dice).Alternatives(0);
  return {piece.pattern, piece.sample, dice.OneIn(3)};
}

std::string MakeLine(const std::vector<RandomPattern>& patterns, Dice& dice) {
  std::string line;
  do {
    if (dice.OneIn(3)) line += Noise(dice);
    line += FromSample(dice.Choose(patterns), dice);
    if (dice.OneIn(3)) line += Noise(dice);
  } while (dice.OneIn(3));
  return line.substr(0, kLongestLine) + (dice.OneIn(2) ? "\n" : "");
}

}  // namespace test
