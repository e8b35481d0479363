#include "utf8_joiner.h"

#include <algorithm>

#include "utf8.h"

namespace zevctl {

namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD in UTF-8

// How long the character is that begins with the byte; 0 when none does.
size_t LengthBy(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first <= 0xDF) return 2;
  if (first >= 0xE0 && first <= 0xEF) return 3;
  return first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

// Whether more bytes could make a character of it. The second byte has one of three ranges, and
// each range has one of these bytes.
bool CanBecomeCharacter(std::string_view text) {
  const size_t length = LengthBy(static_cast<unsigned char>(text[0]));
  if (text.size() >= length) return false;
  for (const char* const rest : {"\x80\x80\x80", "\x90\x80\x80", "\xA0\x80\x80"}) {
    const std::string whole = std::string(text) + rest;
    if (zevd::Utf8Length(std::string_view(whole).substr(0, length)) == length) return true;
  }
  return false;
}

size_t AsciiAtFront(std::string_view text) {
  const auto* const other =
      std::find_if(text.begin(), text.end(), [](char byte) { return (byte & 0x80) != 0; });
  return static_cast<size_t>(other - text.begin());
}

}  // namespace

std::string Utf8Joiner::Take(std::string_view bytes) {
  const std::string text = begun_ + std::string(bytes);
  begun_.clear();
  std::string whole;
  std::string_view rest = text;
  while (!rest.empty()) {
    const size_t length = std::max(AsciiAtFront(rest), zevd::Utf8Length(rest));
    if (length > 0) {
      whole += rest.substr(0, length);
    } else if (CanBecomeCharacter(rest)) {
      begun_ = rest;
      break;
    } else {
      whole += kReplacement;
    }
    rest.remove_prefix(std::max<size_t>(length, 1));
  }
  return whole;
}

std::string Utf8Joiner::Finish() {
  std::string end(begun_.empty() ? std::string_view() : kReplacement);
  begun_.clear();
  return end;
}

}  // namespace zevctl
