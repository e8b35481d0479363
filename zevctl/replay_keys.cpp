#include "replay_keys.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "utf8.h"

namespace zevctl {

namespace {

constexpr char kEscapeByte = 0x1B;
constexpr size_t kLongestSequence = 32;

struct SingleByte {
  char byte;
  Key key;
};

constexpr std::array kSingleBytes = {
    SingleByte{'\r', Key::kEnter},     SingleByte{'\n', Key::kEnter},
    SingleByte{'\b', Key::kBackspace}, SingleByte{0x7F, Key::kBackspace},
    SingleByte{0x03, Key::kInterrupt}, SingleByte{0x1A, Key::kStop},
};

struct Sequence {
  std::string_view text;  // without the escape character; "O" as first character is read as "["
  Key key;
};

constexpr std::array kSequences = {
    Sequence{"[D", Key::kLeft},     Sequence{"[C", Key::kRight}, Sequence{"[H", Key::kHome},
    Sequence{"[1~", Key::kHome},    Sequence{"[7~", Key::kHome}, Sequence{"[F", Key::kEnd},
    Sequence{"[4~", Key::kEnd},     Sequence{"[8~", Key::kEnd},  Sequence{"[d", Key::kFarLeft},
    Sequence{"[c", Key::kFarRight},
};

// Any modifier makes the arrow go farther: "[1;2D" is the left one with shift.
std::optional<Key> KeyOf(std::string text) {
  if (text[0] == 'O') text[0] = '[';
  if (text.starts_with("[1;") && text.back() == 'D') return Key::kFarLeft;
  if (text.starts_with("[1;") && text.back() == 'C') return Key::kFarRight;
  for (const Sequence& known : kSequences) {
    if (known.text == text) return known.key;
  }
  return {};
}

bool Ends(char byte) {
  return byte >= '@' && byte <= '~';
}

// Of the sequence at the front, without the escape character; 0 while it is not complete.
size_t SequenceLength(std::string_view text) {
  if (text.empty()) return 0;
  if (text[0] != '[' && text[0] != 'O') return 1;
  const auto* const end = std::find_if(text.begin() + 1, text.end(), Ends);
  if (end != text.end()) return static_cast<size_t>(end - text.begin()) + 1;
  return text.size() > kLongestSequence ? text.size() : 0;
}

}  // namespace

std::vector<KeyPress> KeyReader::Take(std::string_view bytes) {
  pending_ += bytes;
  std::vector<KeyPress> keys;
  while (!pending_.empty() && TakeOne(keys)) {
  }
  return keys;
}

std::vector<KeyPress> KeyReader::Decide() {
  const std::string rest = std::exchange(pending_, "");
  if (rest.empty()) return {};
  return {{Key::kEscape, ""}};
}

bool KeyReader::TakeOne(std::vector<KeyPress>& keys) {
  const char first = pending_[0];
  if (first == kEscapeByte) {
    const size_t length = SequenceLength(std::string_view(pending_).substr(1));
    if (length == 0) return false;
    const auto key = KeyOf(pending_.substr(1, length));
    if (key) keys.push_back({*key, ""});
    pending_.erase(0, 1 + length);
    return true;
  }
  for (const SingleByte& known : kSingleBytes) {
    if (known.byte != first) continue;
    keys.push_back({known.key, ""});
    pending_.erase(0, 1);
    return true;
  }
  const size_t length = std::max<size_t>(zevd::Utf8Length(pending_), 1);
  if (length > 1 || first >= ' ') keys.push_back({Key::kText, pending_.substr(0, length)});
  pending_.erase(0, length);
  return true;
}

}  // namespace zevctl
