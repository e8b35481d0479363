#include "utf8.h"

#include <cstdint>
#include <cstring>

namespace zevd {

namespace {

/// The first bytes of characters of more than one byte, and what may come next (RFC 3629).
struct LeadRow {
  uint8_t first;
  uint8_t last;
  uint8_t length;
  uint8_t low;  // bounds of the second byte
  uint8_t high;
};

constexpr LeadRow kLeads[] = {
    {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF}, {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF}, {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

uint8_t ByteOf(std::string_view text, size_t index) {
  return static_cast<uint8_t>(text[index]);
}

bool Matches(std::string_view text, const LeadRow& row) {
  if (text.size() < row.length || ByteOf(text, 1) < row.low || ByteOf(text, 1) > row.high) {
    return false;
  }
  for (size_t i = 2; i < row.length; ++i) {
    if ((ByteOf(text, i) & 0xC0) != 0x80) return false;
  }
  return true;
}

// `length` is that of the character, 0 for a byte that is part of none.
bool IsControl(std::string_view text, size_t length) {
  const uint8_t first = ByteOf(text, 0);
  if (length == 0) return first < 0xA0;
  if (length == 1) return (first < 0x20 && first != '\t') || first == 0x7F;
  return first == 0xC2 && ByteOf(text, 1) < 0xA0;
}

// Replaces the control characters in the first `size` bytes. Returns the new size.
size_t ReplaceIn(char* text, size_t size) {
  std::string_view rest(text, size);
  char* out = text;
  while (!rest.empty()) {
    const size_t length = Utf8Length(rest);
    const size_t taken = length == 0 ? 1 : length;
    if (IsControl(rest, length)) {
      *out++ = '?';
    } else {
      memmove(out, rest.data(), taken);
      out += taken;
    }
    rest.remove_prefix(taken);
  }
  return static_cast<size_t>(out - text);
}

}  // namespace

size_t Utf8Length(std::string_view text) {
  const uint8_t first = ByteOf(text, 0);
  if (first < 0x80) return 1;
  for (const LeadRow& row : kLeads) {
    if (first >= row.first && first <= row.last) return Matches(text, row) ? row.length : 0;
  }
  return 0;
}

void ReplaceControls(char* text) {
  text[ReplaceIn(text, strlen(text))] = '\0';
}

void ReplaceControlsOfLine(char* text) {
  const size_t size = strlen(text);
  size_t end = size;
  while (end > 0 && (text[end - 1] == '\n' || text[end - 1] == '\r')) --end;
  const size_t kept = ReplaceIn(text, end);
  memmove(text + kept, text + end, size - end + 1);
}

}  // namespace zevd
